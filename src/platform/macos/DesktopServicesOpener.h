// Opens locations with the user's default applications through Qt, which on macOS hands them to
// NSWorkspace. Built only on macOS.
#pragma once

#include "platform/LocationOpener.h"

class DesktopServicesOpener : public LocationOpener {
public:
    void open(const QUrl &location) override;
};
