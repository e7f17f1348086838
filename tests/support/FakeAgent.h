// A real HTTP server on a free loopback port that stands in for the agent: it answers each path
// as the test tells it, can hold a connection open without answering, and records every request.
#pragma once

#include <QHash>
#include <QObject>
#include <QTcpServer>
#include <QUrl>

class QTcpSocket;

struct RecordedRequest {
    QByteArray method;
    QByteArray path;
    QHash<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;
};

struct CannedResponse {
    int status = 200;
    QByteArray body;
    QByteArray contentType = "application/json";
    bool hang = false;              // accept and read the request, never answer
    int delayMs = 0;                // answer after this long
    qsizetype announcedLength = -1; // a Content-Length other than the body's: the answer is cut off
};
Q_DECLARE_METATYPE(CannedResponse)

class FakeAgent : public QObject {
    Q_OBJECT
public:
    FakeAgent();
    ~FakeAgent() override;

    quint16 port() const { return server_.serverPort(); }
    QUrl baseURL() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port())); }

    void setResponse(const QByteArray &path, CannedResponse response) { responses_.insert(path, std::move(response)); }
    void setHealthy(const QString &version = QStringLiteral("1.4.2"))
    {
        setResponse("/healthz", {200, "{\"status\":\"ok\",\"version\":\"" + version.toUtf8() + "\"}"});
    }
    void setHealthDown() { setResponse("/healthz", {503, "{\"status\":\"down\"}"}); }

    QList<RecordedRequest> requestsFor(const QByteArray &path) const;
    int countFor(const QByteArray &path) const { return int(requestsFor(path).size()); }

signals:
    void requestReceived(const RecordedRequest &request);

private:
    void onReadyRead(QTcpSocket *socket);
    void respond(QTcpSocket *socket, const RecordedRequest &request);

    QTcpServer server_;
    QHash<QByteArray, CannedResponse> responses_;
    QHash<QTcpSocket *, QByteArray> buffers_;
    QList<RecordedRequest> requests_;
};
