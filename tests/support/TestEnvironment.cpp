#include "support/TestEnvironment.h"

#include "app/log/AppLogger.h"
#include "support/Files.h"

TestEnvironment::TestEnvironment()
{
    for (const QString &path : {home(), dataHome(), configHome(), runtimeStateDir(), runtimeDir(), volumesDir()})
        QDir().mkpath(path);
    qputenv("HOME", home().toUtf8());
    qputenv("XDG_DATA_HOME", dataHome().toUtf8());
    qputenv("XDG_CONFIG_HOME", configHome().toUtf8());
    qputenv("XDG_RUNTIME_DIR", runtimeStateDir().toUtf8());
    // The build version differs from the marketing one, so reading the wrong key shows.
    writeFile(resourceDir() + QStringLiteral("/Info.plist"),
              "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>com.tallyhold.agent.app</string>"
              "<key>CFBundleVersion</key><string>1.0.0</string>"
              "<key>CFBundleShortVersionString</key><string>1.0</string></dict></plist>");
}

Configuration TestEnvironment::configuration(const QUrl &agentBase) const
{
    Configuration config;
    config.setWebsiteBaseURL(QUrl(QStringLiteral("https://quillmere.example")));
    config.setAgentBaseURL(agentBase);
    config.homeDirectory = home();
    config.applicationSupportDirectory = dataHome();
    config.configDirectory = configHome();
    config.userDefaultsFile = configHome() + QStringLiteral("/com.tallyhold.agent.app.conf");
    config.runtimeStateDirectory = runtimeStateDir();
    config.resourceDirectory = resourceDir();
    config.infoPlistPath = resourceDir() + QStringLiteral("/Info.plist");
    config.executablePath = QStringLiteral(QUILLMERE_TEST_BINARY);
    config.volumeMountDirectory = volumesDir();
    config.launchctlPath = root() + QStringLiteral("/bin/launchctl");
    return config;
}

void TestEnvironment::writeScript(const QString &path, const QString &body)
{
    writeFile(path, "#!/bin/sh\n" + body.toUtf8());
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

QString TestEnvironment::shellQuoted(const QString &text)
{
    return QLatin1Char('\'') + QString(text).replace(QLatin1Char('\''), QStringLiteral("'\\''")) + QLatin1Char('\'');
}

QStringList TestEnvironment::logMessagesIn(const QString &file)
{
    QStringList messages;
    for (const QString &line : QString::fromUtf8(readFile(file)).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        messages.append(line.indexOf(QStringLiteral(" | ")) == 24 ? line.mid(27) : line);
    return messages;
}

QStringList TestEnvironment::logMessages() const
{
    AppLogger::shared().flush();
    return logMessagesIn(logsDir() + QStringLiteral("/menu-app.log"));
}

void TestEnvironment::markLog()
{
    mark_ = logMessages().size();
}

QStringList TestEnvironment::messagesSinceMark() const
{
    return logMessages().mid(mark_);
}
