// The status menu: its entries and their order, the information lines, which items can be
// chosen in each state, what a state update shows and when it is logged, and the three-way
// check state of a menu item.
#include "app/AppDelegate.h"
#include "menu/BrandImage.h"
#include "menu/MenuItemCheckState.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QMenu>
#include <QTest>

namespace {

const QUrl unusedAgent(QStringLiteral("http://127.0.0.1:1"));
const QString separator = QStringLiteral("---");

QStringList entries(const QMenu &menu)
{
    QStringList result;
    for (const QAction *action : menu.actions())
        result.append(action->isSeparator() ? separator : action->text());
    return result;
}

// The text a menu shows for an item: "&&" is a literal ampersand, a single '&' marks the
// accelerator letter and is not shown.
QString shownText(const QAction *action)
{
    const QString text = action->text();
    QString shown;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text.at(i) == QLatin1Char('&') && ++i == text.size())
            break;
        shown += text.at(i);
    }
    return shown;
}

} // namespace

class StatusMenuTest : public QObject {
    Q_OBJECT
private slots:
    void assemblyBuildsTheMenuInOrder();
    void noItemHasAShortcut();
    void itemsAreCreatedOnceAndKept();
    void availabilityFollowsTheState_data();
    void availabilityFollowsTheState();
    void informationLinesStayDisabled();
    void updateShowsTitleVersionAndBadge_data();
    void updateShowsTitleVersionAndBadge();
    void onlyAChangeOfTitleIsLogged();
    void checkStateRoundTrips_data();
    void checkStateRoundTrips();
    void mixedCheckStateIsVisibleAndClearedAgain();

private:
    TestEnvironment env;
};

void StatusMenuTest::assemblyBuildsTheMenuInOrder()
{
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(), &host);
    env.markLog();
    delegate.assembleStatusMenu();

    QCOMPARE(entries(*delegate.menu),
             QStringList({QStringLiteral("Status: Launching..."), QStringLiteral("Version: --"), separator,
                          QStringLiteral("Start Agent"), QStringLiteral("Stop Agent"), separator,
                          QStringLiteral("Open Cloud Admin"), QStringLiteral("Check for Updates"),
                          QStringLiteral("Open Local Admin"), QStringLiteral("Open Getting Started"),
                          QStringLiteral("Open Startup Status"), QStringLiteral("Open Logs"), separator,
                          QStringLiteral("Run at Startup"), separator, QStringLiteral("Quit")}));
    const QList<QAction *> actions = delegate.menu->actions();
    QCOMPARE(actions.at(0), delegate.stateMenuItem);
    QCOMPARE(actions.at(1), delegate.versionMenuItem);
    QCOMPARE(actions.at(13), delegate.runAtStartupMenuItem());
    QCOMPARE(actions.at(15), delegate.quitMenuItem());

    // Attached to the status item, which shows the offline badge until the first state update.
    QCOMPARE(fakes.statusItem->menu(), delegate.menu.get());
    StatusButton *button = fakes.statusItem->button();
    QCOMPARE(button->toolTip(), QStringLiteral("Quillmere Agent is offline"));
    QCOMPARE(button->image().pixmap(18).toImage(), makeBrandStatusImage(false).pixmap(18).toImage());
    // Assembly itself logs nothing (the launch sequence logs before it).
    QVERIFY(env.messagesSinceMark().isEmpty());
}

void StatusMenuTest::noItemHasAShortcut()
{
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(), &host);
    delegate.assembleStatusMenu();
    for (const QAction *action : delegate.menu->actions()) {
        QVERIFY2(action->shortcuts().isEmpty(), qPrintable(action->text()));
        // No mnemonic either: a '&' would turn the next letter into a keyboard accelerator.
        QVERIFY2(!action->text().contains(QLatin1Char('&')), qPrintable(action->text()));
    }
}

