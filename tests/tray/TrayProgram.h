// The real program, copied into its installed layout, run on the X display and session bus the
// test runs on, with a control script that records each call and waits until the test lets it
// finish, and an xdg-open on PATH that records what the program opens.
#pragma once

#include "support/InstalledProgram.h"

#include <QProcess>
#include <QStringList>

class TrayProgram {
public:
    TrayProgram();

    const InstalledProgram &installed() const { return installed_; }
    // Valid once started.
    QProcess &process() { return *process_; }
    void start(quint16 agentPort);

    // Arguments the control script was run with, in order ("start", "stop").
    QStringList controlCalls() const;
    // Lets the waiting control script run with this argument exit with the given code.
    void finishControlCall(const QString &argument, int exitCode = 0) const;
    // Every location handed to xdg-open, in order.
    QStringList openedLocations() const { return installed_.openedLocations(); }

    QString home() const { return installed_.homeOf(user); }
    QString autostartEntry() const;
    QStringList logMessages() const { return installed_.logMessages(user); }

private:
    static inline const QString user = QStringLiteral("first");

    InstalledProgram installed_;
    QProcess *process_ = nullptr;
    QString workDir_;
};
