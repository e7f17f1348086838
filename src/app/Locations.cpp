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
        out.volumeMountDirectory = overridden(in.volumesDir, QStringLiteral("/Volumes"));
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
        const QString media = in.runMediaExists && !in.user.isEmpty() ? QStringLiteral("/run/media/") + in.user
                                                                      : QStringLiteral("/media/") + in.user;
        out.volumeMountDirectory = overridden(in.volumesDir, media);
    }
    if (out.userDefaultsFile)
        *out.userDefaultsFile += QStringLiteral("/" QUILLMERE_BUNDLE_IDENTIFIER ".conf");
    return out;
}
