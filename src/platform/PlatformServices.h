// The operating-system services the controller needs, each behind a narrow interface.
#pragma once

#include "platform/LocationOpener.h"
#include "platform/LoginItemService.h"
#include "platform/RunningApplications.h"
#include "platform/StatusItem.h"
#include "platform/WorkspaceNotificationCenter.h"

#include <QObject>
#include <functional>
#include <memory>

struct Configuration;

struct PlatformServices {
    std::function<std::unique_ptr<StatusItem>()> makeStatusItem;
    std::unique_ptr<LocationOpener> opener;
    std::unique_ptr<LoginItemService> loginItems;
    std::unique_ptr<WorkspaceNotificationCenter> workspaceNotifications;
    // Posts the system's volume events into workspaceNotifications; may be absent.
    std::unique_ptr<QObject> volumeEventSource;
    // Posts the machine's wake from sleep into workspaceNotifications; may be absent.
    std::unique_ptr<QObject> wakeEventSource;
    std::unique_ptr<RunningApplications> runningApplications;

    // The real services of the system the program runs on.
    static PlatformServices forThisSystem(const Configuration &configuration);
};
