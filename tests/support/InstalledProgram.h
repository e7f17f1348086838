// The built program copied into a temporary install tree (bin/, share/quillmere-menu/ with
// Info.plist and runtime/), run as a real process with its own HOME, XDG folders, agent port
// and a recording xdg-open first on PATH. Header-only, for the black-box tests.
#pragma once

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <memory>

class InstalledProgram {
public:
    InstalledProgram()
    {
        if (!dir_.isValid())
            qFatal("no temporary folder for the install tree");
        for (const QString &path : {binDir(), runtimeDir(), fakeBinDir()})
            QDir().mkpath(path);
        if (!QFile::copy(QStringLiteral(QUILLMERE_TEST_BINARY), executable()))
            qFatal("cannot copy the program");
        if (!QFile::copy(QStringLiteral(QUILLMERE_BUILD_RESOURCES "/Info.plist"),
                         resourceDir() + QStringLiteral("/Info.plist")))
            qFatal("cannot copy Info.plist");
        writeExecutable(fakeBinDir() + QStringLiteral("/xdg-open"),
                        QStringLiteral("printf '%s\\n' \"$*\" >> ") + quoted(openedRecord()) + QLatin1Char('\n'));
    }

    ~InstalledProgram()
    {
        for (auto &process : processes_) {
            if (process->state() != QProcess::NotRunning) {
                process->kill();
                process->waitForFinished(5000);
            }
        }
    }

    QString root() const { return dir_.path(); }
    QString binDir() const { return root() + QStringLiteral("/bin"); }
    QString executable() const { return binDir() + QStringLiteral("/quillmere-menu"); }
    QString resourceDir() const { return root() + QStringLiteral("/share/quillmere-menu"); }
    QString runtimeDir() const { return resourceDir() + QStringLiteral("/runtime"); }
    QString controlScript() const { return runtimeDir() + QStringLiteral("/agentctl.sh"); }
    QString fakeBinDir() const { return root() + QStringLiteral("/fakebin"); }
    QString openedRecord() const { return root() + QStringLiteral("/xdg-open-calls"); }

    // A user of the program: home, data, config and runtime folders below root/<name>.
    QString homeOf(const QString &user) const { return root() + QStringLiteral("/users/") + user; }
    QString dataHomeOf(const QString &user) const { return homeOf(user) + QStringLiteral("/.local/share"); }
    QString configHomeOf(const QString &user) const { return homeOf(user) + QStringLiteral("/.config"); }
    QString logFileOf(const QString &user) const
    {
        return dataHomeOf(user) + QStringLiteral("/TallyholdAgent/runtime/logs/menu-app.log");
    }
    // Shared by every user of one tree, so that two copies see each other's instance lock.
    QString runtimeStateDir() const { return root() + QStringLiteral("/xdg-runtime"); }

    // Starts a copy as the given user, talking to an agent on agentPort.
    QProcess *start(quint16 agentPort, const QStringList &arguments = {}, const QString &user = QStringLiteral("first"))
    {
        for (const QString &path :
             {dataHomeOf(user), configHomeOf(user), runtimeStateDir(), root() + QStringLiteral("/volumes")})
            QDir().mkpath(path);
        // A session runtime folder belongs to its user alone; Qt warns about anything wider.
        QFile::setPermissions(runtimeStateDir(),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "QUILLMERE_VOLUMES_DIR"})
            environment.remove(QString::fromLatin1(name));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        environment.insert(QStringLiteral("HOME"), homeOf(user));
        environment.insert(QStringLiteral("XDG_DATA_HOME"), dataHomeOf(user));
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHomeOf(user));
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeStateDir());
        environment.insert(QStringLiteral("QUILLMERE_AGENT_PORT"), QString::number(agentPort));
        environment.insert(QStringLiteral("QUILLMERE_VOLUMES_DIR"), root() + QStringLiteral("/volumes"));
        environment.insert(QStringLiteral("PATH"),
                           fakeBinDir() + QLatin1Char(':') + environment.value(QStringLiteral("PATH")));

        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment);
        process->setProgram(executable());
        process->setArguments(arguments);
        process->setStandardOutputFile(QProcess::nullDevice());
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process->start();
        if (!process->waitForStarted(10000))
            qFatal("cannot start the program");
        processes_.push_back(std::move(process));
        return processes_.back().get();
    }

    QStringList logMessages(const QString &user = QStringLiteral("first")) const
    {
        QFile file(logFileOf(user));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        QStringList messages;
        const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (const QString &line : lines)
            messages.append(line.indexOf(QStringLiteral(" | ")) == 24 ? line.mid(27) : line);
        return messages;
    }

    // Waits, serving events (the fake agent lives on this thread), until the log holds the line
    // at least `occurrences` times (runs of one user share a log).
    bool waitForLogMessage(const QString &message, const QString &user = QStringLiteral("first"), int timeoutMs = 15000,
                           int occurrences = 1) const
    {
        QDeadlineTimer deadline(timeoutMs);
        while (logMessages(user).count(message) < occurrences) {
            if (deadline.hasExpired())
                return false;
            QTest::qWait(20);
        }
        return true;
    }

    // Waits, serving events, until the process has ended.
    static bool waitForExit(QProcess *process, int timeoutMs = 15000)
    {
        QDeadlineTimer deadline(timeoutMs);
        while (process->state() != QProcess::NotRunning) {
            if (deadline.hasExpired())
                return false;
            QTest::qWait(20);
        }
        return true;
    }

    QStringList openedLocations() const
    {
        QFile file(openedRecord());
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    static void writeExecutable(const QString &path, const QString &body)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            qFatal("cannot write %s", qPrintable(path));
        file.write("#!/bin/sh\n" + body.toUtf8());
        file.close();
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    }

    static QString quoted(const QString &text)
    {
        QString result = text;
        result.replace(QLatin1Char('\''), QStringLiteral("'\\''"));
        return QLatin1Char('\'') + result + QLatin1Char('\'');
    }

private:
    QTemporaryDir dir_;
    std::vector<std::unique_ptr<QProcess>> processes_;
};
