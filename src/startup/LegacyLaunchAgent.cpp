// The per-user launch agent property list used where the login-item service cannot be.
#include "app/AppDelegate.h"

QString AppDelegate::launchAgentPlistURL() const
{
    return {};
}
bool AppDelegate::legacyRunAtStartupEnabled() const
{
    return false;
}
void AppDelegate::installLegacyRunAtStartup() {}
void AppDelegate::removeLegacyRunAtStartup() {}
void AppDelegate::bootstrapLegacyLaunchAgent(const QString &, const QString &) {}
void AppDelegate::bootoutLegacyLaunchAgent(const QString &) {}
