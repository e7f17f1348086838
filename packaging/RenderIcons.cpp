// Build-time tool: renders the application icon into a hicolor theme tree from the same drawing
// code as the status badge, so the menu entry and the tray show one look.
//   quillmere-render-icons <theme folder> <icon name>
#include "menu/BrandImage.h"

#include <QDir>
#include <QFont>
#include <QImage>
#include <QPainter>
#include <QSvgGenerator>
#include <QSvgRenderer>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

// The pixel sizes desktop menus and launchers look up most; any other size is scaled from the SVG.
constexpr int pixelSides[] = {16, 22, 24, 32, 48, 64, 128, 256};

// Largest difference of one colour channel between a raster badge and the SVG rendered back at the
// same size: room for antialiasing and rounding, far below a lost gradient, outline or mark.
constexpr int svgChannelTolerance = 8;

QImage drawBadge(int side)
{
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    drawBrandBadge(painter, QRectF(0, 0, side, side), true);
    return image;
}

bool writePng(const QString &themeDir, const QString &iconName, int side)
{
    const QString folder = QStringLiteral("%1/%2x%2/apps").arg(themeDir).arg(side);
    return QDir().mkpath(folder) && drawBadge(side).save(folder + QLatin1Char('/') + iconName + QStringLiteral(".png"));
}

// The SVG generator drops what SVG cannot say; the scalable icon must still look like the badge.
bool svgMatchesBadge(const QString &svgPath)
{
    constexpr int side = 64;
    QSvgRenderer renderer(svgPath);
    QImage rendered(side, side, QImage::Format_ARGB32_Premultiplied);
    rendered.fill(Qt::transparent);
    {
        QPainter painter(&rendered);
        renderer.render(&painter);
    }
    const QImage drawn = drawBadge(side);
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            const QRgb a = rendered.pixel(x, y);
            const QRgb b = drawn.pixel(x, y);
            if (std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)), std::abs(qBlue(a) - qBlue(b)),
                          std::abs(qAlpha(a) - qAlpha(b))}) > svgChannelTolerance)
                return false;
        }
    }
    return true;
}

bool writeSvg(const QString &themeDir, const QString &iconName)
{
    const QString folder = themeDir + QStringLiteral("/scalable/apps");
    if (!QDir().mkpath(folder))
        return false;
    // One user unit per badge point: the document is the badge's own 18 point square.
    const int side = int(brandImageSide);
    const QString path = folder + QLatin1Char('/') + iconName + QStringLiteral(".svg");
    QSvgGenerator svg;
    svg.setFileName(path);
    svg.setSize(QSize(side, side));
    svg.setViewBox(QRect(0, 0, side, side));
    svg.setTitle(QStringLiteral("Quillmere Agent"));
    QPainter painter;
    if (!painter.begin(&svg))
        return false;
    // The generator writes the painter's font into every group even though nothing here is text;
    // without an application object that font has no size, which SVG readers would complain of.
    QFont font = painter.font();
    font.setPointSize(12);
    painter.setFont(font);
    drawBrandBadge(painter, QRectF(0, 0, side, side), true);
    if (!painter.end())
        return false;
    if (!svgMatchesBadge(path)) {
        std::fprintf(stderr, "the scalable icon does not render like the badge\n");
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <theme folder> <icon name>\n", argv[0]);
        return 2;
    }
    const QString themeDir = QString::fromLocal8Bit(argv[1]);
    const QString iconName = QString::fromLocal8Bit(argv[2]);
    for (int side : pixelSides) {
        if (!writePng(themeDir, iconName, side)) {
            std::fprintf(stderr, "could not write the %d px icon below %s\n", side, argv[1]);
            return 1;
        }
    }
    if (!writeSvg(themeDir, iconName)) {
        std::fprintf(stderr, "could not write the scalable icon below %s\n", argv[1]);
        return 1;
    }
    return 0;
}
