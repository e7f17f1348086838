// The running program's end of the local channel: a socket beside the instance lock that only
// this user reaches, one request per connection, answered without ever holding up the menu.
#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QLocalServer>
#include <QObject>
#include <QString>
#include <QTimer>

class AppDelegate;
class QLocalSocket;

// One client of the channel, alive as long as its socket: the deadline for its request, whether
// that request has been read, and for a watch what it was last told.
class ControlConnection : public QObject {
    Q_OBJECT
public:
    explicit ControlConnection(QLocalSocket *socket);

    QLocalSocket *socket() const;
    // The request has been read: the deadline no longer runs and later bytes are dropped.
    void stopReading();
    bool answering() const { return answering_; }
    bool watching() const { return !lastSent_.isEmpty(); }
    // Sends the status when it differs from the one this watcher was last sent.
    void sendIfChanged(const QJsonObject &status);

    QTimer deadline;

private:
    bool answering_ = false;
    QJsonObject lastSent_;
};

class ControlServer : public QObject {
    Q_OBJECT
public:
    // Listens at socketPath once the launch has found no other copy; a duplicate instead asks the
    // copy that runs to tell the user so.
    ControlServer(AppDelegate &delegate, QString socketPath, QObject *parent = nullptr);
    // Tells every watcher that the program is going, so that a connection closing without this is
    // known for a broken channel.
    ~ControlServer() override;

    // Replaces a socket left by a copy that ended without removing it (this copy holds the
    // instance lock, so nobody else listens there). False, logged, when that cannot be done safely.
    bool listen();

private:
    void acceptConnections();
    void readRequest(ControlConnection *connection);
    void watch(ControlConnection *connection);
    void refuse(ControlConnection *connection, const QString &reason, bool answer);

    AppDelegate &delegate_;
    QString socketPath_;
    QLocalServer server_;
    int openConnections_ = 0;
    int connectionsHeldUntilExit_ = 0;
    QElapsedTimer sinceRefusalLogged_;
};

// Asks the copy that runs to tell the user that another launch found it; waits a moment at most.
void askRunningCopyToShowItself(const QString &socketPath);
