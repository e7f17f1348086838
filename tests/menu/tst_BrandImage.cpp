// The status badge, rendered at several sizes and scales and compared pixel by pixel with an
// independent model of its geometry and colours (coverage found by supersampling).
#include "menu/BrandImage.h"

#include <QDir>
#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QTest>
#include <algorithm>
#include <array>
#include <cmath>

namespace {

// Premultiplied colour, components 0..1.
struct Rgba {
    double r = 0, g = 0, b = 0, a = 0;
};

Rgba over(const Rgba &src, const Rgba &dst)
{
    const double k = 1 - src.a;
    return {src.r + dst.r * k, src.g + dst.g * k, src.b + dst.b * k, src.a + dst.a * k};
}

// An unpremultiplied colour given as n/255 components and an alpha.
struct Paint {
    double r, g, b, a;
    static Paint rgb(int red, int green, int blue, double alpha)
    {
        return {red / 255.0, green / 255.0, blue / 255.0, alpha};
    }
    static Paint white(int value, double alpha) { return rgb(value, value, value, alpha); }
    Rgba premultiplied() const { return {r * a, g * a, b * a, a}; }
};

struct BadgeColours {
    Paint fill, gradientStart, gradientEnd, outline, mark;
};

const BadgeColours runningColours{Paint::white(17, 0.98), Paint::rgb(10, 183, 222, 0.34), Paint::rgb(3, 131, 162, 0.12),
                                  Paint::rgb(77, 166, 195, 0.82), Paint::rgb(150, 235, 251, 1.0)};
const BadgeColours offlineColours{Paint::white(70, 0.9), Paint::rgb(138, 145, 154, 0.24),
                                  Paint::rgb(96, 103, 111, 0.12), Paint::rgb(171, 178, 186, 0.7),
                                  Paint::rgb(222, 226, 230, 0.9)};

const BadgeColours &colours(bool running)
{
    return running ? runningColours : offlineColours;
}

struct Point {
    double x, y; // points, y up, origin at the lower left of the 18 point image
};

// Signed distance to the edge of the badge: a 15.6 point square centred in the image with
// corners of radius 4.8 (negative inside).
double badgeEdgeDistance(Point p)
{
    const double half = 7.8, radius = 4.8;
    const double qx = std::abs(p.x - 9) - (half - radius);
    const double qy = std::abs(p.y - 9) - (half - radius);
    const double outside = std::hypot(std::max(qx, 0.0), std::max(qy, 0.0));
    return outside + std::min(std::max(qx, qy), 0.0) - radius;
}

double segmentDistance(Point p, Point a, Point b)
{
    const double dx = b.x - a.x, dy = b.y - a.y;
    const double t = std::clamp(((p.x - a.x) * dx + (p.y - a.y) * dy) / (dx * dx + dy * dy), 0.0, 1.0);
    return std::hypot(p.x - (a.x + t * dx), p.y - (a.y + t * dy));
}

// Distance to the centre line of the mark: top, right, bottom, left corner, in that order, with
// no side from the left corner back to the top.
double markDistance(Point p)
{
    const Point top{9, 12}, right{12, 9}, bottom{9, 6}, left{6, 9};
    return std::min(
        {segmentDistance(p, top, right), segmentDistance(p, right, bottom), segmentDistance(p, bottom, left)});
}

constexpr double outlineHalfWidth = 0.5;
constexpr double markHalfWidth = 0.9;

// The colour of the badge at one point: fill and a gradient from the lower right (start) to the
// upper left (end) inside the badge, the outline across its edge, the mark on top.
Rgba modelColour(Point p, bool running, bool withMark = true)
{
    const BadgeColours &c = colours(running);
    const double edge = badgeEdgeDistance(p);
    Rgba colour;
    if (edge < 0) {
        colour = over(c.fill.premultiplied(), colour);
        // Corner (16.8, 1.2) to corner (1.2, 16.8).
        const double t = std::clamp(((p.x - 16.8) * -15.6 + (p.y - 1.2) * 15.6) / (2 * 15.6 * 15.6), 0.0, 1.0);
        const Paint g{c.gradientStart.r + t * (c.gradientEnd.r - c.gradientStart.r),
                      c.gradientStart.g + t * (c.gradientEnd.g - c.gradientStart.g),
                      c.gradientStart.b + t * (c.gradientEnd.b - c.gradientStart.b),
                      c.gradientStart.a + t * (c.gradientEnd.a - c.gradientStart.a)};
        colour = over(g.premultiplied(), colour);
    }
    if (std::abs(edge) <= outlineHalfWidth)
        colour = over(c.outline.premultiplied(), colour);
    if (withMark && markDistance(p) <= markHalfWidth)
        colour = over(c.mark.premultiplied(), colour);
    return colour;
}

struct Rendering {
    QImage image; // premultiplied ARGB, one pixel per device pixel
    double pixelsPerPoint;

