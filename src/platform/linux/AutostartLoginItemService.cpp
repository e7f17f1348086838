#include "platform/linux/AutostartLoginItemService.h"

#include "platform/LocationOpener.h"

AutostartLoginItemService::AutostartLoginItemService(QString configDirectory, QString bundleIdentifier,
                                                     QString executablePath, LocationOpener *opener)
    : configDirectory_(std::move(configDirectory)),
      bundleIdentifier_(std::move(bundleIdentifier)),
      executablePath_(std::move(executablePath)),
      opener_(opener)
{
}

bool AutostartLoginItemService::isAvailable() const
{
    return true;
}

int AutostartLoginItemService::status() const
{
    return statusNotRegistered;
}

std::optional<LoginItemError> AutostartLoginItemService::registerApp()
{
    return LoginItemError{QStringLiteral("AutostartErrorDomain"), 1, QStringLiteral("not implemented")};
}

std::optional<LoginItemError> AutostartLoginItemService::unregisterApp()
{
    return LoginItemError{QStringLiteral("AutostartErrorDomain"), errorJobNotFound, QStringLiteral("not registered")};
}

void AutostartLoginItemService::openSystemSettingsLoginItems() {}

QString AutostartLoginItemService::entryPath() const
{
    return configDirectory_ + QStringLiteral("/autostart/") + bundleIdentifier_ + QStringLiteral(".desktop");
}
