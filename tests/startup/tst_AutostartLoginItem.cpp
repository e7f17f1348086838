// The Linux login-item service: an XDG autostart entry in a temporary configuration folder,
// with the service's status values and error codes, and the controller switching it.
#include "app/AppDelegate.h"
#include "platform/linux/AutostartLoginItemService.h"
#include "support/FakePlatform.h"
#include "support/Files.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QDir>
#include <QFile>
#include <QTest>

namespace {

const QString bundleId = QStringLiteral("com.tallyhold.agent.app");
const QString program = QStringLiteral("/opt/Quillmere Agent/bin/quillmere-menu");

} // namespace

class AutostartLoginItemTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void registersAndUnregistersTheEntry();
    void hiddenEntryCountsAsNotRegistered_data();
    void hiddenEntryCountsAsNotRegistered();
    void execLineQuotesTheProgram_data();
    void execLineQuotesTheProgram();
    void writeFailuresCarryTheSystemMessage_data();
    void writeFailuresCarryTheSystemMessage();
    void openingSettingsOpensTheAutostartFolder();
    void controllerSwitchesTheEntry();

private:
    QString entryPath() const
    {
        return env.configHome() + QStringLiteral("/autostart/") + bundleId + QStringLiteral(".desktop");
    }
    AutostartLoginItemService service(LocationOpener *opener = nullptr) const
    {
        return AutostartLoginItemService(env.configHome(), bundleId, program, opener);
    }

    TestEnvironment env;
};

void AutostartLoginItemTest::init()
{
    const QString autostart = env.configHome() + QStringLiteral("/autostart");
    QDir(autostart).removeRecursively();
    QFile::remove(autostart);
}

void AutostartLoginItemTest::registersAndUnregistersTheEntry()
{
    AutostartLoginItemService items = service();
    QVERIFY(items.isAvailable());
    QCOMPARE(items.entryPath(), entryPath());
    QCOMPARE(items.status(), LoginItemService::statusNotRegistered);

    QVERIFY(!items.registerApp());
    QCOMPARE(readFile(entryPath()), QByteArray("[Desktop Entry]\n"
                                               "Type=Application\n"
                                               "Name=Quillmere Agent\n"
                                               "Exec=\"/opt/Quillmere Agent/bin/quillmere-menu\" --launched-at-login\n"
                                               "X-GNOME-Autostart-enabled=true\n"
                                               "NoDisplay=true\n"));
    QCOMPARE(items.status(), LoginItemService::statusEnabled);

    const std::optional<LoginItemError> again = items.registerApp();
    QVERIFY(again);
    QCOMPARE(again->code, LoginItemService::errorAlreadyRegistered);
    QCOMPARE(again->domain, QStringLiteral("QuillmereAutostartErrorDomain"));
    QVERIFY(!again->message.isEmpty());

    QVERIFY(!items.unregisterApp());
    QVERIFY(!QFile::exists(entryPath()));
    QCOMPARE(items.status(), LoginItemService::statusNotRegistered);

    const std::optional<LoginItemError> missing = items.unregisterApp();
    QVERIFY(missing);
    QCOMPARE(missing->code, LoginItemService::errorJobNotFound);
}

void AutostartLoginItemTest::hiddenEntryCountsAsNotRegistered_data()
{
    QTest::addColumn<QByteArray>("entry");
    QTest::addColumn<int>("status");
    QTest::newRow("plain") << QByteArray("[Desktop Entry]\nType=Application\nExec=x\n") << 1;
    QTest::newRow("empty file") << QByteArray() << 1;
    QTest::newRow("hidden") << QByteArray("[Desktop Entry]\nType=Application\nHidden=true\n") << 0;
    QTest::newRow("hidden with blanks") << QByteArray("[Desktop Entry]\nHidden = true\n") << 0;
    QTest::newRow("not hidden") << QByteArray("[Desktop Entry]\nHidden=false\n") << 1;
    QTest::newRow("switched off in GNOME") << QByteArray("[Desktop Entry]\nX-GNOME-Autostart-enabled=false\n") << 0;
    QTest::newRow("hidden in another group")
        << QByteArray("[Desktop Entry]\nExec=x\n[Desktop Action a]\nHidden=true\n") << 1;
}

void AutostartLoginItemTest::hiddenEntryCountsAsNotRegistered()
{
    QFETCH(QByteArray, entry);
    QFETCH(int, status);
    writeFile(entryPath(), entry);
    AutostartLoginItemService items = service();
    QCOMPARE(items.status(), status);

    // A switched-off entry is replaced when registering; an active one is left as it is.
    const std::optional<LoginItemError> result = items.registerApp();
    QCOMPARE(bool(result), status == LoginItemService::statusEnabled);
    QCOMPARE(items.status(), LoginItemService::statusEnabled);
    if (status != LoginItemService::statusEnabled)
        QVERIFY(!readFile(entryPath()).contains("Hidden"));
    else
        QCOMPARE(readFile(entryPath()), entry);
    // Any entry, switched off or not, is what unregistering removes.
    QVERIFY(!items.unregisterApp());
}