    // The device pixel holding a point given in y-up points.
    QPoint pixelAt(Point p) const
    {
        return QPoint(int(std::floor(p.x * pixelsPerPoint)), int(std::floor((18 - p.y) * pixelsPerPoint)));
    }
    Point pixelCentre(int px, int py) const { return {(px + 0.5) / pixelsPerPoint, 18 - (py + 0.5) / pixelsPerPoint}; }
    Rgba pixel(QPoint at) const
    {
        const QRgb v = image.pixel(at);
        return {qRed(v) / 255.0, qGreen(v) / 255.0, qBlue(v) / 255.0, qAlpha(v) / 255.0};
    }
    Rgba pixel(Point p) const { return pixel(pixelAt(p)); }
};

Rendering render(bool running, int side, qreal devicePixelRatio)
{
    const QPixmap pixmap = makeBrandStatusImage(running).pixmap(QSize(side, side), devicePixelRatio);
    return {pixmap.toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied), side * devicePixelRatio / 18.0};
}

// The model over one pixel (widened by margin points on every side): its average, and the least
// and greatest value of each channel found there.
struct PixelModel {
    Rgba mean, least, greatest;
};

PixelModel modelPixel(const Rendering &r, int px, int py, bool running, double margin = 0)
{
    constexpr int samples = 12;
    const double left = px / r.pixelsPerPoint - margin, top = py / r.pixelsPerPoint - margin;
    const double span = 1 / r.pixelsPerPoint + 2 * margin;
    Rgba sum, least{1, 1, 1, 1}, greatest;
    for (int i = 0; i < samples; ++i) {
        for (int j = 0; j < samples; ++j) {
            const Point p{left + (i + 0.5) * span / samples, 18 - (top + (j + 0.5) * span / samples)};
            const Rgba c = modelColour(p, running);
            sum = {sum.r + c.r, sum.g + c.g, sum.b + c.b, sum.a + c.a};
            least = {std::min(least.r, c.r), std::min(least.g, c.g), std::min(least.b, c.b), std::min(least.a, c.a)};
            greatest = {std::max(greatest.r, c.r), std::max(greatest.g, c.g), std::max(greatest.b, c.b),
                        std::max(greatest.a, c.a)};
        }
    }
    constexpr double n = samples * samples;
    return {{sum.r / n, sum.g / n, sum.b / n, sum.a / n}, least, greatest};
}

// Whether every channel of c lies within [least, greatest], give or take tolerance (in 1/255).
bool within(const Rgba &c, const PixelModel &m, double tolerance)
{
    const double t = tolerance / 255;
    return c.r >= m.least.r - t && c.r <= m.greatest.r + t && c.g >= m.least.g - t && c.g <= m.greatest.g + t &&
           c.b >= m.least.b - t && c.b <= m.greatest.b + t && c.a >= m.least.a - t && c.a <= m.greatest.a + t;
}

// Largest channel difference, in 1/255 steps.
double difference(const Rgba &a, const Rgba &b)
{
    return 255 * std::max({std::abs(a.r - b.r), std::abs(a.g - b.g), std::abs(a.b - b.b), std::abs(a.a - b.a)});
}

QString describe(const Rgba &c)
{
    return QStringLiteral("(%1, %2, %3, a %4)")
        .arg(qRound(c.r * 255))
        .arg(qRound(c.g * 255))
        .arg(qRound(c.b * 255))
        .arg(qRound(c.a * 255));
}

double luminance(const Rgba &c)
{
    return 0.2126 * c.r + 0.7152 * c.g + 0.0722 * c.b;
}

void addRenderingRows()
{
    QTest::addColumn<bool>("running");
    QTest::addColumn<int>("side");
    QTest::addColumn<qreal>("devicePixelRatio");
    struct Size {
        int side;
        qreal dpr;
    };
    for (bool running : {true, false}) {
        for (Size s : {Size{18, 1}, Size{18, 2}, Size{36, 1}, Size{64, 1}, Size{18, 8}}) {
            QTest::addRow("%s %dpt@%gx", running ? "running" : "offline", s.side, s.dpr) << running << s.side << s.dpr;
        }
    }
}

} // namespace

