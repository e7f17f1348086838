// How an item's check state reaches a desktop panel through the exported menu, the mixed state
// included, and that a change is seen there at once.
#include "StatusNotifierWatcher.h"
#include "TrayClient.h"

#include <QDBusConnection>
#include <QGuiApplication>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTest>
#include <QThread>

#include "menu/BrandImage.h"
#include "menu/MenuItemCheckState.h"

class TrayCheckStateTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void checkStatesAsThePanelSeesThem();
    void cleanupTestCase();

private:
    QList<StatusNotifierWatcher::Item> registeredItems();

    // The icon lives in this thread and asks the watcher things while being asked itself, so the
    // watcher answers from a thread of its own.
    QThread hostThread_;
    StatusNotifierWatcher *watcher_ = nullptr;
};

void TrayCheckStateTest::initTestCase()
{
    QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (run under dbus-run-session)");
    hostThread_.start();
    watcher_ = new StatusNotifierWatcher(
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("tray-host")));
    watcher_->moveToThread(&hostThread_);
    bool started = false;
    QMetaObject::invokeMethod(
        watcher_, [&] { started = watcher_->start(); }, Qt::BlockingQueuedConnection);
    QVERIFY(started);
}

void TrayCheckStateTest::cleanupTestCase()
{
    QMetaObject::invokeMethod(
        watcher_, [this] { delete watcher_; }, Qt::BlockingQueuedConnection);
    hostThread_.quit();
    hostThread_.wait();
}

QList<StatusNotifierWatcher::Item> TrayCheckStateTest::registeredItems()
{
    QList<StatusNotifierWatcher::Item> items;
    QMetaObject::invokeMethod(
        watcher_, [&] { items = watcher_->items(); }, Qt::BlockingQueuedConnection);
    return items;
}

void TrayCheckStateTest::checkStatesAsThePanelSeesThem()
{
    QMenu menu;
    QAction *item = menu.addAction(QStringLiteral("Run at Startup"));
    QSystemTrayIcon tray(makeBrandStatusImage(false));
    tray.setContextMenu(&menu);
    tray.show();
    QTRY_VERIFY(!registeredItems().isEmpty());
    const TrayClient client(registeredItems().constFirst().service, registeredItems().constFirst().path);

    // Each state is set after the menu is exported, so the panel sees every change as it happens.
    struct Expected {
        int state;
        int toggleState;
        bool hasIcon;
    };
    // dbusmenu knows an indeterminate toggle state, but Qt only ever sends 0 or 1: the mixed state
    // arrives as unchecked, told apart by the dash drawn as the item's icon.
    const Expected table[] = {{menuItemStateOff, 0, false},
                              {menuItemStateMixed, 0, true},
                              {menuItemStateOn, 1, false},
                              {menuItemStateMixed, 0, true},
                              {menuItemStateOff, 0, false}};
    for (const Expected &expected : table) {
        setMenuItemCheckState(item, expected.state);
        const QString what = QStringLiteral("state %1").arg(expected.state);
        QTRY_COMPARE_WITH_TIMEOUT(client.entry(QStringLiteral("Run at Startup")).hasIcon, expected.hasIcon, 5000);
        const TrayMenuEntry entry = client.entry(QStringLiteral("Run at Startup"));
        QVERIFY2(entry.toggleType == QLatin1String("checkmark"), qPrintable(what));
        QVERIFY2(entry.toggleState == expected.toggleState, qPrintable(what));
    }
}

QTEST_MAIN(TrayCheckStateTest)
#include "tst_TrayCheckState.moc"
