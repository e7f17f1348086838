#include "menu/MenuItemCheckState.h"

#include "menu/DrawnIcon.h"

#include <QAction>
#include <QPainter>
#include <QPen>

namespace {

constexpr qreal dashIconSide = 16.0;
// A neutral grey stays legible on light and dark menus alike.
const QColor dashColor(128, 128, 128);

QIcon makeDashIcon()
{
    return makeDrawnIcon(QSizeF(dashIconSide, dashIconSide), [](QPainter &painter, const QRectF &r) {
        painter.setRenderHint(QPainter::Antialiasing, true);
        const qreal unit = r.width() / dashIconSide;
        painter.setPen(QPen(dashColor, 2.0 * unit, Qt::SolidLine, Qt::RoundCap));
        const qreal y = r.center().y();
        painter.drawLine(QPointF(r.left() + 4.0 * unit, y), QPointF(r.right() - 4.0 * unit, y));
    });
}

} // namespace

void setMenuItemCheckState(QAction *item, int state)
{
    if (!item)
        return;
    const bool mixed = state < 0;
    const Qt::CheckState checkState = mixed ? Qt::PartiallyChecked : state > 0 ? Qt::Checked : Qt::Unchecked;
    // The property first: the icon and checked changes below notify the menu, which then sees
    // the whole new state at once.
    item->setProperty(menuItemCheckStateProperty, int(checkState));
    item->setIconVisibleInMenu(true);
    item->setIcon(mixed ? makeDashIcon() : QIcon());
    item->setCheckable(true);
    item->setChecked(checkState == Qt::Checked);
}

int menuItemCheckState(const QAction *item)
{
    if (!item || !item->isCheckable())
        return menuItemStateOff;
    if (item->isChecked())
        return menuItemStateOn;
    if (item->property(menuItemCheckStateProperty).toInt() == int(Qt::PartiallyChecked))
        return menuItemStateMixed;
    return menuItemStateOff;
}
