// Where the program's files are, decided from where its executable runs: inside an application
// bundle (X.app/Contents/MacOS) or in an installed tree (<prefix>/bin beside
// <prefix>/share/quillmere-menu). A pure function, so that both layouts are checked anywhere.
#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// What the decision reads. Environment values are as set (empty when unset).
struct LocationInputs {
    QString executablePath;
    QString home;
    QString dataHome;   // XDG_DATA_HOME
    QString configHome; // XDG_CONFIG_HOME
    QString volumesDir; // QUILLMERE_VOLUMES_DIR
    QString user;       // the account's name, from the account database
};

struct Locations {
    bool applicationBundle = false;
    // None when the executable's location is unknown.
    std::optional<QString> resourceDirectory;
    QString infoPlistPath;
    QString applicationSupportDirectory;
    QString configDirectory;
    // The INI file that holds the user defaults; none means the system's own store for the
    // bundle identifier (the preferences domain of a macOS application).
    std::optional<QString> userDefaultsFile;
    // The folders whose entries are the mounted volumes, in listing order.
    QStringList volumeMountDirectories;
};

// A folder from the environment, tidied ("/home/me/" gives "/home/me"); unset or relative falls
// back, as the XDG rules ask.
QString overridden(const QString &value, const QString &fallback);

// XDG_* and QUILLMERE_VOLUMES_DIR override the folders in both layouts (relative values are
// ignored, as the XDG rules ask), so that tests and developers can move them anywhere. On Linux
// both removable-media folders count, whether or not they exist yet: udisks2 makes
// /run/media/<user> (Fedora, Arch) or /media/<user> (Debian, Ubuntu) only at the first mount.
Locations locationsFor(const LocationInputs &inputs);
