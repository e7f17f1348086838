// The snapshot of mounted volumes sent to the agent, built from a listing of the mount folder,
// with its change-detection signature and the request body that carries it.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

struct VolumeEntry {
    QString name;
    QString path;
    bool isMounted = true;

    friend bool operator==(const VolumeEntry &, const VolumeEntry &) = default;
};

// The sorted, de-duplicated snapshot for the entry names of the mount folder, given in the
// order the folder listed them (that order decides which of two case-only duplicates stays).
// The paths always take the agent's "/Volumes/<name>" form, whatever folder was listed.
QList<VolumeEntry> volumeSnapshotFromListing(const QStringList &entryNamesInListingOrder);

// A deterministic text of the snapshot that changes whenever a name, a path or the order does:
// compact JSON with sorted keys. Falls back to the entry count when the snapshot holds text that
// JSON cannot carry.
QByteArray volumeSnapshotSignature(const QList<VolumeEntry> &snapshot);

// The compact JSON body of a cache-sync request; empty when the snapshot or the event holds text
// that JSON cannot carry.
QByteArray volumeSyncBody(const QList<VolumeEntry> &snapshot, const QString &event);

// The names of every entry in folder, hidden ones included, without "." and "..", in the order
// the file system gives them. Empty when the folder cannot be read.
QStringList listVolumeFolder(const QString &folder);
