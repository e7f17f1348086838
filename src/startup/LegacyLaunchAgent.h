// The text of the per-user launch agent property list, and the small file helpers the
// run-at-startup operations share. Everything here is pure or touches only the file named.
#pragma once

#include <QString>

// Replaces &, <, >, " and ' by their XML entities, the ampersand first so that the entities made
// by the later replacements are left alone (an existing "&amp;" becomes "&amp;amp;").
QString xmlEscaped(const QString &text);

// The whole property list: 25 lines, indented with spaces, no line feed after </plist>.
// The three paths are escaped here; the label is written as it is.
QString legacyLaunchAgentPlistText(const QString &label, const QString &executablePath, const QString &outLogPath,
                                   const QString &errLogPath);

// Where the per-user launch agent property list for label lives below the home folder.
QString launchAgentPlistPath(const QString &homeDirectory, const QString &label);

// True when the property list can be read, is valid UTF-8 and passes the login flag: it starts
// the application at login.
bool startsApplicationAtLogin(const QString &plistPath);
