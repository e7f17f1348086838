// A temporary world for one test executable: home and XDG folders, resources (Info.plist of version
// 1.0.0, a runtime folder), a volume folder, and the log read back.
#pragma once

#include "app/Configuration.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>

using namespace Qt::StringLiterals;

class TestEnvironment {
public:
    // Points HOME and XDG into a new temporary folder; made before anything logs (the log is placed then).
    TestEnvironment();

    QString root() const { return dir_.path(); }
    QString home() const { return root() + u"/home"_s; }
    QString dataHome() const { return home() + u"/.local/share"_s; }
    QString configHome() const { return home() + u"/.config"_s; }
    QString runtimeStateDir() const { return root() + u"/run"_s; }
    QString resourceDir() const { return root() + u"/share/quillmere-menu"_s; }
    QString runtimeDir() const { return resourceDir() + u"/runtime"_s; }
    QString volumesDir() const { return root() + u"/volumes"_s; }
    QString logsDir() const { return dataHome() + u"/TallyholdAgent/runtime/logs"_s; }

    // A configuration that reaches only this environment and the given agent address.
    Configuration configuration(const QUrl &agentBase) const;
    // An executable shell script (the text after the #! line).
    static void writeScript(const QString &path, const QString &body);
    static QString shellQuoted(const QString &text) { return u'\'' + QString(text).replace(u'\'', u"'\\''"_s) + u'\''; }
    // The lines of a log file without their timestamps.
    static QStringList logMessagesIn(const QString &file);

    // Lines of the shared log after the last markLog(), once all queued lines are written.
    void markLog() { mark_ += messagesSinceMark().size(); }
    QStringList messagesSinceMark() const;

private:
    QTemporaryDir dir_;
    qsizetype mark_ = 0;
};
