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

// Non-blocking, and closed in children (the control script must not inherit it). Set with
// fcntl rather than socket flags, which not every system has.
void prepareSignalSocket(int fd)
{
    if (const int flags = ::fcntl(fd, F_GETFL); flags != -1)
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

} // namespace

bool isLoginItemLaunch(const OpenApplicationEvent &event)
{
    return event.eventClass == OpenApplicationEvent::coreEventClass &&
           event.eventID == OpenApplicationEvent::openApplication &&
           event.propertyData == OpenApplicationEvent::launchedAsLogInItem;
}

ApplicationHost::ApplicationHost(QObject *parent) : QObject(parent) {}

ApplicationHost::~ApplicationHost() = default;

void ApplicationHost::setDelegate(AppDelegate *delegate)
{
    delegate_ = delegate;
}

void ApplicationHost::finishLaunching()
{
    if (awaitingSystemLaunch_) {
        launchWaiting_ = true;
        return;
    }
    QTimer::singleShot(0, this, [this] {
        if (delegate_ && !terminated_)
            delegate_->applicationDidFinishLaunching();
        launched_ = true;
        // A quit signal that came before launching had finished is honoured now, so that it
        // meets a settled delegate (a duplicate instance must not stop the agent).
        if (quitRequestedBeforeLaunch_) {
            quitRequestedBeforeLaunch_ = false;
            terminateForQuitSignal();
        }
    });
}

void ApplicationHost::systemDidFinishLaunching(const OpenApplicationEvent &event)
{
    launchedAsLoginItem_ = isLoginItemLaunch(event);
    awaitingSystemLaunch_ = false;
    if (std::exchange(launchWaiting_, false))
        finishLaunching();
}

void ApplicationHost::setActivationPolicy(ActivationPolicy policy)
{
    activationPolicy_ = policy;
    if (applyActivationPolicy_)
        applyActivationPolicy_(policy);
}

ApplicationHost::TerminateReply ApplicationHost::askDelegate()
{
    if (!delegate_)
        return TerminateNow;
    if (askingDelegate_)
        return TerminateLater;
    askingDelegate_ = true;
    const TerminateReply reply = delegate_->applicationShouldTerminate();
    askingDelegate_ = false;
    if (reply == TerminateLater)
        replyPending_ = true;
    return reply;
}

void ApplicationHost::terminate()
{
    if (!terminated_ && askDelegate() == TerminateNow)
        finishTermination();
}

ApplicationHost::TerminateReply ApplicationHost::systemRequestsTermination(FinalAnswer finalAnswer)
{
    if (terminated_)
        return TerminateNow;
    const TerminateReply reply = askDelegate();
    if (reply == TerminateLater)
        systemAnswers_.append(std::move(finalAnswer));
    return reply;
}

void ApplicationHost::replyToApplicationShouldTerminate(bool shouldTerminate)
{
    if (askingDelegate_) {
        // The deferred reply has not reached the asker yet; the answer must come after it.
        QTimer::singleShot(0, this, [this, shouldTerminate] { replyToApplicationShouldTerminate(shouldTerminate); });
        return;
    }
    if (!replyPending_)
        return;
    replyPending_ = false;
    const QList<FinalAnswer> askers = std::exchange(systemAnswers_, {});
    for (const FinalAnswer &answer : askers)
        answer(shouldTerminate);
    if (askers.isEmpty() && shouldTerminate)
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
    if (signalNotifier_ || signalPipe[0] != -1 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0)
        return;
    prepareSignalSocket(signalPipe[0]);
    prepareSignalSocket(signalPipe[1]);
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
    terminateForQuitSignal();
}

void ApplicationHost::terminateForQuitSignal()
{
    // A signal is the system asking; with no one else to tell, the answer ends the program here.
    const auto finishOnYes = [this](bool shouldTerminate) {
        if (shouldTerminate)
            finishTermination();
    };
    if (systemRequestsTermination(finishOnYes) == TerminateNow)
        finishTermination();
}
