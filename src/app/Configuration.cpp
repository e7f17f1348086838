#include "app/Configuration.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QtGlobal>

namespace {

constexpr int defaultAgentPort = 8787;

// A folder from the environment, tidied ("/home/me/" logs as "/home/me"); a relative one is
// ignored, as the XDG base directory rules ask.
QString environmentPath(const char *name, const QString &fallback)
{
    const QString value = qEnvironmentVariable(name);
    return value.isEmpty() || QDir::isRelativePath(value) ? fallback : QDir::cleanPath(value);
}

QString removableMediaFolder()
{
    const QString user = qEnvironmentVariable("USER");
    const QString runMedia = QStringLiteral("/run/media/") + user;
    if (!user.isEmpty() && QFileInfo(runMedia).isDir())
        return runMedia;
    return QStringLiteral("/media/") + user;
}

} // namespace

void Configuration::setAgentBaseURL(const QUrl &base)
{
    localAdminURL = base.resolved(QUrl(QStringLiteral("/")));
    healthURL = base.resolved(QUrl(QStringLiteral("/healthz")));
    mountedVolumeSyncURL = base.resolved(QUrl(QStringLiteral("/api/mounted-volumes/cache-sync")));
}

void Configuration::setWebsiteBaseURL(const QUrl &base)
{
    cloudAdminURL = base.resolved(QUrl(QStringLiteral("/admin.html")));
    agentUpdateURL = base.resolved(QUrl(QStringLiteral("/downloads/")));
}

QString Configuration::applicationSupportDirectoryFromEnvironment()
{
    return environmentPath("XDG_DATA_HOME",
                           environmentPath("HOME", QDir::homePath()) + QStringLiteral("/.local/share"));
}

Configuration Configuration::fromEnvironment()
{
    Configuration config;
    config.setWebsiteBaseURL(QUrl(QStringLiteral(QUILLMERE_WEBSITE_BASE_URL)));

    bool portOk = false;
    int port = qEnvironmentVariableIntValue("QUILLMERE_AGENT_PORT", &portOk);
    if (!portOk || port <= 0 || port > 65535)
        port = defaultAgentPort;
    config.setAgentBaseURL(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)));

    const QString home = environmentPath("HOME", QDir::homePath());
    config.homeDirectory = home;
    config.applicationSupportDirectory = applicationSupportDirectoryFromEnvironment();
    config.configDirectory = environmentPath("XDG_CONFIG_HOME", home + QStringLiteral("/.config"));
    config.runtimeStateDirectory = environmentPath("XDG_RUNTIME_DIR", QString());

    // <prefix>/bin/quillmere-menu finds its resources in <prefix>/share/quillmere-menu.
    const QString binDir = QCoreApplication::applicationDirPath();
    if (!binDir.isEmpty()) {
        const QString resources =
            QDir::cleanPath(binDir + QStringLiteral("/../") + QStringLiteral(QUILLMERE_RESOURCE_SUBDIR));
        config.resourceDirectory = resources;
        config.infoPlistPath = resources + QStringLiteral("/Info.plist");
        config.executablePath = QCoreApplication::applicationFilePath();
    }

    config.volumeMountDirectory = environmentPath("QUILLMERE_VOLUMES_DIR", removableMediaFolder());
    config.arguments = QCoreApplication::arguments();
    return config;
}
