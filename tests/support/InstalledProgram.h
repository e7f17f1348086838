// The built program in a temporary install tree, run with its own home, XDG and temporary folders,
// agent port, and a recording xdg-open first on PATH.
#pragma once

#include <QHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

class InstalledProgram {
public:
    // Headless by default; on a desktop's Qt platform it keeps the test's display and bus.
    explicit InstalledProgram(const QString &platform = u"offscreen"_s);
    ~InstalledProgram();

    QString root() const { return dir_.path(); }
    QString runtimeDir() const { return root() + u"/share/quillmere-menu/runtime"_s; }
    QString controlScript() const { return runtimeDir() + u"/agentctl.sh"_s; }
    // Each user has home and XDG folders of their own; the runtime folder (and instance lock) is shared.
    QString homeOf(const QString &user) const { return root() + u"/users/"_s + user; }

    // Starts a copy as the given user; the tree owns it. Its errors go where the test's go.
    QProcess *start(quint16 agentPort, const QStringList &arguments = {}, const QString &user = u"first"_s);
    // Runs a command to its end while this thread's events (the fake agent) keep running.
    struct Result {
        int exitCode = 0;
        QString output; // standard output, then standard error

        friend bool operator==(const Result &, const Result &) = default;
    };
    Result run(quint16 agentPort, const QStringList &arguments, const QString &user = u"first"_s);
    QString socketPath() const { return root() + u"/xdg-runtime/" QUILLMERE_BUNDLE_IDENTIFIER ".socket"_s; }
    // The user's log without timestamps (runs of one user share it).
    QStringList logMessages(const QString &user = u"first"_s) const;
    // Every location handed to xdg-open, in the order the program asked.
    QStringList openedLocations() const;

    // A command that the program is run through (another user's: setpriv ...); none by default.
    QStringList launcher;
    // Variables of the environment above set otherwise; a null value removes one.
    QHash<QString, QString> variables;

private:
    void launch(QProcess &process, quint16 agentPort, const QStringList &arguments, const QString &user) const;

    QTemporaryDir dir_;
    QString platform_;
    std::vector<std::unique_ptr<QProcess>> processes_;
};

inline char *toString(const InstalledProgram::Result &result)
{
    return QTest::toString(u"exit %1: %2"_s.arg(result.exitCode).arg(result.output));
}
