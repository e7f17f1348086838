// Volume mount, unmount and rename events on Linux, from changes of /proc/self/mountinfo.
#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

class QSocketNotifier;
class WorkspaceNotificationCenter;

// One line of the mount table, reduced to what tells mounts apart.
struct MountRecord {
    int mountId = -1;
    QString device; // major:minor of the mounted file system
    QString root;   // the folder of that file system that is mounted
    QString source; // what was mounted, e.g. /dev/sdb1
    QString mountPoint;

    friend bool operator==(const MountRecord &, const MountRecord &) = default;
};

// A notification name and the mount point it is about (the new one for a rename).
struct MountChange {
    QString notification;
    QString mountPoint;

    friend bool operator==(const MountChange &, const MountChange &) = default;
};

// The mounts whose mount point is an entry of folder, from the text of a mountinfo file, in
// table order. Of mounts stacked on one mount point only the topmost (last) counts.
QList<MountRecord> mountsInFolder(const QByteArray &mountInfo, const QString &folder);

// What a workspace would announce for the step from one table to the next: unmounts, then
// renames (the same mount, or the same file system, under a new mount point), then mounts.
QList<MountChange> mountChangesBetween(const QList<MountRecord> &before, const QList<MountRecord> &after);

class MountInfoWatcher : public QObject {
    Q_OBJECT
public:
    // Watches mountTable for mounts in any of mountFolders, which may come into being later;
    // when the table cannot be opened the watcher stays quiet.
    MountInfoWatcher(QStringList mountFolders, WorkspaceNotificationCenter *center, QObject *parent = nullptr,
                     QString mountTable = QStringLiteral("/proc/self/mountinfo"));
    ~MountInfoWatcher() override;

    const QList<MountRecord> &mounts() const { return mounts_; }

    // Reads the table again and posts what changed since the last read. The kernel's change
    // signal calls it; it must run on the main thread.
    void rescan();

private:
    QByteArray readTable() const;
    QList<MountRecord> mountsInFolders(const QByteArray &table) const;

    QStringList mountFolders_;
    QPointer<WorkspaceNotificationCenter> center_;
    int fd_ = -1;
    QSocketNotifier *notifier_ = nullptr;
    QList<MountRecord> mounts_;
};
