// The built program copied into a temporary install tree (bin/, share/quillmere-menu/ with
// Info.plist and runtime/), run as a real process with its own HOME, XDG folders, agent port
// and a recording xdg-open first on PATH.
#pragma once

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>
#include <vector>

class InstalledProgram {
public:
    InstalledProgram();
    ~InstalledProgram();

    InstalledProgram(const InstalledProgram &) = delete;
    InstalledProgram &operator=(const InstalledProgram &) = delete;

    QString root() const { return dir_.path(); }
    QString binDir() const { return root() + QStringLiteral("/bin"); }
    QString executable() const { return binDir() + QStringLiteral("/quillmere-menu"); }
    QString resourceDir() const { return root() + QStringLiteral("/share/quillmere-menu"); }
    QString runtimeDir() const { return resourceDir() + QStringLiteral("/runtime"); }
    QString controlScript() const { return runtimeDir() + QStringLiteral("/agentctl.sh"); }
    QString fakeBinDir() const { return root() + QStringLiteral("/fakebin"); }
    QString openedRecord() const { return root() + QStringLiteral("/xdg-open-calls"); }

    // A user of the program: home, data, config and runtime folders below root/users/<name>.
    QString homeOf(const QString &user) const { return root() + QStringLiteral("/users/") + user; }
    QString dataHomeOf(const QString &user) const { return homeOf(user) + QStringLiteral("/.local/share"); }
    QString configHomeOf(const QString &user) const { return homeOf(user) + QStringLiteral("/.config"); }
    QString logFileOf(const QString &user) const
    {
        return dataHomeOf(user) + QStringLiteral("/TallyholdAgent/runtime/logs/menu-app.log");
    }
    // Shared by every user of one tree, so that two copies see each other's instance lock.
    QString runtimeStateDir() const { return root() + QStringLiteral("/xdg-runtime"); }

    // By default a copy runs headless (offscreen, no display, no session bus). On the desktop it
    // keeps the display and session bus of the test and uses the X11 platform.
    void runOnDesktop(bool onDesktop) { onDesktop_ = onDesktop; }

    // Starts a copy as the given user, talking to an agent on agentPort; the tree owns it.
    QProcess *start(quint16 agentPort, const QStringList &arguments = {},
                    const QString &user = QStringLiteral("first"));

    // The log's messages without their timestamps.
    QStringList logMessages(const QString &user = QStringLiteral("first")) const;
    // Waits, serving events (the fake agent lives on this thread), until the log holds the line
    // at least `occurrences` times (runs of one user share a log).
    bool waitForLogMessage(const QString &message, const QString &user = QStringLiteral("first"), int timeoutMs = 15000,
                           int occurrences = 1) const;
    // Waits, serving events, until the process has ended.
    static bool waitForExit(QProcess *process, int timeoutMs = 15000);

    // Every location handed to xdg-open, in order.
    QStringList openedLocations() const;

private:
    QTemporaryDir dir_;
    bool onDesktop_ = false;
    std::vector<std::unique_ptr<QProcess>> processes_;
};
