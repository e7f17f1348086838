// Reading the mount table, diffing two readings, and the notifier that wakes on a change.
#include "platform/linux/MountInfoWatcher.h"

#include "platform/WorkspaceNotificationCenter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSocketNotifier>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

namespace {

bool isOctalDigit(char c)
{
    return c >= '0' && c <= '7';
}

// The kernel writes space, tab, line feed and backslash in paths as \ooo.
QString decodeField(const QByteArray &field)
{
    QByteArray bytes;
    bytes.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctalDigit(field[i + 1]) && isOctalDigit(field[i + 2]) &&
            isOctalDigit(field[i + 3])) {
            bytes.append(char(((field[i + 1] - '0') << 6) | ((field[i + 2] - '0') << 3) | (field[i + 3] - '0')));
            i += 3;
        } else {
            bytes.append(field[i]);
        }
    }
    return QFile::decodeName(bytes);
}

// Fields: id, parent id, major:minor, root, mount point, options, optional fields ending at "-",
// file system type, source, super block options.
std::optional<MountRecord> parseLine(const QByteArray &line)
{
    const QList<QByteArray> fields = line.split(' ');
    if (fields.size() < 6)
        return std::nullopt;
    bool idOk = false;
    MountRecord record;
    record.mountId = fields[0].toInt(&idOk);
    if (!idOk)
        return std::nullopt;
    record.device = QString::fromLatin1(fields[2]);
    record.root = decodeField(fields[3]);
    record.mountPoint = decodeField(fields[4]);
    if (const qsizetype separator = fields.indexOf(QByteArray("-"), 6); separator >= 0)
        record.source = decodeField(fields.value(separator + 2)); // none on a line cut before it
    return record;
}

bool isEntryOf(const QString &mountPoint, const QString &folderWithSlash)
{
    return mountPoint.size() > folderWithSlash.size() && mountPoint.startsWith(folderWithSlash) &&
           mountPoint.indexOf(QLatin1Char('/'), folderWithSlash.size()) < 0;
}

bool sameFileSystem(const MountRecord &left, const MountRecord &right)
{
    return left.mountId == right.mountId ||
           (left.device == right.device && left.root == right.root && left.source == right.source);
}

} // namespace

QList<MountRecord> mountsInFolder(const QByteArray &mountInfo, const QString &folder)
{
    QString prefix = QDir::cleanPath(folder);
    if (prefix.isEmpty())
        return {};
    if (!prefix.endsWith(QLatin1Char('/')))
        prefix += QLatin1Char('/');

    QList<MountRecord> mounts;
    QHash<QString, qsizetype> indexByMountPoint;
    for (const QByteArray &line : mountInfo.split('\n')) {
        const std::optional<MountRecord> record = parseLine(line);
        if (!record || !isEntryOf(record->mountPoint, prefix))
            continue;
        // A later line is mounted over an earlier one on the same mount point.
        if (const auto found = indexByMountPoint.constFind(record->mountPoint); found != indexByMountPoint.cend()) {
            mounts[*found] = *record;
        } else {
            indexByMountPoint.insert(record->mountPoint, mounts.size());
            mounts.append(*record);
        }
    }
    return mounts;
}

QList<MountChange> mountChangesBetween(const QList<MountRecord> &before, const QList<MountRecord> &after)
{
    auto byMountPoint = [](const QList<MountRecord> &mounts) {
        QHash<QString, const MountRecord *> index;
        for (const MountRecord &record : mounts)
            index.insert(record.mountPoint, &record);
        return index;
    };
    const auto beforeIndex = byMountPoint(before);
    const auto afterIndex = byMountPoint(after);

    // A mount point that now holds another mount counts as gone and come.
    QList<const MountRecord *> gone;
    for (const MountRecord &record : before) {
        const MountRecord *now = afterIndex.value(record.mountPoint);
        if (!now || now->mountId != record.mountId)
            gone.append(&record);
    }
    QList<const MountRecord *> come;
    for (const MountRecord &record : after) {
        const MountRecord *earlier = beforeIndex.value(record.mountPoint);
        if (!earlier || earlier->mountId != record.mountId)
            come.append(&record);
    }

    QList<MountChange> unmounts;
    QList<MountChange> renames;
    for (const MountRecord *old : std::as_const(gone)) {
        const auto match = std::find_if(come.begin(), come.end(), [old](const MountRecord *candidate) {
            return candidate && candidate->mountPoint != old->mountPoint && sameFileSystem(*old, *candidate);
        });
        if (match != come.end()) {
            renames.append({WorkspaceNotification::didRenameVolume, (*match)->mountPoint});
            *match = nullptr;
        } else {
            unmounts.append({WorkspaceNotification::didUnmount, old->mountPoint});
        }
    }
    QList<MountChange> changes = unmounts + renames;
    for (const MountRecord *record : std::as_const(come)) {
        if (record)
            changes.append({WorkspaceNotification::didMount, record->mountPoint});
    }
    return changes;
}

MountInfoWatcher::MountInfoWatcher(QStringList mountFolders, WorkspaceNotificationCenter *center, QObject *parent,
                                   QString mountTable)
    : QObject(parent), mountFolders_(std::move(mountFolders)), center_(center)
{
    mountFolders_.removeAll(QString());
    if (mountFolders_.isEmpty())
        return;
    fd_ = ::open(QFile::encodeName(mountTable).constData(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0)
        return;
    mounts_ = mountsInFolders(readTable());
    // The mount table is always readable; a change of it is signalled as an exceptional
    // condition (POLLPRI), so the notifier wakes only when something was mounted or unmounted.
    notifier_ = new QSocketNotifier(fd_, QSocketNotifier::Exception, this);
    connect(notifier_, &QSocketNotifier::activated, this, &MountInfoWatcher::rescan);
}

MountInfoWatcher::~MountInfoWatcher()
{
    delete notifier_;
    if (fd_ >= 0)
        ::close(fd_);
}

void MountInfoWatcher::rescan()
{
    if (fd_ < 0)
        return;
    QList<MountRecord> current = mountsInFolders(readTable());
    const QList<MountChange> changes = mountChangesBetween(mounts_, current);
    mounts_ = std::move(current);
    for (const MountChange &change : changes) {
        if (center_)
            center_->post(change.notification);
    }
}

QByteArray MountInfoWatcher::readTable() const
{
    QByteArray text;
    if (::lseek(fd_, 0, SEEK_SET) < 0)
        return text;
    char buffer[16384];
    for (;;) {
        const ssize_t count = ::read(fd_, buffer, sizeof buffer);
        if (count > 0)
            text.append(buffer, count);
        else if (count == 0 || errno != EINTR)
            break;
    }
    return text;
}

QList<MountRecord> MountInfoWatcher::mountsInFolders(const QByteArray &table) const
{
    QList<MountRecord> mounts;
    for (const QString &folder : mountFolders_) {
        // The table names mount points by their real path; the folder may be reached through a
        // link, and may have come into being since the last look.
        const QString canonical = QFileInfo(folder).canonicalFilePath();
        mounts += mountsInFolder(table, canonical.isEmpty() ? QDir::cleanPath(folder) : canonical);
    }
    return mounts;
}
