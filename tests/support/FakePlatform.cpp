#include "support/FakePlatform.h"

PlatformServices FakePlatform::services(bool statusButtonAvailable)
{
    PlatformServices services;
    services.makeStatusItem = [this, statusButtonAvailable] {
        auto item = std::make_unique<FakeStatusItem>(statusButtonAvailable);
        statusItem = item.get();
        return item;
    };
    services.opener = std::make_unique<RecordingOpener>();
    opener = static_cast<RecordingOpener *>(services.opener.get());
    services.loginItems = std::make_unique<FakeLoginItemService>();
    loginItems = static_cast<FakeLoginItemService *>(services.loginItems.get());
    services.workspaceNotifications = std::make_unique<WorkspaceNotificationCenter>();
    notifications = services.workspaceNotifications.get();
    services.runningApplications = std::make_unique<OneRunningApplication>();
    return services;
}
