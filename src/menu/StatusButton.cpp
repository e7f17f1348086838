// The status button: the badge image and the tool tip that say whether the agent runs.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"
#include "menu/BrandImage.h"

void AppDelegate::configureStatusButton(bool running)
{
    StatusButton *button = statusItem ? statusItem->button() : nullptr;
    if (!button) {
        AppLogger::shared().log(QStringLiteral("Status item button was unavailable."));
        return;
    }
    button->setImage(makeBrandStatusImage(running));
    button->setImagePosition(StatusButton::ImagePosition::ImageOnly);
    button->setTitle(QString());
    button->setAppearsDisabled(false);
    button->setToolTip(running ? QStringLiteral("Quillmere Agent is running")
                               : QStringLiteral("Quillmere Agent is offline"));
}
