// The status item's badge: a dark rounded square washed with a faint diagonal gradient, outlined
// in colour, with an open diamond mark inside; cyan tones while the agent runs, grey when offline.
#pragma once

#include <QColor>
#include <QIcon>
#include <QRectF>

class QPainter;

// The badge's nominal size in points.
inline constexpr qreal brandImageSide = 18.0;

struct BadgeColors {
    QColor fill;
    QColor gradientStart;
    QColor gradientEnd;
    QColor outline;
    QColor mark;
};

// The badge's colours while the agent runs, or while it is offline.
BadgeColors badgeColors(bool running);

// Draws the badge filling destination (18 points of badge geometry are spread over the
// rectangle's width and height), with antialiasing. Leaves the painter's state as it found it.
void drawBrandBadge(QPainter &painter, const QRectF &destination, bool running);

// A new 18 by 18 point image that draws the badge on demand at whatever size and scale it is
// rendered. It captures nothing but the running flag.
QIcon makeBrandStatusImage(bool running);