class BrandImageTest : public QObject {
    Q_OBJECT
private slots:
    void rendersAtTheRequestedScale();
    void matchesTheModelEverywhere_data() { addRenderingRows(); }
    void matchesTheModelEverywhere();
    void outlineLiesAcrossTheBadgeEdge_data() { addRenderingRows(); }
    void outlineLiesAcrossTheBadgeEdge();
    void markIsADiamondWithItsUpperLeftSideOpen_data() { addRenderingRows(); }
    void markIsADiamondWithItsUpperLeftSideOpen();
    void gradientBrightensTowardsTheLowerRight_data() { addRenderingRows(); }
    void gradientBrightensTowardsTheLowerRight();
    void runningAndOfflineShareTheirShape_data();
    void runningAndOfflineShareTheirShape();
    void eachImageIsNewButLooksTheSame();
    void drawingLeavesThePainterAsItWas();
    void writesRenderingsForInspection();
};

void BrandImageTest::rendersAtTheRequestedScale()
{
    const QIcon image = makeBrandStatusImage(true);
    QVERIFY(!image.isNull());
    QVERIFY(!image.isMask());
    QCOMPARE(image.actualSize(QSize(18, 18)), QSize(18, 18));
    QVERIFY(image.availableSizes().contains(QSize(18, 18)));

    const QPixmap doubled = image.pixmap(QSize(18, 18), 2.0);
    QCOMPARE(doubled.size(), QSize(36, 36));
    QCOMPARE(doubled.devicePixelRatio(), 2.0);
    // Drawn afresh at each size, never scaled from another rendering: 18 points at twice the
    // density are the same pixels as 36 points at single density.
    QImage doubledPixels = doubled.toImage();
    doubledPixels.setDevicePixelRatio(1.0);
    QCOMPARE(doubledPixels, image.pixmap(QSize(36, 36), 1.0).toImage());

    // Painted straight onto a device, the badge comes out as in a pixmap.
    QImage painted(36, 36, QImage::Format_ARGB32_Premultiplied);
    painted.fill(Qt::transparent);
    {
        QPainter painter(&painted);
        image.paint(&painter, QRect(0, 0, 36, 36));
    }
    QCOMPARE(painted, doubledPixels.convertToFormat(QImage::Format_ARGB32_Premultiplied));

    // A wide request gets the square badge centred, not stretched.
    QCOMPARE(image.actualSize(QSize(40, 18)), QSize(18, 18));
}

void BrandImageTest::matchesTheModelEverywhere()
{
    QFETCH(bool, running);
    QFETCH(int, side);
    QFETCH(qreal, devicePixelRatio);
    const Rendering r = render(running, side, devicePixelRatio);
    QCOMPARE(r.image.size(), QSize(qRound(side * devicePixelRatio), qRound(side * devicePixelRatio)));

    // Pixels wholly inside one part of the drawing must match the model closely. On a pixel that
    // a border crosses the rasteriser's coverage estimate decides the blend (overlapping parts of
    // a stroke outline, curves flattened to lines), so there only the colours must be ones that
    // occur on or right around that pixel, and the blends must be right on average.
    const double halfDiagonal = M_SQRT1_2 / r.pixelsPerPoint + 0.02;
    double worstUniform = 0, total = 0;
    for (int py = 0; py < r.image.height(); ++py) {
        for (int px = 0; px < r.image.width(); ++px) {
            const Point centre = r.pixelCentre(px, py);
            const double edge = badgeEdgeDistance(centre);
            const double mark = markDistance(centre);
            const bool uniform = std::abs(edge) > halfDiagonal &&
                                 std::abs(std::abs(edge) - outlineHalfWidth) > halfDiagonal &&
                                 std::abs(mark - markHalfWidth) > halfDiagonal;
            const Rgba actual = r.pixel(QPoint(px, py));
            if (uniform) {
                const Rgba expected = modelPixel(r, px, py, running).mean;
                const double diff = difference(actual, expected);
                total += diff;
                worstUniform = std::max(worstUniform, diff);
                if (edge > outlineHalfWidth)
                    QVERIFY2(actual.a == 0, qPrintable(QStringLiteral("pixel %1,%2 outside the badge is %3")
                                                           .arg(px)
                                                           .arg(py)
                                                           .arg(describe(actual))));
                QVERIFY2(diff <= 3, qPrintable(QStringLiteral("pixel %1,%2 is %3, expected %4")
                                                   .arg(px)
                                                   .arg(py)
                                                   .arg(describe(actual), describe(expected))));
            } else {
                const PixelModel model = modelPixel(r, px, py, running, 0.05);
                total += difference(actual, model.mean);
                QVERIFY2(within(actual, model, 3),
                         qPrintable(QStringLiteral("border pixel %1,%2 is %3, outside %4 .. %5")
                                        .arg(px)
                                        .arg(py)
                                        .arg(describe(actual), describe(model.least), describe(model.greatest))));
            }
        }
    }
    const double mean = total / (r.image.width() * r.image.height());
    qDebug("worst difference inside parts %.1f; mean difference %.2f", worstUniform, mean);
    QVERIFY2(mean < (r.pixelsPerPoint < 2 ? 8 : 3.5), qPrintable(QStringLiteral("mean difference %1").arg(mean)));
}

