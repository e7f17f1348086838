// Volume events on Linux: reading the mount table, turning two readings into workspace
// notifications, and the watcher that posts them when the kernel reports a change.
#include "platform/WorkspaceNotificationCenter.h"
#include "platform/linux/MountInfoWatcher.h"
#include "support/Files.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sched.h>
#include <sys/mount.h>

namespace {

// Set by main when the test runs in a mount namespace of its own, where it may mount freely
// without anyone else seeing it.
bool privateMountNamespace = false;

bool enterPrivateMountNamespace()
{
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

const QByteArray sampleTable =
    "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
    "30 22 0:25 / /run rw,nosuid shared:5 - tmpfs tmpfs rw\n"
    "101 30 8:17 / /media/alex/USB\\040DISK rw,nosuid,nodev shared:60 - vfat /dev/sdb1 rw,fmask=0022\n"
    "102 30 8:33 / /media/alex/Back\\134slash rw,relatime shared:61 master:3 - ext4 /dev/sdc1 rw\n"
    "103 101 8:49 / /media/alex/USB\\040DISK/nested rw - ext4 /dev/sdd1 rw\n"
    "104 30 0:50 / /media/alex rw - tmpfs tmpfs rw\n"
    "105 30 8:65 / /media/alexandra/Other rw - ext4 /dev/sde1 rw\n"
    "106 30 8:81 / /media/alex/Stacked rw - ext4 /dev/sdf1 rw\n"
    "107 106 8:97 / /media/alex/Stacked rw - ext4 /dev/sdg1 rw\n"
    "108 30 0:60 /sub/dir /media/alex/Bound rw - btrfs /dev/sdh1 rw,subvol=/sub\n"
    "109 30 8:113 / /media/alex/Caf\xc3\xa9\\011Tab rw - ext4 /dev/disk\\040one rw\n"
    "not a mount line\n"
    "\n";

MountRecord record(int id, const char *device, const char *source, const QString &mountPoint, const char *root = "/")
{
    return MountRecord{id, QString::fromLatin1(device), QString::fromLatin1(root), QString::fromLatin1(source),
                       mountPoint};
}

QStringList mountPointsOf(const QList<MountRecord> &records)
{
    QStringList points;
    for (const MountRecord &r : records)
        points.append(r.mountPoint);
    return points;
}

// Records every volume notification posted on a centre.
struct NotificationLog : QObject {
    explicit NotificationLog(WorkspaceNotificationCenter &center)
    {
        for (const QString &name : {WorkspaceNotification::didMount, WorkspaceNotification::didUnmount,
                                    WorkspaceNotification::didRenameVolume})
            center.addObserver(name, this, [this](const QString &posted) { names.append(posted); });
    }
    QStringList names;
};

} // namespace

class MountInfoWatcherTest : public QObject {
    Q_OBJECT
private slots:
    void readsTheMountsOfTheFolder_data();
    void readsTheMountsOfTheFolder();
    void readsEveryField();
    void changesBetweenTwoReadings_data();
    void changesBetweenTwoReadings();
    void watcherPostsWhatChanged();
    void watcherStaysQuietWithoutATable();
    void kernelChangeSignalReachesTheWatcher();
};

void MountInfoWatcherTest::readsTheMountsOfTheFolder_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QStringList>("mountPoints");

    const QStringList alex = {QStringLiteral("/media/alex/USB DISK"), QStringLiteral("/media/alex/Back\\slash"),
                              QStringLiteral("/media/alex/Stacked"), QStringLiteral("/media/alex/Bound"),
                              QStringLiteral(u"/media/alex/Caf\u00E9\tTab")};
    QTest::newRow("entries only, not the folder, nested mounts or a longer sibling")
        << QStringLiteral("/media/alex") << alex;
    QTest::newRow("trailing slash") << QStringLiteral("/media/alex/") << alex;
    QTest::newRow("folder spelled with ..") << QStringLiteral("/media/other/../alex") << alex;
    QTest::newRow("parent folder") << QStringLiteral("/media") << QStringList{QStringLiteral("/media/alex")};
    QTest::newRow("folder without mounts") << QStringLiteral("/mnt") << QStringList();
    QTest::newRow("no folder") << QString() << QStringList();
}

