// Volumes to the agent: the snapshot, the sync request and what its answer does, when syncs go, mount table
// events; and what else the Linux layer hears of (the listener on the agent's port, logind's wake).
#include "platform/linux/ListeningSockets.h"
#include "platform/linux/LogindWakeWatcher.h"
#include "platform/linux/MountInfoWatcher.h"
#include "support/InstalledProgram.h"
#include "support/Testing.h"
#include "volumes/VolumeSnapshot.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

const QByteArray syncPath = "/api/mounted-volumes/cache-sync";
const QString &didMount = WorkspaceNotification::didMount;
const QString &didUnmount = WorkspaceNotification::didUnmount;
const QString &didRename = WorkspaceNotification::didRenameVolume;
static bool privateMountNamespace = false; // set by main: mounts made here stay unseen outside

// Each sync request the agent received, as "event:number of volumes".
static QStringList sent(const FakeAgent &agent)
{
    QStringList requests;
    for (const RecordedRequest &request : agent.requestsFor(syncPath)) {
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        requests.append(body["event"_L1].toString() + u':' + QString::number(body["volumes"_L1].toArray().size()));
    }
    return requests;
}

class VolumesTest : public QObject {
    Q_OBJECT

    TestEnvironment env;
    FakePlatform fakes;
    ApplicationHost host;

private slots:
    void init()
    {
        QDir(env.volumesDir()).removeRecursively();
        QVERIFY(QDir().mkpath(env.volumesDir()));
        env.markLog();
    }

    // What each answer is followed by, the lines logged of syncs and then the requests sent, is in sync-answers.txt.
    void answerDecidesWhatFollows_data()
    {
        QTest::addColumn<CannedResponse>("answer");
        QTest::newRow("299, not JSON") << CannedResponse{299, "created", "text/plain"};
        QTest::newRow("429") << CannedResponse{429, "{}"};
        QTest::newRow("500") << CannedResponse{500, "{}"};
        QTest::newRow("200 cut off") << CannedResponse{200, "{}", "application/json", false, 0, 40};
        QTest::newRow("hung") << CannedResponse{200, "{}", "application/json", true};
    }
    void answerDecidesWhatFollows()
    {
        QFETCH(CannedResponse, answer);
        const bool thenAccepted = answer.hang; // after the first request the agent answers 200
        FakeAgent agent;
        agent.setResponse(syncPath, answer);
        if (thenAccepted) // once the first request has had its answer
            connect(&agent, &FakeAgent::requestReceived, &agent, [&agent] {
                QTimer::singleShot(0, &agent, [&agent] { agent.setResponse(syncPath, {200, "{}"}); });
            });
        // A name comes before a longer one it begins, of any characters; U+FF21 is below U+1F4BE, though its
        // UTF-16 unit is above U+1F4BE's first surrogate.
        for (const QString &name : {u"\uFF21eta"_s, u"alpha 2"_s, u"alpha"_s, u".Spotlight"_s, u"\uFF21"_s,
                                    u"Caf\u00E9 \"Q\" \\\x1f\b\f\n\r\t!"_s, u"\U0001F4BE"_s})
            QVERIFY(QDir(env.volumesDir()).mkdir(name));
        auto delegate = std::make_unique<AppDelegate>(env.configuration(agent.baseURL()), fakes.services(), &host);
        // A lone surrogate has no UTF-8 form, so no JSON text can carry this event: nothing is sent.
        delegate->syncMountedVolumesCache(QString(QChar(0xD800)), true);

        // Asked for while one is outstanding, forced or not: exactly one "coalesced" follow-up with a new snapshot (a
        // volume more), sent even when the agent has just taken the same one (299, where no volume comes).
        delegate->syncMountedVolumesCache(u"app-launch"_s, false);
        delegate->syncMountedVolumesCache(didMount, false);
        delegate->syncMountedVolumesCache(u"agent-running"_s, true);
        delegate->syncMountedVolumesCache(didUnmount, false);
        QVERIFY(answer.status == 299 || QDir(env.volumesDir()).mkdir(u"omega"_s));
        QTRY_VERIFY_WITH_TIMEOUT(!delegate->mountedVolumeSyncInFlight, 4500);
        // The same snapshot again, unforced: skipped only when the agent took it.
        delegate->syncMountedVolumesCache(didMount, false);
        QTRY_VERIFY(!delegate->mountedVolumeSyncInFlight);

        QCOMPARE(env.messagesSinceMark().filter(u"Mounted volume sync"_s) + sent(agent),
                 blockOf(QFINDTESTDATA("sync-answers.txt")));
        QTRY_COMPARE_WITH_TIMEOUT(delegate->findChildren<QNetworkReply *>().size(), 0, 1000); // replies released
        const RecordedRequest request = agent.requestsFor(syncPath)[0];
        QCOMPARE(request.method + ' ' + request.headers.value("content-type") + ' ' + request.body,
                 "POST application/json " + readFile(QFINDTESTDATA("snapshot.json")).trimmed());
    }

