// Watching volumes come, go and change name, and scheduling the debounced sync.
#include "app/AppDelegate.h"

#include <QPointer>

#include <chrono>

namespace {

const QString appLaunchReason = QStringLiteral("app-launch");

} // namespace

void AppDelegate::configureMountedVolumeMonitoring()
{
    // Configuring again must not leave a second set of registrations behind.
    removeMountedVolumeMonitoring();

    if (WorkspaceNotificationCenter *center = platform_.workspaceNotifications.get()) {
        for (const QString &name : {WorkspaceNotification::didMount, WorkspaceNotification::didUnmount,
                                    WorkspaceNotification::didRenameVolume}) {
            const auto token = center->addObserver(
                name, this, [weakSelf = QPointer<AppDelegate>(this)](const QString &notificationName) {
                    if (weakSelf)
                        weakSelf->scheduleMountedVolumesSync(notificationName, false);
                });
            mountedVolumeObserverTokens.append(token);
        }
    }

    scheduleMountedVolumesSync(appLaunchReason, true);
}

void AppDelegate::removeMountedVolumeMonitoring()
{
    if (mountedVolumeSyncDebounceWorkItem)
        mountedVolumeSyncDebounceWorkItem->cancel();
    mountedVolumeSyncDebounceWorkItem.reset();

    if (WorkspaceNotificationCenter *center = platform_.workspaceNotifications.get()) {
        for (const auto token : std::as_const(mountedVolumeObserverTokens))
            center->removeObserver(token);
    }
    mountedVolumeObserverTokens.clear();
}

void AppDelegate::scheduleMountedVolumesSync(const QString &reason, bool force)
{
    // Only the latest trigger of a burst counts: the one still waiting never runs.
    if (mountedVolumeSyncDebounceWorkItem)
        mountedVolumeSyncDebounceWorkItem->cancel();

    auto item = std::make_shared<DispatchWorkItem>([weakSelf = QPointer<AppDelegate>(this), reason, force] {
        if (weakSelf)
            weakSelf->syncMountedVolumesCache(reason, force);
    });
    // Kept after it has run; only the next schedule or the removal of monitoring replaces it.
    mountedVolumeSyncDebounceWorkItem = item;
    item->schedule(this, force ? std::chrono::milliseconds::zero() : configuration_.volumeSyncDebounce);
}
