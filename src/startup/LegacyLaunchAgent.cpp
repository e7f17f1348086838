// The per-user launch agent property list used where the login-item service cannot be: its
// text, where it lives, and how it is written, loaded, unloaded and removed.
#include "startup/LegacyLaunchAgent.h"

#include "app/AppDelegate.h"
#include "app/log/AppLogger.h"
#include "app/process/ProcessRunner.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringDecoder>
#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>
#include <unistd.h>

namespace {

// The argument a login launch passes to the application.
const QString launchedAtLoginMarker = QStringLiteral("--launched-at-login");
const QString outLogFileName = QStringLiteral("menu-app.out.log");
const QString errLogFileName = QStringLiteral("menu-app.err.log");

// The user's GUI domain in launchd, e.g. gui/501.
QString guiDomainTarget()
{
    return QStringLiteral("gui/") + QString::number(getuid());
}

// Creates a folder with its parents; the error's description when that fails.
std::optional<QString> createFolder(const QString &path)
{
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(QFile::encodeName(path).toStdString()), error);
    if (!error)
        return std::nullopt;
    return QStringLiteral("Could not create the folder ") + path + QStringLiteral(": ") +
           QString::fromLocal8Bit(error.message());
}

// Replaces the file in one step, or leaves it untouched; the error's description on failure.
std::optional<QString> writeFileAtomically(const QString &path, const QByteArray &contents)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() && file.commit())
        return std::nullopt;
    const QString description = file.errorString();
    file.cancelWriting();
    return QStringLiteral("Could not write ") + path + QStringLiteral(": ") + description;
}

} // namespace

QString xmlEscaped(const QString &text)
{
    QString escaped = text;
    escaped.replace(QLatin1Char('&'), QStringLiteral("&amp;"));
    escaped.replace(QLatin1Char('<'), QStringLiteral("&lt;"));
    escaped.replace(QLatin1Char('>'), QStringLiteral("&gt;"));
    escaped.replace(QLatin1Char('"'), QStringLiteral("&quot;"));
    escaped.replace(QLatin1Char('\''), QStringLiteral("&apos;"));
    return escaped;
}

QString legacyLaunchAgentPlistText(const QString &label, const QString &executablePath, const QString &outLogPath,
                                   const QString &errLogPath)
{
    // Line 2 is the DOCTYPE line the system's own property list writer puts there.
    return QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                          "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                          "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                          "<plist version=\"1.0\">\n"
                          "<dict>\n"
                          "  <key>Label</key>\n"
                          "  <string>") +
           label +
           QStringLiteral("</string>\n"
                          "  <key>ProgramArguments</key>\n"
                          "  <array>\n"
                          "    <string>") +
           xmlEscaped(executablePath) +
           QStringLiteral("</string>\n"
                          "    <string>--launched-at-login</string>\n"
                          "  </array>\n"
                          "  <key>RunAtLoad</key>\n"
                          "  <true/>\n"
                          "  <key>LimitLoadToSessionType</key>\n"
                          "  <array>\n"
                          "    <string>Aqua</string>\n"
                          "  </array>\n"
                          "  <key>ProcessType</key>\n"
                          "  <string>Interactive</string>\n"
                          "  <key>StandardOutPath</key>\n"
                          "  <string>") +
           xmlEscaped(outLogPath) +
           QStringLiteral("</string>\n"
                          "  <key>StandardErrorPath</key>\n"
                          "  <string>") +
           xmlEscaped(errLogPath) +
           QStringLiteral("</string>\n"
                          "</dict>\n"
                          "</plist>");
}

QString launchAgentPlistPath(const QString &homeDirectory, const QString &label)
{
    return homeDirectory + QStringLiteral("/Library/LaunchAgents/") + label + QStringLiteral(".plist");
}

bool startsApplicationAtLogin(const QString &plistPath)
{
    QFile file(plistPath);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return false;
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(bytes);
    return !decoder.hasError() && text.contains(launchedAtLoginMarker);
}

QString AppDelegate::launchAgentPlistURL() const
{
    return launchAgentPlistPath(configuration_.homeDirectory, launchAgentLabel);
}

