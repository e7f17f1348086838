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

// The open file descriptors of a process ("self": this one).
inline qsizetype openDescriptors(const QString &process = u"self"_s)
{
    return QDir(u"/proc/"_s + process + u"/fd"_s)
        .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)
        .size();
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
