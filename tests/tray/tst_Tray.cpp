// The real program's tray icon and menu driven from outside over the session bus, as a desktop
// panel drives them. The program starts before the panel, as autostarted programs often do; then
// the layout and its states, every kind of menu action with its effect, the badge colours in the
// exported icon, a panel restart, the mixed check state as a panel sees it, and Quit.
#include "menu/BrandImage.h"
#include "menu/MenuItemCheckState.h"
#include "support/FakeAgent.h"
#include "support/Files.h"
#include "support/InstalledProgram.h"
#include "support/TestEnvironment.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QEventLoop>
#include <QGuiApplication>
#include <QMenu>
#include <QMutex>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QtEndian>
#include <atomic>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeoutMs = 15000;
const QString watcherService = u"org.kde.StatusNotifierWatcher"_s;

// A panel's registry of tray items. Items are kept as "<bus name>/<object path>".
class StatusNotifierWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)

public:
    // On a connection of its own: QtDBus treats calls within one connection as local and would
    // wait out the whole timeout on this process's own icon registering.
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, u"tray-host"_s);

    // Registered since the last start, each once.
    QStringList items() const
    {
        QMutexLocker lock(&mutex_);
        QStringList items = items_;
        items.removeDuplicates();
        return items;
    }
    bool hostRegistered() const
    {
        hostAsked_ = true;
        return hasHost_;
    }
    bool hostAsked() const { return hostAsked_; }
    // Takes or gives up the well-known name, as a panel that starts or exits; items are forgotten.
    // A panel's host may register a moment after its watcher.
    bool run(bool running, bool withHost = true)
    {
        {
            QMutexLocker lock(&mutex_);
            items_.clear();
        }
        hasHost_ = withHost;
        hostAsked_ = false;
        bus.unregisterService(watcherService);
        bus.unregisterObject(u"/StatusNotifierWatcher"_s);
        return !running || (bus.registerObject(u"/StatusNotifierWatcher"_s, this, QDBusConnection::ExportAllContents) &&
                            bus.registerService(watcherService));
    }

public slots:
    void RegisterStatusNotifierItem(const QString &service, const QDBusMessage &message)
    {
        // An item names either its bus name (object at the usual path) or only its object path.
        const QString item =
            service.startsWith(u'/') ? message.service() + service : service + "/StatusNotifierItem"_L1;
        QMutexLocker lock(&mutex_);
        items_.append(item);
    }
    void RegisterStatusNotifierHost(const QString &)
    {
        hasHost_ = true;
        emit StatusNotifierHostRegistered();
    }

signals:
    void StatusNotifierHostRegistered();

private:
    std::atomic<bool> hasHost_ = true;
    mutable std::atomic<bool> hostAsked_ = false;
    mutable QMutex mutex_;
    QStringList items_;
};

struct TrayEntry {
    int id = -1;
    QString label;
    // The label as a panel would show it: "-" a separator, "(...)" disabled, "[x]"/"[ ]" a check
    // mark on or off, "+icon" an icon beside it.
    QString shown;
};

// A panel's side of one tray item: its properties and its exported menu.
class TrayClient {
public:
    explicit TrayClient(const QString &item) : service_(item.section(u'/', 0, 0)), path_(item.mid(service_.size())) {}

