// The status menu: its items in order, the state and version lines, and the availability rule.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"
#include "menu/MenuAvailability.h"

#include <QAction>
#include <QMenu>

namespace {

// A menu takes '&' as the mark of a keyboard accelerator and hides it; the state and version
// lines show text from outside (the agent's version) exactly as given, so a literal '&' is
// written twice.
QString literalMenuTitle(QString title)
{
    return title.replace(QLatin1Char('&'), QStringLiteral("&&"));
}

} // namespace

QAction *AppDelegate::makeMenuItem(QAction *&storage, const QString &title, void (AppDelegate::*action)())
{
    if (!storage) {
        storage = new QAction(title, this);
        connect(storage, &QAction::triggered, this, action);
    }
    return storage;
}

QAction *AppDelegate::startMenuItem()
{
    return makeMenuItem(startMenuItem_, QStringLiteral("Start Agent"), &AppDelegate::startAgentFromMenu);
}

QAction *AppDelegate::stopMenuItem()
{
    return makeMenuItem(stopMenuItem_, QStringLiteral("Stop Agent"), &AppDelegate::stopAgentFromMenu);
}

QAction *AppDelegate::openCloudAdminMenuItem()
{
    return makeMenuItem(openCloudAdminMenuItem_, QStringLiteral("Open Cloud Admin"), &AppDelegate::openCloudAdmin);
}

QAction *AppDelegate::checkForUpdatesMenuItem()
{
    return makeMenuItem(checkForUpdatesMenuItem_, QStringLiteral("Check for Updates"),
                        &AppDelegate::openAgentUpdatePage);
}

QAction *AppDelegate::openLocalAdminMenuItem()
{
    return makeMenuItem(openLocalAdminMenuItem_, QStringLiteral("Open Local Admin"), &AppDelegate::openLocalAdmin);
}

QAction *AppDelegate::openGettingStartedMenuItem()
{
    return makeMenuItem(openGettingStartedMenuItem_, QStringLiteral("Open Getting Started"),
                        &AppDelegate::openGettingStarted);
}

QAction *AppDelegate::openStartupPageMenuItem()
{
    return makeMenuItem(openStartupPageMenuItem_, QStringLiteral("Open Startup Status"),
                        &AppDelegate::openStartupStatus);
}

QAction *AppDelegate::runAtStartupMenuItem()
{
    return makeMenuItem(runAtStartupMenuItem_, QStringLiteral("Run at Startup"), &AppDelegate::toggleRunAtStartup);
}

QAction *AppDelegate::openLogsMenuItem()
{
    return makeMenuItem(openLogsMenuItem_, QStringLiteral("Open Logs"), &AppDelegate::openLogs);
}

QAction *AppDelegate::quitMenuItem()
{
    return makeMenuItem(quitMenuItem_, QStringLiteral("Quit"), &AppDelegate::quitApp);
}

void AppDelegate::assembleStatusMenu()
{
    stateMenuItem->setEnabled(false);
    versionMenuItem->setEnabled(false);
    menu->addAction(stateMenuItem);
    menu->addAction(versionMenuItem);
    menu->addSeparator();
    menu->addAction(startMenuItem());
    menu->addAction(stopMenuItem());
    menu->addSeparator();
    menu->addAction(openCloudAdminMenuItem());
    menu->addAction(checkForUpdatesMenuItem());
    menu->addAction(openLocalAdminMenuItem());
    menu->addAction(openGettingStartedMenuItem());
    menu->addAction(openStartupPageMenuItem());
    menu->addAction(openLogsMenuItem());
    menu->addSeparator();
    menu->addAction(runAtStartupMenuItem());
    menu->addSeparator();
    menu->addAction(quitMenuItem());
    statusItem->setMenu(menu.get());
    updateMenuAvailability();
    configureStatusButton(false);
}

void AppDelegate::updateStateMenu(const QString &title, const QString &version, bool running)
{
    agentIsRunning = running;
    lastKnownVersion = version.isEmpty() ? QStringLiteral("--") : version;
    stateMenuItem->setText(literalMenuTitle(title));
    versionMenuItem->setText(literalMenuTitle(QStringLiteral("Version: ") + lastKnownVersion));
    configureStatusButton(running);
    updateMenuAvailability();

    if (title != lastStateTitle) {
        lastStateTitle = title;
        AppLogger::shared().log(QStringLiteral("State updated: ") + title + QStringLiteral(" version=") +
                                lastKnownVersion + QStringLiteral(" running=") +
                                (running ? QStringLiteral("true") : QStringLiteral("false")));
    }
    emit stateMenuUpdated();
}

void AppDelegate::updateMenuAvailability()
{
    const MenuAvailability availability =
        menuAvailability({agentIsRunning, startInFlight, stopInFlight, runtimeDirectory().has_value()});
    startMenuItem()->setEnabled(availability.start);
    stopMenuItem()->setEnabled(availability.stop);
    openLocalAdminMenuItem()->setEnabled(true);
    openCloudAdminMenuItem()->setEnabled(true);
    checkForUpdatesMenuItem()->setEnabled(true);
    openGettingStartedMenuItem()->setEnabled(availability.pages);
    openStartupPageMenuItem()->setEnabled(availability.pages);
    openLogsMenuItem()->setEnabled(true);
    runAtStartupMenuItem()->setEnabled(true);
}
