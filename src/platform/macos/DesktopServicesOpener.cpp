#include "platform/macos/DesktopServicesOpener.h"

#include <QDesktopServices>

void DesktopServicesOpener::open(const QUrl &location)
{
    // A location no application takes only means nothing opens; the controller does not depend on it.
    QDesktopServices::openUrl(location);
}
