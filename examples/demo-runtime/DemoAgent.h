// A stand-in for the real agent: a tiny HTTP server on the loopback interface that reports its
// health, keeps the last mounted-volume snapshot it was sent and shows both on an admin page.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QTcpServer>

class QTcpSocket;

// One time-stamped line on standard output, which agentctl.sh sends to agent.log.
void logLine(const QString &message);

class DemoAgent : public QObject {
public:
    explicit DemoAgent(QString version, QObject *parent = nullptr);

    bool listen(quint16 port);
    QString errorString() const { return server_.errorString(); }

private:
    struct Request {
        QByteArray method;
        QByteArray path;
        QByteArray body;
    };
    struct Response {
        int status = 200;
        QByteArray contentType;
        QByteArray body;
    };

    void onNewConnection();
    void onReadyRead(QTcpSocket *socket);
    Response handle(const Request &request);
    Response healthz() const;
    Response acceptSnapshot(const QByteArray &body);
    Response adminPage() const;
    static void send(QTcpSocket *socket, const Response &response);

    QTcpServer server_;
    QHash<QTcpSocket *, QByteArray> buffers_;
    const QString version_;
    const QDateTime startedAt_;
    QByteArray lastSnapshot_;
    QDateTime lastSnapshotAt_;
    int snapshotCount_ = 0;
};
