// Which Qt platform plugin the application object will load, known before that object is built:
// the macOS application delegate must be in place before then, and only for Qt's cocoa plugin.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// Qt offers no way to ask before the application object exists, so this follows the order in
// which Qt chooses: a -platform (or --platform) argument, the last one counting, else
// QT_QPA_PLATFORM (environmentChoice), else the build's default. Of a list of fallbacks ("a;b")
// the first is taken, and of "name:options" the name.
QString chosenQtPlatform(const QStringList &arguments, const QByteArray &environmentChoice,
                         const QString &builtInDefault);
