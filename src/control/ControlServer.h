// The running program's end of the local channel: a socket beside the instance lock that only
// this user reaches, one request per connection, answered without ever holding up the menu.
#pragma once

#include <QElapsedTimer>
#include <QLocalServer>
#include <QObject>
#include <QString>

class AppDelegate;
class QLocalSocket;

class ControlServer : public QObject {
    Q_OBJECT
public:
    // Listens at socketPath once the launch has found no other copy; a duplicate instead asks the
    // copy that runs to tell the user so.
    ControlServer(AppDelegate &delegate, QString socketPath, QObject *parent = nullptr);

    // Replaces a socket left by a copy that ended without removing it (this copy holds the
    // instance lock, so nobody else listens there). False, logged, when that cannot be done safely.
    bool listen();

private:
    void acceptConnections();
    void readRequest(QLocalSocket *socket);
    void refuse(QLocalSocket *socket, const QString &reason, bool answer);

    AppDelegate &delegate_;
    QString socketPath_;
    QLocalServer server_;
    int openConnections_ = 0;
    int connectionsHeldUntilExit_ = 0;
    QElapsedTimer sinceRefusalLogged_;
};

// Asks the copy that runs to tell the user that another launch found it; waits a moment at most.
void askRunningCopyToShowItself(const QString &socketPath);
