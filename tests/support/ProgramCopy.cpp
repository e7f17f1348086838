#include "support/ProgramCopy.h"

#include <QDir>
#include <QFile>

ProgramCopy::ProgramCopy()
{
    QDir().mkpath(root() + QStringLiteral("/bin"));
    QDir().mkpath(runtimeDir());
    QDir().mkpath(home());
    QFile::copy(QStringLiteral(QUILLMERE_TEST_BINARY), binary());
    QFile::copy(QStringLiteral(QUILLMERE_BUILD_RESOURCES "/Info.plist"),
                root() + QStringLiteral("/share/quillmere-menu/Info.plist"));
}

QString ProgramCopy::logFile() const
{
    return home() + QStringLiteral("/.local/share/TallyholdAgent/runtime/logs/menu-app.log");
}

QProcessEnvironment ProgramCopy::environment(quint16 agentPort) const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), home());
    environment.insert(QStringLiteral("XDG_DATA_HOME"), home() + QStringLiteral("/.local/share"));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home() + QStringLiteral("/.config"));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), root() + QStringLiteral("/run"));
    environment.insert(QStringLiteral("QUILLMERE_AGENT_PORT"), QString::number(agentPort));
    environment.insert(QStringLiteral("QUILLMERE_VOLUMES_DIR"), root() + QStringLiteral("/volumes"));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    return environment;
}

void ProgramCopy::start(QProcess &process, quint16 agentPort, const QStringList &arguments) const
{
    process.setProcessEnvironment(environment(agentPort));
    process.setProgram(binary());
    process.setArguments(arguments);
    process.start();
}

QStringList ProgramCopy::logMessages() const
{
    QFile file(logFile());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList messages;
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines)
        messages.append(line.mid(27));
    return messages;
}
