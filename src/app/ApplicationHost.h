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

// A four-character code of the Apple Event Manager as the integer the system uses.
constexpr quint32 fourCharCode(const char (&code)[5])
{
    return quint32(quint8(code[0])) << 24 | quint32(quint8(code[1])) << 16 | quint32(quint8(code[2])) << 8 |
           quint32(quint8(code[3]));
}

// The open-application Apple event with which macOS starts an application, reduced to what the
// launch reads: its class and ID, and the enumerated value of its property-data parameter (0
// where the event or that parameter is missing).
struct OpenApplicationEvent {
    static constexpr quint32 coreEventClass = fourCharCode("aevt");
    static constexpr quint32 openApplication = fourCharCode("oapp");
    static constexpr quint32 launchedAsLogInItem = fourCharCode("lgit");

    quint32 eventClass = 0;
    quint32 eventID = 0;
    quint32 propertyData = 0;
};

// Whether the system started the application as a login item, which the login-item service
// says only through the open-application event, never on the command line.
bool isLoginItemLaunch(const OpenApplicationEvent &event);

class ApplicationHost : public QObject {
    Q_OBJECT
public:
    enum TerminateReply { TerminateCancel = 0, TerminateNow = 1, TerminateLater = 2 };
    enum ActivationPolicy { ActivationPolicyRegular = 0, ActivationPolicyAccessory = 1 };

    explicit ApplicationHost(QObject *parent = nullptr);
    ~ApplicationHost() override;

    void setDelegate(AppDelegate *delegate);

    // Tells the delegate, on the next turn of the event loop, that launching has finished; while
    // the host awaits the system's own report, only once that has come.
    void finishLaunching();
    // Where the system reports the end of launching itself (AppKit), that report also tells how
    // the process was started, which the launch sequence must know before it begins: the launch
    // then waits for systemDidFinishLaunching(). Called before finishLaunching().
    void awaitSystemLaunch() { awaitingSystemLaunch_ = true; }
    void systemDidFinishLaunching(const OpenApplicationEvent &event);
    // True when the system started this process as a login item; settled before the delegate
    // hears that launching has finished.
    bool launchedAsLoginItem() const { return launchedAsLoginItem_; }

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

    // The policy is passed on to the platform's application object where there is one (AppKit's
    // NSApp); Linux desktops have no such notion.
    void setActivationPolicy(ActivationPolicy policy);
    ActivationPolicy activationPolicy() const { return activationPolicy_; }
    void setActivationPolicyHandler(std::function<void(ActivationPolicy)> handler)
    {
        applyActivationPolicy_ = std::move(handler);
    }

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
    std::function<void(ActivationPolicy)> applyActivationPolicy_;
    bool awaitingSystemLaunch_ = false;
    bool launchWaiting_ = false;
    bool launchedAsLoginItem_ = false;
    bool askingDelegate_ = false;
    bool replyPending_ = false;
    // Where the final answer goes when the system asked; empty when the program asked itself.
    QList<FinalAnswer> systemAnswers_;
    bool terminated_ = false;
    bool launched_ = false;
    bool quitRequestedBeforeLaunch_ = false;
    QSocketNotifier *signalNotifier_ = nullptr;
};
