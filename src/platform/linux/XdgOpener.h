// Opens locations with xdg-open, detached, so that nothing waits for the handler.
#pragma once

#include "platform/LocationOpener.h"

class XdgOpener : public LocationOpener {
public:
    void open(const QUrl &location) override;
};
