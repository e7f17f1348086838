// A real HTTP server on a free loopback port that stands in for the agent: it answers each path
// as the test tells it, can hold a connection open without answering, and records every request.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>
#include <QUrl>
#include <functional>

class QTcpSocket;

struct RecordedRequest {
    QByteArray method;
    QByteArray path;
    QList<QPair<QByteArray, QByteArray>> headers; // in the order received, names as sent
    QByteArray body;

    QByteArray header(const QByteArray &name) const;
};

struct CannedResponse {
    int status = 200;
    QByteArray body;
    QByteArray contentType = "application/json";
    bool hang = false; // accept and read the request, never answer
    int delayMs = 0;   // answer after this long
};

class FakeAgent : public QObject {
    Q_OBJECT
public:
    explicit FakeAgent(QObject *parent = nullptr);
    ~FakeAgent() override;

    quint16 port() const { return server_.serverPort(); }
    QUrl baseURL() const;

    void setResponse(const QByteArray &path, CannedResponse response);
    // Convenience for /healthz.
    void setHealthy(const QString &version = QStringLiteral("1.4.2"));
    void setHealthDown();
    // Stops listening: connections are then refused.
    void close();

    const QList<RecordedRequest> &requests() const { return requests_; }
    QList<RecordedRequest> requestsFor(const QByteArray &path) const;
    int countFor(const QByteArray &path) const { return int(requestsFor(path).size()); }
    void clearRequests() { requests_.clear(); }

signals:
    void requestReceived(const RecordedRequest &request);

private:
    void onNewConnection();
    void onReadyRead(QTcpSocket *socket);
    void respond(QTcpSocket *socket, const RecordedRequest &request);

    QTcpServer server_;
    QHash<QByteArray, CannedResponse> responses_;
    QHash<QTcpSocket *, QByteArray> buffers_;
    QList<RecordedRequest> requests_;
};
