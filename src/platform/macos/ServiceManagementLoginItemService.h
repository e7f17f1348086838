// The login-item service of macOS 13 and later (ServiceManagement's SMAppService for the main
// application). On older systems it reports itself unavailable and run-at-startup uses the
// legacy launch agent instead. Built only on macOS.
#pragma once

#include "platform/LoginItemService.h"

class ServiceManagementLoginItemService : public LoginItemService {
public:
    bool isAvailable() const override;
    int status() const override;
    std::optional<LoginItemError> registerApp() override;
    std::optional<LoginItemError> unregisterApp() override;
    void openSystemSettingsLoginItems() override;
};
