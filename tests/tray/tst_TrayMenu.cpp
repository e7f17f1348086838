// The program's tray icon and menu driven from outside over the session bus, as a desktop panel
// drives them: the layout and its states, every kind of menu action with its effect, the badge
// colours in the exported icon, and Quit.
#include "StatusNotifierWatcher.h"
#include "TrayClient.h"
#include "TrayProgram.h"
#include "support/FakeAgent.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <QTest>
#include <memory>

namespace {

constexpr int programTimeoutMs = 15000;

// Colour at a point of the badge's own 18-point grid (y down), wherever the image's scale.
QColor badgeColour(const QImage &image, double x, double y)
{
    const double scale = image.width() / 18.0;
    return image.pixelColor(int(x * scale), int(y * scale));
}

// The mark's right corner sits at (12, 9); this point lies on its upper stroke, clear of the badge.
QColor markColour(const QImage &image)
{
    return badgeColour(image, 11.6, 8.6);
}

// Inside the lower right corner, where the gradient starts, away from the outline and the mark.
QColor fillColour(const QImage &image)
{
    return badgeColour(image, 14.3, 14.3);
}

bool isCyan(const QColor &c, int margin)
{
    return c.blue() - c.red() > margin && c.green() - c.red() > margin / 2;
}

bool isGrey(const QColor &c)
{
    return qAbs(c.red() - c.blue()) < 25 && qAbs(c.red() - c.green()) < 25;
}

QString describe(const QColor &c)
{
    return QStringLiteral("rgba(%1,%2,%3,%4)").arg(c.red()).arg(c.green()).arg(c.blue()).arg(c.alpha());
}

void savePicture(const QImage &image, const QString &name)
{
    const QString folder = qEnvironmentVariable("QUILLMERE_TEST_OUTPUT");
    if (folder.isEmpty())
        return;
    QDir().mkpath(folder);
    QVERIFY(image.save(folder + QLatin1Char('/') + name));
}

// The icon at the badge's own size and at twice that, as the item exports them.
std::pair<QImage, QImage> oneAndTwoTimes(const QList<QImage> &images)
{
    QImage one;
    QImage two;
    for (const QImage &image : images) {
        if (one.isNull())
            one = image;
        else if (image.width() == 2 * one.width())
            two = image;
    }
    if (two.isNull() && !images.isEmpty())
        two = images.constLast();
    return {one, two};
}

} // namespace

class TrayMenuTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void menuListsItemsInOrderWithStatesAndToggles();
    void stopAndStartRunTheControlScriptAndTheMenuFollows();
    void locationItemsOpenTheirLocations_data();
    void locationItemsOpenTheirLocations();
    void runAtStartupSwitchesTheAutostartEntry();
    void menuOpensFromTheIcon();
    void quitStopsTheAgentAndExits();

private:
    void waitForState(const QString &title);
    void checkBadge(bool running, const QString &stateName);

    StatusNotifierWatcher watcher_;
    FakeAgent agent_;
    TrayProgram program_;
    std::unique_ptr<TrayClient> tray_;
};

