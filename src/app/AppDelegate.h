// The controller: it owns every piece of state, the status item and its menu, the refresh timer,
// the volume observers and the waiting volume sync. Its operations are defined in the folder of
// the subsystem they belong to (app/, agent/, menu/, startup/, volumes/).
#pragma once

#include "app/ApplicationHost.h"
#include "app/Configuration.h"
#include "app/DispatchWorkItem.h"
#include "platform/PlatformServices.h"
#include "platform/WorkspaceNotificationCenter.h"
#include "volumes/VolumeSnapshot.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

class QAction;
class RunningChild;
class QMenu;
class QNetworkAccessManager;
class QSettings;
class QTimer;

enum class RunAtStartupState { disabled = 0, enabled = 1, needsApproval = 2 };

class AppDelegate : public QObject {
    Q_OBJECT
public:
    using HealthCompletion = std::function<void(bool running, const QString &version)>;

    AppDelegate(Configuration configuration, PlatformServices platform, ApplicationHost *application);
    ~AppDelegate() override;

    // Application delegate messages.
    void applicationDidFinishLaunching();
    void applicationWillTerminate();
    ApplicationHost::TerminateReply applicationShouldTerminate();

    // Timer and menu actions.
    void refreshHealthTimerFired();
    void startAgentFromMenu();
    void stopAgentFromMenu();
    void openCloudAdmin();
    void openAgentUpdatePage();
    void openLocalAdmin();
    void openGettingStarted();
    void openStartupStatus();
    void openLogs();
    void toggleRunAtStartup();
    void quitApp();

    // Termination.
    void finishTerminationAfterStop(int exitCode);

    // Runtime locations.
    std::optional<QString> runtimeDirectory() const;
    // agentctl.sh in the runtime folder; none without one.
    std::optional<QString> controlScriptPath() const;
    QString logsDirectory() const;
    QString currentBundleVersion() const;

    // Health.
    void queryHealth(HealthCompletion completion);
    // Whether the socket listening on endpoint's port belongs to a user other than this one and
    // root, as far as the system tells; logs that owner once, and again when the owner changes.
    bool agentPortHeldByAnotherUser(const QUrl &endpoint);
    void refreshHealth();
    void startAgentIfNeededOnLaunch();

    // Agent commands.
    void startAgent(bool openStatusPage);
    void requestAgentStop(bool terminateWhenFinished);

    // Status menu and button.
    void assembleStatusMenu();
    void updateStateMenu(const QString &title, const QString &version, bool running);
    void updateMenuAvailability();
    void configureStatusButton(bool running);
    QAction *startMenuItem();
    QAction *stopMenuItem();
    QAction *openCloudAdminMenuItem();
    QAction *checkForUpdatesMenuItem();
    QAction *openLocalAdminMenuItem();
    QAction *openGettingStartedMenuItem();
    QAction *openStartupPageMenuItem();
    QAction *runAtStartupMenuItem();
    QAction *openLogsMenuItem();
    QAction *quitMenuItem();

    // Pages and folders.
    bool openGettingStartedPage(bool markPresented);
    void openStartupPage(bool failed);

    // Run at startup.
    RunAtStartupState resolveRunAtStartupState();
    void refreshRunAtStartupState();
    void enableRunAtStartup();
    void disableRunAtStartup();
    QString launchAgentPlistURL() const;
    bool legacyRunAtStartupEnabled() const;
    void installLegacyRunAtStartup();
    void removeLegacyRunAtStartup();
    void bootstrapLegacyLaunchAgent(const QString &plistPath, const QString &label);
    void bootoutLegacyLaunchAgent(const QString &plistPath);
    QStringList obsoleteNativeLaunchAgentPlistURLs() const;
    void removeObsoleteNativeLaunchAgentsIfPresent();

    // Mounted volumes.
    void configureMountedVolumeMonitoring();
    void removeMountedVolumeMonitoring();
    void scheduleMountedVolumesSync(const QString &reason, bool force);
    QList<VolumeEntry> currentMountedVolumesPayload() const;
    void syncMountedVolumesCache(const QString &reason, bool force);