void StatusMenuTest::itemsAreCreatedOnceAndKept()
{
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(), &host);
    QAction *runAtStartup = delegate.runAtStartupMenuItem(); // first use before assembly, as at startup refresh
    QCOMPARE(delegate.runAtStartupMenuItem_, runAtStartup);
    delegate.assembleStatusMenu();
    QCOMPARE(delegate.runAtStartupMenuItem(), runAtStartup);
    QCOMPARE(delegate.menu->actions().count(runAtStartup), 1);
    for (QAction *item : {delegate.startMenuItem_, delegate.stopMenuItem_, delegate.openCloudAdminMenuItem_,
                          delegate.checkForUpdatesMenuItem_, delegate.openLocalAdminMenuItem_,
                          delegate.openGettingStartedMenuItem_, delegate.openStartupPageMenuItem_,
                          delegate.runAtStartupMenuItem_, delegate.openLogsMenuItem_, delegate.quitMenuItem_}) {
        QVERIFY(item);
        QCOMPARE(item->parent(), &delegate);
        QCOMPARE(delegate.menu->actions().count(item), 1);
    }
}

void StatusMenuTest::availabilityFollowsTheState_data()
{
    QTest::addColumn<bool>("update"); // false: as assembled, before any state update
    QTest::addColumn<bool>("running");
    QTest::addColumn<bool>("startInFlight");
    QTest::addColumn<bool>("stopInFlight");
    QTest::addColumn<bool>("runtimeFolder");
    QTest::addColumn<bool>("start");
    QTest::addColumn<bool>("stop");
    QTest::addColumn<bool>("pages");

    //                                      update running startIF stopIF runtime | start  stop   pages
    QTest::newRow("as assembled") << false << false << false << false << true << true << false << true;
    QTest::newRow("stopped") << true << false << false << false << true << true << false << true;
    QTest::newRow("running") << true << true << false << false << true << false << true << true;
    QTest::newRow("running, stopping") << true << true << false << true << true << false << false << true;
    QTest::newRow("stopped, stopping") << true << false << false << true << true << true << false << true;
    QTest::newRow("starting") << true << false << true << false << true << false << false << true;
    QTest::newRow("running, starting") << true << true << true << false << true << false << true << true;
    QTest::newRow("both in flight") << true << true << true << true << true << false << false << true;
    QTest::newRow("no runtime folder") << true << false << false << false << false << true << false << false;
    QTest::newRow("no runtime, assembled") << false << false << false << false << false << true << false << false;
    QTest::newRow("no runtime, running") << true << true << false << false << false << false << true << false;
}

void StatusMenuTest::availabilityFollowsTheState()
{
    QFETCH(bool, update);
    QFETCH(bool, running);
    QFETCH(bool, startInFlight);
    QFETCH(bool, stopInFlight);
    QFETCH(bool, runtimeFolder);
    QFETCH(bool, start);
    QFETCH(bool, stop);
    QFETCH(bool, pages);

    Configuration configuration = env.configuration(unusedAgent);
    if (!runtimeFolder)
        configuration.resourceDirectory.reset();
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(configuration, fakes.services(), &host);
    delegate.assembleStatusMenu();
    if (update) {
        delegate.startInFlight = startInFlight;
        delegate.stopInFlight = stopInFlight;
        delegate.updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("1.0"), running);
    }

    QCOMPARE(delegate.startMenuItem()->isEnabled(), start);
    QCOMPARE(delegate.stopMenuItem()->isEnabled(), stop);
    QCOMPARE(delegate.openGettingStartedMenuItem()->isEnabled(), pages);
    QCOMPARE(delegate.openStartupPageMenuItem()->isEnabled(), pages);
    for (QAction *always :
         {delegate.openCloudAdminMenuItem(), delegate.checkForUpdatesMenuItem(), delegate.openLocalAdminMenuItem(),
          delegate.openLogsMenuItem(), delegate.runAtStartupMenuItem(), delegate.quitMenuItem()})
        QVERIFY2(always->isEnabled(), qPrintable(always->text()));
    QVERIFY(!delegate.stateMenuItem->isEnabled());
    QVERIFY(!delegate.versionMenuItem->isEnabled());
}