void TrayMenuTest::initTestCase()
{
    QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (run under dbus-run-session)");
    QVERIFY2(QGuiApplication::platformName() == QLatin1String("xcb"), "needs an X display (run under xvfb-run)");
    QVERIFY(watcher_.start());
    agent_.setHealthy(QStringLiteral("1.4.2"));
    program_.start(agent_.port());
    QVERIFY(program_.process().waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(!watcher_.items().isEmpty(), programTimeoutMs);
    const StatusNotifierWatcher::Item item = watcher_.items().constFirst();
    QVERIFY2(item.service.startsWith(QLatin1Char(':')), qPrintable(item.service));
    tray_ = std::make_unique<TrayClient>(item.service, item.path);
    QCOMPARE(tray_->menuPath(), QStringLiteral("/MenuBar"));
    waitForState(QStringLiteral("Status: Running"));
}

void TrayMenuTest::waitForState(const QString &title)
{
    QTRY_COMPARE_WITH_TIMEOUT(tray_->labels().value(0), title, programTimeoutMs);
}

void TrayMenuTest::checkBadge(bool running, const QString &stateName)
{
    QTRY_COMPARE_WITH_TIMEOUT(tray_->toolTipTitle(),
                              running ? QStringLiteral("Quillmere Agent is running")
                                      : QStringLiteral("Quillmere Agent is offline"),
                              programTimeoutMs);
    const QList<QImage> images = tray_->iconPixmaps();
    QVERIFY(!images.isEmpty());
    for (const QImage &image : images) {
        const QString size = QString::number(image.width());
        QCOMPARE(image.width(), image.height());
        QVERIFY2(badgeColour(image, 0.2, 0.2).alpha() < 40, qPrintable(size + QStringLiteral(" px: corner not clear")));
        const QColor mark = markColour(image);
        const QColor fill = fillColour(image);
        if (running) {
            QVERIFY2(isCyan(mark, 60) && mark.red() > 100,
                     qPrintable(size + QStringLiteral(" px mark ") + describe(mark)));
            QVERIFY2(isCyan(fill, 40) && fill.value() < 140,
                     qPrintable(size + QStringLiteral(" px fill ") + describe(fill)));
        } else {
            QVERIFY2(isGrey(mark) && mark.red() > 150, qPrintable(size + QStringLiteral(" px mark ") + describe(mark)));
            QVERIFY2(isGrey(fill) && fill.value() > 40 && fill.value() < 150,
                     qPrintable(size + QStringLiteral(" px fill ") + describe(fill)));
        }
    }
    const auto [one, two] = oneAndTwoTimes(images);
    savePicture(one, QStringLiteral("badge-%1@1x.png").arg(stateName));
    savePicture(two, QStringLiteral("badge-%1@2x.png").arg(stateName));
}

void TrayMenuTest::menuListsItemsInOrderWithStatesAndToggles()
{
    const QList<TrayMenuEntry> entries = tray_->layout();
    QStringList labels;
    QList<bool> enabled;
    for (const TrayMenuEntry &entry : entries) {
        labels.append(entry.label);
        enabled.append(entry.enabled);
        QVERIFY(entry.visible);
    }
    const QStringList expectedLabels = {QStringLiteral("Status: Running"),
                                        QStringLiteral("Version: 1.4.2"),
                                        QStringLiteral("-"),
                                        QStringLiteral("Start Agent"),
                                        QStringLiteral("Stop Agent"),
                                        QStringLiteral("-"),
                                        QStringLiteral("Open Cloud Admin"),
                                        QStringLiteral("Check for Updates"),
                                        QStringLiteral("Open Local Admin"),
                                        QStringLiteral("Open Getting Started"),
                                        QStringLiteral("Open Startup Status"),
                                        QStringLiteral("Open Logs"),
                                        QStringLiteral("-"),
                                        QStringLiteral("Run at Startup"),
                                        QStringLiteral("-"),
                                        QStringLiteral("Quit")};
    QCOMPARE(labels, expectedLabels);
    const QList<bool> expectedEnabled = {false, false, true, false, true, true, true, true,
                                         true,  true,  true, true,  true, true, true, true};
    QCOMPARE(enabled, expectedEnabled);

    QCOMPARE(tray_->entry(QStringLiteral("Quit")).toggleType, QString());

    checkBadge(true, QStringLiteral("running"));
}

void TrayMenuTest::stopAndStartRunTheControlScriptAndTheMenuFollows()
{
    QVERIFY(tray_->click(QStringLiteral("Stop Agent")));
    // Down before any refresh can look, so that the refresh keeps showing the stop in flight.
    agent_.setHealthDown();
    QTRY_COMPARE_WITH_TIMEOUT(program_.controlCalls(), QStringList{QStringLiteral("stop")}, programTimeoutMs);
    waitForState(QStringLiteral("Status: Stopping..."));
    QVERIFY(!tray_->entry(QStringLiteral("Stop Agent")).enabled);
    program_.finishControlCall(QStringLiteral("stop"));
    waitForState(QStringLiteral("Status: Stopped"));
    QVERIFY(tray_->entry(QStringLiteral("Start Agent")).enabled);
    QVERIFY(!tray_->entry(QStringLiteral("Stop Agent")).enabled);
    checkBadge(false, QStringLiteral("offline"));

    QVERIFY(tray_->click(QStringLiteral("Start Agent")));
    QTRY_COMPARE_WITH_TIMEOUT(program_.controlCalls(), (QStringList{QStringLiteral("stop"), QStringLiteral("start")}),
                              programTimeoutMs);
    waitForState(QStringLiteral("Status: Starting..."));
    QVERIFY(!tray_->entry(QStringLiteral("Start Agent")).enabled);
    // A start from the menu shows the startup status page.
    QTRY_VERIFY_WITH_TIMEOUT(
        program_.openedLocations().contains(program_.installed().runtimeDir() + QStringLiteral("/startup-status.html")),
        programTimeoutMs);
    agent_.setHealthy(QStringLiteral("1.5.0"));
    program_.finishControlCall(QStringLiteral("start"));
    waitForState(QStringLiteral("Status: Running"));
    QCOMPARE(tray_->labels().value(1), QStringLiteral("Version: 1.5.0"));
    QVERIFY(tray_->entry(QStringLiteral("Stop Agent")).enabled);
    checkBadge(true, QStringLiteral("running"));
}

void TrayMenuTest::locationItemsOpenTheirLocations_data()
{
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("location");
    const QString runtime = program_.installed().runtimeDir();
    QTest::newRow("local admin") << "Open Local Admin" << QStringLiteral("http://127.0.0.1:%1/").arg(agent_.port());
    QTest::newRow("cloud admin") << "Open Cloud Admin" << QString();
    QTest::newRow("updates") << "Check for Updates" << QString();
    QTest::newRow("getting started") << "Open Getting Started" << runtime + QStringLiteral("/welcome.html");
    QTest::newRow("startup status") << "Open Startup Status" << runtime + QStringLiteral("/startup-status.html");
    QTest::newRow("logs") << "Open Logs"
                          << program_.home() + QStringLiteral("/.local/share/TallyholdAgent/runtime/logs");
}

void TrayMenuTest::locationItemsOpenTheirLocations()
{
    QFETCH(QString, label);
    QFETCH(QString, location);
    const qsizetype before = program_.openedLocations().size();
    QVERIFY(tray_->click(label));
    QTRY_COMPARE_WITH_TIMEOUT(program_.openedLocations().size(), before + 1, programTimeoutMs);
    const QString opened = program_.openedLocations().constLast();
    if (location.isEmpty())
        QVERIFY2(opened.startsWith(QLatin1String("https://")), qPrintable(opened));
    else
        QCOMPARE(opened, location);
}

void TrayMenuTest::runAtStartupSwitchesTheAutostartEntry()
{
    const QString entry = program_.autostartEntry();
    QVERIFY(!QFile::exists(entry));
    const TrayMenuEntry before = tray_->entry(QStringLiteral("Run at Startup"));
    QCOMPARE(before.toggleType, QStringLiteral("checkmark"));
    QCOMPARE(before.toggleState, 0);
    QVERIFY(tray_->click(QStringLiteral("Run at Startup")));
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(entry), programTimeoutMs);
    QTRY_COMPARE_WITH_TIMEOUT(tray_->entry(QStringLiteral("Run at Startup")).toggleState, 1, programTimeoutMs);

    QVERIFY(tray_->click(QStringLiteral("Run at Startup")));
    QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(entry), programTimeoutMs);
    QTRY_COMPARE_WITH_TIMEOUT(tray_->entry(QStringLiteral("Run at Startup")).toggleState, 0, programTimeoutMs);
}

