// Build-time tool: renders the application icon into a hicolor theme tree from the same drawing
// code as the status badge, so the menu entry and the tray show one look.
//   quillmere-render-icons <theme folder> <icon name>
#include "menu/BrandImage.h"

#include <QDir>
#include <QImage>
#include <QPainter>
#include <QSvgGenerator>
#include <cstdio>

namespace {

// The pixel sizes desktop menus and launchers look up most; any other size is scaled from the SVG.
constexpr int pixelSides[] = {16, 22, 24, 32, 48, 64, 128, 256};

bool writePng(const QString &themeDir, const QString &iconName, int side)
{
    const QString folder = QStringLiteral("%1/%2x%2/apps").arg(themeDir).arg(side);
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        drawBrandBadge(painter, QRectF(0, 0, side, side), true);
    }
    return QDir().mkpath(folder) && image.save(folder + QLatin1Char('/') + iconName + QStringLiteral(".png"));
}

bool writeSvg(const QString &themeDir, const QString &iconName)
{
    const QString folder = themeDir + QStringLiteral("/scalable/apps");
    if (!QDir().mkpath(folder))
        return false;
    // One user unit per badge point: the document is the badge's own 18 point square.
    const int side = int(brandImageSide);
    QSvgGenerator svg;
    svg.setFileName(folder + QLatin1Char('/') + iconName + QStringLiteral(".svg"));
    svg.setSize(QSize(side, side));
    svg.setViewBox(QRect(0, 0, side, side));
    svg.setTitle(QStringLiteral("Quillmere Agent"));
    QPainter painter;
    if (!painter.begin(&svg))
        return false;
    drawBrandBadge(painter, QRectF(0, 0, side, side), true);
    return painter.end();
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