void StatusMenuTest::informationLinesStayDisabled()
{
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(), &host);
    delegate.assembleStatusMenu();
    for (bool running : {true, false, true}) {
        delegate.updateStateMenu(running ? QStringLiteral("Status: Running") : QStringLiteral("Status: Stopped"),
                                 QStringLiteral("3.1"), running);
        delegate.updateMenuAvailability();
        QVERIFY(!delegate.stateMenuItem->isEnabled());
        QVERIFY(!delegate.versionMenuItem->isEnabled());
    }
}

void StatusMenuTest::updateShowsTitleVersionAndBadge_data()
{
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("version");
    QTest::addColumn<bool>("running");
    QTest::addColumn<QString>("knownVersion");

    QTest::newRow("running") << QStringLiteral("Status: Running") << QStringLiteral("2.4.1") << true
                             << QStringLiteral("2.4.1");
    QTest::newRow("empty version") << QStringLiteral("Status: Stopped") << QString() << false << QStringLiteral("--");
    QTest::newRow("version kept as given") << QStringLiteral("Status: Starting...") << QStringLiteral(" 1.0 beta ")
                                           << false << QStringLiteral(" 1.0 beta ");
    QTest::newRow("empty title") << QString() << QStringLiteral("5") << true << QStringLiteral("5");
    QTest::newRow("ampersands shown as given")
        << QStringLiteral("Status: R&D && more") << QStringLiteral("2.0&beta") << true << QStringLiteral("2.0&beta");
}

void StatusMenuTest::updateShowsTitleVersionAndBadge()
{
    QFETCH(QString, title);
    QFETCH(QString, version);
    QFETCH(bool, running);
    QFETCH(QString, knownVersion);
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(), &host);
    delegate.assembleStatusMenu();
    delegate.lastKnownVersion = QStringLiteral("0.9"); // a version shown earlier is not kept for an empty one
    StatusButton *button = fakes.statusItem->button();
    const int generation = button->imageGeneration();

    delegate.updateStateMenu(title, version, running);

    QCOMPARE(delegate.agentIsRunning, running);
    QCOMPARE(delegate.lastKnownVersion, knownVersion);
    QCOMPARE(shownText(delegate.stateMenuItem), title);
    QCOMPARE(shownText(delegate.versionMenuItem), QStringLiteral("Version: ") + knownVersion);
    QCOMPARE(button->imageGeneration(), generation + 1);
    QCOMPARE(button->toolTip(),
             running ? QStringLiteral("Quillmere Agent is running") : QStringLiteral("Quillmere Agent is offline"));
    QCOMPARE(button->image().pixmap(18).toImage(), makeBrandStatusImage(running).pixmap(18).toImage());
}

void StatusMenuTest::onlyAChangeOfTitleIsLogged()
{
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(), &host);
    delegate.assembleStatusMenu();
    StatusButton *button = fakes.statusItem->button();
    env.markLog();

    // An empty title equals the initial last title: shown, not logged.
    delegate.updateStateMenu(QString(), QStringLiteral("1.0"), false);
    QVERIFY(delegate.lastStateTitle.isEmpty());

    delegate.updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("1.0"), true);
    QCOMPARE(delegate.lastStateTitle, QStringLiteral("Status: Running"));

    // Same title, new version and running flag: shown (badge included), not logged.
    const int generation = button->imageGeneration();
    delegate.updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("1.1"), false);
    QCOMPARE(delegate.versionMenuItem->text(), QStringLiteral("Version: 1.1"));
    QCOMPARE(button->imageGeneration(), generation + 1);
    QCOMPARE(button->toolTip(), QStringLiteral("Quillmere Agent is offline"));
    QVERIFY(delegate.startMenuItem()->isEnabled());

    delegate.updateStateMenu(QStringLiteral("Status: Stopped"), QString(), false);
    delegate.updateStateMenu(QStringLiteral("Status: Stopped"), QString(), false);
    delegate.updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("1.1"), true);

    QCOMPARE(env.messagesSinceMark(),
             QStringList({QStringLiteral("State updated: Status: Running version=1.0 running=true"),
                          QStringLiteral("State updated: Status: Stopped version=-- running=false"),
                          QStringLiteral("State updated: Status: Running version=1.1 running=true")}));
}

