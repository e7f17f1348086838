// The status menu and its badge: entries in order, which items can be chosen in each state, what a
// state update shows and logs, the three-way check mark, the status button, and the badge's colours
// at known pixels (the renderings are also written out for the README pictures).
#include "app/AppDelegate.h"
#include "menu/BrandImage.h"
#include "menu/MenuItemCheckState.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QMenu>
#include <QRegularExpression>
#include <QTest>

namespace {

const QString runningTip = QStringLiteral("Quillmere Agent is running");
const QString offlineTip = QStringLiteral("Quillmere Agent is offline");

struct Harness {
    explicit Harness(const Configuration &configuration, bool button = true)
        : delegate(configuration, fakes.services(button), &host)
    {
        delegate.assembleStatusMenu();
    }
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate;
};

// What a menu shows for a title: "&&" is a literal ampersand, a lone '&' marks an accelerator.
QString shownText(const QAction *action)
{
    return QString(action->text()).replace(QRegularExpression(QStringLiteral("&(.)")), QStringLiteral("\\1"));
}

QImage look(const QIcon &icon, qreal scale = 2)
{
    return icon.pixmap(QSize(18, 18), scale).toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

struct MenuRow {
    bool update, running, startInFlight, stopInFlight, runtimeFolder;
    const char *enabled; // start, stop, pages as 0 or 1
};

struct UpdateRow {
    const char *before; // title of an earlier update, if any
    const char *title, *version;
    bool running;
    const char *shownVersion, *logged; // no line logged if null
};

} // namespace

Q_DECLARE_METATYPE(MenuRow)
Q_DECLARE_METATYPE(UpdateRow)

class StatusMenuTest : public QObject {
    Q_OBJECT
    Configuration configuration() const { return env.configuration(QUrl(QStringLiteral("http://127.0.0.1:1"))); }
    TestEnvironment env;

private slots:
    void assemblyBuildsTheMenuInOrder()
    {
        env.markLog();
        Harness h(configuration());
        QStringList entries;
        for (const QAction *action : h.delegate.menu->actions())
            entries.append(action->isSeparator() ? QStringLiteral("---") : action->text());
        QCOMPARE(entries,
                 QStringList({"Status: Launching...", "Version: --", "---", "Start Agent", "Stop Agent", "---",
                              "Open Cloud Admin", "Check for Updates", "Open Local Admin", "Open Getting Started",
                              "Open Startup Status", "Open Logs", "---", "Run at Startup", "---", "Quit"}));
        // The offline badge until the first state update; assembling logs nothing.
        QCOMPARE(h.fakes.statusItem->button()->toolTip(), offlineTip);
        QCOMPARE(look(h.fakes.statusItem->button()->image()), look(makeBrandStatusImage(false)));
        QVERIFY(env.messagesSinceMark().isEmpty());
    }

    void availabilityFollowsTheState_data()
    {
        QTest::addColumn<MenuRow>("row");
        //                                               update running startIF stopIF runtime  start,stop,pages
        QTest::newRow("as assembled") << MenuRow{false, false, false, false, true, "101"};
        QTest::newRow("running") << MenuRow{true, true, false, false, true, "011"};
        QTest::newRow("running, stopping") << MenuRow{true, true, false, true, true, "001"};
        QTest::newRow("stopped, stopping") << MenuRow{true, false, false, true, true, "101"};
        QTest::newRow("starting") << MenuRow{true, false, true, false, true, "001"};
        QTest::newRow("running, starting") << MenuRow{true, true, true, false, true, "011"};
        QTest::newRow("no runtime folder") << MenuRow{false, false, false, false, false, "100"};
        QTest::newRow("no runtime, running") << MenuRow{true, true, false, false, false, "010"};
    }

