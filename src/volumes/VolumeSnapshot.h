// The snapshot of mounted volumes sent to the agent, built from a listing of the mount folder.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

struct VolumeEntry {
    QString name;
    QString path;
    bool isMounted = true;

    friend bool operator==(const VolumeEntry &, const VolumeEntry &) = default;
};
