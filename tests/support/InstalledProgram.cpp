#include "support/InstalledProgram.h"

#include "support/Files.h"
#include "support/TestEnvironment.h"

#include <QProcessEnvironment>
#include <QRegularExpression>

InstalledProgram::InstalledProgram(const QString &platform) : platform_(platform)
{
    QDir().mkpath(runtimeDir());
    QDir().mkpath(root() + u"/bin"_s);
    if (!QFile::copy(QStringLiteral(QUILLMERE_TEST_BINARY), root() + u"/bin/quillmere-menu"_s) ||
        !QFile::copy(QStringLiteral(QUILLMERE_BUILD_RESOURCES "/Info.plist"),
                     root() + u"/share/quillmere-menu/Info.plist"_s))
        qFatal("cannot copy the program");
    TestEnvironment::writeScript(root() + u"/fakebin/xdg-open"_s,
                                 u"printf '%015d %07d %s\\n' $(cut -d' ' -f22 /proc/$$/stat) $$ \"$*\" >> "_s +
                                     TestEnvironment::shellQuoted(root() + u"/xdg-open-calls"_s));
}

InstalledProgram::~InstalledProgram()
{
    for (auto &process : processes_)
        process->kill(), process->waitForFinished(5000);
}

void InstalledProgram::launch(QProcess &process, quint16 agentPort, const QStringList &arguments,
                              const QString &user) const
{
    const QString run = root() + u"/xdg-runtime"_s, volumes = root() + u"/volumes"_s,
                  dataHome = homeOf(user) + u"/.local/share"_s, configHome = homeOf(user) + u"/.config"_s;
    for (const QString &path : {dataHome, configHome, run, volumes, root() + u"/tmp"_s})
        QDir().mkpath(path);
    // A session runtime folder belongs to its user alone; Qt warns about anything wider.
    QFile::setPermissions(run, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (platform_ == "offscreen"_L1)
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"})
            environment.remove(QString::fromLatin1(name));
    environment.insert(u"QT_QPA_PLATFORM"_s, platform_);
    environment.insert(u"HOME"_s, homeOf(user));
    environment.insert(u"XDG_DATA_HOME"_s, dataHome);
    environment.insert(u"XDG_CONFIG_HOME"_s, configHome);
    environment.insert(u"XDG_RUNTIME_DIR"_s, run);
    environment.insert(u"TMPDIR"_s, root() + u"/tmp"_s);
    environment.insert(u"QUILLMERE_AGENT_PORT"_s, QString::number(agentPort));
    environment.insert(u"QUILLMERE_VOLUMES_DIR"_s, volumes);
    environment.insert(u"PATH"_s, root() + u"/fakebin:"_s + environment.value(u"PATH"_s));
    for (const auto &[name, value] : variables.asKeyValueRange())
        value.isNull() ? environment.remove(name) : environment.insert(name, value);
    process.setProcessEnvironment(environment);
    const QStringList command = launcher + QStringList{root() + u"/bin/quillmere-menu"_s} + arguments;
    process.start(command.first(), command.mid(1));
}

InstalledProgram::Result InstalledProgram::run(quint16 agentPort, const QStringList &arguments, const QString &user)
{
    QProcess process;
    launch(process, agentPort, arguments, user);
    if (!QTest::qWaitFor([&process] { return process.state() == QProcess::NotRunning; }, 30000))
        return {-1, u"did not end within 30 s"_s};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError())};
}

QProcess *InstalledProgram::start(quint16 agentPort, const QStringList &arguments, const QString &user)
{
    auto &process = processes_.emplace_back(std::make_unique<QProcess>());
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    launch(*process, agentPort, arguments, user);
    if (!process->waitForStarted(10000))
        qFatal("cannot start the program");
    return process.get();
}

QStringList InstalledProgram::logMessages(const QString &user) const
{
    return TestEnvironment::logMessagesIn(homeOf(user) + u"/.local/share/TallyholdAgent/runtime/logs/menu-app.log"_s);
}

QStringList InstalledProgram::openedLocations() const
{
    // In the order the runs started: by start time (ticks since boot), then id (ids wrap around on a busy machine).
    QStringList runs = QString::fromUtf8(readFile(root() + u"/xdg-open-calls"_s)).split(u'\n', Qt::SkipEmptyParts);
    runs.sort(); // each begins with both, zero-padded
    return runs.replaceInStrings(QRegularExpression(u"^\\d+ \\d+ "_s), QString());
}
