// An icon that holds no pixels: a drawing handler paints it whenever it is rendered, at the size
// and device-pixel ratio asked for, so it stays crisp on any panel and any display scale.
#pragma once

#include <QIcon>
#include <QIconEngine>
#include <QSizeF>
#include <functional>

class QPainter;

class DrawnIconEngine : public QIconEngine {
public:
    // Paints the whole image into the destination rectangle, given in logical (device-independent)
    // units; the painter already carries any device-pixel scaling.
    using DrawingHandler = std::function<void(QPainter &painter, const QRectF &destination)>;

    DrawnIconEngine(QSizeF nominalSize, DrawingHandler handler);

    void paint(QPainter *painter, const QRect &rect, QIcon::Mode mode, QIcon::State state) override;
    QSize actualSize(const QSize &size, QIcon::Mode mode, QIcon::State state) override;
    QPixmap pixmap(const QSize &size, QIcon::Mode mode, QIcon::State state) override;
    QPixmap scaledPixmap(const QSize &size, QIcon::Mode mode, QIcon::State state, qreal scale) override;
    QList<QSize> availableSizes(QIcon::Mode mode, QIcon::State state) override;
    QString key() const override;
    QIconEngine *clone() const override;

private:
    // The largest rectangle of the nominal aspect ratio that fits in bounds, centred.
    QRectF fitted(const QRectF &bounds) const;

    QSizeF nominalSize_;
    DrawingHandler handler_;
};

// An icon of the given nominal size (in logical units) drawn by handler.
QIcon makeDrawnIcon(QSizeF nominalSize, DrawnIconEngine::DrawingHandler handler);
