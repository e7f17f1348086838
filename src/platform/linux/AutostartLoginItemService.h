// Run at login on Linux desktops: an XDG autostart entry that starts the program with
// --launched-at-login.
#pragma once

#include "platform/LoginItemService.h"

#include <QString>

class LocationOpener;

class AutostartLoginItemService : public LoginItemService {
public:
    AutostartLoginItemService(QString configDirectory, QString bundleIdentifier, QString executablePath,
                              LocationOpener *opener);

    bool isAvailable() const override;
    int status() const override;
    std::optional<LoginItemError> registerApp() override;
    std::optional<LoginItemError> unregisterApp() override;
    void openSystemSettingsLoginItems() override;

    QString entryPath() const;

private:
    QString configDirectory_;
    QString bundleIdentifier_;
    QString executablePath_;
    LocationOpener *opener_;
};
