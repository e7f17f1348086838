// The snapshot of the mount folder: which entries count, how they are named, ordered and
// de-duplicated, and the texts built from it.
#include "volumes/VolumeSnapshot.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <unistd.h>

class VolumeSnapshotTest : public QObject {
    Q_OBJECT
private slots:
    void snapshotFromListing_data();
    void snapshotFromListing();
    void signatureFollowsContentAndOrder_data();
    void signatureFollowsContentAndOrder();
    void signatureAndBodyAreCompactJson();
    void writtenLikeQtsCompactJson();
    void textJsonCannotCarryIsRefused();
    void listingIncludesHiddenEntriesAndEveryKind();
    void unreadableFolderListsNothing();
};

namespace {

QStringList namesOf(const QList<VolumeEntry> &snapshot)
{
    QStringList names;
    for (const VolumeEntry &entry : snapshot)
        names.append(entry.name);
    return names;
}

QStringList pathsOf(const QList<VolumeEntry> &snapshot)
{
    QStringList paths;
    for (const VolumeEntry &entry : snapshot)
        paths.append(entry.path);
    return paths;
}

QList<VolumeEntry> entries(const QStringList &names)
{
    QList<VolumeEntry> list;
    for (const QString &name : names)
        list.append({name, QStringLiteral("/Volumes/") + name, true});
    return list;
}

} // namespace

void VolumeSnapshotTest::snapshotFromListing_data()
{
    QTest::addColumn<QStringList>("listing");
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QStringList>("paths");

    QTest::newRow("empty folder") << QStringList() << QStringList() << QStringList();
    QTest::newRow("hidden and blank entries are left out")
        << QStringList{QStringLiteral(".DS_Store"),
                       QStringLiteral("   "),
                       QStringLiteral("\n\t"),
                       QStringLiteral("Disk"),
                       QStringLiteral(" .hidden-after-trim"),
                       QString()}
        << QStringList{QStringLiteral("Disk")} << QStringList{QStringLiteral("/Volumes/Disk")};
    QTest::newRow("white space and line breaks trimmed from both ends")
        << QStringList{QStringLiteral("  Backup \n"), QStringLiteral(u"\u00A0Photos\u2028"),
                       QStringLiteral("Two  Words")}
        << QStringList{QStringLiteral("Backup"), QStringLiteral("Photos"), QStringLiteral("Two  Words")}
        << QStringList{QStringLiteral("/Volumes/Backup"), QStringLiteral("/Volumes/Photos"),
                       QStringLiteral("/Volumes/Two  Words")};
    QTest::newRow("sorted by name regardless of case")
        << QStringList{QStringLiteral("beta"), QStringLiteral("Alpha"), QStringLiteral("gamma"),
                       QStringLiteral("Delta")}
        << QStringList{QStringLiteral("Alpha"), QStringLiteral("beta"), QStringLiteral("Delta"),
                       QStringLiteral("gamma")}
        << QStringList{QStringLiteral("/Volumes/Alpha"), QStringLiteral("/Volumes/beta"),
                       QStringLiteral("/Volumes/Delta"), QStringLiteral("/Volumes/gamma")};
    QTest::newRow("case-only duplicates: first listed wins")
        << QStringList{QStringLiteral("Backup"), QStringLiteral("backup"), QStringLiteral("BACKUP")}
        << QStringList{QStringLiteral("Backup")} << QStringList{QStringLiteral("/Volumes/Backup")};
    QTest::newRow("case-only duplicates in the other listing order")
        << QStringList{QStringLiteral("BACKUP"), QStringLiteral("Backup")} << QStringList{QStringLiteral("BACKUP")}
        << QStringList{QStringLiteral("/Volumes/BACKUP")};
    QTest::newRow("trailing slashes leave the path, not the name")
        << QStringList{QStringLiteral("Disk/"), QStringLiteral("Data//"), QStringLiteral("Disk")}
        << QStringList{QStringLiteral("Data//"), QStringLiteral("Disk/")}
        << QStringList{QStringLiteral("/Volumes/Data"), QStringLiteral("/Volumes/Disk")};
    // Decomposed "É" starts with a plain "E"; only after composition does it sort after "z"
    // with its composed twin.
    QTest::newRow("composed and decomposed accents sort together")
        << QStringList{QStringLiteral("zeta"), QStringLiteral(u"E\u0301cole"), QStringLiteral(u"\u00C9t\u00E9"),
                       QStringLiteral("alpha"), QStringLiteral("Eagle")}
        << QStringList{QStringLiteral("alpha"), QStringLiteral("Eagle"), QStringLiteral("zeta"),
                       QStringLiteral(u"E\u0301cole"), QStringLiteral(u"\u00C9t\u00E9")}
        << QStringList{QStringLiteral("/Volumes/alpha"), QStringLiteral("/Volumes/Eagle"),
                       QStringLiteral("/Volumes/zeta"), QStringLiteral(u"/Volumes/E\u0301cole"),
                       QStringLiteral(u"/Volumes/\u00C9t\u00E9")};
    QTest::newRow("composed and decomposed spellings are one volume")
        << QStringList{QStringLiteral(u"Cafe\u0301"), QStringLiteral(u"CAF\u00C9")}
        << QStringList{QStringLiteral(u"Cafe\u0301")} << QStringList{QStringLiteral(u"/Volumes/Cafe\u0301")};
    // U+FF21 is below U+1F4BE, though its UTF-16 unit is above the surrogate that starts U+1F4BE.
    QTest::newRow("ordered by code point beyond the basic plane")
        << QStringList{QStringLiteral(u"\U0001F4BE Disk"), QStringLiteral(u"\uFF21 Disk")}
        << QStringList{QStringLiteral(u"\uFF21 Disk"), QStringLiteral(u"\U0001F4BE Disk")}
        << QStringList{QStringLiteral(u"/Volumes/\uFF21 Disk"), QStringLiteral(u"/Volumes/\U0001F4BE Disk")};
}

