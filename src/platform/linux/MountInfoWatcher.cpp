#include "platform/linux/MountInfoWatcher.h"

#include "platform/WorkspaceNotificationCenter.h"

MountInfoWatcher::MountInfoWatcher(QString mountFolder, WorkspaceNotificationCenter *center, QObject *parent)
    : QObject(parent), mountFolder_(std::move(mountFolder)), center_(center)
{
}