void StatusMenuTest::checkStateRoundTrips_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("readBack");
    QTest::addColumn<bool>("checked");
    QTest::addColumn<int>("property");
    QTest::addColumn<bool>("hasIcon");

    QTest::newRow("off") << 0 << 0 << false << int(Qt::Unchecked) << false;
    QTest::newRow("on") << 1 << 1 << true << int(Qt::Checked) << false;
    QTest::newRow("mixed") << -1 << -1 << false << int(Qt::PartiallyChecked) << true;
    QTest::newRow("other positive is on") << 2 << 1 << true << int(Qt::Checked) << false;
    QTest::newRow("other negative is mixed") << -7 << -1 << false << int(Qt::PartiallyChecked) << true;
}

void StatusMenuTest::checkStateRoundTrips()
{
    QFETCH(int, state);
    QFETCH(int, readBack);
    QFETCH(bool, checked);
    QFETCH(int, property);
    QFETCH(bool, hasIcon);

    // From each starting state, so that leftovers of the previous state would show.
    for (int previous : {menuItemStateOff, menuItemStateOn, menuItemStateMixed}) {
        QAction item(QStringLiteral("Run at Startup"));
        setMenuItemCheckState(&item, previous);
        setMenuItemCheckState(&item, state);
        QCOMPARE(menuItemCheckState(&item), readBack);
        QVERIFY(item.isCheckable());
        QCOMPARE(item.isChecked(), checked);
        QCOMPARE(item.property(menuItemCheckStateProperty).toInt(), property);
        QCOMPARE(!item.icon().isNull(), hasIcon);
        QCOMPARE(item.text(), QStringLiteral("Run at Startup"));
    }
}

void StatusMenuTest::mixedCheckStateIsVisibleAndClearedAgain()
{
    QAction untouched(QStringLiteral("Run at Startup"));
    QCOMPARE(menuItemCheckState(&untouched), menuItemStateOff);
    QCOMPARE(menuItemCheckState(nullptr), menuItemStateOff);
    setMenuItemCheckState(nullptr, menuItemStateMixed); // ignored

    QAction item(QStringLiteral("Run at Startup (Needs Approval)"));
    item.setEnabled(false);
    setMenuItemCheckState(&item, menuItemStateMixed);
    QVERIFY(!item.isEnabled()); // the enabled flag is not the helper's business
    QVERIFY(item.isIconVisibleInMenu());

    // The mixed mark is a dash across the middle that a menu (or a D-Bus menu, which is sent a
    // 16 pixel rendering) can show.
    const QImage dash = item.icon().pixmap(QSize(16, 16), 1.0).toImage();
    QCOMPARE(dash.size(), QSize(16, 16));
    QVERIFY(qAlpha(dash.pixel(8, 8)) > 200);
    QCOMPARE(qAlpha(dash.pixel(8, 2)), 0);
    QCOMPARE(qAlpha(dash.pixel(8, 13)), 0);
    QCOMPARE(qAlpha(dash.pixel(1, 8)), 0);
    QCOMPARE(item.icon().pixmap(QSize(16, 16), 2.0).size(), QSize(32, 32));

    setMenuItemCheckState(&item, menuItemStateOn);
    QVERIFY(item.icon().isNull());
    QCOMPARE(menuItemCheckState(&item), menuItemStateOn);
}

QTEST_MAIN(StatusMenuTest)
#include "tst_StatusMenu.moc"
