// The application bundle stand-in: a resource folder with an Info.plist beside the executable.
#pragma once

#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <optional>

// Reads the top-level dictionary of an XML property list. Strings become QString, integers
// qlonglong, reals double, booleans bool; anything else is kept as a nested map or list.
// A missing or malformed file gives an empty map.
QVariantMap readPropertyListDictionary(const QString &path);

class Bundle {
public:
    Bundle(std::optional<QString> resourceDirectory, QString infoPlistPath, std::optional<QString> executablePath);

    std::optional<QString> resourceDirectory() const { return resourceDirectory_; }
    std::optional<QString> executablePath() const { return executablePath_; }
    // The value under key in Info.plist, or an invalid QVariant. Read afresh on every call.
    QVariant objectForInfoDictionaryKey(const QString &key) const;
    // CFBundleIdentifier when it is a non-empty string.
    std::optional<QString> bundleIdentifier() const;

private:
    std::optional<QString> resourceDirectory_;
    QString infoPlistPath_;
    std::optional<QString> executablePath_;
};
