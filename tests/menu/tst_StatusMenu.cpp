// The status menu: what a state update shows, logs and enables, and the badge's colours at known pixels.
#include "menu/BrandImage.h"
#include "menu/MenuItemCheckState.h"
#include "support/Testing.h"

#include <QPainter>

namespace {

// The menu as shown ("&&" an ampersand, lone '&' an accelerator): "-", "(disabled)", "[x] checked", " <shortcut>".
QString wholeMenu(const QMenu &menu)
{
    QStringList entries;
    for (const QAction *item : menu.actions()) {
        QString entry = item->isSeparator() ? u"-"_s : item->text().replace(QRegularExpression(u"&(.)"_s), u"\\1"_s);
        if (item->isChecked())
            entry.prepend(u"[x] "_s);
        if (const QString keys = item->shortcut().toString(); !keys.isEmpty())
            entry += " <" + keys + '>';
        entries.append(item->isEnabled() ? entry : '(' + entry + ')');
    }
    return entries.join(u'|');
}

// Title and version (no update at all if the title is null), running, start and stop in flight, a runtime folder.
using UpdateRow = std::tuple<const char *, const char *, bool, bool, bool, bool>;
} // namespace

class StatusMenuTest : public QObject {
    Q_OBJECT
    TestEnvironment env;

private slots:
    void updateShowsLogsAndEnables_data()
    {
        QTest::addColumn<UpdateRow>("row");
        // Each follows "Status: Running" of a running agent, and "Run at Startup" checked. What is
        // logged and the whole menu afterwards: the block of updates.txt that the name heads.
        QTest::newRow("assembled, no update") << UpdateRow{nullptr, nullptr, false, false, false, true};
        QTest::newRow("empty version") << UpdateRow{"Status: Stopped", "", false, false, false, true};
        QTest::newRow("same title, stopping") << UpdateRow{"Status: Running", "1.1", true, false, true, true};
        QTest::newRow("starting, stop in flight too")
            << UpdateRow{"Status: Starting...", "1.1", false, true, true, true};
        // One flag at a time: each disables its own item alone.
        QTest::newRow("stop in flight, agent down")
            << UpdateRow{"Status: Stopping...", "1.1", false, false, true, true};
        QTest::newRow("start in flight, agent up") << UpdateRow{"Status: Running", "1.1", true, true, false, true};
        QTest::newRow("ampersands as given, no runtime")
            << UpdateRow{"Status: R&D && more", " 2.0&beta ", true, false, false, false};
    }

    void updateShowsLogsAndEnables()
    {
        QFETCH(UpdateRow, row);
        const auto [title, version, running, startInFlight, stopInFlight, runtimeFolder] = row;
        const QStringList expected = blockOf(QFINDTESTDATA("updates.txt")); // the lines logged, then the menu
        Configuration config = env.configuration(QUrl(u"http://127.0.0.1:1"_s));
        if (!runtimeFolder)
            config.resourceDirectory.reset();
        Controller c(config);
        AppDelegate &d = c.delegate;
        StatusButton *button = c.fakes.statusItem->button();
        if (title) {
            d.updateStateMenu(u"Status: Running"_s, u"0.9"_s, true); // the same flag or not, the button is redone
            setMenuItemCheckState(d.runAtStartupMenuItem(), 1);
            // Whatever the button showed gives way to the plain image-only badge.
            button->setTitle(u"stale"_s);
            button->setAppearsDisabled(true);
            std::tie(d.startInFlight, d.stopInFlight) = std::pair(startInFlight, stopInFlight);
            env.markLog();
            d.updateStateMenu(title, version, running);
            QCOMPARE(env.messagesSinceMark(), expected.first(expected.size() - 1));
        }
        QCOMPARE(wholeMenu(*d.menu), expected.last());
        QCOMPARE(button->toolTip(), running ? u"Quillmere Agent is running"_s : u"Quillmere Agent is offline"_s);
        QVERIFY(button->title().isEmpty() && !button->appearsDisabled() && !button->image().isMask() &&
                button->imagePosition() == StatusButton::ImagePosition::ImageOnly);
        QCOMPARE(button->image().pixmap(18).toImage(), makeBrandStatusImage(running).pixmap(18).toImage());
        QCOMPARE(c.fakes.statusItem->menu(), d.menu.get()); // what the tray's own context menu shows
        if (!runtimeFolder) { // the pages a launch may still ask for are not found, nor a button on some trays
            c.fakes.statusItem->hasButton = false;
            env.markLog();
            QVERIFY(!d.openGettingStartedPage(true));
            d.openStartupPage(true);
            d.startAgent(true); // the badge, offline now, has no button to go on
            QCOMPARE(env.messagesSinceMark(), blockOf(QFINDTESTDATA("updates.txt"), u"then, with no runtime"_s));
        }
    }

