#include "control/Diagnosis.h"

#include "agent/HealthProbe.h"
#include "app/Configuration.h"
#include "app/log/AppLogger.h"
#include "control/CommandLine.h"
#include "control/ControlProtocol.h"
#include "platform/LocalPeer.h"
#include "platform/SystemReport.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLibraryInfo>
#include <QLocalSocket>
#include <QLockFile>
#include <QNetworkAccessManager>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

// The running program answers a status in a turn of its event loop, as a command expects.
constexpr int programAnswerTimeoutMs = 2000;
constexpr int logLinesShown = 5;

QString sessionType()
{
#ifdef Q_OS_MACOS
    return QStringLiteral("macos");
#else
    const QString declared = qEnvironmentVariable("XDG_SESSION_TYPE");
    if (declared == QLatin1String("x11") || declared == QLatin1String("wayland"))
        return declared;
    if (!qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return QStringLiteral("wayland");
    return qEnvironmentVariableIsEmpty("DISPLAY") ? QStringLiteral("none") : QStringLiteral("x11");
#endif
}

// The plugin a plain launch would get: the one asked for, headless without a display, else Qt's
// choice for the session.
QString platformPlugin()
{
    if (const QString asked = qEnvironmentVariable("QT_QPA_PLATFORM"); !asked.isEmpty())
        return asked;
#ifdef Q_OS_MACOS
    return QStringLiteral("cocoa");
#else
    const QString session = sessionType();
    if (session == QLatin1String("none"))
        return QStringLiteral("offscreen");
    return session == QLatin1String("wayland") && !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
               ? QStringLiteral("wayland")
               : QStringLiteral("xcb");
#endif
}

// Whether this user could write the file, asked of the file or of the nearest folder that exists.
bool writable(const QString &path)
{
    QString existing = path;
    while (!QFileInfo::exists(existing) && QFileInfo(existing).dir().path() != existing)
        existing = QFileInfo(existing).dir().path();
    const QFileInfo info(existing);
    return info.isWritable() && (info.filePath() == path || info.isDir());
}

QJsonArray lastLines(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    // A few lines, however long the log; the first of a tail read from its middle is cut.
    const qint64 start = std::max<qint64>(0, file.size() - 4096);
    file.seek(start);
    QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
    if (start > 0 && !lines.isEmpty())
        lines.removeFirst();
    return QJsonArray::fromStringList(lines.mid(std::max<qsizetype>(0, lines.size() - logLinesShown)));
}

QString lockPath(const Configuration &configuration)
{
    const QFileInfo runtime(configuration.runtimeStateDirectory);
    const QString name = configuration.bundleIdentifier;
    if (!configuration.runtimeStateDirectory.isEmpty() && runtime.isDir() && runtime.isWritable())
        return runtime.filePath() + u'/' + name + QStringLiteral(".lock");
    return QDir::tempPath() + u'/' + name + u'-' + QString::number(::getuid()) + QStringLiteral(".lock");
}

struct Report {
    QJsonObject sections;
    QJsonArray problems;

    void problem(const QString &item, const QString &what, const QString &hint)
    {
        problems.append(QJsonObject{
            {QStringLiteral("item"), item}, {QStringLiteral("problem"), what}, {QStringLiteral("hint"), hint}});
    }
};

void describeFiles(const Configuration &configuration, Report &report)
{
    const QString log =
        AppLogger::logsDirectoryUnder(configuration.applicationSupportDirectory) + QStringLiteral("/menu-app.log");
    const QFileInfo logInfo(log);
    const QJsonObject logReport{{QStringLiteral("path"), log},
                                {QStringLiteral("writable"), writable(log)},
                                {QStringLiteral("size"), logInfo.exists() ? logInfo.size() : 0},
                                {QStringLiteral("lastLines"), lastLines(log)}};
    if (!logReport.value(QStringLiteral("writable")).toBool())
        report.problem(QStringLiteral("files.log"), QStringLiteral("the log cannot be written"),
                       QStringLiteral("make %1 writable for this user").arg(logInfo.path()));
    const QString settings = configuration.userDefaultsFile.value_or(QString());
    const QString runtime = configuration.resourceDirectory.value_or(QString()) + QStringLiteral("/runtime");
    const QFileInfo script(runtime + QStringLiteral("/agentctl.sh"));
    const bool hasRuntime = configuration.resourceDirectory && QFileInfo(runtime).isDir();
    if (!hasRuntime)
        report.problem(QStringLiteral("files.runtime"), QStringLiteral("the runtime folder is missing"),
                       QStringLiteral("reinstall quillmere-menu; the agent and its control script live there"));
    else if (!script.isFile() || !script.isExecutable())
        report.problem(QStringLiteral("files.runtime.controlScript"),
                       QStringLiteral("agentctl.sh is missing or not executable"),
                       QStringLiteral("reinstall quillmere-menu, or chmod +x %1").arg(script.filePath()));
    report.sections.insert(
        QStringLiteral("files"),
        QJsonObject{{QStringLiteral("log"), logReport},
                    {QStringLiteral("settings"), QJsonObject{{QStringLiteral("path"), settings},
                                                             {QStringLiteral("exists"), QFileInfo::exists(settings)}}},
                    {QStringLiteral("runtime"), QJsonObject{{QStringLiteral("path"), hasRuntime ? runtime : QString()},
                                                            {QStringLiteral("controlScript"), script.isFile()},
                                                            {QStringLiteral("controlScriptExecutable"),
                                                             script.isFile() && script.isExecutable()}}}});
}

QJsonObject describeSocket(const QString &path, Report &report)
{
    const QFileInfo info(path);
    const auto owner = fileOwnerId(path);
    const bool othersMayReach =
        info.permissions() & (QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther);
    const bool trusted = owner && *owner == ::getuid() && !othersMayReach;
    if (owner && !trusted)
        report.problem(QStringLiteral("program.socket"),
                       *owner != ::getuid() ? QStringLiteral("the command socket belongs to another user")
                                            : QStringLiteral("other users may reach the command socket"),
                       QStringLiteral("remove %1, or give XDG_RUNTIME_DIR a folder of this user's own").arg(path));
    return {{QStringLiteral("path"), path},
            {QStringLiteral("exists"), bool(owner)},
            {QStringLiteral("owner"), owner ? qint64(*owner) : -1},
            {QStringLiteral("mode"), owner ? QString::number(int(info.permissions()) & 0x7777, 16) : QString()},
            {QStringLiteral("trusted"), trusted}};
}

QJsonObject describeLock(const QString &path)
{
    qint64 pid = 0;
    QString host, application;
    // Only read: a lock is never taken, so a running copy is not disturbed.
    const bool present = QLockFile(path).getLockInfo(&pid, &host, &application);
    const bool held = present && pid > 0 && ::kill(pid_t(pid), 0) == 0;
    return {{QStringLiteral("path"), path}, {QStringLiteral("held"), held}, {QStringLiteral("pid"), held ? pid : 0}};
}

QJsonArray describeMediaFolders(const Configuration &configuration)
{
    QJsonArray folders;
    for (const QString &folder : configuration.volumeMountDirectories) {
        const QDir dir(folder);
        folders.append(QJsonObject{
            {QStringLiteral("path"), folder},
            {QStringLiteral("exists"), dir.exists()},
            {QStringLiteral("entries"),
             QJsonArray::fromStringList(dir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name))}});
    }
    return folders;
}

} // namespace

