// Construction of the controller and the launch sequence.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"
#include "platform/Bundle.h"

#include <QAction>
#include <QMenu>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkRequest>
#include <QPointer>
#include <QSettings>
#include <QTimer>
#include <algorithm>

namespace {

const QString launchedAtLoginArgument = QStringLiteral("--launched-at-login");

} // namespace

AppDelegate::AppDelegate(Configuration configuration, PlatformServices platform, ApplicationHost *application)
    : cloudAdminURL(configuration.cloudAdminURL), agentUpdateURL(configuration.agentUpdateURL),
      localAdminURL(configuration.localAdminURL), healthURL(configuration.healthURL),
      launchAgentLabel(configuration.launchAgentLabel),
      obsoleteNativeLaunchAgentLabels(configuration.obsoleteNativeLaunchAgentLabels),
      welcomePresentationDefaultsKey(configuration.welcomePresentationDefaultsKey),
      statusItem(platform.makeStatusItem()), menu(std::make_unique<QMenu>()),
      stateMenuItem(new QAction(QStringLiteral("Status: Launching..."), this)),
      versionMenuItem(new QAction(QStringLiteral("Version: --"), this)),
      mountedVolumeSyncURL(configuration.mountedVolumeSyncURL), configuration_(std::move(configuration)),
      platform_(std::move(platform)), application_(application)
{
}

AppDelegate::~AppDelegate() = default;

QSettings &AppDelegate::userDefaults()
{
    if (userDefaults_)
        return *userDefaults_;
    if (configuration_.userDefaultsFile) {
        userDefaults_ = std::make_unique<QSettings>(*configuration_.userDefaultsFile, QSettings::IniFormat);
    } else {
        // The application's own preferences domain. QSettings names it from the organization's
        // internet domain, reversed, followed by the application name: "com.tallyhold.agent" and
        // "app" give com.tallyhold.agent.app.
        QStringList parts = configuration_.bundleIdentifier.split(QLatin1Char('.'));
        const QString application = parts.takeLast();
        std::reverse(parts.begin(), parts.end());
        userDefaults_ = std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                                    parts.join(QLatin1Char('.')), application);
    }
    return *userDefaults_;
}

QNetworkAccessManager &AppDelegate::network()
{
    if (!network_) {
        network_ = new QNetworkAccessManager(this);
        // Only loopback is ever asked; a proxy from the environment must not reroute it, nor may an
        // answer redirect it elsewhere.
        network_->setProxy(QNetworkProxy::NoProxy);
        network_->setRedirectPolicy(QNetworkRequest::SameOriginRedirectPolicy);
    }
    return *network_;
}

void AppDelegate::applicationDidFinishLaunching()
{
    AppLogger &logger = AppLogger::shared();
    logger.log(QStringLiteral("Application did finish launching."));

    // Whole argument, same letter case: a prefix or another spelling is not the flag. A start by
    // the login-item service, which passes no arguments, counts the same.
    launchedAtLogin = configuration_.arguments.contains(launchedAtLoginArgument, Qt::CaseSensitive) ||
                      (application_ && application_->launchedAsLoginItem());

    if (const auto identifier = bundleIdentifier(configuration_.infoPlistPath)) {
        if (platform_.runningApplications && platform_.runningApplications->runningApplicationCount(*identifier) >= 2) {
            logger.log(QStringLiteral("Duplicate app instance detected. Terminating new instance."));
            stopAgentOnTerminate = false;
            emit instanceChecked(true);
            if (application_)
                application_->terminate();
            return;
        }
    }

    emit instanceChecked(false);

    if (application_)
        application_->setActivationPolicy(ApplicationHost::ActivationPolicyAccessory);

    logger.log(QStringLiteral("Configuring status menu."));
    assembleStatusMenu();

    configureMountedVolumeMonitoring();

    if (launchedAtLogin) {
        presentedWelcomeOnLaunch = false;
    } else {
        const QString currentVersion = currentBundleVersion();
        const QVariant stored = userDefaults().value(welcomePresentationDefaultsKey);
        const bool alreadyPresented = stored.typeId() == QMetaType::QString && stored.toString() == currentVersion;
        presentedWelcomeOnLaunch = alreadyPresented ? false : openGettingStartedPage(true);
    }

    refreshRunAtStartupState();

    refreshHealth();

    QTimer::singleShot(configuration_.launchFlowDelay, this, [weakSelf = QPointer<AppDelegate>(this)] {
        if (!weakSelf)
            return;
        AppLogger::shared().log(QStringLiteral("Launch flow starting. launchedAtLogin=") +
                                (weakSelf->launchedAtLogin ? QStringLiteral("true") : QStringLiteral("false")));
        weakSelf->startAgentIfNeededOnLaunch();
    });

    delete refreshTimer;
    refreshTimer = new QTimer(this);
    refreshTimer->setInterval(configuration_.refreshInterval);
    connect(refreshTimer, &QTimer::timeout, this, &AppDelegate::refreshHealthTimerFired);
    refreshTimer->start();
}
