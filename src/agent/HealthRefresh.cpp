// Keeping the menu in step with the agent's health, and the start at launch.
#include "app/AppDelegate.h"

void AppDelegate::refreshHealthTimerFired()
{
    refreshHealth();
}

void AppDelegate::refreshHealth() {}

void AppDelegate::startAgentIfNeededOnLaunch() {}
