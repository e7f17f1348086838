#include "app/ApplicationHost.h"

#include "app/AppDelegate.h"

#include <QSocketNotifier>
#include <QTimer>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void forwardQuitSignal(int)
{
    // Only async-signal-safe work here: the main thread picks the byte up.
    const char byte = 1;
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

} // namespace

ApplicationHost::ApplicationHost(QObject *parent) : QObject(parent) {}

ApplicationHost::~ApplicationHost() = default;

void ApplicationHost::setDelegate(AppDelegate *delegate)
{
    delegate_ = delegate;
}

void ApplicationHost::finishLaunching()
{
    QTimer::singleShot(0, this, [this] {
        if (delegate_ && !terminated_)
            delegate_->applicationDidFinishLaunching();
    });
}

void ApplicationHost::terminate()
{
    if (terminated_)
        return;
    if (!delegate_) {
        finishTermination();
        return;
    }
    if (askingDelegate_)
        return;

    askingDelegate_ = true;
    const TerminateReply reply = delegate_->applicationShouldTerminate();
    askingDelegate_ = false;

    switch (reply) {
    case TerminateNow:
        finishTermination();
        break;
    case TerminateLater:
        replyPending_ = true;
        if (earlyAnswer_) {
            earlyAnswer_ = false;
            replyToApplicationShouldTerminate(earlyAnswerValue_);
        }
        break;
    case TerminateCancel:
        break;
    }
}

void ApplicationHost::replyToApplicationShouldTerminate(bool shouldTerminate)
{
    if (askingDelegate_) {
        earlyAnswer_ = true;
        earlyAnswerValue_ = shouldTerminate;
        return;
    }
    if (!replyPending_)
        return;
    replyPending_ = false;
    if (shouldTerminate)
        finishTermination();
}

void ApplicationHost::finishTermination()
{
    if (terminated_)
        return;
    terminated_ = true;
    if (delegate_)
        delegate_->applicationWillTerminate();
    emit terminated();
}

void ApplicationHost::installQuitSignalHandlers()
{
    if (signalNotifier_ || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
        return;
    signalNotifier_ = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(signalNotifier_, &QSocketNotifier::activated, this, &ApplicationHost::handleQuitSignal);

    struct sigaction action = {};
    action.sa_handler = forwardQuitSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP})
        ::sigaction(signal, &action, nullptr);
}

void ApplicationHost::handleQuitSignal()
{
    char buffer[64];
    [[maybe_unused]] auto drained = ::read(signalPipe[0], buffer, sizeof buffer);
    terminate();
}
