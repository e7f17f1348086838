// The system's login-item service: whether the application starts when the user logs in.
#pragma once

#include <QString>
#include <optional>

struct LoginItemError {
    QString domain;
    int code = 0;
    QString message;
};

class LoginItemService {
public:
    // Status values as the service reports them.
    static constexpr int statusNotRegistered = 0;
    static constexpr int statusEnabled = 1;
    static constexpr int statusRequiresApproval = 2;
    static constexpr int statusNotFound = 3;
    // Error codes the run-at-startup logic tells apart.
    static constexpr int errorJobNotFound = 6;
    static constexpr int errorLaunchDeniedByUser = 11;
    static constexpr int errorAlreadyRegistered = 12;

    virtual ~LoginItemService() = default;
    // False where the service does not exist (before macOS 13); the legacy launch agent is used then.
    virtual bool isAvailable() const = 0;
    virtual int status() const = 0;
    // No value on success.
    virtual std::optional<LoginItemError> registerApp() = 0;
    virtual std::optional<LoginItemError> unregisterApp() = 0;
    virtual void openSystemSettingsLoginItems() = 0;
};