    void availabilityFollowsTheState()
    {
        QFETCH(MenuRow, row);
        Configuration config = configuration();
        if (!row.runtimeFolder)
            config.resourceDirectory.reset();
        Harness h(config);
        AppDelegate &d = h.delegate;
        if (row.update) {
            d.startInFlight = row.startInFlight;
            d.stopInFlight = row.stopInFlight;
            d.updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("1.0"), row.running);
        }
        QString shown;
        for (QAction *item : {d.startMenuItem(), d.stopMenuItem(), d.openGettingStartedMenuItem()})
            shown += QString::number(item->isEnabled());
        QCOMPARE(shown, QString::fromLatin1(row.enabled));
        QCOMPARE(d.openStartupPageMenuItem()->isEnabled(), d.openGettingStartedMenuItem()->isEnabled());
        for (QAction *always : {d.openCloudAdminMenuItem(), d.checkForUpdatesMenuItem(), d.openLocalAdminMenuItem(),
                                d.openLogsMenuItem(), d.runAtStartupMenuItem(), d.quitMenuItem()})
            QVERIFY2(always->isEnabled(), qPrintable(always->text()));
        QVERIFY(!d.stateMenuItem->isEnabled() && !d.versionMenuItem->isEnabled());
    }

    void updateShowsAndLogsOnlyANewTitle_data()
    {
        QTest::addColumn<UpdateRow>("row");
        const char *run = "Status: Running";
        // clang-format off
        QTest::newRow("first title") << UpdateRow{nullptr, run, "2.4.1", true, "2.4.1",
            "State updated: Status: Running version=2.4.1 running=true"};
        QTest::newRow("empty version") << UpdateRow{run, "Status: Stopped", "", false, "--",
            "State updated: Status: Stopped version=-- running=false"};
        QTest::newRow("same title, new version") << UpdateRow{run, run, "1.1", false, "1.1", nullptr};
        QTest::newRow("empty title at first") << UpdateRow{nullptr, "", "5", true, "5", nullptr};
        QTest::newRow("as given") << UpdateRow{run, "Status: R&D && more", " 2.0&beta ", true, " 2.0&beta ",
            "State updated: Status: R&D && more version= 2.0&beta  running=true"};
        // clang-format on
    }

    void updateShowsAndLogsOnlyANewTitle()
    {
        QFETCH(UpdateRow, row);
        Harness h(configuration());
        StatusButton *button = h.fakes.statusItem->button();
        if (row.before)
            h.delegate.updateStateMenu(QString::fromUtf8(row.before), QStringLiteral("0.9"), !row.running);
        // Whatever the button showed gives way to the plain image-only badge.
        button->setTitle(QStringLiteral("stale"));
        button->setAppearsDisabled(true);
        const int generation = button->imageGeneration();
        env.markLog();

        h.delegate.updateStateMenu(QString::fromUtf8(row.title), QString::fromUtf8(row.version), row.running);

        QCOMPARE(env.messagesSinceMark(), row.logged ? QStringList{QString::fromUtf8(row.logged)} : QStringList());
        QCOMPARE(shownText(h.delegate.stateMenuItem), QString::fromUtf8(row.title));
        QCOMPARE(shownText(h.delegate.versionMenuItem), "Version: " + QString::fromUtf8(row.shownVersion));
        // A new badge image for every update, logged or not.
        QCOMPARE(button->imageGeneration(), generation + 1);
        QCOMPARE(button->toolTip(), row.running ? runningTip : offlineTip);
        QVERIFY(button->title().isEmpty() && !button->appearsDisabled() && !button->image().isMask());
        QVERIFY(button->imagePosition() == StatusButton::ImagePosition::ImageOnly);
        QCOMPARE(look(button->image()), look(makeBrandStatusImage(row.running)));
    }