void BrandImageTest::outlineLiesAcrossTheBadgeEdge()
{
    QFETCH(bool, running);
    QFETCH(int, side);
    QFETCH(qreal, devicePixelRatio);
    const Rendering r = render(running, side, devicePixelRatio);
    const Paint outline = colours(running).outline;
    const Rgba fill = colours(running).fill.premultiplied();

    // The middle of each side: just outside the badge only the outline colours a pixel, just
    // inside the outline lies over the fill. Where a pixel is wider than a half outline, its
    // colour is a blend, but it is still mostly outline.
    const std::array<std::pair<Point, Point>, 4> sides{
        {{{0.95, 9}, {1.45, 9}}, {{17.05, 9}, {16.55, 9}}, {{9, 0.95}, {9, 1.45}}, {{9, 17.05}, {9, 16.55}}}};
    for (const auto &[outer, inner] : sides) {
        const Rgba outerPixel = r.pixel(outer);
        const Rgba innerPixel = r.pixel(inner);
        if (r.pixelsPerPoint >= 4) {
            QVERIFY2(difference(outerPixel, outline.premultiplied()) <= 2, qPrintable(describe(outerPixel)));
            QVERIFY2(difference(innerPixel, modelColour(inner, running)) <= 3, qPrintable(describe(innerPixel)));
            QVERIFY(innerPixel.a > outline.a && innerPixel.a > fill.a);
        } else {
            // The pixel on the edge itself is mostly outline: much brighter than the dark fill.
            const Rgba edgePixel = r.pixel(Point{(outer.x + inner.x) / 2, (outer.y + inner.y) / 2});
            QVERIFY2(edgePixel.a > 0.5, qPrintable(describe(edgePixel)));
            QVERIFY2(luminance(edgePixel) / edgePixel.a > luminance(fill) / fill.a + 0.2,
                     qPrintable(describe(edgePixel)));
        }
    }
    // Beyond the outline and in the cut corners nothing is drawn.
    for (Point p : {Point{0.05, 0.05}, Point{17.95, 17.95}, Point{0.05, 17.95}, Point{17.95, 0.05}, Point{1.6, 1.6}})
        QCOMPARE(r.pixel(p).a, 0.0);
}

void BrandImageTest::markIsADiamondWithItsUpperLeftSideOpen()
{
    QFETCH(bool, running);
    QFETCH(int, side);
    QFETCH(qreal, devicePixelRatio);
    const Rendering r = render(running, side, devicePixelRatio);

    // The midpoints of the drawn sides: upper right, lower right, lower left.
    for (Point p : {Point{10.5, 10.5}, Point{10.5, 7.5}, Point{7.5, 7.5}}) {
        const Rgba actual = r.pixel(p);
        QVERIFY2(difference(actual, modelColour(p, running)) <= 3,
                 qPrintable(QStringLiteral("side at %1,%2: %3").arg(p.x).arg(p.y).arg(describe(actual))));
    }
    // The four corners (9, 12), (12, 9), (9, 6) and (6, 9): a pixel there lies wholly within the
    // round join or cap once pixels are small enough.
    if (r.pixelsPerPoint >= 2) {
        for (Point p : {Point{9, 12}, Point{12, 9}, Point{9, 6}, Point{6, 9}}) {
            const Point nudged{p.x + 0.01, p.y - 0.01};
            const Rgba actual = r.pixel(nudged);
            QVERIFY2(difference(actual, modelColour(nudged, running)) <= 3,
                     qPrintable(QStringLiteral("corner %1,%2: %3").arg(p.x).arg(p.y).arg(describe(actual))));
        }
    }
    // The upper-left side is missing: its midpoint shows the badge alone.
    const Point open{7.5, 10.5};
    const Rgba actual = r.pixel(open);
    QVERIFY2(difference(actual, modelColour(open, running, false)) <= 3, qPrintable(describe(actual)));
    QVERIFY(difference(actual, over(colours(running).mark.premultiplied(), modelColour(open, running, false))) > 60);
}

