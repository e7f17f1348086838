#include "TrayProgram.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

TrayProgram::TrayProgram() : workDir_(installed_.root() + QStringLiteral("/test"))
{
    QDir().mkpath(workDir_);
    const QString calls = workDir_ + QStringLiteral("/control-calls");
    const QString gate = workDir_ + QStringLiteral("/gate-");
    InstalledProgram::writeExecutable(installed_.controlScript(),
                                      QStringLiteral("echo \"$1\" >> '%1'\n"
                                                     "while [ ! -e '%2'\"$1\" ]; do sleep 0.02; done\n"
                                                     "code=$(cat '%2'\"$1\")\n"
                                                     "rm -f '%2'\"$1\"\n"
                                                     "exit \"$code\"\n")
                                          .arg(calls, gate));
    // The tray needs the test's display and session bus.
    installed_.runOnDesktop(true);
}

void TrayProgram::start(quint16 agentPort)
{
    process_ = installed_.start(agentPort, {}, user);
}

QStringList TrayProgram::controlCalls() const
{
    QFile file(workDir_ + QStringLiteral("/control-calls"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
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

QString TrayProgram::autostartEntry() const
{
    return installed_.configHomeOf(user) + QStringLiteral("/autostart/com.tallyhold.agent.app.desktop");
}
