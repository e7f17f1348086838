// Which copies of this application the current user runs.
#pragma once

#include <QList>
#include <QString>
#include <algorithm>

class RunningApplications {
public:
    virtual ~RunningApplications() = default;
    // How many applications with this bundle identifier run for the current user, this one
    // included.
    virtual int runningApplicationCount(const QString &bundleIdentifier) = 0;
};

// The copies running, given the process identifiers the system lists under the bundle
// identifier: this process counts once whether or not the list holds it yet (the system's list
// may lag behind a process that has only just started).
inline int runningCopiesIncludingThisOne(const QList<qint64> &listedProcesses, qint64 thisProcess)
{
    return int(std::count_if(listedProcesses.begin(), listedProcesses.end(),
                             [thisProcess](qint64 process) { return process != thisProcess; })) +
           1;
}