    void checkStateHasThreeWays()
    {
        // Set state, state read back; set from each starting state so that leftovers would show.
        for (const auto &[state, readBack] : {std::pair{0, 0}, {1, 1}, {-1, -1}, {2, 1}, {-7, -1}})
            for (int previous : {menuItemStateOff, menuItemStateOn, menuItemStateMixed}) {
                QAction item; // disabled, as a check mark must not enable it
                item.setEnabled(false);
                setMenuItemCheckState(&item, previous);
                setMenuItemCheckState(&item, state);
                QVERIFY(menuItemCheckState(&item) == readBack && item.isCheckable() && !item.isEnabled());
                QVERIFY(item.isChecked() == (readBack == 1) && item.icon().isNull() == (readBack != -1));
            }
        // The mixed mark is a dash across the middle, also at the 16 pixels a D-Bus menu gets.
        QAction item;
        setMenuItemCheckState(&item, menuItemStateMixed);
        const QImage dash = item.icon().pixmap(QSize(16, 16), 1.0).toImage();
        QVERIFY(qAlpha(dash.pixel(8, 8)) > 200 && qAlpha(dash.pixel(8, 2)) == 0 && qAlpha(dash.pixel(8, 13)) == 0 &&
                qAlpha(dash.pixel(1, 8)) == 0);
    }

    void missingButtonIsLoggedAndTheMenuStillWorks()
    {
        env.markLog();
        Harness h(configuration(), /*button=*/false);
        QCOMPARE(h.fakes.statusItem->menu(), h.delegate.menu.get());
        h.delegate.updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("2.0"), true);
        const QString noButton = QStringLiteral("Status item button was unavailable.");
        QCOMPARE(env.messagesSinceMark(),
                 QStringList({noButton, noButton, "State updated: Status: Running version=2.0 running=true"}));
    }

    void badgeColoursAtKnownPixels()
    {
        // Premultiplied ARGB of pixels wholly inside one part of the badge, running then offline:
        // the cut corner, the wash (lighter to the lower right), a drawn and the open upper-left
        // side of the mark, and (once pixels are small enough) the outline just outside the edge.
        struct Spot {
            const char *name;
            QPointF at; // in points from the upper left
            QList<int> running, offline, scales;
        };
        const QList<Spot> spots{{"corner", {0.5, 0.5}, {0, 0, 0, 0}, {0, 0, 0, 0}, {1, 2}},
                                {"lower right", {13.5, 13.5}, {251, 14, 62, 73}, {235, 77, 79, 81}, {1, 2}},
                                {"upper left", {4.5, 4.5}, {251, 15, 38, 43}, {233, 69, 70, 71}, {1, 2}},
                                {"mark", {10.5, 7.5}, {255, 150, 235, 251}, {253, 207, 211, 215}, {1, 2}},
                                {"open side", {7.5, 7.5}, {251, 14, 45, 52}, {234, 71, 73, 74}, {1, 2}},
                                {"outline", {0.95, 9.05}, {209, 63, 136, 160}, {179, 120, 125, 130}, {8}}};
        const QString folder = qEnvironmentVariable("QUILLMERE_TEST_OUTPUT");
        for (bool running : {true, false})
            for (int scale : {1, 2, 8}) {
                const QImage image = look(makeBrandStatusImage(running), scale);
                QCOMPARE(image.size(), QSize(18, 18) * scale);
                const QString name =
                    QStringLiteral("brand-badge-%1@%2x.png").arg(running ? "running" : "offline").arg(scale);
                if (!folder.isEmpty())
                    QVERIFY2(image.save(folder + '/' + name), qPrintable(name));
                for (const Spot &spot : spots) {
                    const QRgb p = image.pixel(int(spot.at.x() * scale), int(spot.at.y() * scale));
                    const QList<int> actual{qAlpha(p), qRed(p), qGreen(p), qBlue(p)};
                    const QList<int> &expected = running ? spot.running : spot.offline;
                    for (int i = 0; i < 4 && spot.scales.contains(scale); ++i)
                        QVERIFY2(std::abs(actual[i] - expected[i]) <= 3, qPrintable(name + ' ' + spot.name));
                }
            }
    }
};

QTEST_MAIN(StatusMenuTest)
#include "tst_StatusMenu.moc"
