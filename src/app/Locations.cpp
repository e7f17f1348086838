#include "app/Locations.h"

#include <QDir>

namespace {

// The bundle folder (X.app) when the executable sits in X.app/Contents/MacOS.
std::optional<QString> enclosingBundle(const QString &executablePath)
{
    const QString macOSFolder = QDir::cleanPath(executablePath + QStringLiteral("/.."));
    const QString contents = QDir::cleanPath(macOSFolder + QStringLiteral("/.."));
    const QString bundle = QDir::cleanPath(contents + QStringLiteral("/.."));
    if (!macOSFolder.endsWith(QStringLiteral("/Contents/MacOS")) || !bundle.endsWith(QStringLiteral(".app")) ||
        bundle.endsWith(QStringLiteral("/.app")))
        return std::nullopt;
    return bundle;
}

} // namespace

QString overridden(const QString &value, const QString &fallback)
{
    return value.isEmpty() || QDir::isRelativePath(value) ? fallback : QDir::cleanPath(value);
}

Locations locationsFor(const LocationInputs &in)
{
    Locations out;
    const QString home = overridden(in.home, QStringLiteral("/"));
    const std::optional<QString> bundle =
        in.executablePath.isEmpty() ? std::nullopt : enclosingBundle(in.executablePath);
    out.applicationBundle = bundle.has_value();

    if (bundle) {
        out.resourceDirectory = *bundle + QStringLiteral("/Contents/Resources");
        out.infoPlistPath = *bundle + QStringLiteral("/Contents/Info.plist");
        out.applicationSupportDirectory =
            overridden(in.dataHome, home + QStringLiteral("/Library/Application Support"));
        out.configDirectory = overridden(in.configHome, home + QStringLiteral("/Library/Preferences"));
        // The preferences domain, unless a test or developer moved the configuration folder.
        if (!in.configHome.isEmpty() && !QDir::isRelativePath(in.configHome))
            out.userDefaultsFile = out.configDirectory;
        out.volumeMountDirectories = {overridden(in.volumesDir, QStringLiteral("/Volumes"))};
    } else {
        if (!in.executablePath.isEmpty()) {
            const QString resources = QDir::cleanPath(in.executablePath + QStringLiteral("/../../") +
                                                      QStringLiteral(QUILLMERE_RESOURCE_SUBDIR));
            out.resourceDirectory = resources;
            out.infoPlistPath = resources + QStringLiteral("/Info.plist");
        }
        out.applicationSupportDirectory = overridden(in.dataHome, home + QStringLiteral("/.local/share"));
        out.configDirectory = overridden(in.configHome, home + QStringLiteral("/.config"));
        out.userDefaultsFile = out.configDirectory;
        if (!in.volumesDir.isEmpty() && !QDir::isRelativePath(in.volumesDir))
            out.volumeMountDirectories = {QDir::cleanPath(in.volumesDir)};
        // Without a name the folders would be /run/media and /media themselves, whose entries are
        // every user's media folders: no folder is better than the wrong ones.
        else if (!in.user.isEmpty() && !in.user.contains(QLatin1Char('/')) && in.user != QLatin1String("..") &&
                 in.user != QLatin1String("."))
            out.volumeMountDirectories = {QStringLiteral("/run/media/") + in.user, QStringLiteral("/media/") + in.user};
    }
    if (out.userDefaultsFile)
        *out.userDefaultsFile += QStringLiteral("/" QUILLMERE_BUNDLE_IDENTIFIER ".conf");
    return out;
}
