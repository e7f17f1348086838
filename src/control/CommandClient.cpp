#include "control/CommandClient.h"

#include "app/AppDelegate.h"
#include "app/Configuration.h"
#include "app/log/AppLogger.h"
#include "control/ControlCommands.h"
#include "control/Diagnosis.h"
#include "control/StatusWatch.h"
#include "platform/LocalPeer.h"
#include "platform/TrayStatusItem.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QLocalSocket>
#include <cstdio>
#include <unistd.h>

namespace {

// A running program answers in a turn of its event loop; one that has not within this is stuck.
constexpr int answerTimeoutMs = 2000;

ControlRequest requestFor(const CommandLine &command)
{
    switch (command.kind) {
    case CommandLine::Kind::startAgent:
        return {ControlCommand::startAgent, {}};
    case CommandLine::Kind::stopAgent:
        return {ControlCommand::stopAgent, {}};
    case CommandLine::Kind::open:
        return {ControlCommand::open, command.page};
    case CommandLine::Kind::quit:
        return {ControlCommand::quit, {}};
    default:
        return {ControlCommand::status, {}};
    }
}

enum class Exchange { noProgram, answered, noAnswer, noAccess };

// Sends the request and reads replies up to the last one; an "accepted" is followed by the
// outcome, or for a quit by the end of the connection when the program has exited.
Exchange askRunningProgram(const QString &socketPath, const ControlRequest &request, QJsonObject &last)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath);
    if (!socket.waitForConnected(answerTimeoutMs)) {
        const bool nobodyThere = socket.error() == QLocalSocket::ServerNotFoundError ||
                                 socket.error() == QLocalSocket::ConnectionRefusedError;
        if (socket.error() == QLocalSocket::SocketAccessError)
            return Exchange::noAccess;
        return nobodyThere ? Exchange::noProgram : Exchange::noAnswer;
    }
    socket.write(encodeControlRequest(request));
    const QDeadlineTimer firstAnswer(answerTimeoutMs);
    for (bool first = true;; first = false) {
        while (!socket.canReadLine()) {
            // After an "accepted" the wait is as long as the script or the quit takes.
            const int wait = first ? int(firstAnswer.remainingTime()) : -1;
            if (socket.state() == QLocalSocket::ConnectedState && socket.waitForReadyRead(wait))
                continue;
            if (socket.canReadLine())
                break;
            return first || socket.state() == QLocalSocket::ConnectedState ? Exchange::noAnswer : Exchange::answered;
        }
        last = decodeControlReply(socket.readLine().chopped(1));
        if (last.value(QStringLiteral("reply")).toString() != QLatin1String("accepted"))
            return Exchange::answered;
    }
}

// No program runs: a controller of this process's own, with no tray icon and no volume watching,
// finds the agent's state as the menu would and carries out the command through the same items.
QJsonObject performWithoutProgram(Configuration configuration, const ControlRequest &request)
{
    PlatformServices platform = PlatformServices::forThisSystem(configuration);
    platform.makeStatusItem = [] { return std::make_unique<TrayStatusItem>(TrayStatusItem::Start::WhenHostReady); };
    platform.volumeEventSource.reset();
    AppDelegate delegate(std::move(configuration), std::move(platform), nullptr);
    delegate.assembleStatusMenu();

    QEventLoop loop;
    delegate.queryHealth([&delegate, &loop](bool running, const QString &version) {
        const QString title = running ? QStringLiteral("Status: Running") : QStringLiteral("Status: Stopped");
        // Where this controller starts, not a change of state: the log does not show it.
        delegate.lastStateTitle = title;
        delegate.updateStateMenu(title, version, running);
        loop.quit();
    });
    loop.exec();
    if (request.command == ControlCommand::status)
        return controlStatus(delegate, false);

    QJsonObject last;
    performControlRequest(delegate, request, &delegate, [&last, &loop](const QJsonObject &reply) {
        last = reply;
        if (reply.value(QStringLiteral("reply")).toString() != QLatin1String("accepted"))
            loop.quit();
    });
    if (last.value(QStringLiteral("reply")).toString() == QLatin1String("accepted"))
        loop.exec();
    AppLogger::shared().flush();
    return last;
}

void print(const CommandOutcome &outcome)
{
    std::fputs(outcome.standardOutput.toLocal8Bit().constData(), stdout);
    std::fputs(outcome.standardError.toLocal8Bit().constData(), stderr);
}

} // namespace

int runControlCommand(int argc, char *argv[], const CommandLine &command)
{
    if (command.kind == CommandLine::Kind::status && command.watch)
        return runStatusWatch(argc, argv, command.json);
    if (command.kind == CommandLine::Kind::diagnose)
        return runDiagnosis(argc, argv, command.json);
    const ControlRequest request = requestFor(command);
    Configuration configuration;
    QString socketPath, logFile;
    QJsonObject last;
    Exchange exchange = Exchange::noProgram;
    {
        // Reaching the running program takes no more than Qt's core: a command answers at once.
        QCoreApplication application(argc, argv);
        configuration = Configuration::fromEnvironment();
        socketPath = controlSocketPath(configuration);
        logFile =
            AppLogger::logsDirectoryUnder(configuration.applicationSupportDirectory) + QStringLiteral("/menu-app.log");
        if (const auto owner = fileOwnerId(socketPath); owner && *owner != ::getuid()) {
            std::fprintf(stderr, "quillmere-menu: %s belongs to another user and is not trusted.\n",
                         qPrintable(socketPath));
            return ExitCode::noAnswer;
        }
        exchange = askRunningProgram(socketPath, request, last);
    }
    switch (exchange) {
    case Exchange::noAnswer:
        std::fprintf(stderr, "quillmere-menu: the running program did not answer within %d s.\n",
                     answerTimeoutMs / 1000);
        return ExitCode::noAnswer;
    case Exchange::noAccess:
        std::fprintf(stderr, "quillmere-menu: %s cannot be reached by this user.\n", qPrintable(socketPath));
        return ExitCode::noAnswer;
    case Exchange::answered:
        if (last.value(QStringLiteral("reply")).toString() == QLatin1String("accepted") &&
            request.command != ControlCommand::quit) {
            std::fputs("quillmere-menu: the running program ended before the command finished.\n", stderr);
            return ExitCode::noAnswer;
        }
        break;
    case Exchange::noProgram: {
        if (request.command == ControlCommand::quit) {
            std::fputs("quillmere-menu is not running; there is nothing to quit.\n", stderr);
            return ExitCode::notRunning;
        }
        // The controller's menu needs the widgets; offscreen, as a command never shows anything.
        // Given as an argument, not through the environment, so that what the command starts (a
        // browser, the agent) is not headless too.
        char platformOption[] = "-platform", offscreen[] = "offscreen";
        int applicationArgc = 3;
        char *applicationArgv[] = {argv[0], platformOption, offscreen, nullptr};
        QApplication application(applicationArgc, applicationArgv);
        last = performWithoutProgram(std::move(configuration), request);
        break;
    }
    }
    const CommandOutcome outcome = describeReply(command, last, logFile);
    print(outcome);
    return outcome.exitCode;
}
