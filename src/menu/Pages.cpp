// Pages and folders that the menu opens.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"

#include <QDir>
#include <QSettings>
#include <QUrl>

void AppDelegate::openCloudAdmin()
{
    AppLogger::shared().log(QStringLiteral("Opening cloud admin."));
    platform_.opener->open(cloudAdminURL);
}

void AppDelegate::openAgentUpdatePage()
{
    AppLogger::shared().log(QStringLiteral("Opening update page."));
    platform_.opener->open(agentUpdateURL);
}

void AppDelegate::openLocalAdmin()
{
    AppLogger::shared().log(QStringLiteral("Opening local admin."));
    platform_.opener->open(localAdminURL);
}

void AppDelegate::openGettingStarted()
{
    openGettingStartedPage(true);
}

void AppDelegate::openStartupStatus()
{
    openStartupPage(!agentIsRunning);
}

bool AppDelegate::openGettingStartedPage(bool markPresented)
{
    const auto runtime = runtimeDirectory();
    if (!runtime) {
        AppLogger::shared().log(QStringLiteral("Getting started page could not be resolved."));
        return false;
    }
    const QString page = QDir::cleanPath(*runtime + QStringLiteral("/welcome.html"));
    // Recorded before opening, so a page that fails to open is not offered again at every launch.
    if (markPresented) {
        userDefaults().setValue(welcomePresentationDefaultsKey, currentBundleVersion());
        userDefaults().sync();
    }
    AppLogger::shared().log(QStringLiteral("Opening getting started page: ") + page);
    platform_.opener->open(QUrl::fromLocalFile(page));
    return true;
}

void AppDelegate::openStartupPage(bool failed)
{
    const auto runtime = runtimeDirectory();
    if (!runtime) {
        AppLogger::shared().log(QStringLiteral("Startup page could not be resolved. failed=") +
                                (failed ? QStringLiteral("true") : QStringLiteral("false")));
        return;
    }
    const QString page = QDir::cleanPath(
        *runtime + (failed ? QStringLiteral("/startup-status-failed.html") : QStringLiteral("/startup-status.html")));
    AppLogger::shared().log(QStringLiteral("Opening startup page: ") + page);
    platform_.opener->open(QUrl::fromLocalFile(page));
}

void AppDelegate::openLogs()
{
    const QString folder = QDir::cleanPath(logsDirectory());
    // A folder that cannot be created is still logged and handed over.
    QDir().mkpath(folder);
    AppLogger::shared().log(QStringLiteral("Opening logs directory: ") + folder);
    platform_.opener->open(QUrl::fromLocalFile(folder));
}
