// Launch agents of earlier editions that started the application at login: where they are, and
// their removal.
#include "app/AppDelegate.h"
#include "app/log/AppLogger.h"
#include "startup/LegacyLaunchAgent.h"

#include <QFile>

QStringList AppDelegate::obsoleteNativeLaunchAgentPlistURLs() const
{
    QStringList paths;
    paths.reserve(obsoleteNativeLaunchAgentLabels.size());
    for (const QString &label : obsoleteNativeLaunchAgentLabels)
        paths.append(launchAgentPlistPath(configuration_.homeDirectory, label));
    return paths;
}

void AppDelegate::removeObsoleteNativeLaunchAgentsIfPresent()
{
    // Only the marker decides: a file under an old label that does not start the application at
    // login belongs to something else and is left alone.
    const QStringList paths = obsoleteNativeLaunchAgentPlistURLs();
    for (const QString &path : paths) {
        if (!startsApplicationAtLogin(path))
            continue;
        bootoutLegacyLaunchAgent(path);
        QFile::remove(path);
        AppLogger::shared().log(QStringLiteral("Removed obsolete beta run-at-startup plist at ") + path);
    }
}