void MountInfoWatcherTest::readsTheMountsOfTheFolder()
{
    QFETCH(QString, folder);
    QFETCH(QStringList, mountPoints);
    QCOMPARE(mountPointsOf(mountsInFolder(sampleTable, folder)), mountPoints);
}

void MountInfoWatcherTest::readsEveryField()
{
    const QList<MountRecord> mounts = mountsInFolder(sampleTable, QStringLiteral("/media/alex"));
    QCOMPARE(mounts.size(), 5);
    QCOMPARE(mounts[0], record(101, "8:17", "/dev/sdb1", QStringLiteral("/media/alex/USB DISK")));
    // Optional fields may be several; the source follows the type after the "-".
    QCOMPARE(mounts[1], record(102, "8:33", "/dev/sdc1", QStringLiteral("/media/alex/Back\\slash")));
    // Of two mounts on one mount point the upper one counts, in the lower one's place.
    QCOMPARE(mounts[2], record(107, "8:97", "/dev/sdg1", QStringLiteral("/media/alex/Stacked")));
    QCOMPARE(mounts[3], record(108, "0:60", "/dev/sdh1", QStringLiteral("/media/alex/Bound"), "/sub/dir"));
    QCOMPARE(mounts[4], record(109, "8:113", "/dev/disk one", QStringLiteral(u"/media/alex/Caf\u00E9\tTab")));
}

void MountInfoWatcherTest::changesBetweenTwoReadings_data()
{
    QTest::addColumn<QList<MountRecord>>("before");
    QTest::addColumn<QList<MountRecord>>("after");
    QTest::addColumn<QStringList>("notifications");
    QTest::addColumn<QStringList>("mountPoints");

    const QString a = QStringLiteral("/m/A");
    const QString b = QStringLiteral("/m/B");
    const QString c = QStringLiteral("/m/C");
    const QString &mount = WorkspaceNotification::didMount;
    const QString &unmount = WorkspaceNotification::didUnmount;
    const QString &rename = WorkspaceNotification::didRenameVolume;
    const MountRecord diskA = record(101, "8:17", "/dev/sdb1", a);

    QTest::newRow("nothing changed") << QList<MountRecord>{diskA} << QList<MountRecord>{diskA} << QStringList()
                                     << QStringList();
    QTest::newRow("mounted") << QList<MountRecord>() << QList<MountRecord>{diskA} << QStringList{mount}
                             << QStringList{a};
    QTest::newRow("unmounted") << QList<MountRecord>{diskA} << QList<MountRecord>() << QStringList{unmount}
                               << QStringList{a};
    QTest::newRow("mount moved to a new name")
        << QList<MountRecord>{diskA} << QList<MountRecord>{record(101, "8:17", "/dev/sdb1", b)} << QStringList{rename}
        << QStringList{b};
    QTest::newRow("same disk mounted again under a new name")
        << QList<MountRecord>{diskA} << QList<MountRecord>{record(140, "8:17", "/dev/sdb1", b)} << QStringList{rename}
        << QStringList{b};
    QTest::newRow("one disk out, another in")
        << QList<MountRecord>{diskA} << QList<MountRecord>{record(141, "8:33", "/dev/sdc1", b)}
        << QStringList{unmount, mount} << QStringList{a, b};
    QTest::newRow("another mount on the same mount point")
        << QList<MountRecord>{diskA} << QList<MountRecord>{record(142, "8:17", "/dev/sdb1", a)}
        << QStringList{unmount, mount} << QStringList{a, a};
    // A moves to B while another disk takes its old place and C goes.
    QTest::newRow("unmounts, then renames, then mounts")
        << QList<MountRecord>{record(110, "8:1", "/dev/x", c), diskA}
        << QList<MountRecord>{record(111, "8:2", "/dev/y", a), record(101, "8:17", "/dev/sdb1", b)}
        << QStringList{unmount, rename, mount} << QStringList{c, b, a};
}

