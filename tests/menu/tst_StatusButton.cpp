// The status button: badge image, tool tip and plain look for each running state, a fresh image
// on every call, and a missing button reported without touching anything else.
#include "app/AppDelegate.h"
#include "menu/BrandImage.h"
#include "platform/linux/TrayStatusItem.h"
#include "support/FakePlatform.h"
#include "support/TestEnvironment.h"

#include <QMenu>
#include <QTest>

namespace {

const QUrl unusedAgent(QStringLiteral("http://127.0.0.1:1"));

QImage look(const QIcon &icon)
{
    return icon.pixmap(QSize(18, 18), 2.0).toImage();
}

} // namespace

class StatusButtonTest : public QObject {
    Q_OBJECT
private slots:
    void showsTheRunningState_data();
    void showsTheRunningState();
    void everyCallHandsOverANewImage();
    void missingButtonIsLoggedAndNothingElseChanges();
    void trayTakesANewIconOnlyForANewLook();

private:
    TestEnvironment env;
};

void StatusButtonTest::showsTheRunningState_data()
{
    QTest::addColumn<bool>("running");
    QTest::addColumn<QString>("toolTip");
    QTest::newRow("running") << true << QStringLiteral("Quillmere Agent is running");
    QTest::newRow("offline") << false << QStringLiteral("Quillmere Agent is offline");
}

void StatusButtonTest::showsTheRunningState()
{
    QFETCH(bool, running);
    QFETCH(QString, toolTip);
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(), &host);
    StatusButton *button = fakes.statusItem->button();
    // Whatever was there before is replaced by the plain image-only look.
    button->setTitle(QStringLiteral("stale"));
    button->setAppearsDisabled(true);

    env.markLog();
    delegate.configureStatusButton(running);

    QCOMPARE(button->toolTip(), toolTip);
    QCOMPARE(button->title(), QString());
    QVERIFY(!button->appearsDisabled());
    QCOMPARE(button->imagePosition(), StatusButton::ImagePosition::ImageOnly);
    QVERIFY(!button->image().isNull());
    QVERIFY(!button->image().isMask());
    QCOMPARE(look(button->image()), look(makeBrandStatusImage(running)));
    QVERIFY(look(button->image()) != look(makeBrandStatusImage(!running)));
    QVERIFY(env.messagesSinceMark().isEmpty());
}

void StatusButtonTest::everyCallHandsOverANewImage()
{
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(), &host);
    StatusButton *button = fakes.statusItem->button();

    delegate.configureStatusButton(true);
    const int generation = button->imageGeneration();
    const qint64 firstKey = button->image().cacheKey();
    const QImage firstLook = look(button->image());

    delegate.configureStatusButton(true);
    QCOMPARE(button->imageGeneration(), generation + 1);
    QVERIFY(button->image().cacheKey() != firstKey);
    QCOMPARE(look(button->image()), firstLook);
    QCOMPARE(button->toolTip(), QStringLiteral("Quillmere Agent is running"));

    delegate.configureStatusButton(false);
    QCOMPARE(button->imageGeneration(), generation + 2);
    QVERIFY(look(button->image()) != firstLook);
    QCOMPARE(button->toolTip(), QStringLiteral("Quillmere Agent is offline"));
}

void StatusButtonTest::missingButtonIsLoggedAndNothingElseChanges()
{
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate(env.configuration(unusedAgent), fakes.services(/*statusButtonAvailable=*/false), &host);
    QVERIFY(!fakes.statusItem->button());
    const QString unavailable = QStringLiteral("Status item button was unavailable.");

    env.markLog();
    delegate.configureStatusButton(true);
    delegate.configureStatusButton(false);
    QCOMPARE(env.messagesSinceMark(), QStringList({unavailable, unavailable}));

    // The menu is still built and updated; only the button's part is skipped, once per call.
    env.markLog();
    delegate.assembleStatusMenu();
    QCOMPARE(delegate.menu->actions().size(), 16);
    QCOMPARE(fakes.statusItem->menu(), delegate.menu.get());
    delegate.updateStateMenu(QStringLiteral("Status: Running"), QStringLiteral("2.0"), true);
    QCOMPARE(delegate.stateMenuItem->text(), QStringLiteral("Status: Running"));
    QVERIFY(delegate.stopMenuItem()->isEnabled());
    QCOMPARE(env.messagesSinceMark(),
             QStringList({unavailable, unavailable,
                          QStringLiteral("State updated: Status: Running version=2.0 running=true")}));
}

void StatusButtonTest::trayTakesANewIconOnlyForANewLook()
{
    TrayStatusItem item;
    StatusButton *button = item.button();
    // Offscreen there is no tray host to wait for: the icon exists at once.
    QVERIFY(item.trayIcon());
    QVERIFY(item.trayIcon()->icon().isNull());

    button->setImage(makeBrandStatusImage(false));
    button->setToolTip(QStringLiteral("Quillmere Agent is offline"));
    const qint64 offlineKey = item.trayIcon()->icon().cacheKey();
    QVERIFY(!item.trayIcon()->icon().isNull());
    QCOMPARE(item.trayIcon()->toolTip(), QStringLiteral("Quillmere Agent is offline"));

    // A new image with the same look leaves the tray's icon alone (no re-render, no re-send).
    button->setImage(makeBrandStatusImage(false));
    QCOMPARE(item.trayIcon()->icon().cacheKey(), offlineKey);

    button->setImage(makeBrandStatusImage(true));
    button->setToolTip(QStringLiteral("Quillmere Agent is running"));
    QVERIFY(item.trayIcon()->icon().cacheKey() != offlineKey);
    QCOMPARE(look(item.trayIcon()->icon()), look(makeBrandStatusImage(true)));
    QCOMPARE(item.trayIcon()->toolTip(), QStringLiteral("Quillmere Agent is running"));

    QMenu menu;
    item.setMenu(&menu);
    QCOMPARE(item.menu(), &menu);
    QCOMPARE(item.trayIcon()->contextMenu(), &menu);
}

QTEST_MAIN(StatusButtonTest)
#include "tst_StatusButton.moc"
