// The real program, copied into its installed layout, run on the X display and session bus the
// test runs on, with a control script that records each call and waits until the test lets it
// finish, and an xdg-open on PATH that records what the program opens.
#pragma once

#include "support/ProgramCopy.h"

#include <QProcess>
#include <QStringList>

class TrayProgram {
public:
    TrayProgram();
    ~TrayProgram();

    const ProgramCopy &copy() const { return copy_; }
    QProcess &process() { return process_; }
    void start(quint16 agentPort);

    // Arguments the control script was run with, in order ("start", "stop").
    QStringList controlCalls() const;
    // Lets the waiting control script run with this argument exit with the given code.
    void finishControlCall(const QString &argument, int exitCode = 0) const;
    // Every location handed to xdg-open, in order.
    QStringList openedLocations() const;

    QString autostartEntry() const;
    QStringList logMessages() const { return copy_.logMessages(); }

private:
    static QStringList readLines(const QString &path);

    ProgramCopy copy_;
    QProcess process_;
    QString workDir_;
};