    // Stored properties, in their fixed declaration order.
    const QUrl cloudAdminURL;
    const QUrl agentUpdateURL;
    const QUrl localAdminURL;
    const QUrl healthURL;
    const QString launchAgentLabel;
    const QStringList obsoleteNativeLaunchAgentLabels;
    const QString welcomePresentationDefaultsKey;
    const std::unique_ptr<StatusItem> statusItem;
    const std::unique_ptr<QMenu> menu;
    QAction *const stateMenuItem;
    QAction *const versionMenuItem;
    QAction *startMenuItem_ = nullptr;
    QAction *stopMenuItem_ = nullptr;
    QAction *openCloudAdminMenuItem_ = nullptr;
    QAction *checkForUpdatesMenuItem_ = nullptr;
    QAction *openLocalAdminMenuItem_ = nullptr;
    QAction *openGettingStartedMenuItem_ = nullptr;
    QAction *openStartupPageMenuItem_ = nullptr;
    QAction *runAtStartupMenuItem_ = nullptr;
    QAction *openLogsMenuItem_ = nullptr;
    QAction *quitMenuItem_ = nullptr;
    QTimer *refreshTimer = nullptr;
    bool agentIsRunning = false;
    bool startInFlight = false;
    bool stopInFlight = false;
    bool launchedAtLogin = false;
    QString lastKnownVersion = QStringLiteral("--");
    QString lastStateTitle;
    bool presentedWelcomeOnLaunch = false;
    bool terminationReplyPending = false;
    bool terminateAfterStop = false;
    bool stopAgentOnTerminate = true;
    QList<WorkspaceNotificationCenter::Token> mountedVolumeObserverTokens;
    bool mountedVolumeSyncInFlight = false;
    bool mountedVolumeSyncPending = false;
    std::shared_ptr<DispatchWorkItem> mountedVolumeSyncDebounceWorkItem;
    QString lastMountedVolumeSyncSignature;
    const QUrl mountedVolumeSyncURL;

    // Plumbing beyond the named state: where the controller reaches the outside world.
    const Configuration &configuration() const { return configuration_; }
    PlatformServices &platform() { return platform_; }
    ApplicationHost *application() const { return application_; }
    QSettings &userDefaults();

signals:
    // For those outside the menu who act on the controller (commands, notifications); none of
    // them changes what the controller does.
    // The launch has checked for another copy: a duplicate leaves, the only copy goes on.
    void instanceChecked(bool duplicate);
    // The state line, version line, badge and availability were just updated.
    void stateMenuUpdated();
    // A refresh's health answer came, just before it is shown.
    void healthAnswered(bool running);
    // A control script run ("start" or "stop") has ended and its outcome has been applied.
    void agentCommandFinished(const QString &argument, int exitCode);

private:
    // Gives the deferred termination answer once no start script runs any more, stopping the
    // agent once more first if a start ended after the last stop was launched.
    void answerTerminationOnceStartsHaveEnded();
    // Ends the process groups of start scripts that outlast the termination's grace period.
    void endStartsStillRunning();

    QAction *makeMenuItem(QAction *&storage, const QString &title, void (AppDelegate::*action)());
    QNetworkAccessManager &network();

    Configuration configuration_;
    PlatformServices platform_;
    ApplicationHost *application_;
    std::unique_ptr<QSettings> userDefaults_;
    QNetworkAccessManager *network_ = nullptr;
    // startInFlight is cleared by a stop or a running health answer while the script may still
    // run; quitting needs to know what really runs.
    QList<std::shared_ptr<RunningChild>> runningStarts_;
    bool startEndedSinceStopLaunched_ = false;
    bool terminationWaitsForStart_ = false;
    bool startGraceArmed_ = false;
    bool startsEndedByTermination_ = false;
    // The other user last logged as holding the agent's port; cleared when a trusted owner is seen.
    std::optional<uint> loggedPortOwner_;
};
