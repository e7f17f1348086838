#include "control/ControlServer.h"

#include "app/AppDelegate.h"
#include "app/log/AppLogger.h"
#include "control/ControlCommands.h"
#include "platform/LocalPeer.h"

#include <QLocalSocket>
#include <QPointer>
#include <QTimer>
#include <unistd.h>

namespace {

// A request is written in one go; a peer that has not finished one by then is not going to.
constexpr int requestDeadlineMs = 2000;
// Far more than one user types or scripts at once; a flood beyond it is turned away at the door.
constexpr int maximumOpenConnections = 64;
// A quit is answered when the program has gone; a handful of askers is plenty to wait for.
constexpr int maximumHeldUntilExit = 16;
// One line tells that something is knocking; a flood of bad requests does not flood the log.
constexpr qint64 refusalLogIntervalMs = 60000;

} // namespace

ControlConnection::ControlConnection(QLocalSocket *socket) : QObject(socket)
{
    deadline.setSingleShot(true);
}

QLocalSocket *ControlConnection::socket() const
{
    return static_cast<QLocalSocket *>(parent());
}

void ControlConnection::stopReading()
{
    answering_ = true;
    deadline.stop();
}

void ControlConnection::sendIfChanged(const QJsonObject &status)
{
    if (status == lastSent_)
        return;
    lastSent_ = status;
    socket()->write(encodeControlMessage(status));
}

ControlServer::ControlServer(AppDelegate &delegate, QString socketPath, QObject *parent)
    : QObject(parent), delegate_(delegate), socketPath_(std::move(socketPath))
{
    connect(&server_, &QLocalServer::newConnection, this, &ControlServer::acceptConnections);
    connect(&delegate_, &AppDelegate::instanceChecked, this, [this](bool duplicate) {
        if (duplicate)
            askRunningCopyToShowItself(socketPath_);
        else
            listen();
    });
}

bool ControlServer::listen()
{
    if (const auto owner = fileOwnerId(socketPath_)) {
        if (*owner != ::getuid()) {
            AppLogger::shared().log(QStringLiteral("Control socket ") + socketPath_ +
                                    QStringLiteral(" belongs to another user and is not trusted; commands cannot "
                                                   "reach this program."));
            return false;
        }
        QLocalServer::removeServer(socketPath_);
    }
    server_.setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_.listen(socketPath_)) {
        AppLogger::shared().log(QStringLiteral("Control socket cannot listen at ") + socketPath_ +
                                QStringLiteral(": ") + server_.errorString());
        return false;
    }
    return true;
}

void ControlServer::acceptConnections()
{
    while (QLocalSocket *socket = server_.nextPendingConnection()) {
        const auto peer = peerUserId(socket->socketDescriptor());
        auto *connection = new ControlConnection(socket);
        if (!peer || *peer != ::getuid()) {
            refuse(connection, QStringLiteral("a process of another user"), false);
            continue;
        }
        if (openConnections_ >= maximumOpenConnections) {
            refuse(connection, QStringLiteral("too many connections at once"), false);
            continue;
        }
        ++openConnections_;
        connect(socket, &QObject::destroyed, this, [this] { --openConnections_; });
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        // Past the limit Qt stops reading, so an endless line costs no memory.
        socket->setReadBufferSize(maximumControlRequestSize + 1);
        connect(&connection->deadline, &QTimer::timeout, connection,
                [this, connection] { refuse(connection, QStringLiteral("request not complete in time"), false); });
        connection->deadline.start(requestDeadlineMs);
        connect(socket, &QLocalSocket::readyRead, connection, [this, connection] { readRequest(connection); });
        readRequest(connection);
    }
}

void ControlServer::readRequest(ControlConnection *connection)
{
    QLocalSocket *socket = connection->socket();
    if (connection->answering()) {
        socket->readAll(); // one request per connection; what follows it is ignored
        return;
    }
    if (!socket->canReadLine()) {
        if (socket->bytesAvailable() > maximumControlRequestSize)
            refuse(connection, QStringLiteral("request too long"), true);
        return;
    }
    const QByteArray line = socket->readLine().chopped(1);
    connection->stopReading();
    const auto decoded = decodeControlRequest(line);
    if (const QString *problem = std::get_if<QString>(&decoded)) {
        refuse(connection, *problem, true);
        return;
    }
    const ControlRequest request = std::get<ControlRequest>(decoded);
    if (request.command == ControlCommand::watch) {
        watch(connection);
        return;
    }
    performControlRequest(
        delegate_, request, socket, [this, socket = QPointer<QLocalSocket>(socket), request](const QJsonObject &reply) {
            if (!socket || socket->state() != QLocalSocket::ConnectedState)
                return;
            socket->write(encodeControlMessage(reply));
            if (reply.value(QStringLiteral("reply")).toString() != QLatin1String("accepted")) {
                socket->disconnectFromServer();
            } else if (request.command == ControlCommand::quit && connectionsHeldUntilExit_ < maximumHeldUntilExit) {
                socket->flush();
                holdOpenUntilExit(socket->socketDescriptor());
                ++connectionsHeldUntilExit_;
            }
        });
}

// The watcher hears of the state the moment the menu shows it, and of a start or stop ending;
// nothing runs for it in between, so an idle watch costs the program no wake-up.
void ControlServer::watch(ControlConnection *connection)
{
    const auto push = [this, connection] { connection->sendIfChanged(controlStatus(delegate_, true)); };
    connect(&delegate_, &AppDelegate::stateMenuUpdated, connection, push);
    connect(&delegate_, &AppDelegate::agentCommandFinished, connection, push);
    push();
}

ControlServer::~ControlServer()
{
    for (ControlConnection *connection : server_.findChildren<ControlConnection *>()) {
        if (connection->watching() && connection->socket()->state() == QLocalSocket::ConnectedState) {
            connection->socket()->write(encodeControlMessage({{QStringLiteral("reply"), QStringLiteral("quit")}}));
            connection->socket()->flush();
        }
    }
}

void ControlServer::refuse(ControlConnection *connection, const QString &reason, bool answer)
{
    QLocalSocket *socket = connection->socket();
    if (!sinceRefusalLogged_.isValid() || sinceRefusalLogged_.hasExpired(refusalLogIntervalMs)) {
        sinceRefusalLogged_.start();
        AppLogger::shared().log(QStringLiteral("Control request refused: ") + reason + u'.');
    }
    connection->stopReading();
    if (answer) {
        socket->write(encodeControlMessage(
            {{QStringLiteral("reply"), QStringLiteral("error")}, {QStringLiteral("message"), reason}}));
        socket->disconnectFromServer();
    } else {
        socket->abort();
    }
    if (socket->state() == QLocalSocket::UnconnectedState)
        socket->deleteLater();
}

void askRunningCopyToShowItself(const QString &socketPath)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath);
    if (!socket.waitForConnected(1000))
        return;
    socket.write(encodeControlRequest({ControlCommand::alreadyRunning, {}}));
    socket.waitForBytesWritten(1000);
    socket.waitForReadyRead(1000);
}
