// The application bundle stand-in's information dictionary: the Info.plist in its resource folder.
#pragma once

#include <QString>
#include <QVariantMap>
#include <optional>

// Reads the top-level dictionary of an XML property list. Strings become QString, integers
// qlonglong, reals double, booleans bool; anything else is kept as a nested map or list.
// A missing or malformed file gives an empty map.
QVariantMap readPropertyListDictionary(const QString &path);
// The same from the property list's text.
QVariantMap propertyListDictionary(const QByteArray &text);

// CFBundleIdentifier of the property list at infoPlistPath when it is a non-empty string.
std::optional<QString> bundleIdentifier(const QString &infoPlistPath);