void MountInfoWatcherTest::changesBetweenTwoReadings()
{
    QFETCH(QList<MountRecord>, before);
    QFETCH(QList<MountRecord>, after);
    QFETCH(QStringList, notifications);
    QFETCH(QStringList, mountPoints);

    QStringList names;
    QStringList points;
    for (const MountChange &change : mountChangesBetween(before, after)) {
        names.append(change.notification);
        points.append(change.mountPoint);
    }
    QCOMPARE(names, notifications);
    QCOMPARE(points, mountPoints);
}

void MountInfoWatcherTest::watcherPostsWhatChanged()
{
    QTemporaryDir dir;
    const QString table = dir.filePath(QStringLiteral("mountinfo"));
    writeFile(table, "101 30 8:17 / /media/alex/Old rw - vfat /dev/sdb1 rw\n"
                     "102 30 8:33 / /media/alex/Keep rw - vfat /dev/sdc1 rw\n");
    WorkspaceNotificationCenter center;
    NotificationLog posted(center);

    MountInfoWatcher watcher(QStringLiteral("/media/alex"), &center, nullptr, table);
    QVERIFY(watcher.isWatching());
    QCOMPARE(mountPointsOf(watcher.mounts()),
             QStringList({QStringLiteral("/media/alex/Old"), QStringLiteral("/media/alex/Keep")}));
    QVERIFY(posted.names.isEmpty()); // the first reading is the baseline

    writeFile(table, "102 30 8:33 / /media/alex/Keep rw - vfat /dev/sdc1 rw\n"
                     "103 30 8:49 / /media/alex/New rw - vfat /dev/sdd1 rw\n");
    watcher.rescan();
    QCOMPARE(posted.names, QStringList({WorkspaceNotification::didUnmount, WorkspaceNotification::didMount}));
    watcher.rescan();
    QCOMPARE(posted.names.size(), 2);
}

void MountInfoWatcherTest::watcherStaysQuietWithoutATable()
{
    QTemporaryDir dir;
    WorkspaceNotificationCenter center;
    NotificationLog posted(center);
    MountInfoWatcher missing(QStringLiteral("/media/alex"), &center, nullptr, dir.filePath(QStringLiteral("none")));
    QVERIFY(!missing.isWatching());
    missing.rescan();
    MountInfoWatcher noFolder(QString(), &center);
    QVERIFY(!noFolder.isWatching());
    QVERIFY(posted.names.isEmpty());
}

void MountInfoWatcherTest::kernelChangeSignalReachesTheWatcher()
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(QStringLiteral("media"));
    for (const char *name : {"Disk", "Renamed"})
        QVERIFY(QDir().mkpath(folder + QLatin1Char('/') + QLatin1String(name)));
    WorkspaceNotificationCenter center;
    NotificationLog posted(center);
    MountInfoWatcher watcher(folder, &center);
    QVERIFY(watcher.isWatching());
    QTest::qWait(100);
    QVERIFY(posted.names.isEmpty()); // no change, no wake-up

    if (!privateMountNamespace)
        QSKIP("mounting needs a private mount namespace (root)");
    const QByteArray disk = QFile::encodeName(folder + QStringLiteral("/Disk"));
    const QByteArray renamed = QFile::encodeName(folder + QStringLiteral("/Renamed"));
    QCOMPARE(::mount("quillmere-test", disk.constData(), "tmpfs", 0, "size=64k"), 0);
    QTRY_COMPARE(posted.names, QStringList{WorkspaceNotification::didMount});
    QCOMPARE(::mount(disk.constData(), renamed.constData(), nullptr, MS_MOVE, nullptr), 0);
    QTRY_COMPARE(posted.names, QStringList({WorkspaceNotification::didMount, WorkspaceNotification::didRenameVolume}));
    QCOMPARE(::umount2(renamed.constData(), 0), 0);
    QTRY_COMPARE(posted.names, QStringList({WorkspaceNotification::didMount, WorkspaceNotification::didRenameVolume,
                                            WorkspaceNotification::didUnmount}));
}

int main(int argc, char *argv[])
{
    // Only a process that has not started other threads may leave its mount namespace.
    privateMountNamespace = enterPrivateMountNamespace();
    QCoreApplication application(argc, argv);
    MountInfoWatcherTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_MountInfoWatcher.moc"
