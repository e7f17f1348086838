// Opens a web page, file or folder with the user's default application.
#pragma once

#include <QUrl>

class LocationOpener {
public:
    virtual ~LocationOpener() = default;
    // Never blocks and never fails loudly: what the handler does with the location is its own.
    virtual void open(const QUrl &location) = 0;
};
