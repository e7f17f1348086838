// The application object: launching, the termination protocol with its delegate, and system
// quit requests (AppKit's termination question, SIGTERM, SIGINT, SIGHUP) turned into orderly
// termination on the main thread.
#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <functional>

class AppDelegate;
class QSocketNotifier;

class ApplicationHost : public QObject {
    Q_OBJECT
public:
    enum TerminateReply { TerminateCancel = 0, TerminateNow = 1, TerminateLater = 2 };
    enum ActivationPolicy { ActivationPolicyRegular = 0, ActivationPolicyAccessory = 1 };

    explicit ApplicationHost(QObject *parent = nullptr);
    ~ApplicationHost() override;

    void setDelegate(AppDelegate *delegate);

    // Tells the delegate, on the next turn of the event loop, that launching has finished.
    void finishLaunching();

    // Starts an orderly termination from inside the program: asks the delegate, then ends now,
    // later or not at all.
    void terminate();
    // The final answer after a deferred reply. It may come while the delegate is still being
    // asked; it then takes effect on the next turn of the event loop, after the deferred reply
    // has been returned.
    void replyToApplicationShouldTerminate(bool shouldTerminate);

    // A termination the system asks for. The reply is returned to the system; after "later",
    // the final answer goes to finalAnswer instead of ending the program here, because the
    // system ends it (AppKit exits after it has been told yes). Every asker still waiting gets
    // the answer once. After "now" or a final yes the system calls systemWillTerminate()
    // before it exits.
    using FinalAnswer = std::function<void(bool shouldTerminate)>;
    TerminateReply systemRequestsTermination(FinalAnswer finalAnswer);
    // Runs the delegate's will-terminate handling once and emits terminated().
    void systemWillTerminate() { finishTermination(); }

    void setActivationPolicy(ActivationPolicy policy) { activationPolicy_ = policy; }
    ActivationPolicy activationPolicy() const { return activationPolicy_; }

    bool hasTerminated() const { return terminated_; }

    // Routes SIGTERM, SIGINT and SIGHUP into terminate(), on the main thread and not before
    // launching has finished. Once per process: a second host installs nothing.
    void installQuitSignalHandlers();

signals:
    // Emitted once, after the delegate's applicationWillTerminate. The process entry leaves its
    // event loop on it; tests observe it instead.
    void terminated();

private:
    TerminateReply askDelegate();
    void finishTermination();
    void handleQuitSignal();
    void terminateForQuitSignal();

    QPointer<AppDelegate> delegate_;
    ActivationPolicy activationPolicy_ = ActivationPolicyRegular;
    bool askingDelegate_ = false;
    bool replyPending_ = false;
    // Where the final answer goes when the system asked; empty when the program asked itself.
    QList<FinalAnswer> systemAnswers_;
    bool terminated_ = false;
    bool launched_ = false;
    bool quitRequestedBeforeLaunch_ = false;
    QSocketNotifier *signalNotifier_ = nullptr;
};
