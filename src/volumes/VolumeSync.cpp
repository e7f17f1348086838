// Posting the mounted-volume snapshot to the agent.
#include "app/AppDelegate.h"

QList<VolumeEntry> AppDelegate::currentMountedVolumesPayload() const
{
    return {};
}
void AppDelegate::syncMountedVolumesCache(const QString &, bool) {}
