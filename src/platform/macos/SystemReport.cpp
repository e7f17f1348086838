// macOS as a diagnosis sees it: the menu bar is always there; the login item is the system's
// login-item service from macOS 13, else the legacy launch agent under ~/Library/LaunchAgents.
#include "platform/SystemReport.h"

#include "app/Configuration.h"
#include "platform/PlatformServices.h"

#include <QFile>
#include <QJsonArray>

QJsonObject describeDesktop()
{
    return {{QStringLiteral("trayHost"), QStringLiteral("menu bar")},
            {QStringLiteral("notifications"), true},
            {QStringLiteral("notificationCapabilities"), QJsonArray()}};
}

QJsonObject describeRunAtStartup(const Configuration &configuration)
{
    const PlatformServices platform = PlatformServices::forThisSystem(configuration);
    if (platform.loginItems && platform.loginItems->isAvailable())
        return {{QStringLiteral("mechanism"), QStringLiteral("login item")},
                {QStringLiteral("file"), QString()},
                {QStringLiteral("enabled"), platform.loginItems->status() == LoginItemService::statusEnabled}};
    const QString plist = configuration.homeDirectory + QStringLiteral("/Library/LaunchAgents/") +
                          configuration.launchAgentLabel + QStringLiteral(".plist");
    return {{QStringLiteral("mechanism"), QStringLiteral("legacy launch agent")},
            {QStringLiteral("file"), plist},
            {QStringLiteral("enabled"), QFile::exists(plist)}};
}
