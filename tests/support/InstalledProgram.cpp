#include "support/InstalledProgram.h"

#include "support/TestEnvironment.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QTest>

namespace {

QStringList readLines(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

InstalledProgram::InstalledProgram()
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
    TestEnvironment::writeScript(fakeBinDir() + QStringLiteral("/xdg-open"),
                                 QStringLiteral("printf '%s\\n' \"$*\" >> ") +
                                     TestEnvironment::shellQuoted(openedRecord()) + QLatin1Char('\n'));
}

InstalledProgram::~InstalledProgram()
{
    for (auto &process : processes_) {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(5000);
        }
    }
}

QProcess *InstalledProgram::start(quint16 agentPort, const QStringList &arguments, const QString &user)
{
    for (const QString &path :
         {dataHomeOf(user), configHomeOf(user), runtimeStateDir(), root() + QStringLiteral("/volumes")})
        QDir().mkpath(path);
    // A session runtime folder belongs to its user alone; Qt warns about anything wider.
    QFile::setPermissions(runtimeStateDir(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (onDesktop_) {
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    } else {
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"})
            environment.remove(QString::fromLatin1(name));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    }
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

QStringList InstalledProgram::logMessages(const QString &user) const
{
    QStringList messages;
    for (const QString &line : readLines(logFileOf(user)))
        messages.append(line.indexOf(QStringLiteral(" | ")) == 24 ? line.mid(27) : line);
    return messages;
}

bool InstalledProgram::waitForLogMessage(const QString &message, const QString &user, int timeoutMs,
                                         int occurrences) const
{
    QDeadlineTimer deadline(timeoutMs);
    while (logMessages(user).count(message) < occurrences) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
    return true;
}

bool InstalledProgram::waitForExit(QProcess *process, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (process->state() != QProcess::NotRunning) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
    return true;
}

QStringList InstalledProgram::openedLocations() const
{
    return readLines(openedRecord());
}