    void badgeColoursAtKnownPixels()
    {
        QTest::failOnWarning(QRegularExpression(u"."_s)); // an unbalanced painter says so only as a warning
        // A host that shows small icons is offered each common panel size, not one scaled from another.
        QCOMPARE(makeBrandStatusImage(true).availableSizes(),
                 (QList<QSize>{{16, 16}, {18, 18}, {22, 22}, {24, 24}, {32, 32}, {48, 48}, {64, 64}}));
        // Asked for a wider or taller size, as some panels ask, the badge keeps its shape, centred, drawn or painted.
        const QIcon badge = makeBrandStatusImage(true);
        const auto premultiplied = [](const QPixmap &pixmap) {
            return pixmap.toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied);
        };
        QImage painted(24, 18, QImage::Format_ARGB32_Premultiplied);
        painted.fill(Qt::transparent);
        QPainter painter(&painted);
        badge.paint(&painter, painted.rect());
        painter.end();
        const QImage drawn = premultiplied(badge.pixmap(QSize(24, 18))), square = premultiplied(badge.pixmap(18));
        QCOMPARE((std::tuple{badge.actualSize(QSize(24, 18)), drawn, drawn.copy(3, 0, 18, 18),
                             premultiplied(badge.pixmap(QSize(18, 24))).copy(0, 3, 18, 18)}),
                 (std::tuple{QSize(18, 18), painted, square, square}));
        // The colours as given (fill, wash start and end, outline, mark; running, then offline), and as drawn:
        // premultiplied ARGB, running then offline, of pixels inside one part each; the outline only at 8x.
        QStringList colours;
        for (const bool running : {true, false})
            for (const BadgeColors c = badgeColors(running);
                 const QColor &colour : {c.fill, c.gradientStart, c.gradientEnd, c.outline, c.mark})
                colours << colour.name(QColor::HexArgb);
        QCOMPARE(
            colours.join(u' '),
            u"#fa111111 #570ab7de #1f0383a2 #d14da6c3 #ff96ebfb #e6464646 #3d8a919a #1f60676f #b3abb2ba #e6dee2e6"_s);
        const QList<std::tuple<const char *, QPointF, QList<int>, QList<int>>> spots{
            {"corner", {0.5, 0.5}, {0, 0, 0, 0}, {0, 0, 0, 0}},
            {"lower right", {13.5, 13.5}, {251, 14, 62, 73}, {235, 77, 79, 81}},
            {"upper left", {4.5, 4.5}, {251, 15, 38, 43}, {233, 69, 70, 71}},
            {"mark", {10.5, 7.5}, {255, 150, 235, 251}, {253, 207, 211, 215}},
            {"open side", {7.5, 7.5}, {251, 14, 45, 52}, {234, 71, 73, 74}},
            {"outline", {0.95, 9.05}, {209, 63, 136, 160}, {179, 120, 125, 130}}};
        for (bool running : {true, false})
            for (int scale : {1, 2, 8}) {
                const QImage image = premultiplied(makeBrandStatusImage(running).pixmap(QSize(18, 18), scale));
                QCOMPARE(image.size(), QSize(18, 18) * scale);
                for (const auto &[name, at, whenRunning, whenOffline] : spots.first(scale == 8 ? 6 : 5)) {
                    const QRgb p = image.pixel(int(at.x() * scale), int(at.y() * scale));
                    const QList<int> actual{qAlpha(p), qRed(p), qGreen(p), qBlue(p)};
                    for (int i = 0; i < 4; ++i)
                        QVERIFY2(std::abs(actual[i] - (running ? whenRunning : whenOffline)[i]) <= 3,
                                 qPrintable(name + u" at %1x"_s.arg(scale)));
                }
            }
    }
};

QTEST_MAIN(StatusMenuTest)
#include "tst_StatusMenu.moc"
