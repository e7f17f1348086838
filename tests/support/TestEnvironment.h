// A temporary world for one test executable: home, data, config and runtime folders, a bundle
// stand-in (Info.plist of version 1.0.0, a runtime folder), a volume folder, and the log read back.
#pragma once

#include "app/Configuration.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>

class TestEnvironment {
public:
    // Points HOME and the XDG folders into a new temporary folder. Create it before anything
    // logs: the shared log is placed on first use.
    TestEnvironment();

    QString root() const { return dir_.path(); }
    QString home() const { return root() + QStringLiteral("/home"); }
    QString dataHome() const { return home() + QStringLiteral("/.local/share"); }
    QString configHome() const { return home() + QStringLiteral("/.config"); }
    QString runtimeStateDir() const { return root() + QStringLiteral("/run"); }
    QString resourceDir() const { return root() + QStringLiteral("/share/quillmere-menu"); }
    QString runtimeDir() const { return resourceDir() + QStringLiteral("/runtime"); }
    QString volumesDir() const { return root() + QStringLiteral("/volumes"); }
    QString logsDir() const { return dataHome() + QStringLiteral("/TallyholdAgent/runtime/logs"); }

    // A configuration that reaches only this environment and the given agent address.
    Configuration configuration(const QUrl &agentBase) const;
    // An executable shell script (the text after the #! line).
    static void writeScript(const QString &path, const QString &body);
    static QString shellQuoted(const QString &text);
    // The lines of a log file without their timestamps.
    static QStringList logMessagesIn(const QString &file);

    // Lines of the shared log after the last markLog(), once all queued lines are written.
    void markLog();
    QStringList messagesSinceMark() const;

private:
    QStringList logMessages() const;
    QTemporaryDir dir_;
    qsizetype mark_ = 0;
};