    QList<TrayEntry> layout() const
    {
        const QDBusMessage reply = call(menuPath(), menuInterface, u"GetLayout"_s, {0, -1, QStringList()});
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2)
            return {};
        const QDBusArgument root = reply.arguments().at(1).value<QDBusArgument>();
        QList<TrayEntry> entries;
        int id = 0;
        QVariantMap properties;
        root.beginStructure();
        root >> id >> properties;
        root.beginArray();
        while (!root.atEnd()) {
            QDBusVariant child;
            root >> child;
            const QDBusArgument item = child.variant().value<QDBusArgument>();
            QVariantList children;
            TrayEntry entry;
            item.beginStructure();
            item >> entry.id >> properties >> children;
            item.endStructure();
            entry.label = properties.value(u"label"_s).toString();
            entry.shown = properties.value(u"type"_s) == "separator"_L1 ? u"-"_s : entry.label;
            if (!properties.value(u"visible"_s, true).toBool())
                entry.shown += " (hidden)"_L1;
            if (!properties.value(u"enabled"_s, true).toBool())
                entry.shown = u'(' + entry.shown + u')';
            const QString toggle = properties.value(u"toggle-type"_s).toString();
            if (toggle == "checkmark"_L1)
                entry.shown += properties.value(u"toggle-state"_s).toInt() == 1 ? " [x]"_L1 : " [ ]"_L1;
            else if (!toggle.isEmpty())
                entry.shown += " ["_L1 + toggle + u']';
            if (properties.contains(u"icon-data"_s) || properties.contains(u"icon-name"_s))
                entry.shown += " +icon"_L1;
            entries.append(entry);
        }
        return entries;
    }
    QStringList shown() const
    {
        QStringList shown;
        for (const TrayEntry &entry : layout())
            shown.append(entry.shown);
        return shown;
    }
    TrayEntry entry(const QString &label) const
    {
        for (const TrayEntry &entry : layout())
            if (entry.label == label)
                return entry;
        return {};
    }
    bool click(const QString &label) const
    {
        const int id = entry(label).id;
        return id >= 0 &&
               call(menuPath(), menuInterface, u"Event"_s, {id, u"clicked"_s, QVariant::fromValue(QDBusVariant(0)), 0u})
                       .type() == QDBusMessage::ReplyMessage;
    }
    // A primary click on the icon.
    bool activate() const
    {
        return call(path_, itemInterface, u"Activate"_s, {0, 0}).type() == QDBusMessage::ReplyMessage;
    }
    QString menuPath() const { return property(u"Menu"_s).value<QDBusObjectPath>().path(); }
    // One image per size, smallest first.
    QList<QImage> iconPixmaps() const
    {
        QList<QImage> images = readPixmaps(property(u"IconPixmap"_s).value<QDBusArgument>());
        std::sort(images.begin(), images.end(), [](const QImage &a, const QImage &b) { return a.width() < b.width(); });
        return images;
    }
    QString toolTipTitle() const
    {
        const QDBusArgument argument = property(u"ToolTip"_s).value<QDBusArgument>();
        QString iconName, title, subTitle;
        if (argument.currentType() != QDBusArgument::StructureType)
            return {};
        argument.beginStructure();
        argument >> iconName;
        readPixmaps(argument);
        argument >> title >> subTitle;
        argument.endStructure();
        return title;
    }

private:
    static inline const QString itemInterface = u"org.kde.StatusNotifierItem"_s;
    static inline const QString menuInterface = u"com.canonical.dbusmenu"_s;

    QDBusMessage call(const QString &path, const QString &interface, const QString &method,
                      const QVariantList &arguments) const
    {
        QDBusMessage message = QDBusMessage::createMethodCall(service_, path, interface, method);
        message.setArguments(arguments);
        // Not a blocking call: once, under load, one never returned and the suite sat until its
        // time-out. Events keep running meanwhile (the fake agent lives on this thread), and the
        // wait is bounded whatever the bus does.
        QDBusPendingCallWatcher watcher(QDBusConnection::sessionBus().asyncCall(message, 5000));
        if (!watcher.isFinished()) {
            QEventLoop loop;
            QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
            QTimer::singleShot(6000, &loop, &QEventLoop::quit);
            loop.exec();
        }
        return watcher.isFinished() ? watcher.reply() : QDBusMessage::createError(QDBusError::Timeout, u"no reply"_s);
    }
    QVariant property(const QString &name) const
    {
        const QDBusMessage reply = call(path_, u"org.freedesktop.DBus.Properties"_s, u"Get"_s, {itemInterface, name});
        return reply.arguments().isEmpty() ? QVariant() : reply.arguments()[0].value<QDBusVariant>().variant();
    }
    // a(iiay): network byte order ARGB, not premultiplied.
    static QList<QImage> readPixmaps(const QDBusArgument &argument)
    {
        QList<QImage> images;
        if (argument.currentType() != QDBusArgument::ArrayType)
            return images;
        argument.beginArray();
        while (!argument.atEnd()) {
            int width = 0, height = 0;
            QByteArray data;
            argument.beginStructure();
            argument >> width >> height >> data;
            argument.endStructure();
            if (width <= 0 || height <= 0 || data.size() < qsizetype(width) * height * 4)
                continue;
            QImage image(width, height, QImage::Format_ARGB32);
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    image.setPixel(x, y, qFromBigEndian<quint32>(data.constData() + 4 * (y * width + x)));
            images.append(image);
        }
        argument.endArray();
        return images;
    }

    QString service_;
    QString path_;
};

void savePicture(const QImage &image, const QString &name)
{
    const QString folder = qEnvironmentVariable("QUILLMERE_TEST_OUTPUT");
    if (!folder.isEmpty())
        QVERIFY(QDir().mkpath(folder) && image.save(folder + u'/' + name));
}

} // namespace

