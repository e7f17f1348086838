// What the tests of the controller share: Qt Test, the stand-ins for the agent, its control
// script and the platform, and a controller built on them.
#pragma once

#include "app/AppDelegate.h"
#include "support/FakeAgent.h"
#include "support/FakeControlScript.h"
#include "support/FakePlatform.h"
#include "support/Files.h"
#include "support/TestEnvironment.h"

#include <QAction>
#include <QElapsedTimer>
#include <QMenu>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

// What /proc tells of a process (pid 0: this one): its open file descriptors; a figure of its status
// in kB ("VmRSS" now, "VmHWM" the peak so far); the fields of its stat after the command name (the
// state first, user and system CPU ticks at 11 and 12; none once it has been reaped).
inline QString procFile(qint64 pid, const QString &name)
{
    return u"/proc/%1/%2"_s.arg(pid ? QString::number(pid) : u"self"_s, name);
}
inline qsizetype openDescriptors(qint64 pid = 0)
{
    return QDir(procFile(pid, u"fd"_s)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size();
}
inline qint64 memoryKb(const QByteArray &key, qint64 pid = 0)
{
    const QByteArray status = readFile(procFile(pid, u"status"_s));
    return status.mid(status.indexOf(key + ':') + key.size() + 1).trimmed().split(' ').value(0).toLongLong();
}
inline QList<QByteArray> processStat(qint64 pid)
{
    const QByteArray stat = readFile(procFile(pid, u"stat"_s));
    return stat.mid(stat.lastIndexOf(')') + 2).split(' ');
}

// A controller on stand-in platform services, delegate of its own application host.
struct Controller {
    explicit Controller(const Configuration &configuration, bool assembled = true)
        : delegate(configuration, fakes.services(), &host)
    {
        host.setDelegate(&delegate);
        if (assembled)
            delegate.assembleStatusMenu();
    }
    FakePlatform fakes;
    ApplicationHost host;
    AppDelegate delegate;
};
