#include "control/ControlCommands.h"

#include "app/AppDelegate.h"

#include <QAction>
#include <QJsonDocument>
#include <QPointer>
#include <memory>

namespace {

QJsonObject reply(const QString &kind, const QString &message = QString())
{
    QJsonObject object{{QStringLiteral("reply"), kind}};
    if (!message.isEmpty())
        object.insert(QStringLiteral("message"), message);
    return object;
}

QAction *pageItem(AppDelegate &delegate, const QString &page)
{
    const QList<QAction *> items = {delegate.openCloudAdminMenuItem(),  delegate.checkForUpdatesMenuItem(),
                                    delegate.openLocalAdminMenuItem(),  delegate.openGettingStartedMenuItem(),
                                    delegate.openStartupPageMenuItem(), delegate.openLogsMenuItem()};
    return items.value(pageNames().indexOf(page));
}

// Why the item is held back, in the menu's own terms.
QString whyUnavailable(const AppDelegate &delegate, bool start)
{
    if (start)
        return delegate.startInFlight ? QStringLiteral("a start is already in progress")
                                      : QStringLiteral("the agent is already running");
    return delegate.stopInFlight ? QStringLiteral("a stop is already in progress")
                                 : QStringLiteral("the agent is not running");
}

void runAgentCommand(AppDelegate &delegate, bool start, QObject *context, const ControlReply &send)
{
    QAction *item = start ? delegate.startMenuItem() : delegate.stopMenuItem();
    const QString name = item->text();
    if (!item->isEnabled()) {
        send(reply(QStringLiteral("unavailable"),
                   name + QStringLiteral(" is not available now: ") + whyUnavailable(delegate, start) + u'.'));
        return;
    }
    const QString argument = start ? QStringLiteral("start") : QStringLiteral("stop");
    auto connection = std::make_shared<QMetaObject::Connection>();
    *connection = QObject::connect(&delegate, &AppDelegate::agentCommandFinished, context,
                                   [connection, argument, send](const QString &finished, int exitCode) {
                                       if (finished != argument)
                                           return;
                                       QObject::disconnect(*connection);
                                       QJsonObject outcome = reply(QStringLiteral("finished"));
                                       outcome.insert(QStringLiteral("argument"), argument);
                                       outcome.insert(QStringLiteral("exitCode"), exitCode);
                                       send(outcome);
                                   });
    item->trigger();
    // Without a control script to run (missing runtime files) the item only shows why.
    if (!(start ? delegate.startInFlight : delegate.stopInFlight)) {
        QObject::disconnect(*connection);
        QJsonObject outcome = reply(QStringLiteral("finished"), delegate.lastStateTitle);
        outcome.insert(QStringLiteral("argument"), argument);
        send(outcome);
        return;
    }
    send(reply(QStringLiteral("accepted")));
}

} // namespace

QJsonObject controlStatus(const AppDelegate &delegate, bool programRunning)
{
    QJsonObject status = reply(QStringLiteral("status"));
    // Before its first health answer the menu still shows what it showed at launch.
    status.insert(QStringLiteral("state"),
                  delegate.lastStateTitle.isEmpty() ? QStringLiteral("Status: Launching...") : delegate.lastStateTitle);
    status.insert(QStringLiteral("version"), delegate.lastKnownVersion);
    status.insert(QStringLiteral("agentRunning"), delegate.agentIsRunning);
    status.insert(QStringLiteral("startInFlight"), delegate.startInFlight);
    status.insert(QStringLiteral("stopInFlight"), delegate.stopInFlight);
    status.insert(QStringLiteral("programRunning"), programRunning);
    return status;
}

void performControlRequest(AppDelegate &delegate, const ControlRequest &request, QObject *context, ControlReply send)
{
    if (request.command == ControlCommand::status) {
        send(controlStatus(delegate, true));
    } else if (request.command == ControlCommand::startAgent || request.command == ControlCommand::stopAgent) {
        runAgentCommand(delegate, request.command == ControlCommand::startAgent, context, send);
    } else if (request.command == ControlCommand::open) {
        QAction *item = pageItem(delegate, request.page);
        if (!item->isEnabled()) {
            send(reply(QStringLiteral("unavailable"),
                       item->text() + QStringLiteral(" is not available now: the runtime folder is missing.")));
            return;
        }
        item->trigger();
        send(reply(QStringLiteral("done")));
    } else if (request.command == ControlCommand::quit) {
        send(reply(QStringLiteral("accepted")));
        delegate.quitMenuItem()->trigger();
    } else if (request.command == ControlCommand::alreadyRunning) {
        delegate.statusItem->notify(QStringLiteral("Quillmere Agent is already running"),
                                    delegate.lastStateTitle + QStringLiteral(", version ") + delegate.lastKnownVersion +
                                        QStringLiteral(". Its menu is in the system tray."));
        send(reply(QStringLiteral("done")));
    } else {
        send(reply(QStringLiteral("error"), QStringLiteral("unknown command")));
    }
}

CommandOutcome describeReply(const CommandLine &command, const QJsonObject &reply, const QString &logFile)
{
    const QString kind = reply.value(QStringLiteral("reply")).toString();
    const QString message = reply.value(QStringLiteral("message")).toString();
    if (kind == QLatin1String("status")) {
        const bool running = reply.value(QStringLiteral("agentRunning")).toBool();
        const int exitCode = running ? ExitCode::done : ExitCode::notRunning;
        if (command.json) {
            QJsonObject shown = reply;
            shown.remove(QStringLiteral("reply"));
            return {QString::fromUtf8(QJsonDocument(shown).toJson(QJsonDocument::Compact)) + u'\n', {}, exitCode};
        }
        QString text = reply.value(QStringLiteral("state")).toString() + QStringLiteral("\nVersion: ") +
                       reply.value(QStringLiteral("version")).toString() + u'\n';
        if (reply.value(QStringLiteral("startInFlight")).toBool())
            text += QStringLiteral("A start is in progress.\n");
        if (reply.value(QStringLiteral("stopInFlight")).toBool())
            text += QStringLiteral("A stop is in progress.\n");
        if (!reply.value(QStringLiteral("programRunning")).toBool())
            text += QStringLiteral("quillmere-menu is not running; the agent was asked directly.\n");
        return {text, {}, exitCode};
    }
    if (kind == QLatin1String("finished")) {
        const QString argument = reply.value(QStringLiteral("argument")).toString();
        if (!reply.contains(QStringLiteral("exitCode")))
            return {{}, QStringLiteral("Agent %1 did not run: %2\n").arg(argument, message), ExitCode::failed};
        const int exitCode = reply.value(QStringLiteral("exitCode")).toInt();
        if (exitCode == 0)
            return {QStringLiteral("Agent %1 finished.\n").arg(argument), {}, ExitCode::done};
        return {
            {},
            QStringLiteral("Agent %1 failed with exit code %2. The log: %3\n").arg(argument).arg(exitCode).arg(logFile),
            ExitCode::failed};
    }
    if (kind == QLatin1String("done") || kind == QLatin1String("accepted"))
        return {};
    if (kind == QLatin1String("unavailable"))
        return {{}, message + u'\n', ExitCode::notAvailableNow};
    return {{},
            QStringLiteral("quillmere-menu: the running program gave no usable answer%1\n")
                .arg(message.isEmpty() ? QString() : QStringLiteral(" (") + message + u')'),
            ExitCode::noAnswer};
}