    void syncsWaitForTheLastTriggerOrGoAtOnceWhenForced()
    {
        FakeAgent agent;
        agent.setResponse(syncPath, {500, "{}"}); // never accepted, so every sync that runs is sent
        QElapsedTimer scheduled;
        scheduled.start();
        QList<qint64> arrivals; // of sync requests, since the last one was scheduled
        connect(&agent, &FakeAgent::requestReceived, &agent, [&] { arrivals.append(scheduled.elapsed()); });
        auto delegate = std::make_unique<AppDelegate>(env.configuration(agent.baseURL()), fakes.services(), &host);
        QVERIFY(QDir(env.volumesDir()).removeRecursively()); // no mount folder yet: no volumes, still sent
        delegate->configureMountedVolumeMonitoring();
        delegate->configureMountedVolumeMonitoring();
        QCOMPARE(fakes.notifications->observerCount(), 3); // registered once
        QTRY_VERIFY(arrivals.size() == 1 && !delegate->mountedVolumeSyncInFlight);
        const qsizetype descriptorsBefore = openDescriptors();

        // Three notifications 0.15 s apart, a volume coming along the way: one sync a second after the last.
        for (const QString &event : {didUnmount, didRename})
            fakes.notifications->post(event), QTest::qWait(150);
        QCOMPARE(volumeSnapshotFromListing({u"Disk"_s, u" \t"_s, u"DISK"_s}), // first of case twins; blanks: none
                 (QList<VolumeEntry>{{u"Disk"_s, u"/Volumes/Disk"_s}}));
        // Three volumes: the same name composed or not, with blanks around it, or in the other case.
        for (const QString &name : {u"Cafe\u0301"_s, u"CAF\u00C9"_s, u" a"_s, u"A "_s, u"z"_s, u"Z"_s})
            QVERIFY(QDir().mkpath(env.volumesDir() + u'/' + name)); // the mount folder with the first
        fakes.notifications->post(didMount);
        scheduled.start();
        QTRY_COMPARE_WITH_TIMEOUT(arrivals.size(), 2, 5000);
        QVERIFY2(arrivals[1] >= 950 && arrivals[1] <= 2500, QByteArray::number(arrivals[1]));

        // A forced sync replaces a waiting unforced one and goes at once...
        delegate->scheduleMountedVolumesSync(didMount, false);
        scheduled.start();
        delegate->scheduleMountedVolumesSync(u"agent-running"_s, true);
        QTRY_COMPARE(arrivals.size(), 3);
        QVERIFY2(arrivals[2] < 150, QByteArray::number(arrivals[2]));
        // ...and an unforced one replaces a forced one not yet run, and waits.
        delegate->scheduleMountedVolumesSync(u"agent-running"_s, true);
        scheduled.start();
        delegate->scheduleMountedVolumesSync(didUnmount, false);
        QTRY_COMPARE(arrivals.size(), 4);
        QVERIFY2(arrivals[3] >= 950, QByteArray::number(arrivals[3]));

        // Removing monitoring drops the sync still waiting and stops listening.
        fakes.notifications->post(didMount);
        delegate->removeMountedVolumeMonitoring();
        QCOMPARE(fakes.notifications->observerCount(), 0);
        QTest::qWait(1200);                                 // long enough for a replaced or dropped sync to have run
        QTRY_COMPARE(openDescriptors(), descriptorsBefore); // every listing and connection closed
        QCOMPARE(sent(agent),
                 QStringList({"app-launch:0", didMount + ":3"_L1, "agent-running:3", didUnmount + ":3"_L1}));
    }

    // Recorded /proc/net/tcp and tcp6 lines (uids changed) on port 0xA029, asked for 127.0.0.1. Each block of
    // listeners.txt is a row: its name, the owner found ("owner: -1" for none), then the table.
    void listenerOwnerOnThePort_data()
    {
        QTest::addColumn<QStringList>("lines");
        for (const QStringList &block : blocksOf(QFINDTESTDATA("listeners.txt")))
            QTest::newRow(qPrintable(block.value(0))) << block.mid(1);
    }
    void listenerOwnerOnThePort()
    {
        QFETCH(QStringList, lines);
        const QByteArray table = lines.mid(1).join(u'\n').toUtf8();
        const std::optional<uint> owner = listenerOwnerInTable(table, QHostAddress(QHostAddress::LocalHost), 0xA029);
        QCOMPARE(u"owner: %1"_s.arg(int(owner.value_or(-1))), lines[0]);
    }

