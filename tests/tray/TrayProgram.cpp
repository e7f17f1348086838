#include "TrayProgram.h"

#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

TrayProgram::TrayProgram() : workDir_(copy_.root() + QStringLiteral("/test"))
{
    QDir().mkpath(workDir_ + QStringLiteral("/bin"));
    const QString calls = workDir_ + QStringLiteral("/control-calls");
    const QString gate = workDir_ + QStringLiteral("/gate-");
    TestEnvironment::writeScript(copy_.runtimeDir() + QStringLiteral("/agentctl.sh"),
                                 QStringLiteral("echo \"$1\" >> '%1'\n"
                                                "while [ ! -e '%2'\"$1\" ]; do sleep 0.02; done\n"
                                                "code=$(cat '%2'\"$1\")\n"
                                                "rm -f '%2'\"$1\"\n"
                                                "exit \"$code\"\n")
                                     .arg(calls, gate));
    TestEnvironment::writeScript(workDir_ + QStringLiteral("/bin/xdg-open"),
                                 QStringLiteral("echo \"$1\" >> '%1'\n").arg(workDir_ + QStringLiteral("/opened")));
}

TrayProgram::~TrayProgram()
{
    if (process_.state() != QProcess::NotRunning) {
        process_.kill();
        process_.waitForFinished(5000);
    }
}

void TrayProgram::start(quint16 agentPort)
{
    QProcessEnvironment environment = copy_.environment(agentPort);
    // DISPLAY and the session bus stay those of the test, so the icon reaches its host.
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    environment.insert(QStringLiteral("PATH"),
                       workDir_ + QStringLiteral("/bin:") + environment.value(QStringLiteral("PATH")));
    process_.setProcessEnvironment(environment);
    process_.setProgram(copy_.binary());
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_.start();
}

QStringList TrayProgram::readLines(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QStringList TrayProgram::controlCalls() const
{
    return readLines(workDir_ + QStringLiteral("/control-calls"));
}

void TrayProgram::finishControlCall(const QString &argument, int exitCode) const
{
    // Written aside and renamed, so the script never reads a half-written code.
    QSaveFile gate(workDir_ + QStringLiteral("/gate-") + argument);
    if (gate.open(QIODevice::WriteOnly)) {
        gate.write(QByteArray::number(exitCode));
        gate.commit();
    }
}

QStringList TrayProgram::openedLocations() const
{
    return readLines(workDir_ + QStringLiteral("/opened"));
}

QString TrayProgram::autostartEntry() const
{
    return copy_.home() + QStringLiteral("/.config/autostart/com.tallyhold.agent.app.desktop");
}