QJsonObject diagnose(const Configuration &configuration)
{
    Report report;
    QEventLoop loop;
    int waiting = 2;
    const auto oneDone = [&waiting, &loop] {
        if (--waiting == 0)
            loop.quit();
    };

    // The agent and the running program are asked at once, so that the slower bounds the wait.
    QJsonObject agent{{QStringLiteral("address"), configuration.healthURL.toString()}};
    QNetworkAccessManager network;
    keepToLoopback(network);
    probeHealth(network, configuration.healthURL, configuration.healthTimeout, &loop,
                [&agent, &oneDone](const HealthProbeOutcome &outcome) {
                    const HealthAnswer answer = judgeHealthAnswer(outcome.exchange, QString());
                    const auto payload = HealthPayload::decode(outcome.exchange.body.value_or(QByteArray()));
                    agent.insert(QStringLiteral("running"), answer.running);
                    agent.insert(QStringLiteral("httpStatus"), outcome.exchange.httpStatus.value_or(0));
                    agent.insert(QStringLiteral("status"), payload && payload->status ? *payload->status : QString());
                    agent.insert(QStringLiteral("version"), answer.version);
                    agent.insert(QStringLiteral("elapsedMs"), outcome.elapsedMs);
                    agent.insert(QStringLiteral("error"), outcome.errorText);
                    oneDone();
                });

    const QString socketPath = controlSocketPath(configuration);
    QJsonObject program{{QStringLiteral("running"), false}};
    program.insert(QStringLiteral("socket"), describeSocket(socketPath, report));
    program.insert(QStringLiteral("lock"), describeLock(lockPath(configuration)));
    QLocalSocket socket;
    QTimer programDeadline;
    programDeadline.setSingleShot(true);
    bool programAnswered = false;
    const auto programDone = [&](const QJsonObject &status) {
        if (programAnswered)
            return;
        programAnswered = true;
        programDeadline.stop();
        if (!status.isEmpty()) {
            program.insert(QStringLiteral("running"), true);
            program.insert(QStringLiteral("state"), status.value(QStringLiteral("state")));
        }
        socket.abort();
        oneDone();
    };
    QObject::connect(&socket, &QLocalSocket::connected, &loop, [&socket] {
        socket.write(encodeControlRequest({ControlCommand::status, {}}));
    });
    QObject::connect(&socket, &QLocalSocket::readyRead, &loop, [&] {
        if (socket.canReadLine())
            programDone(decodeControlReply(socket.readLine().chopped(1)));
    });
    QObject::connect(&socket, &QLocalSocket::errorOccurred, &loop, [&] { programDone({}); });
    QObject::connect(&programDeadline, &QTimer::timeout, &loop, [&] {
        program.insert(QStringLiteral("answered"), false);
        programDone({});
    });
    if (program.value(QStringLiteral("socket")).toObject().value(QStringLiteral("trusted")).toBool()) {
        programDeadline.start(programAnswerTimeoutMs);
        socket.connectToServer(socketPath);
    } else {
        programDone({});
    }

    // Meanwhile what needs no waiting on either.
    report.sections.insert(QStringLiteral("build"),
                           QJsonObject{{QStringLiteral("version"), QStringLiteral(QUILLMERE_VERSION)},
                                       {QStringLiteral("qtVersion"), QString::fromLatin1(qVersion())},
                                       {QStringLiteral("qtBuild"), QLibraryInfo::build()},
                                       {QStringLiteral("platformPlugin"), platformPlugin()},
                                       {QStringLiteral("sessionType"), sessionType()}});
    describeFiles(configuration, report);
    const QJsonObject desktop = describeDesktop();
    report.sections.insert(QStringLiteral("desktop"), desktop);
    if (sessionType() != QLatin1String("none") &&
        desktop.value(QStringLiteral("trayHost")).toString() == QLatin1String("none"))
        report.problem(QStringLiteral("desktop.trayHost"), QStringLiteral("no system tray was found"),
                       QStringLiteral("add a tray to the panel, or show the state in a bar with "
                                      "quillmere-menu --status --watch"));
    report.sections.insert(QStringLiteral("runAtStartup"), describeRunAtStartup(configuration));
    report.sections.insert(QStringLiteral("removableMedia"), describeMediaFolders(configuration));

    if (waiting > 0)
        loop.exec();
    if (!agent.value(QStringLiteral("running")).toBool())
        report.problem(QStringLiteral("agent"), QStringLiteral("the agent does not answer as running"),
                       QStringLiteral("start it with quillmere-menu --start-agent; if that fails, read the log"));
    if (program.contains(QStringLiteral("answered"))) {
        // With no copy holding the lock there is no process number to give: whatever listens is no copy of ours.
        const qint64 pid = program.value(QStringLiteral("lock")).toObject().value(QStringLiteral("pid")).toInteger();
        report.problem(
            QStringLiteral("program"), QStringLiteral("the running program does not answer"),
            pid > 0 ? QStringLiteral("end process %1 and start quillmere-menu again").arg(pid)
                    : QStringLiteral("end the process listening at %1 and start quillmere-menu again").arg(socketPath));
    } else {
        program.insert(QStringLiteral("answered"), program.value(QStringLiteral("running")));
    }
    report.sections.insert(QStringLiteral("agent"), agent);
    report.sections.insert(QStringLiteral("program"), program);
    report.sections.insert(QStringLiteral("problems"), report.problems);
    return report.sections;
}