bool AppDelegate::legacyRunAtStartupEnabled() const
{
    if (!configuration_.launchctlPath)
        return false;
    // Our own property list counts whatever it holds; one of an earlier edition only when it
    // starts the application at login.
    if (QFileInfo::exists(launchAgentPlistURL()))
        return true;
    const QStringList obsoletePaths = obsoleteNativeLaunchAgentPlistURLs();
    return std::any_of(obsoletePaths.cbegin(), obsoletePaths.cend(), startsApplicationAtLogin);
}

void AppDelegate::installLegacyRunAtStartup()
{
    AppLogger &logger = AppLogger::shared();
    // Without launchd a property list would start nothing at login, yet show the item checked.
    if (!configuration_.launchctlPath) {
        logger.log(QStringLiteral("Run at startup not saved: the login item failed and this system has no "
                                  "per-user launch agent to fall back to."));
        updateStateMenu(QStringLiteral("Status: Could not save startup setting"), lastKnownVersion, agentIsRunning);
        return;
    }
    const std::optional<QString> executable = configuration_.executablePath;
    if (!executable || executable->isEmpty()) {
        logger.log(QStringLiteral("Could not resolve app executable path for legacy run-at-startup."));
        return;
    }
    // An application opened from a download or a disk image may run from a randomized read-only
    // copy that disappears when it quits; a launch agent pointing there would fail at login.
    if (executable->contains(QStringLiteral("/AppTranslocation/"))) {
        logger.log(QStringLiteral("Legacy run-at-startup not installed: the app runs from a translocated copy at ") +
                   *executable + QStringLiteral(". Move it to the Applications folder and open it from there."));
        return;
    }

    const QString plistPath = launchAgentPlistURL();
    const QString logsFolder = logsDirectory();

    std::optional<QString> failure = createFolder(QFileInfo(plistPath).path());
    if (!failure)
        failure = createFolder(logsFolder);
    if (!failure) {
        const QString text =
            legacyLaunchAgentPlistText(launchAgentLabel, *executable, logsFolder + QLatin1Char('/') + outLogFileName,
                                       logsFolder + QLatin1Char('/') + errLogFileName);
        failure = writeFileAtomically(plistPath, text.toUtf8());
    }
    if (failure) {
        logger.log(QStringLiteral("Failed writing legacy run-at-startup plist: ") + *failure);
        updateStateMenu(QStringLiteral("Status: Could not save startup setting"), lastKnownVersion, agentIsRunning);
        return;
    }

    // Leftovers of earlier editions go before ours is loaded, so that only one copy starts at login.
    removeObsoleteNativeLaunchAgentsIfPresent();
    bootstrapLegacyLaunchAgent(plistPath, launchAgentLabel);
    logger.log(QStringLiteral("Enabled legacy run-at-startup plist at ") + plistPath);
}

void AppDelegate::removeLegacyRunAtStartup()
{
    if (!configuration_.launchctlPath)
        return;
    const QString plistPath = launchAgentPlistURL();
    bootoutLegacyLaunchAgent(plistPath);
    QFile::remove(plistPath);
    AppLogger::shared().log(QStringLiteral("Removed legacy run-at-startup plist at ") + plistPath);
    removeObsoleteNativeLaunchAgentsIfPresent();
}

void AppDelegate::bootstrapLegacyLaunchAgent(const QString &plistPath, const QString &label)
{
    const QString launchctl = configuration_.launchctlPath.value_or(QString());
    const QString domain = guiDomainTarget();
    // A job loaded from an earlier install must go first, or bootstrap refuses the label.
    ProcessRunner::runSync(launchctl, {QStringLiteral("bootout"), domain, plistPath});
    const ProcessResult bootstrap = ProcessRunner::runSync(launchctl, {QStringLiteral("bootstrap"), domain, plistPath});
    if (bootstrap.exitCode != 0)
        AppLogger::shared().log(QStringLiteral("Legacy bootstrap failed for ") + plistPath);
    ProcessRunner::runSync(launchctl,
                           {QStringLiteral("kickstart"), QStringLiteral("-k"), domain + QLatin1Char('/') + label});
}

void AppDelegate::bootoutLegacyLaunchAgent(const QString &plistPath)
{
    if (!QFileInfo::exists(plistPath))
        return;
    ProcessRunner::runSync(configuration_.launchctlPath.value_or(QString()),
                           {QStringLiteral("bootout"), guiDomainTarget(), plistPath});
}
