// A real HTTP server on a free loopback port that stands in for the agent: it answers each path
// as the test tells it, can hold a connection open without answering, and records every request.
#pragma once

#include <QHash>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>

using namespace Qt::StringLiterals;

struct RecordedRequest {
    QByteArray method, path, body;
    QHash<QByteArray, QByteArray> headers; // names in lower case
};

struct CannedResponse {
    int status = 200;
    QByteArray body;
    QByteArray contentType = "application/json";
    bool hang = false;              // accept and read the request, never answer
    int delayMs = 0;                // answer after this long
    qsizetype announcedLength = -1; // a Content-Length other than the body's: the answer is cut off
    QByteArray location = {};       // where a redirection sends the asker
};
Q_DECLARE_METATYPE(CannedResponse)

class FakeAgent : public QObject {
    Q_OBJECT
public:
    FakeAgent()
    {
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = server_.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
        if (!server_.listen(QHostAddress::LocalHost, 0))
            qFatal("FakeAgent could not listen on loopback: %s", qPrintable(server_.errorString()));
    }

    quint16 port() const { return server_.serverPort(); }
    QUrl baseURL() const { return QUrl(u"http://127.0.0.1:%1"_s.arg(port())); }

    void setResponse(const QByteArray &path, CannedResponse response) { responses_.insert(path, std::move(response)); }
    void setHealthy(const QString &version = u"1.4.2"_s)
    {
        setResponse("/healthz", {200, "{\"status\":\"ok\",\"version\":\"" + version.toUtf8() + "\"}"});
    }
    void setHealthDown() { setResponse("/healthz", {503, "{\"status\":\"down\"}"}); }

    QList<RecordedRequest> requestsFor(const QByteArray &path) const
    {
        QList<RecordedRequest> matching = requests_;
        matching.removeIf([&path](const RecordedRequest &request) { return request.path != path; });
        return matching;
    }
    int countFor(const QByteArray &path) const { return int(requestsFor(path).size()); }

signals:
    void requestReceived(const RecordedRequest &request);

private:
    // A request stays in the socket's buffer until the whole of it has come.
    void onReadyRead(QTcpSocket *socket)
    {
        const QByteArray buffer = socket->peek(socket->bytesAvailable());
        const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        RecordedRequest request{requestLine.value(0), requestLine.value(1), {}, {}};
        for (const QByteArray &line : lines.mid(1))
            if (const qsizetype colon = line.indexOf(':'); colon > 0)
                request.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        const qsizetype length = headerEnd + 4 + request.headers.value("content-length").toLongLong();
        if (buffer.size() < length)
            return;
        request.body = socket->read(length).mid(headerEnd + 4);
        requests_.append(request);
        emit requestReceived(request);
        const CannedResponse response = responses_.value(request.path, CannedResponse{404, "not found", "text/plain"});
        if (response.hang)
            return;
        const QByteArray bytes =
            "HTTP/1.1 " + QByteArray::number(response.status) + " Fake\r\nContent-Type: " + response.contentType +
            (response.location.isEmpty() ? QByteArray() : "\r\nLocation: " + response.location) +
            "\r\nContent-Length: " +
            QByteArray::number(response.announcedLength < 0 ? response.body.size() : response.announcedLength) +
            "\r\nConnection: close\r\n\r\n" + response.body;
        QTimer::singleShot(response.delayMs, socket, [socket, bytes] {
            socket->write(bytes);
            socket->disconnectFromHost();
        });
    }

    QHash<QByteArray, CannedResponse> responses_;
    QList<RecordedRequest> requests_;
    QTcpServer server_; // last, so that its connections close before what they use goes
};