void AutostartLoginItemTest::execLineQuotesTheProgram_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("exec");
    QTest::newRow("plain") << QStringLiteral("/usr/bin/quillmere-menu")
                           << QStringLiteral("\"/usr/bin/quillmere-menu\" --launched-at-login");
    QTest::newRow("blank") << QStringLiteral("/a b/c") << QStringLiteral("\"/a b/c\" --launched-at-login");
    QTest::newRow("double quote") << QStringLiteral("/a\"b") << QStringLiteral("\"/a\\\\\"b\" --launched-at-login");
    QTest::newRow("dollar and backtick") << QStringLiteral("/$HOME/`x`")
                                         << QStringLiteral("\"/\\\\$HOME/\\\\`x\\\\`\" --launched-at-login");
    QTest::newRow("backslash") << QStringLiteral("/a\\b") << QStringLiteral("\"/a\\\\\\\\b\" --launched-at-login");
    QTest::newRow("percent") << QStringLiteral("/100%/u") << QStringLiteral("\"/100%%/u\" --launched-at-login");
    QTest::newRow("line feed and tab") << QStringLiteral("/a\nb\tc")
                                       << QStringLiteral("\"/a\\nb\\tc\" --launched-at-login");
    QTest::newRow("non-ASCII") << QStringLiteral("/home/zoë/日本")
                               << QStringLiteral("\"/home/zoë/日本\" --launched-at-login");
}

void AutostartLoginItemTest::execLineQuotesTheProgram()
{
    QFETCH(QString, path);
    QFETCH(QString, exec);
    QCOMPARE(AutostartLoginItemService::execLine(path), exec);
    // The entry stays one key per line whatever the path holds.
    QCOMPARE(AutostartLoginItemService::entryText(path).count(QLatin1Char('\n')), 6);
}

void AutostartLoginItemTest::writeFailuresCarryTheSystemMessage_data()
{
    QTest::addColumn<QString>("blocked");
    QTest::newRow("autostart is a file") << QStringLiteral("folder");
    QTest::newRow("entry is a folder") << QStringLiteral("entry");
}

void AutostartLoginItemTest::writeFailuresCarryTheSystemMessage()
{
    QFETCH(QString, blocked);
    if (blocked == QLatin1String("folder"))
        writeFile(env.configHome() + QStringLiteral("/autostart"), "not a folder");
    else
        QVERIFY(QDir().mkpath(entryPath() + QStringLiteral("/inside")));
    AutostartLoginItemService items = service();
    QCOMPARE(items.status(), LoginItemService::statusNotRegistered);

    const std::optional<LoginItemError> error = items.registerApp();
    QVERIFY(error);
    QCOMPARE(error->code, AutostartLoginItemService::errorWriteFailed);
    QVERIFY(error->code != LoginItemService::errorLaunchDeniedByUser &&
            error->code != LoginItemService::errorAlreadyRegistered);
    QCOMPARE(error->domain, QStringLiteral("QuillmereAutostartErrorDomain"));
    QVERIFY2(!error->message.isEmpty(), qPrintable(error->message));
}

void AutostartLoginItemTest::openingSettingsOpensTheAutostartFolder()
{
    RecordingOpener opener;
    AutostartLoginItemService items = service(&opener);
    items.openSystemSettingsLoginItems();
    const QString folder = env.configHome() + QStringLiteral("/autostart");
    QVERIFY(QFileInfo(folder).isDir());
    QCOMPARE(opener.opened, QList<QUrl>{QUrl::fromLocalFile(folder)});
}

void AutostartLoginItemTest::controllerSwitchesTheEntry()
{
    FakePlatform fakes;
    ApplicationHost host;
    PlatformServices services = fakes.services();
    Configuration config = env.configuration(QUrl(QStringLiteral("http://127.0.0.1:1")));
    services.loginItems = std::make_unique<AutostartLoginItemService>(config.configDirectory, bundleId,
                                                                      *config.executablePath, fakes.opener);
    AppDelegate delegate(config, std::move(services), &host);
    host.setDelegate(&delegate);
    delegate.refreshRunAtStartupState();
    QAction *item = delegate.runAtStartupMenuItem();
    QVERIFY(!item->isChecked());

    env.markLog();
    item->trigger();
    QVERIFY(item->isChecked());
    QVERIFY(readFile(entryPath()).contains(QFile::encodeName(*config.executablePath) + "\" --launched-at-login\n"));
    QVERIFY(env.messagesSinceMark().contains(QStringLiteral("Enabled run-at-startup with SMAppService.")));

    item->trigger();
    QVERIFY(!item->isChecked());
    QVERIFY(!QFile::exists(entryPath()));
    QVERIFY(env.messagesSinceMark().contains(QStringLiteral("Disabled run-at-startup with SMAppService.")));
    QVERIFY(fakes.opener->opened.isEmpty());
}

QTEST_MAIN(AutostartLoginItemTest)
#include "tst_AutostartLoginItem.moc"
