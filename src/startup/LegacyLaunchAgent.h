// The text of the per-user launch agent property list, and the small file helpers the
// run-at-startup operations share. Everything here is pure or touches only the file named.
#pragma once

#include <QString>
#include <optional>

// The argument a login launch passes to the application; also what marks a property list of an
// earlier edition as one that started the application at login.
inline const QString launchedAtLoginMarker = QStringLiteral("--launched-at-login");

// Replaces &, <, >, " and ' by their XML entities, the ampersand first so that the entities made
// by the later replacements are left alone (an existing "&amp;" becomes "&amp;amp;").
QString xmlEscaped(const QString &text);

// The whole property list: 25 lines, indented with spaces, no line feed after </plist>.
// The three paths are escaped here; the label is written as it is.
QString legacyLaunchAgentPlistText(const QString &label, const QString &executablePath, const QString &outLogPath,
                                   const QString &errLogPath);

// The file's text when it can be read and is valid UTF-8; no value otherwise.
std::optional<QString> readUtf8TextFile(const QString &path);