QString describeDiagnosis(const QJsonObject &report)
{
    const auto value = [](const QJsonValue &v) {
        if (v.isBool())
            return v.toBool() ? QStringLiteral("yes") : QStringLiteral("no");
        if (v.isDouble())
            return QString::number(v.toInteger());
        return v.toString().isEmpty() ? QStringLiteral("-") : v.toString();
    };
    // Keys as the JSON names them, so that a person and a script read the same words.
    std::function<QString(const QJsonObject &, const QString &)> section = [&](const QJsonObject &object,
                                                                               const QString &indent) {
        QString text;
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (it->isObject()) {
                text +=
                    indent + it.key() + QStringLiteral(":\n") + section(it->toObject(), indent + QStringLiteral("  "));
            } else if (it->isArray()) {
                text += indent + it.key() + QStringLiteral(":") +
                        (it->toArray().isEmpty() ? QStringLiteral(" -\n") : QStringLiteral("\n"));
                for (const QJsonValue &entry : it->toArray())
                    text += entry.isObject() ? indent + QStringLiteral("  -\n") +
                                                   section(entry.toObject(), indent + QStringLiteral("    "))
                                             : indent + QStringLiteral("  | ") + value(entry) + u'\n';
            } else {
                text += indent + it.key() + QStringLiteral(": ") + value(*it) + u'\n';
            }
        }
        return text;
    };
    QString text;
    for (const QString &name : {QStringLiteral("build"), QStringLiteral("files"), QStringLiteral("agent"),
                                QStringLiteral("program"), QStringLiteral("desktop"), QStringLiteral("runAtStartup")})
        text += name + QStringLiteral(":\n") + section(report.value(name).toObject(), QStringLiteral("  "));
    text += section({{QStringLiteral("removableMedia"), report.value(QStringLiteral("removableMedia"))}}, QString());
    const QJsonArray problems = report.value(QStringLiteral("problems")).toArray();
    if (problems.isEmpty())
        return text + QStringLiteral("\nNo problem found.\n");
    text += QStringLiteral("\n");
    for (const QJsonValue &entry : problems) {
        const QJsonObject problem = entry.toObject();
        text += QStringLiteral("PROBLEM (%1): %2. Hint: %3.\n")
                    .arg(problem.value(QStringLiteral("item")).toString(),
                         problem.value(QStringLiteral("problem")).toString(),
                         problem.value(QStringLiteral("hint")).toString());
    }
    return text;
}

int runDiagnosis(int argc, char *argv[], bool json)
{
    QCoreApplication application(argc, argv);
    const QJsonObject report = diagnose(Configuration::fromEnvironment());
    const QString text = json ? QString::fromUtf8(QJsonDocument(report).toJson(QJsonDocument::Compact)) + u'\n'
                              : describeDiagnosis(report);
    std::fputs(text.toLocal8Bit().constData(), stdout);
    return report.value(QStringLiteral("problems")).toArray().isEmpty() ? ExitCode::done : ExitCode::problemFound;
}
