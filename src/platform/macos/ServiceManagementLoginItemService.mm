#include "platform/macos/ServiceManagementLoginItemService.h"

#include <QString>

#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

namespace {

// The error as the run-at-startup logic logs and judges it: domain, code, localized description.
LoginItemError loginItemError(NSError *error)
{
    if (!error)
        return LoginItemError{QStringLiteral("SMAppServiceErrorDomain"), -1, QStringLiteral("Unknown error")};
    return LoginItemError{QString::fromNSString(error.domain), int(error.code),
                          QString::fromNSString(error.localizedDescription)};
}

} // namespace

bool ServiceManagementLoginItemService::isAvailable() const
{
    if (@available(macOS 13.0, *))
        return true;
    return false;
}

int ServiceManagementLoginItemService::status() const
{
    if (@available(macOS 13.0, *))
        return int(SMAppService.mainAppService.status);
    return statusNotFound;
}

std::optional<LoginItemError> ServiceManagementLoginItemService::registerApp()
{
    if (@available(macOS 13.0, *)) {
        NSError *error = nil;
        if ([SMAppService.mainAppService registerAndReturnError:&error])
            return std::nullopt;
        return loginItemError(error);
    }
    return loginItemError(nil);
}

std::optional<LoginItemError> ServiceManagementLoginItemService::unregisterApp()
{
    if (@available(macOS 13.0, *)) {
        NSError *error = nil;
        if ([SMAppService.mainAppService unregisterAndReturnError:&error])
            return std::nullopt;
        return loginItemError(error);
    }
    return loginItemError(nil);
}

void ServiceManagementLoginItemService::openSystemSettingsLoginItems()
{
    if (@available(macOS 13.0, *))
        [SMAppService openSystemSettingsLoginItems];
}