void VolumeSnapshotTest::snapshotFromListing()
{
    QFETCH(QStringList, listing);
    QFETCH(QStringList, names);
    QFETCH(QStringList, paths);

    const QList<VolumeEntry> snapshot = volumeSnapshotFromListing(listing);
    QCOMPARE(namesOf(snapshot), names);
    QCOMPARE(pathsOf(snapshot), paths);
    for (const VolumeEntry &entry : snapshot)
        QVERIFY(entry.isMounted);

    // The listing order only decides between duplicates, never the result's order.
    QStringList reversed = listing;
    std::reverse(reversed.begin(), reversed.end());
    if (names.size() == listing.size())
        QCOMPARE(namesOf(volumeSnapshotFromListing(reversed)), names);
}

void VolumeSnapshotTest::signatureFollowsContentAndOrder_data()
{
    QTest::addColumn<QList<VolumeEntry>>("first");
    QTest::addColumn<QList<VolumeEntry>>("second");
    QTest::addColumn<bool>("same");

    const QList<VolumeEntry> base = entries({QStringLiteral("Alpha"), QStringLiteral("Beta")});
    QTest::newRow("same snapshot built twice")
        << base << entries({QStringLiteral("Alpha"), QStringLiteral("Beta")}) << true;
    QList<VolumeEntry> renamed = base;
    renamed[1].name = QStringLiteral("beta");
    QTest::newRow("a name differs") << base << renamed << false;
    QList<VolumeEntry> moved = base;
    moved[1].path = QStringLiteral("/Volumes/Beta2");
    QTest::newRow("a path differs") << base << moved << false;
    QTest::newRow("the order differs") << base << entries({QStringLiteral("Beta"), QStringLiteral("Alpha")}) << false;
    QTest::newRow("an entry more") << base
                                   << entries({QStringLiteral("Alpha"), QStringLiteral("Beta"), QStringLiteral("C")})
                                   << false;
    QTest::newRow("empty against one") << QList<VolumeEntry>() << entries({QStringLiteral("Alpha")}) << false;
}

void VolumeSnapshotTest::signatureFollowsContentAndOrder()
{
    QFETCH(QList<VolumeEntry>, first);
    QFETCH(QList<VolumeEntry>, second);
    QFETCH(bool, same);
    QCOMPARE(volumeSnapshotSignature(first) == volumeSnapshotSignature(second), same);
}

void VolumeSnapshotTest::signatureAndBodyAreCompactJson()
{
    const QList<VolumeEntry> snapshot = entries({QStringLiteral(u"Caf\u00E9 \"One\"")});
    const QByteArray entryJson =
        QStringLiteral(
            u"{\"isMounted\":true,\"name\":\"Caf\u00E9 \\\"One\\\"\",\"path\":\"/Volumes/Caf\u00E9 \\\"One\\\"\"}")
            .toUtf8();
    QCOMPARE(volumeSnapshotSignature(snapshot), "[" + entryJson + "]");
    QCOMPARE(volumeSnapshotSignature({}), QByteArray("[]"));

    const QByteArray body = volumeSyncBody(snapshot, QStringLiteral("app-launch"));
    QCOMPARE(body, "{\"event\":\"app-launch\",\"source\":\"menu-app\",\"volumes\":[" + entryJson + "]}");
    const QJsonObject parsed = QJsonDocument::fromJson(body).object();
    QCOMPARE(parsed.keys(),
             QStringList({QStringLiteral("event"), QStringLiteral("source"), QStringLiteral("volumes")}));
    QCOMPARE(volumeSyncBody({}, QStringLiteral("coalesced")),
             QByteArray("{\"event\":\"coalesced\",\"source\":\"menu-app\",\"volumes\":[]}"));
}

