#include "support/FakePlatform.h"

PlatformServices FakePlatform::services(bool statusButtonAvailable)
{
    PlatformServices services;
    services.makeStatusItem = [this, statusButtonAvailable] {
        auto item = std::make_unique<FakeStatusItem>(statusButtonAvailable);
        statusItem = item.get();
        return item;
    };
    auto recordingOpener = std::make_unique<RecordingOpener>();
    opener = recordingOpener.get();
    services.opener = std::move(recordingOpener);
    auto login = std::make_unique<FakeLoginItemService>();
    loginItems = login.get();
    services.loginItems = std::move(login);
    services.workspaceNotifications = std::make_unique<WorkspaceNotificationCenter>();
    notifications = services.workspaceNotifications.get();
    auto running = std::make_unique<FixedRunningApplications>();
    runningApplications = running.get();
    services.runningApplications = std::move(running);
    return services;
}
