#include "menu/BrandImage.h"

#include "menu/DrawnIcon.h"

#include <QColor>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPen>
#include <cmath>
#include <numbers>

namespace {

// Badge geometry in points, in a y-up frame (origin at the lower left) of an 18 point square.
constexpr qreal badgeInset = 1.2;
constexpr qreal badgeCornerRadius = 4.8;
constexpr qreal badgeOutlineWidth = 1.0;
constexpr qreal markInset = 4.8;
constexpr qreal markLineWidth = 1.8;
// Counter-clockwise from the positive x axis: from the lower right towards the upper left.
constexpr qreal gradientAngleDegrees = 135.0;

QColor rgb255(int red, int green, int blue, qreal alpha)
{
    return QColor::fromRgbF(float(red / 255.0), float(green / 255.0), float(blue / 255.0), float(alpha));
}

QColor white255(int white, qreal alpha)
{
    return rgb255(white, white, white, alpha);
}

// A linear gradient laid across bounds at angle (degrees, counter-clockwise, y up): the start and
// end points sit where the gradient line meets the perpendiculars through the outermost corners,
// so the start colour lands on one corner and the end colour on the opposite one.
QLinearGradient gradientAcross(const QRectF &bounds, qreal angleDegrees)
{
    const qreal radians = angleDegrees * std::numbers::pi / 180.0;
    const QPointF direction(std::cos(radians), std::sin(radians));
    const qreal halfLength = (bounds.width() * std::abs(direction.x()) + bounds.height() * std::abs(direction.y())) / 2;
    const QPointF centre = bounds.center();
    return QLinearGradient(centre - direction * halfLength, centre + direction * halfLength);
}

} // namespace

BadgeColors badgeColors(bool running)
{
    if (running)
        return {white255(17, 0.98), rgb255(10, 183, 222, 0.34), rgb255(3, 131, 162, 0.12), rgb255(77, 166, 195, 0.82),
                rgb255(150, 235, 251, 1.0)};
    return {white255(70, 0.9), rgb255(138, 145, 154, 0.24), rgb255(96, 103, 111, 0.12), rgb255(171, 178, 186, 0.7),
            rgb255(222, 226, 230, 0.9)};
}

void drawBrandBadge(QPainter &painter, const QRectF &destination, bool running)
{
    if (destination.isEmpty())
        return;
    const BadgeColors colors = badgeColors(running);

    painter.save();
    painter.setRenderHint(QPainter::Antialiasing, true);
    // Map the 18 point y-up frame onto the destination: scale, then flip so that y grows upwards.
    painter.translate(destination.left(), destination.bottom());
    painter.scale(destination.width() / brandImageSide, -destination.height() / brandImageSide);

    const QRectF bounds(0, 0, brandImageSide, brandImageSide);
    const QRectF badgeSquare = bounds.adjusted(badgeInset, badgeInset, -badgeInset, -badgeInset);
    QPainterPath badge;
    badge.addRoundedRect(badgeSquare, badgeCornerRadius, badgeCornerRadius);

    // Both washes cover exactly the badge path, so filling the path confines them to the badge
    // just as a clip would, without a second, separately antialiased clip edge.
    painter.fillPath(badge, colors.fill);
    QLinearGradient wash = gradientAcross(badge.boundingRect(), gradientAngleDegrees);
    // Interpolate the components themselves (alpha included) rather than premultiplied values.
    wash.setInterpolationMode(QGradient::ComponentInterpolation);
    wash.setColorAt(0, colors.gradientStart);
    wash.setColorAt(1, colors.gradientEnd);
    painter.fillPath(badge, wash);

    // The outline is centred on the badge edge: half of it lies outside the square.
    QPen outlinePen(colors.outline, badgeOutlineWidth);
    outlinePen.setJoinStyle(Qt::MiterJoin);
    outlinePen.setCapStyle(Qt::FlatCap);
    painter.strokePath(badge, outlinePen);

    // The mark: an open diamond through the midpoints of the mark square's sides, its upper-left
    // side left out. In this y-up frame the top of the square is its largest y (Qt's bottom()).
    const QRectF markSquare = badgeSquare.adjusted(markInset, markInset, -markInset, -markInset);
    const qreal cx = markSquare.center().x();
    const qreal cy = markSquare.center().y();
    QPainterPath mark;
    mark.moveTo(cx, markSquare.bottom());
    mark.lineTo(markSquare.right(), cy);
    mark.lineTo(cx, markSquare.top());
    mark.lineTo(markSquare.left(), cy);
    painter.strokePath(mark, QPen(colors.mark, markLineWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));

    painter.restore();
}

QIcon makeBrandStatusImage(bool running)
{
    QIcon image = makeDrawnIcon(QSizeF(brandImageSide, brandImageSide),
                                [running](QPainter &painter, const QRectF &r) { drawBrandBadge(painter, r, running); });
    // Shown in its own colours: never recoloured as a template (mask) image by the menu bar.
    image.setIsMask(false);
    return image;
}
