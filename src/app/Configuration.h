// The controller's fixed configuration: endpoints, labels, the defaults key, timings and the
// folders it works in. Production takes fromEnvironment(); tests build their own.
#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>
#include <chrono>
#include <optional>

struct Configuration {
    // Product web site and the agent's loopback endpoints.
    QUrl cloudAdminURL;
    QUrl agentUpdateURL;
    QUrl localAdminURL;
    QUrl healthURL;
    QUrl mountedVolumeSyncURL;

    QString bundleIdentifier = QStringLiteral(QUILLMERE_BUNDLE_IDENTIFIER);
    QString launchAgentLabel = QStringLiteral("com.tallyhold.agent.app");
    QStringList obsoleteNativeLaunchAgentLabels = {
        QStringLiteral("com.tallyhold.agent.menubarbeta.app"),
        QStringLiteral("com.tallyhold.agent.nativebeta.app"),
        QStringLiteral("com.tallyhold.agent"),
    };
    QString welcomePresentationDefaultsKey = QStringLiteral("QuillmereAgentWelcomePresentedBundleVersion");

    std::chrono::milliseconds launchFlowDelay{400};
    std::chrono::milliseconds refreshInterval{5000};
    std::chrono::milliseconds healthTimeout{2500};
    std::chrono::milliseconds volumeSyncTimeout{3000};
    std::chrono::milliseconds volumeSyncDebounce{1000};
    // How long quitting waits, after its own stop, for a start script still running, and how long
    // that script's process group then has between SIGTERM and SIGKILL.
    std::chrono::milliseconds startGraceAfterTerminationStop{10000};
    std::chrono::milliseconds processGroupKillDelay{2000};

    // The user's home folder (LaunchAgents live below it).
    QString homeDirectory;
    // Per-user application support: ~/Library/Application Support on macOS, $XDG_DATA_HOME here.
    QString applicationSupportDirectory;
    // Per-user configuration folder ($XDG_CONFIG_HOME): user defaults and autostart entries.
    QString configDirectory;
    // The INI file of the user defaults; none means the system's preferences domain named after
    // the bundle identifier (macOS). Tests always give a file.
    std::optional<QString> userDefaultsFile;
    // Per-user runtime folder ($XDG_RUNTIME_DIR, empty when the session has none): the
    // single-instance lock.
    QString runtimeStateDirectory;
    // The bundle stand-in: resource folder (none when the bundle has none), its Info.plist and
    // the executable.
    std::optional<QString> resourceDirectory;
    QString infoPlistPath;
    std::optional<QString> executablePath;
    // Whether the executable runs inside an application bundle (X.app/Contents/MacOS).
    bool applicationBundle = false;
    // The folders whose entries are the mounted volumes, listed in this order.
    QStringList volumeMountDirectories;
    // launchd's control tool, run for the per-user launch agent that stands in for a login item;
    // none where the system has no launch agents, and nothing is written for one there.
#ifdef Q_OS_MACOS
    std::optional<QString> launchctlPath = QStringLiteral("/bin/launchctl");
#else
    std::optional<QString> launchctlPath;
#endif
    // The process's command line (program name first); the launch sequence looks for the login
    // flag in it. Tests set it instead of the real command line.
    QStringList arguments;

    // Fills the endpoints from an agent base address such as http://127.0.0.1:8787.
    void setAgentBaseURL(const QUrl &base);
    void setWebsiteBaseURL(const QUrl &base);

    // The fixed defaults, resolved against the environment (HOME, XDG_*, the executable's
    // location, see locationsFor). QUILLMERE_AGENT_PORT moves the agent endpoints off 8787 for
    // development and black-box tests; QUILLMERE_VOLUMES_DIR replaces the volume folder.
    static Configuration fromEnvironment();
    // The per-user application support folder ($XDG_DATA_HOME, else ~/.local/share, or
    // ~/Library/Application Support in a bundle); the log, which exists before any
    // configuration, finds its folder the same way.
    static QString applicationSupportDirectoryFromEnvironment();
};
