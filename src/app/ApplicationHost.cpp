#include "app/ApplicationHost.h"

#include "app/AppDelegate.h"

#include <QSocketNotifier>
#include <QTimer>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

int signalPipe[2] = {-1, -1};

void forwardQuitSignal(int)
{
    // Only async-signal-safe work here: the main thread picks the byte up. The write end never
    // blocks (a full socket already holds a pending request), and the interrupted code's errno
    // is left as it was.
    const int savedErrno = errno;
    const char byte = 1;
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
    errno = savedErrno;
}

bool makeNonBlocking(int fd)
{
    const int flags = ::fcntl(fd, F_GETFL);
    return flags != -1 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
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
        launched_ = true;
        // A quit signal that came before launching had finished is honoured now, so that it
        // meets a settled delegate (a duplicate instance must not stop the agent).
        if (quitRequestedBeforeLaunch_) {
            quitRequestedBeforeLaunch_ = false;
            terminate();
        }
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

    // An early answer counts only for a deferred reply.
    const std::optional<bool> earlyAnswer = std::exchange(earlyAnswer_, std::nullopt);
    switch (reply) {
    case TerminateNow:
        finishTermination();
        break;
    case TerminateLater:
        replyPending_ = true;
        if (earlyAnswer)
            replyToApplicationShouldTerminate(*earlyAnswer);
        break;
    case TerminateCancel:
        break;
    }
}

void ApplicationHost::replyToApplicationShouldTerminate(bool shouldTerminate)
{
    if (askingDelegate_) {
        earlyAnswer_ = shouldTerminate;
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
    if (signalNotifier_ || signalPipe[0] != -1 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
        return;
    makeNonBlocking(signalPipe[0]);
    makeNonBlocking(signalPipe[1]);
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
    // Any number of signals since the last turn make one request.
    char buffer[64];
    while (::read(signalPipe[0], buffer, sizeof buffer) > 0) {
    }
    if (!launched_) {
        quitRequestedBeforeLaunch_ = true;
        return;
    }
    terminate();
}