void BrandImageTest::gradientBrightensTowardsTheLowerRight()
{
    QFETCH(bool, running);
    QFETCH(int, side);
    QFETCH(qreal, devicePixelRatio);
    const Rendering r = render(running, side, devicePixelRatio);

    // Opposite points of the badge interior, clear of the outline and the mark.
    const Rgba lowerRight = r.pixel(Point{13.5, 4.5});
    const Rgba upperLeft = r.pixel(Point{4.5, 13.5});
    const Rgba lowerLeft = r.pixel(Point{4.5, 4.5});
    const Rgba upperRight = r.pixel(Point{13.5, 13.5});
    QVERIFY2(luminance(lowerRight) > luminance(upperLeft) + 4.0 / 255,
             qPrintable(describe(lowerRight) + QStringLiteral(" vs ") + describe(upperLeft)));
    // Across the gradient's direction the tint does not change.
    QVERIFY2(difference(lowerLeft, upperRight) <= 2,
             qPrintable(describe(lowerLeft) + QStringLiteral(" vs ") + describe(upperRight)));
    QVERIFY(luminance(upperLeft) < luminance(lowerLeft) && luminance(lowerLeft) < luminance(lowerRight));
    if (running) // cyan: blue and green well above red
        QVERIFY(lowerRight.b > lowerRight.r + 20.0 / 255 && lowerRight.g > lowerRight.r + 20.0 / 255);
}

void BrandImageTest::runningAndOfflineShareTheirShape_data()
{
    QTest::addColumn<int>("side");
    QTest::addColumn<qreal>("devicePixelRatio");
    QTest::newRow("18pt@1x") << 18 << 1.0;
    QTest::newRow("18pt@2x") << 18 << 2.0;
    QTest::newRow("64pt@1x") << 64 << 1.0;
}

void BrandImageTest::runningAndOfflineShareTheirShape()
{
    QFETCH(int, side);
    QFETCH(qreal, devicePixelRatio);
    const Rendering running = render(true, side, devicePixelRatio);
    const Rendering offline = render(false, side, devicePixelRatio);
    QCOMPARE(running.image.size(), offline.image.size());
    int differentColour = 0;
    for (int y = 0; y < running.image.height(); ++y) {
        for (int x = 0; x < running.image.width(); ++x) {
            const QRgb a = running.image.pixel(x, y), b = offline.image.pixel(x, y);
            QCOMPARE(qAlpha(a) == 0, qAlpha(b) == 0);
            if (a != b)
                ++differentColour;
        }
    }
    QVERIFY(differentColour > running.image.width() * running.image.height() / 2);
}

void BrandImageTest::eachImageIsNewButLooksTheSame()
{
    const QIcon first = makeBrandStatusImage(false);
    const QIcon second = makeBrandStatusImage(false);
    QVERIFY(first.cacheKey() != second.cacheKey());
    QCOMPARE(first.pixmap(QSize(18, 18), 2.0).toImage(), second.pixmap(QSize(18, 18), 2.0).toImage());
    QVERIFY(first.pixmap(18).toImage() != makeBrandStatusImage(true).pixmap(18).toImage());
}

void BrandImageTest::drawingLeavesThePainterAsItWas()
{
    QImage image(20, 20, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.translate(1, 1);
    painter.setPen(Qt::red);
    const QTransform before = painter.transform();
    drawBrandBadge(painter, QRectF(0, 0, 18, 18), true);
    QCOMPARE(painter.transform(), before);
    QCOMPARE(painter.pen().color(), QColor(Qt::red));
    QVERIFY(!painter.testRenderHint(QPainter::Antialiasing));
    painter.end();
    // Drawn at the destination: the one-pixel margin stays empty.
    QCOMPARE(qAlpha(image.pixel(0, 10)), 0);
    QVERIFY(qAlpha(image.pixel(10, 10)) > 0);
}

void BrandImageTest::writesRenderingsForInspection()
{
    const QString folder = qEnvironmentVariable("QUILLMERE_TEST_OUTPUT");
    if (folder.isEmpty())
        QSKIP("QUILLMERE_TEST_OUTPUT is not set");
    QDir().mkpath(folder);
    for (bool running : {true, false}) {
        for (int scale : {1, 2, 8}) {
            const QString path = QStringLiteral("%1/brand-badge-%2@%3x.png")
                                     .arg(folder, running ? QStringLiteral("running") : QStringLiteral("offline"))
                                     .arg(scale);
            QVERIFY2(render(running, 18, scale).image.save(path), qPrintable(path));
        }
    }
}

QTEST_MAIN(BrandImageTest)
#include "tst_BrandImage.moc"
