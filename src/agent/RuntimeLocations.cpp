// Where the agent's files are, and the application's own version.
#include "app/AppDelegate.h"

#include "app/log/AppLogger.h"
#include "platform/Bundle.h"

namespace {

std::optional<QString> nonBlankString(const QVariant &value)
{
    if (value.typeId() == QMetaType::QString && !value.toString().trimmed().isEmpty())
        return value.toString();
    return std::nullopt;
}

} // namespace

std::optional<QString> AppDelegate::runtimeDirectory() const
{
    if (!configuration_.resourceDirectory)
        return std::nullopt;
    return *configuration_.resourceDirectory + QStringLiteral("/runtime");
}

QString AppDelegate::logsDirectory() const
{
    return AppLogger::logsDirectoryUnder(configuration_.applicationSupportDirectory);
}

QString AppDelegate::currentBundleVersion() const
{
    // Read once: the two keys come from the same dictionary.
    const QVariantMap info = readPropertyListDictionary(configuration_.infoPlistPath);
    if (auto build = nonBlankString(info.value(QStringLiteral("CFBundleVersion"))))
        return *build;
    if (auto marketing = nonBlankString(info.value(QStringLiteral("CFBundleShortVersionString"))))
        return *marketing;
    return QStringLiteral("1");
}
