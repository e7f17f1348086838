// The Linux desktop implementations of the platform services.
#include "app/Configuration.h"
#include "platform/LockFileRunningApplications.h"
#include "platform/PlatformServices.h"
#include "platform/linux/AutostartLoginItemService.h"
#include "platform/linux/LinuxTrayStatusItem.h"
#include "platform/linux/LogindWakeWatcher.h"
#include "platform/linux/MountInfoWatcher.h"
#include "platform/linux/XdgOpener.h"

#include <QDir>

PlatformServices PlatformServices::forThisSystem(const Configuration &configuration)
{
    PlatformServices services;
    services.makeStatusItem = [] { return std::make_unique<LinuxTrayStatusItem>(); };
    services.opener = std::make_unique<XdgOpener>();
    services.loginItems = std::make_unique<AutostartLoginItemService>(
        configuration.configDirectory, configuration.bundleIdentifier, configuration.executablePath.value_or(QString()),
        services.opener.get());
    services.workspaceNotifications = std::make_unique<WorkspaceNotificationCenter>();
    services.volumeEventSource =
        std::make_unique<MountInfoWatcher>(configuration.volumeMountDirectories, services.workspaceNotifications.get());
    services.wakeEventSource = std::make_unique<LogindWakeWatcher>(services.workspaceNotifications.get());
    services.runningApplications =
        std::make_unique<LockFileRunningApplications>(configuration.runtimeStateDirectory, QDir::tempPath());
    return services;
}
