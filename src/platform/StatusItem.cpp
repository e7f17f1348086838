#include "platform/StatusItem.h"

void StatusButton::setImage(const QIcon &image)
{
    image_ = image;
    ++imageGeneration_;
    emit changed();
}

void StatusButton::setImagePosition(ImagePosition position)
{
    imagePosition_ = position;
    emit changed();
}

void StatusButton::setTitle(const QString &title)
{
    title_ = title;
    emit changed();
}

void StatusButton::setAppearsDisabled(bool appearsDisabled)
{
    appearsDisabled_ = appearsDisabled;
    emit changed();
}

void StatusButton::setToolTip(const QString &toolTip)
{
    toolTip_ = toolTip;
    emit changed();
}