    // What the system tells, posted: mount table changes as read, and the machine waking as logind
    // says on the system bus (here one of the test's own).
    void watchersPostWhatTheSystemTells()
    {
        QProcess bus;
        bus.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address"_s});
        QVERIFY(bus.waitForReadyRead(5000));
        const QByteArray address = bus.readLine().trimmed();
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", address);
        QDBusConnection logind = QDBusConnection::connectToBus(QString::fromUtf8(address), u"logind"_s);
        QVERIFY(logind.registerService(u"org.freedesktop.login1"_s));
        QTemporaryDir dir;
        const QString table = dir.filePath(u"mountinfo"_s);
        // Escaped names (the watched folder's own too), several optional fields, a nested mount, the
        // folder itself, a longer sibling and two mounts stacked on one mount point (the upper counts).
        writeFile(table, readFile(QFINDTESTDATA("mountinfo")));
        QStringList mounts; // as the watcher reads them, escapes decoded
        for (const MountRecord &mount : mountsInFolder(readFile(table), u"/media/al ex"_s))
            mounts << mount.mountPoint.mid(13) + u'@' + mount.source;
        QCOMPARE(mounts.join(u'|'),
                 u"USB DISK@/dev/sdb1|Back\\slash@/dev/disk one|Caf\u00E9\tTab@/dev/sdg1|Sp @/dev/sdi1|"
                 "Sp\\040@/dev/sdj1|RAM@tmpfs"_s);
        WorkspaceNotificationCenter center;
        QStringList posted;
        for (const QString &name : {didMount, didUnmount, didRename, WorkspaceNotification::didWake})
            center.addObserver(name, this, [&posted](const QString &name) { posted.append(name); });
        MountInfoWatcher watcher({u"/media/other/../al ex/"_s, u"/run/media/al ex"_s}, &center, nullptr, table);
        LogindWakeWatcher wakes(&center);
        QVERIFY(QMetaObject::invokeMethod(&wakes, "prepareForSleep", Q_ARG(bool, true)) && posted.isEmpty()); // asleep
        QVERIFY(logind.send(QDBusMessage::createSignal(u"/org/freedesktop/login1"_s,
                                                       u"org.freedesktop.login1.Manager"_s, u"PrepareForSleep"_s)
                            << false));
        QTRY_COMPARE(posted, QStringList{WorkspaceNotification::didWake});

        // Back\slash, Stick, RAM and "Sp " (not "Sp\\040") go; the stacked Cafe mount moves; USB DISK comes back
        // renamed; new disks come, two on gone ones' device numbers, one of RAM's source; a line cut after its
        // options or type still names a mount, one cut before them does not; a bad escape is taken as written.
        writeFile(table, readFile(QFINDTESTDATA("mountinfo-changed")));
        watcher.rescan();
        watcher.rescan();
        QCOMPARE(posted.mid(1), QStringList(4, didUnmount) + QStringList(2, didRename) + QStringList(6, didMount));
        bus.kill(), bus.waitForFinished();
    }

    // The real program, started by a service manager (no $USER) before udisks2 made either media folder:
    // a disk under each folder once it comes reaches the agent as one snapshot, and so does their going.
    void realProgramFollowsMediaFoldersThatComeLater()
    {
        if (!privateMountNamespace)
            QSKIP("real mounts need root, in a private mount namespace so that nothing shows outside the test");
        // Fresh /run and /media for this namespace alone, so that the media folders come after the program.
        for (const char *folder : {"/run", "/media"})
            QCOMPARE(::mount("quillmere-test", folder, "tmpfs", 0, "size=1m"), 0);
        const QString user = QFile::decodeName(::getpwuid(::getuid())->pw_name);
        FakeAgent agent;
        agent.setHealthy();
        InstalledProgram program;
        program.variables = {{u"QUILLMERE_VOLUMES_DIR"_s, {}}, {u"USER"_s, {}}};
        program.start(agent.port());
        QTRY_COMPARE_WITH_TIMEOUT(agent.countFor(syncPath), 2, 10000); // at launch, and as the agent is found running
        const auto mountDisk = [](const QString &path, bool on) {      // as udisks2 does, mount point included
            const QByteArray native = QFile::encodeName(path);
            return on ? QDir().mkpath(path) && ::mount("quillmere-test", native, "tmpfs", 0, "size=64k") == 0
                      : ::umount2(native, 0) == 0 && QDir().rmdir(path);
        };
        const QStringList disks{"/run/media/"_L1 + user + "/USB Disk"_L1, "/media/"_L1 + user + "/backup"_L1};
        QVERIFY(mountDisk(disks[0], true));
        QTRY_COMPARE_WITH_TIMEOUT(agent.countFor(syncPath), 3, 10000);
        QVERIFY(mountDisk(disks[1], true));
        QTRY_COMPARE_WITH_TIMEOUT(agent.countFor(syncPath), 4, 10000);
        QVERIFY(mountDisk(disks[0], false) && mountDisk(disks[1], false));
        QTRY_COMPARE_WITH_TIMEOUT(agent.countFor(syncPath), 5, 10000);
        QByteArray bodies;
        for (const RecordedRequest &request : agent.requestsFor(syncPath).mid(2))
            bodies += request.body + '\n';
        QCOMPARE(bodies, readFile(QFINDTESTDATA("media-syncs.jsonl")));
    }
};

int main(int argc, char *argv[])
{
    // Only a process that has not started other threads may leave its mount namespace.
    privateMountNamespace =
        ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    QApplication application(argc, argv);
    VolumesTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Volumes.moc"
