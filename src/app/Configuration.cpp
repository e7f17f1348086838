#include "app/Configuration.h"

#include "app/Locations.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QtGlobal>

#include <pwd.h>
#include <unistd.h>

namespace {

constexpr int defaultAgentPort = 8787;

// Started by a service manager or from cron, $USER may be unset or stale and $HOME empty or
// relative (which would put our files below whatever folder we were started in); the account
// database knows who we run as and where that user's home is.
QString accountEntry(char *passwd::*field)
{
    const passwd *account = ::getpwuid(::getuid());
    return account && account->*field ? QFile::decodeName(account->*field) : QString();
}

QString accountName()
{
    const QString name = accountEntry(&passwd::pw_name);
    return name.isEmpty() ? qEnvironmentVariable("USER") : name;
}

QString homeDirectory()
{
    if (const QString home = qEnvironmentVariable("HOME"); QDir::isAbsolutePath(home))
        return home;
    const QString accountHome = accountEntry(&passwd::pw_dir);
    return accountHome.isEmpty() ? QDir::rootPath() : accountHome;
}

LocationInputs locationInputsFromEnvironment()
{
    LocationInputs inputs;
    // Before the application object exists the executable's path is unknown.
    if (QCoreApplication::instance())
        inputs.executablePath = QCoreApplication::applicationFilePath();
    inputs.home = homeDirectory();
    inputs.dataHome = qEnvironmentVariable("XDG_DATA_HOME");
    inputs.configHome = qEnvironmentVariable("XDG_CONFIG_HOME");
    inputs.volumesDir = qEnvironmentVariable("QUILLMERE_VOLUMES_DIR");
    inputs.user = accountName();
    return inputs;
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
    return locationsFor(locationInputsFromEnvironment()).applicationSupportDirectory;
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

    const LocationInputs inputs = locationInputsFromEnvironment();
    const Locations locations = locationsFor(inputs);
    config.homeDirectory = QDir::cleanPath(inputs.home);
    config.applicationSupportDirectory = locations.applicationSupportDirectory;
    config.configDirectory = locations.configDirectory;
    config.userDefaultsFile = locations.userDefaultsFile;
    config.runtimeStateDirectory = overridden(qEnvironmentVariable("XDG_RUNTIME_DIR"), QString());
    config.resourceDirectory = locations.resourceDirectory;
    config.infoPlistPath = locations.infoPlistPath;
    config.applicationBundle = locations.applicationBundle;
    if (!inputs.executablePath.isEmpty())
        config.executablePath = inputs.executablePath;
    config.volumeMountDirectories = locations.volumeMountDirectories;
    config.arguments = QCoreApplication::arguments();
    return config;
}
