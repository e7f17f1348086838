#include "support/FakePlatform.h"

PlatformServices FakePlatform::services()
{
    PlatformServices services;
    services.makeStatusItem = [this] {
        auto item = std::make_unique<FakeStatusItem>();
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
