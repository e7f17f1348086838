#include "support/TestEnvironment.h"

#include "app/log/AppLogger.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTest>

TestEnvironment::TestEnvironment()
{
    if (!dir_.isValid())
        qFatal("no temporary folder");
    for (const QString &path : {home(), dataHome(), configHome(), runtimeStateDir(), runtimeDir(), volumesDir()})
        QDir().mkpath(path);
    qputenv("HOME", home().toUtf8());
    qputenv("XDG_DATA_HOME", dataHome().toUtf8());
    qputenv("XDG_CONFIG_HOME", configHome().toUtf8());
    qputenv("XDG_RUNTIME_DIR", runtimeStateDir().toUtf8());
    writeInfoPlist(QStringLiteral("1.0.0"));
}

Configuration TestEnvironment::configuration(const QUrl &agentBase) const
{
    Configuration config;
    config.setWebsiteBaseURL(QUrl(QStringLiteral("https://quillmere.example")));
    config.setAgentBaseURL(agentBase);
    config.homeDirectory = home();
    config.applicationSupportDirectory = dataHome();
    config.configDirectory = configHome();
    config.runtimeStateDirectory = runtimeStateDir();
    config.resourceDirectory = resourceDir();
    config.infoPlistPath = resourceDir() + QStringLiteral("/Info.plist");
    config.executablePath = QStringLiteral(QUILLMERE_TEST_BINARY);
    config.volumeMountDirectory = volumesDir();
    config.launchctlPath = root() + QStringLiteral("/bin/launchctl");
    return config;
}

void TestEnvironment::writeInfoPlist(const QString &bundleVersion, const QString &shortVersion,
                                     const QString &identifier) const
{
    QString text = QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n");
    auto add = [&text](const char *key, const QString &value) {
        if (!value.isNull())
            text += QStringLiteral("  <key>%1</key>\n  <string>%2</string>\n")
                        .arg(QLatin1String(key), value.toHtmlEscaped());
    };
    add("CFBundleIdentifier", identifier);
    add("CFBundleVersion", bundleVersion);
    add("CFBundleShortVersionString", shortVersion);
    text += QStringLiteral("</dict>\n</plist>\n");
    QFile file(resourceDir() + QStringLiteral("/Info.plist"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        qFatal("cannot write Info.plist");
    file.write(text.toUtf8());
}

void TestEnvironment::writeScript(const QString &path, const QString &body)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        qFatal("cannot write script %s", qPrintable(path));
    file.write("#!/bin/sh\n" + body.toUtf8());
    file.close();
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                        QFileDevice::ReadGroup | QFileDevice::ExeGroup);
}

QString TestEnvironment::shellQuoted(const QString &text)
{
    QString quoted = text;
    quoted.replace(QLatin1Char('\''), QStringLiteral("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

QStringList TestEnvironment::logMessages() const
{
    AppLogger::shared().flush();
    QFile file(logFile());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList messages;
    const QString text = QString::fromUtf8(file.readAll());
    const QStringList lines = text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines) {
        const qsizetype separator = line.indexOf(QStringLiteral(" | "));
        messages.append(separator == 24 ? line.mid(27) : line);
    }
    return messages;
}

void TestEnvironment::markLog()
{
    mark_ = logMessages().size();
}

QStringList TestEnvironment::messagesSinceMark() const
{
    return logMessages().mid(mark_);
}

bool TestEnvironment::waitForLogMessage(const QString &message, int timeoutMs, bool prefix) const
{
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        for (const QString &line : messagesSinceMark()) {
            if (prefix ? line.startsWith(message) : line == message)
                return true;
        }
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
}
