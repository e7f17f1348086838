#include "support/TestEnvironment.h"

#include "app/log/AppLogger.h"
#include "support/Files.h"

#include <QRegularExpression>

TestEnvironment::TestEnvironment()
{
    for (const QString &path : {home(), dataHome(), configHome(), runtimeStateDir(), runtimeDir(), volumesDir()})
        QDir().mkpath(path);
    qputenv("HOME", home().toUtf8());
    qputenv("XDG_DATA_HOME", dataHome().toUtf8());
    qputenv("XDG_CONFIG_HOME", configHome().toUtf8());
    qputenv("XDG_RUNTIME_DIR", runtimeStateDir().toUtf8());
    // The build version differs from the marketing one, so reading the wrong key shows.
    writeFile(resourceDir() + u"/Info.plist"_s,
              "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>com.tallyhold.agent.app</string>"
              "<key>CFBundleVersion</key><string>1.0.0</string>"
              "<key>CFBundleShortVersionString</key><string>1.0</string></dict></plist>");
}

Configuration TestEnvironment::configuration(const QUrl &agentBase) const
{
    Configuration config;
    config.setWebsiteBaseURL(QUrl(u"https://quillmere.example"_s));
    config.setAgentBaseURL(agentBase);
    config.homeDirectory = home();
    config.applicationSupportDirectory = dataHome();
    config.configDirectory = configHome();
    config.userDefaultsFile = configHome() + u"/com.tallyhold.agent.app.conf"_s;
    config.runtimeStateDirectory = runtimeStateDir();
    config.resourceDirectory = resourceDir();
    config.infoPlistPath = resourceDir() + u"/Info.plist"_s;
    config.executablePath = QStringLiteral(QUILLMERE_TEST_BINARY);
    config.volumeMountDirectories = {volumesDir()};
    config.launchctlPath = root() + u"/bin/launchctl"_s;
    return config;
}

void TestEnvironment::writeScript(const QString &path, const QString &body)
{
    writeFile(path, "#!/bin/sh\n" + body.toUtf8());
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

QStringList TestEnvironment::logMessagesIn(const QString &file)
{
    // A line not stamped in UTC to the millisecond is kept whole, so that no comparison passes it.
    static const QRegularExpression stamp(u"^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z \\| "_s);
    return QString::fromUtf8(readFile(file)).split(u'\n', Qt::SkipEmptyParts).replaceInStrings(stamp, QString());
}

QStringList TestEnvironment::messagesSinceMark() const
{
    AppLogger::shared().flush();
    return logMessagesIn(logsDir() + u"/menu-app.log"_s).mid(mark_);
}
