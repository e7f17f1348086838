// The macOS implementations of the platform services. The status item is Qt's tray icon, which
// on macOS is an NSStatusItem with the menu attached to it.
#include "app/Configuration.h"
#include "platform/LockFileRunningApplications.h"
#include "platform/PlatformServices.h"
#include "platform/TrayStatusItem.h"
#include "platform/macos/BundleRunningApplications.h"
#include "platform/macos/DesktopServicesOpener.h"
#include "platform/macos/ServiceManagementLoginItemService.h"
#include "platform/macos/WorkspaceVolumeNotifications.h"

#include <QDir>

PlatformServices PlatformServices::forThisSystem(const Configuration &configuration)
{
    PlatformServices services;
    services.makeStatusItem = [] { return std::make_unique<TrayStatusItem>(); };
    services.opener = std::make_unique<DesktopServicesOpener>();
    services.loginItems = std::make_unique<ServiceManagementLoginItemService>();
    services.workspaceNotifications = std::make_unique<WorkspaceNotificationCenter>();
    services.volumeEventSource = std::make_unique<WorkspaceVolumeNotifications>(services.workspaceNotifications.get());
    // Launch Services knows an application by its bundle; a bare executable (a build or test copy)
    // is counted with the per-user lock instead, in the per-user temporary folder macOS gives.
    if (configuration.applicationBundle)
        services.runningApplications = std::make_unique<BundleRunningApplications>();
    else
        services.runningApplications =
            std::make_unique<LockFileRunningApplications>(QDir::tempPath(), QDir::tempPath());
    return services;
}