class TrayTest : public QObject {
    Q_OBJECT

    // The watcher answers from a thread of its own: this process's own icon asks it things while
    // being asked itself.
    QThread hostThread_;
    StatusNotifierWatcher *watcher_ = nullptr;
    FakeAgent agent_;
    InstalledProgram program_{true};
    QProcess *process_ = nullptr;
    const QString calls_ = program_.root() + "/control-calls"_L1;
    const QString gate_ = program_.root() + "/gate-"_L1;
    std::unique_ptr<TrayClient> tray_;

    bool runWatcher(bool running, bool withHost = true)
    {
        bool done = false;
        QMetaObject::invokeMethod(
            watcher_, [&] { done = watcher_->run(running, withHost); }, Qt::BlockingQueuedConnection);
        return done;
    }
    QStringList controlCalls() const { return QString::fromUtf8(readFile(calls_)).split(u'\n', Qt::SkipEmptyParts); }
    // Lets the control script waiting with this argument exit.
    void finishControlCall(const QString &argument) { writeFile(gate_ + argument, {}); }
    QStringList log() const { return program_.logMessages(); }
    void waitForState(const QString &title)
    {
        QTRY_COMPARE_WITH_TIMEOUT(tray_->layout().value(0).label, title, timeoutMs);
    }
    // The exported icon at every size: a clear corner; a light cyan mark on a dark cyan fill
    // while running, light grey on mid grey when offline.
    void checkBadge(bool running)
    {
        const QString state = running ? u"running"_s : u"offline"_s;
        QTRY_COMPARE_WITH_TIMEOUT(tray_->toolTipTitle(), "Quillmere Agent is "_L1 + state, timeoutMs);
        const QList<QImage> images = tray_->iconPixmaps();
        QVERIFY(!images.isEmpty());
        const auto cyan = [](const QColor &c, int margin) {
            return c.blue() - c.red() > margin && c.green() - c.red() > margin / 2;
        };
        const auto grey = [](const QColor &c) {
            return qAbs(c.red() - c.blue()) < 25 && qAbs(c.red() - c.green()) < 25;
        };
        QImage twice = images.constLast();
        for (const QImage &image : images) {
            // Points of the badge's own 18-point grid (y down): a corner, the mark's upper stroke
            // near its right corner at (12, 9), and inside the lower right corner where the
            // gradient starts.
            const auto at = [&](double x, double y) {
                return image.pixelColor(int(x * image.width() / 18), int(y * image.width() / 18));
            };
            const QColor mark = at(11.6, 8.6), fill = at(14.3, 14.3);
            const QByteArray what =
                u"%1 px, mark %2, fill %3"_s.arg(image.width()).arg(mark.name(), fill.name()).toUtf8();
            QCOMPARE(image.width(), image.height());
            QVERIFY2(at(0.2, 0.2).alpha() < 40, what);
            if (running)
                QVERIFY2(cyan(mark, 60) && mark.red() > 100 && cyan(fill, 40) && fill.value() < 140, what);
            else
                QVERIFY2(grey(mark) && mark.red() > 150 && grey(fill) && fill.value() > 40 && fill.value() < 150, what);
            if (image.width() == 2 * images.constFirst().width())
                twice = image;
        }
        savePicture(images.constFirst(), "badge-%1@1x.png"_L1.arg(state));
        savePicture(twice, "badge-%1@2x.png"_L1.arg(state));
    }

private slots:
    void initTestCase()
    {
        hostThread_.start();
        watcher_ = new StatusNotifierWatcher;
        watcher_->moveToThread(&hostThread_);
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (run under dbus-run-session)");
        QVERIFY2(QGuiApplication::platformName() == "xcb"_L1, "needs an X display (run under xvfb-run)");
        QVERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(watcherService));
        // Each call is recorded, then waits until the test lets it finish.
        TestEnvironment::writeScript(program_.controlScript(),
                                     QStringLiteral("echo \"$1\" >> '%1'\n"
                                                    "while [ ! -e '%2'\"$1\" ]; do sleep 0.02; done\n"
                                                    "rm -f '%2'\"$1\"\n")
                                         .arg(calls_, gate_));
        agent_.setHealthDown();
        process_ = program_.start(agent_.port());
        QVERIFY(process_->waitForStarted());
    }

    void cleanupTestCase()
    {
        QMetaObject::invokeMethod(
            watcher_, [this] { delete watcher_; }, Qt::BlockingQueuedConnection);
        hostThread_.quit();
        hostThread_.wait();
    }

    void worksBeforeThereIsATray()
    {
        // The agent is supervised and the log written while no tray exists.
        QTRY_COMPARE_WITH_TIMEOUT(controlCalls(), QStringList{"start"}, timeoutMs);
        QVERIFY(log().contains(u"Agent not healthy during launch. Starting agent."_s));
        agent_.setHealthy(u"1.4.2"_s);
        finishControlCall(u"start"_s);
        QTRY_VERIFY_WITH_TIMEOUT(log().contains(u"State updated: Status: Running version=1.4.2 running=true"_s),
                                 timeoutMs);
        QCOMPARE(process_->state(), QProcess::Running);
    }

    void menuAsThePanelFindsIt()
    {
        // The panel appears, its host a moment after its watcher: the program registers once the
        // host is there, with the state reached before.
        QVERIFY(runWatcher(true, false));
        QTRY_VERIFY_WITH_TIMEOUT(watcher_->hostAsked(), timeoutMs);
        QVERIFY(watcher_->items().isEmpty());
        QMetaObject::invokeMethod(
            watcher_, [this] { watcher_->RegisterStatusNotifierHost(u"host"_s); }, Qt::BlockingQueuedConnection);
        QTRY_VERIFY_WITH_TIMEOUT(!watcher_->items().isEmpty(), timeoutMs);
        QVERIFY2(watcher_->items()[0].startsWith(u':'), qPrintable(watcher_->items()[0]));
        tray_ = std::make_unique<TrayClient>(watcher_->items()[0]);
        QCOMPARE(tray_->menuPath(), u"/MenuBar"_s);
        waitForState(u"Status: Running"_s);
        QCOMPARE(tray_->shown(),
                 QStringList({"(Status: Running)", "(Version: 1.4.2)", "-", "(Start Agent)", "Stop Agent", "-",
                              "Open Cloud Admin", "Check for Updates", "Open Local Admin", "Open Getting Started",
                              "Open Startup Status", "Open Logs", "-", "Run at Startup [ ]", "-", "Quit"}));
        checkBadge(true);
    }

    void stopAndStartRunTheControlScriptAndTheMenuFollows()
    {
        QVERIFY(tray_->click(u"Stop Agent"_s));
        // Down before any refresh can look, so that the refresh keeps showing the stop in flight.
        agent_.setHealthDown();
        QTRY_COMPARE_WITH_TIMEOUT(controlCalls(), QStringList({"start", "stop"}), timeoutMs);
        waitForState(u"Status: Stopping..."_s);
        QCOMPARE(tray_->entry(u"Stop Agent"_s).shown, u"(Stop Agent)"_s);
        finishControlCall(u"stop"_s);
        waitForState(u"Status: Stopped"_s);
        QCOMPARE(tray_->shown().mid(3, 2), QStringList({"Start Agent", "(Stop Agent)"}));
        checkBadge(false);

        QVERIFY(tray_->click(u"Start Agent"_s));
        QTRY_COMPARE_WITH_TIMEOUT(controlCalls(), QStringList({"start", "stop", "start"}), timeoutMs);
        waitForState(u"Status: Starting..."_s);
        QCOMPARE(tray_->shown().mid(3, 2), QStringList({"(Start Agent)", "(Stop Agent)"}));
        // A start from the menu shows the startup status page.
        QTRY_VERIFY_WITH_TIMEOUT(program_.openedLocations().contains(program_.runtimeDir() + "/startup-status.html"_L1),
                                 timeoutMs);
        agent_.setHealthy(u"1.5.0"_s);
        finishControlCall(u"start"_s);
        waitForState(u"Status: Running"_s);
        QCOMPARE(tray_->shown().mid(0, 5),
                 QStringList({"(Status: Running)", "(Version: 1.5.0)", "-", "(Start Agent)", "Stop Agent"}));
        checkBadge(true);
    }

    void locationItemsOpenTheirLocations_data()
    {
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("location"); // empty: some https address
        QTest::newRow("local admin") << "Open Local Admin" << u"http://127.0.0.1:%1/"_s.arg(agent_.port());
        QTest::newRow("cloud admin") << "Open Cloud Admin" << QString();
        QTest::newRow("updates") << "Check for Updates" << QString();
        QTest::newRow("getting started") << "Open Getting Started" << program_.runtimeDir() + "/welcome.html"_L1;
        QTest::newRow("startup status") << "Open Startup Status" << program_.runtimeDir() + "/startup-status.html"_L1;
        QTest::newRow("logs") << "Open Logs"
                              << program_.homeOf(u"first"_s) + "/.local/share/TallyholdAgent/runtime/logs"_L1;
    }

    void locationItemsOpenTheirLocations()
    {
        QFETCH(QString, label);
        QFETCH(QString, location);
        const qsizetype before = program_.openedLocations().size();
        QVERIFY(tray_->click(label));
        QTRY_COMPARE_WITH_TIMEOUT(program_.openedLocations().size(), before + 1, timeoutMs);
        const QString opened = program_.openedLocations().constLast();
        if (location.isEmpty())
            QVERIFY2(opened.startsWith("https://"_L1), qPrintable(opened));
        else
            QCOMPARE(opened, location);
    }

    void runAtStartupSwitchesTheAutostartEntry()
    {
        const QString entry = program_.configHomeOf(u"first"_s) + "/autostart/com.tallyhold.agent.app.desktop"_L1;
        QVERIFY(!QFile::exists(entry));
        QVERIFY(tray_->click(u"Run at Startup"_s));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(entry), timeoutMs);
        QTRY_COMPARE_WITH_TIMEOUT(tray_->entry(u"Run at Startup"_s).shown, u"Run at Startup [x]"_s, timeoutMs);
        QVERIFY(tray_->click(u"Run at Startup"_s));
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(entry), timeoutMs);
        QTRY_COMPARE_WITH_TIMEOUT(tray_->entry(u"Run at Startup"_s).shown, u"Run at Startup [ ]"_s, timeoutMs);
    }

    void registersAgainWhenThePanelRestarts()
    {
        QVERIFY(runWatcher(false));
        QVERIFY(runWatcher(true));
        QTRY_COMPARE_WITH_TIMEOUT(watcher_->items().size(), 1, timeoutMs);
        tray_ = std::make_unique<TrayClient>(watcher_->items()[0]);
        QCOMPARE(tray_->layout().value(0).label, u"Status: Running"_s);
    }

    void mixedCheckStateAsThePanelSeesIt()
    {
        // An icon of this process's own, the item's state set after the menu is exported, so the
        // panel sees each change as it happens.
        QMenu menu;
        QAction *item = menu.addAction(u"Run at Startup"_s);
        QSystemTrayIcon icon(makeBrandStatusImage(false));
        icon.setContextMenu(&menu);
        icon.show();
        QTRY_COMPARE(watcher_->items().size(), 2);
        const TrayClient client(watcher_->items()[1]);
        // dbusmenu knows an indeterminate toggle state, but Qt only ever sends 0 or 1: the mixed
        // state arrives as unchecked, told apart by the dash drawn as the item's icon.
        const QList<std::pair<int, QString>> table = {{menuItemStateOff, u"[ ]"_s},
                                                      {menuItemStateMixed, u"[ ] +icon"_s},
                                                      {menuItemStateOn, u"[x]"_s},
                                                      {menuItemStateMixed, u"[ ] +icon"_s},
                                                      {menuItemStateOff, u"[ ]"_s}};
        for (const auto &[state, shown] : table) {
            setMenuItemCheckState(item, state);
            QTRY_COMPARE_WITH_TIMEOUT(client.shown(), QStringList{"Run at Startup "_L1 + shown}, 5000);
        }
    }

    void menuOpensFromTheIcon()
    {
        // Pops up where the pointer is. Shown and fully painted: the screen differs from before
        // and holds still between two looks.
        QScreen *screen = QGuiApplication::primaryScreen();
        const QImage before = screen->grabWindow(0).toImage();
        QVERIFY(tray_->activate());
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
            timeoutMs);
        savePicture(previous.copy(shown), u"menu.png"_s);
    }

    void quitStopsTheAgentAndExits()
    {
        QVERIFY(tray_->click(u"Quit"_s));
        QTRY_COMPARE_WITH_TIMEOUT(controlCalls(), QStringList({"start", "stop", "start", "stop"}), timeoutMs);
        waitForState(u"Status: Stopping and Scanning..."_s);
        agent_.setHealthDown();
        finishControlCall(u"stop"_s);
        QVERIFY(process_->waitForFinished(timeoutMs));
        QCOMPARE(process_->exitStatus(), QProcess::NormalExit);
        QCOMPARE(process_->exitCode(), 0);
        QCOMPARE(log().constLast(), u"Application will terminate."_s);
    }
};

QTEST_MAIN(TrayTest)
#include "tst_Tray.moc"
