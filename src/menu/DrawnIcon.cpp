#include "menu/DrawnIcon.h"

#include <QPainter>
#include <QPixmap>

namespace {

// Sizes offered to whoever asks what the icon has (a StatusNotifierItem host, for one, is sent a
// pixmap of each). Any other size is drawn just as well when asked for.
const QList<int> offeredSides = {16, 18, 22, 24, 32, 48, 64};

} // namespace

DrawnIconEngine::DrawnIconEngine(QSizeF nominalSize, DrawingHandler handler)
    : nominalSize_(nominalSize), handler_(std::move(handler))
{
}

QRectF DrawnIconEngine::fitted(const QRectF &bounds) const
{
    if (nominalSize_.isEmpty())
        return bounds;
    const QSizeF size = nominalSize_.scaled(bounds.size(), Qt::KeepAspectRatio);
    return QRectF(bounds.x() + (bounds.width() - size.width()) / 2, bounds.y() + (bounds.height() - size.height()) / 2,
                  size.width(), size.height());
}

void DrawnIconEngine::paint(QPainter *painter, const QRect &rect, QIcon::Mode, QIcon::State)
{
    if (!painter || !handler_)
        return;
    painter->save();
    handler_(*painter, fitted(QRectF(rect)));
    painter->restore();
}

QSize DrawnIconEngine::actualSize(const QSize &size, QIcon::Mode, QIcon::State)
{
    return fitted(QRectF(QPointF(), QSizeF(size))).size().toSize();
}

QPixmap DrawnIconEngine::pixmap(const QSize &size, QIcon::Mode mode, QIcon::State state)
{
    return scaledPixmap(size, mode, state, 1.0);
}

QPixmap DrawnIconEngine::scaledPixmap(const QSize &size, QIcon::Mode, QIcon::State, qreal scale)
{
    // QIcon (Qt 6.4) asks for the size in device pixels already multiplied by scale; the drawing
    // happens in logical units on a pixmap of that ratio, so lines keep their width in points.
    if (size.isEmpty() || !(scale > 0))
        return QPixmap();
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    pixmap.setDevicePixelRatio(scale);
    if (handler_) {
        QPainter painter(&pixmap);
        handler_(painter, fitted(QRectF(QPointF(), QSizeF(size) / scale)));
    }
    return pixmap;
}

QList<QSize> DrawnIconEngine::availableSizes(QIcon::Mode, QIcon::State)
{
    QList<QSize> sizes;
    for (int side : offeredSides)
        sizes.append(fitted(QRectF(0, 0, side, side)).size().toSize());
    return sizes;
}

QString DrawnIconEngine::key() const
{
    return QStringLiteral("DrawnIconEngine");
}

QIconEngine *DrawnIconEngine::clone() const
{
    return new DrawnIconEngine(nominalSize_, handler_);
}

QIcon makeDrawnIcon(QSizeF nominalSize, DrawnIconEngine::DrawingHandler handler)
{
    return QIcon(new DrawnIconEngine(nominalSize, std::move(handler)));
}
