// Launch agents of earlier editions that started the application at login.
#include "app/AppDelegate.h"

QStringList AppDelegate::obsoleteNativeLaunchAgentPlistURLs() const
{
    return {};
}
void AppDelegate::removeObsoleteNativeLaunchAgentsIfPresent() {}