void VolumeSnapshotTest::writtenLikeQtsCompactJson()
{
    // Every character that needs escaping, and text beyond ASCII, against Qt's own writer.
    QString awkward = QStringLiteral(u"q\"b\\s/\u007F\u00E9\u2028\U0001F4BE");
    for (char16_t c = 1; c < 0x20; ++c)
        awkward += QChar(c);
    const QList<VolumeEntry> snapshot = {{awkward, QStringLiteral("/Volumes/") + awkward, true},
                                         {QStringLiteral("Plain"), QStringLiteral("/Volumes/Plain"), true}};
    QJsonArray volumes;
    for (const VolumeEntry &entry : snapshot)
        volumes.append(QJsonObject{{QStringLiteral("name"), entry.name},
                                   {QStringLiteral("path"), entry.path},
                                   {QStringLiteral("isMounted"), entry.isMounted}});
    QCOMPARE(volumeSnapshotSignature(snapshot), QJsonDocument(volumes).toJson(QJsonDocument::Compact));
    const QJsonObject body{{QStringLiteral("volumes"), volumes},
                           {QStringLiteral("source"), QStringLiteral("menu-app")},
                           {QStringLiteral("event"), awkward}};
    QCOMPARE(volumeSyncBody(snapshot, awkward), QJsonDocument(body).toJson(QJsonDocument::Compact));
}

void VolumeSnapshotTest::textJsonCannotCarryIsRefused()
{
    // A lone surrogate has no UTF-8 form: writing it would silently change the name.
    const QList<VolumeEntry> broken = {
        {QStringLiteral("A"), QStringLiteral("/Volumes/A"), true},
        {QString(QChar(0xD800)), QStringLiteral("/Volumes/") + QChar(0xD800), true},
    };
    QVERIFY(volumeSyncBody(broken, QStringLiteral("app-launch")).isEmpty());
    QVERIFY(volumeSyncBody({}, QString(QChar(0xDC00))).isEmpty());
    QCOMPARE(volumeSnapshotSignature(broken), QByteArray("2"));
}

void VolumeSnapshotTest::listingIncludesHiddenEntriesAndEveryKind()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("Folder")));
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral(".hidden")));
    QFile file(dir.filePath(QStringLiteral(" File with spaces ")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    QVERIFY(QFile::link(QStringLiteral("/nonexistent/target"), dir.filePath(QStringLiteral("Dangling"))));
    QVERIFY(QFile::link(dir.filePath(QStringLiteral("Folder")), dir.filePath(QStringLiteral("Linked"))));

    QStringList listed = listVolumeFolder(dir.path());
    listed.sort();
    QCOMPARE(listed, QStringList({QStringLiteral(" File with spaces "), QStringLiteral(".hidden"),
                                  QStringLiteral("Dangling"), QStringLiteral("Folder"), QStringLiteral("Linked")}));
    QCOMPARE(namesOf(volumeSnapshotFromListing(listVolumeFolder(dir.path()))),
             QStringList({QStringLiteral("Dangling"), QStringLiteral("File with spaces"), QStringLiteral("Folder"),
                          QStringLiteral("Linked")}));
}

void VolumeSnapshotTest::unreadableFolderListsNothing()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(listVolumeFolder(dir.filePath(QStringLiteral("missing"))).isEmpty());
    QVERIFY(listVolumeFolder(QString()).isEmpty());
    QFile notAFolder(dir.filePath(QStringLiteral("file")));
    QVERIFY(notAFolder.open(QIODevice::WriteOnly));
    notAFolder.close();
    QVERIFY(listVolumeFolder(notAFolder.fileName()).isEmpty());

    const QString locked = dir.filePath(QStringLiteral("locked"));
    QVERIFY(QDir().mkpath(locked + QStringLiteral("/Inside")));
    QVERIFY(QFile::setPermissions(locked, QFileDevice::WriteOwner));
    if (::geteuid() != 0)
        QVERIFY(listVolumeFolder(locked).isEmpty());
    QFile::setPermissions(locked, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    if (::geteuid() == 0)
        QSKIP("permissions do not stop root from listing a folder");
}

QTEST_GUILESS_MAIN(VolumeSnapshotTest)
#include "tst_VolumeSnapshot.moc"
