// Run at login on Linux desktops: an XDG autostart entry that starts the program with
// --launched-at-login. Status and error codes follow the login-item service's own values.
#pragma once

#include "platform/LoginItemService.h"

#include <QString>

class LocationOpener;

class AutostartLoginItemService : public LoginItemService {
public:
    static inline const QString errorDomain = QStringLiteral("QuillmereAutostartErrorDomain");
    // A file operation on the entry failed; the message is the system's.
    static constexpr int errorWriteFailed = 1;

    AutostartLoginItemService(QString configDirectory, QString bundleIdentifier, QString executablePath,
                              LocationOpener *opener);

    bool isAvailable() const override;
    // statusEnabled while the entry exists and is not hidden, statusNotRegistered otherwise.
    int status() const override;
    // errorAlreadyRegistered while enabled; a hidden entry is replaced.
    std::optional<LoginItemError> registerApp() override;
    // errorJobNotFound when there is no entry.
    std::optional<LoginItemError> unregisterApp() override;
    // Opens the autostart folder, creating it first so that there is something to open.
    void openSystemSettingsLoginItems() override;

    QString autostartDirectory() const;
    QString entryPath() const;

    // The Exec value that runs program with --launched-at-login, quoted and escaped so that any
    // path survives the desktop entry's string and argument rules.
    static QString execLine(const QString &program);
    // The whole desktop entry.
    static QString entryText(const QString &program);
    // True when the entry's own group says it is switched off, as desktop session managers do.
    static bool entryTextIsHidden(const QByteArray &text);

private:
    QString configDirectory_;
    QString bundleIdentifier_;
    QString executablePath_;
    LocationOpener *opener_;
};