void TrayMenuTest::menuOpensFromTheIcon()
{
    // A primary click on the icon pops the menu up where the pointer is.
    QScreen *screen = QGuiApplication::primaryScreen();
    QVERIFY(screen);
    const QImage before = screen->grabWindow(0).toImage();
    QVERIFY(tray_->activate(0, 0));
    // Shown and fully painted: the screen differs from before and holds still between two looks.
    QRect shown;
    QImage previous = before;
    QTRY_VERIFY_WITH_TIMEOUT(
        [&] {
            const QImage now = screen->grabWindow(0).toImage();
            QRect changed;
            for (int y = 0; y < now.height(); ++y)
                for (int x = 0; x < now.width(); ++x)
                    if (now.pixel(x, y) != before.pixel(x, y))
                        changed |= QRect(x, y, 1, 1);
            const bool settled = now == previous;
            previous = now;
            shown = changed;
            return settled && changed.width() > 100 && changed.height() > 200;
        }(),
        programTimeoutMs);
    savePicture(previous.copy(shown), QStringLiteral("menu.png"));
}

void TrayMenuTest::quitStopsTheAgentAndExits()
{
    QVERIFY(tray_->click(QStringLiteral("Quit")));
    QTRY_COMPARE_WITH_TIMEOUT(program_.controlCalls().value(2), QStringLiteral("stop"), programTimeoutMs);
    waitForState(QStringLiteral("Status: Stopping and Scanning..."));
    agent_.setHealthDown();
    program_.finishControlCall(QStringLiteral("stop"));
    QVERIFY(program_.process().waitForFinished(programTimeoutMs));
    QCOMPARE(program_.process().exitStatus(), QProcess::NormalExit);
    QCOMPARE(program_.process().exitCode(), 0);
    QCOMPARE(program_.logMessages().value(program_.logMessages().size() - 1),
             QStringLiteral("Application will terminate."));
}

QTEST_MAIN(TrayMenuTest)
#include "tst_TrayMenu.moc"
