#include "platform/linux/AutostartLoginItemService.h"

#include "platform/LocationOpener.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QUrl>
#include <filesystem>
#include <system_error>

namespace {

const QString desktopEntryGroup = QStringLiteral("[Desktop Entry]");

LoginItemError writeError(const QString &message)
{
    return LoginItemError{AutostartLoginItemService::errorDomain, AutostartLoginItemService::errorWriteFailed, message};
}

} // namespace

bool AutostartLoginItemService::entryTextIsHidden(const QByteArray &text)
{
    bool inMainGroup = false;
    for (const QByteArray &rawLine : text.split('\n')) {
        const QString line = QString::fromUtf8(rawLine).trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            inMainGroup = line == desktopEntryGroup;
            continue;
        }
        if (!inMainGroup)
            continue;
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (equals < 0)
            continue;
        const QString key = line.left(equals).trimmed();
        const QString value = line.mid(equals + 1).trimmed();
        if ((key == QLatin1String("Hidden") && value == QLatin1String("true")) ||
            (key == QLatin1String("X-GNOME-Autostart-enabled") && value == QLatin1String("false")))
            return true;
    }
    return false;
}

AutostartLoginItemService::AutostartLoginItemService(QString configDirectory, QString bundleIdentifier,
                                                     QString executablePath, LocationOpener *opener)
    : configDirectory_(std::move(configDirectory)), bundleIdentifier_(std::move(bundleIdentifier)),
      executablePath_(std::move(executablePath)), opener_(opener)
{
}

bool AutostartLoginItemService::isAvailable() const
{
    return true;
}

int AutostartLoginItemService::status() const
{
    QFile file(entryPath());
    if (!QFileInfo(file).isFile())
        return statusNotRegistered;
    // An entry that cannot be read is there all the same.
    return file.open(QIODevice::ReadOnly) && entryTextIsHidden(file.readAll()) ? statusNotRegistered : statusEnabled;
}

std::optional<LoginItemError> AutostartLoginItemService::registerApp()
{
    if (status() == statusEnabled)
        return LoginItemError{errorDomain, errorAlreadyRegistered,
                              QStringLiteral("The autostart entry already exists.")};
    if (executablePath_.isEmpty())
        return writeError(QStringLiteral("The program's location is unknown."));
    std::error_code folderError;
    std::filesystem::create_directories(QFile::encodeName(autostartDirectory()).toStdString(), folderError);
    if (folderError)
        return writeError(QStringLiteral("Could not create the folder ") + autostartDirectory() + QStringLiteral(": ") +
                          QString::fromLocal8Bit(folderError.message()));

    QSaveFile file(entryPath());
    const QByteArray contents = entryText(executablePath_).toUtf8();
    if (file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() && file.commit())
        return std::nullopt;
    const QString message = file.errorString();
    file.cancelWriting();
    return writeError(message);
}

std::optional<LoginItemError> AutostartLoginItemService::unregisterApp()
{
    QFile file(entryPath());
    if (!QFileInfo(file).isFile())
        return LoginItemError{errorDomain, errorJobNotFound, QStringLiteral("There is no autostart entry.")};
    if (!file.remove())
        return writeError(file.errorString());
    return std::nullopt;
}

void AutostartLoginItemService::openSystemSettingsLoginItems()
{
    QDir().mkpath(autostartDirectory());
    if (opener_)
        opener_->open(QUrl::fromLocalFile(autostartDirectory()));
}

QString AutostartLoginItemService::autostartDirectory() const
{
    return configDirectory_ + QStringLiteral("/autostart");
}

QString AutostartLoginItemService::entryPath() const
{
    return autostartDirectory() + QLatin1Char('/') + bundleIdentifier_ + QStringLiteral(".desktop");
}

QString AutostartLoginItemService::execLine(const QString &program)
{
    // Inside a quoted argument ", `, $ and \ take a backslash; % is doubled for the field-code
    // rule; then the value as a whole goes through the string escapes, which double every
    // backslash again and turn control characters into escapes.
    QString quoted;
    for (const QChar c : program) {
        if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') || c == QLatin1Char('\\'))
            quoted += QLatin1Char('\\');
        quoted += c;
    }
    quoted.replace(QLatin1Char('%'), QStringLiteral("%%"));
    QString value = QLatin1Char('"') + quoted + QStringLiteral("\" --launched-at-login");
    value.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
    value.replace(QLatin1Char('\n'), QStringLiteral("\\n"));
    value.replace(QLatin1Char('\t'), QStringLiteral("\\t"));
    value.replace(QLatin1Char('\r'), QStringLiteral("\\r"));
    return value;
}

QString AutostartLoginItemService::entryText(const QString &program)
{
    return desktopEntryGroup + QStringLiteral("\nType=Application\nName=Quillmere Agent\nExec=") + execLine(program) +
           QStringLiteral("\nX-GNOME-Autostart-enabled=true\nNoDisplay=true\n");
}
