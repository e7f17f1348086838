// Pages and folders that the menu opens.
#include "app/AppDelegate.h"

void AppDelegate::openCloudAdmin() {}
void AppDelegate::openAgentUpdatePage() {}
void AppDelegate::openLocalAdmin() {}
void AppDelegate::openGettingStarted() {}
void AppDelegate::openStartupStatus() {}
void AppDelegate::openLogs() {}
bool AppDelegate::openGettingStartedPage(bool)
{
    return false;
}
void AppDelegate::openStartupPage(bool) {}
