#include "control/ControlProtocol.h"

#include "app/Configuration.h"
#include "control/CommandLine.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <unistd.h>

QByteArray encodeControlMessage(const QJsonObject &message)
{
    return QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray encodeControlRequest(const ControlRequest &request)
{
    QJsonObject message{{QStringLiteral("command"), request.command}};
    if (!request.page.isEmpty())
        message.insert(QStringLiteral("page"), request.page);
    return encodeControlMessage(message);
}

std::variant<ControlRequest, QString> decodeControlRequest(const QByteArray &line)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(line, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return QStringLiteral("not a JSON object");
    const QJsonObject message = document.object();
    ControlRequest request{message.value(QStringLiteral("command")).toString(),
                           message.value(QStringLiteral("page")).toString()};
    static const QStringList commands = {
        ControlCommand::status, ControlCommand::startAgent,     ControlCommand::stopAgent, ControlCommand::open,
        ControlCommand::quit,   ControlCommand::alreadyRunning, ControlCommand::watch};
    if (!commands.contains(request.command))
        return QStringLiteral("unknown command");
    if ((request.command == ControlCommand::open) != pageNames().contains(request.page))
        return request.command == ControlCommand::open ? QStringLiteral("unknown page")
                                                       : QStringLiteral("a page where none goes");
    return request;
}

QJsonObject decodeControlReply(const QByteArray &line)
{
    return QJsonDocument::fromJson(line).object();
}

QString controlSocketPath(const Configuration &configuration)
{
    const QString &runtime = configuration.runtimeStateDirectory;
    const QFileInfo runtimeInfo(runtime);
    const QString name = configuration.bundleIdentifier;
    if (!runtime.isEmpty() && runtimeInfo.isDir() && runtimeInfo.isWritable())
        return runtime + QLatin1Char('/') + name + QStringLiteral(".socket");
    return QDir::tempPath() + QLatin1Char('/') + name + QLatin1Char('-') + QString::number(::getuid()) +
           QStringLiteral(".socket");
}
