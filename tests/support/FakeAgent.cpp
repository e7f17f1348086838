#include "support/FakeAgent.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

FakeAgent::FakeAgent(QObject *parent) : QObject(parent)
{
    connect(&server_, &QTcpServer::newConnection, this, &FakeAgent::onNewConnection);
    if (!server_.listen(QHostAddress::LocalHost, 0))
        qFatal("FakeAgent could not listen on loopback: %s", qPrintable(server_.errorString()));
}

FakeAgent::~FakeAgent()
{
    // Connections still open (a hanging answer) are children of the server, which outlives the
    // other members; closing them then must not call back into the already destroyed buffers.
    for (QTcpSocket *socket : server_.findChildren<QTcpSocket *>())
        socket->disconnect(this);
}

QUrl FakeAgent::baseURL() const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port()));
}

void FakeAgent::setResponse(const QByteArray &path, CannedResponse response)
{
    responses_.insert(path, std::move(response));
}

void FakeAgent::setHealthy(const QString &version)
{
    setResponse("/healthz", {200, QByteArray(R"({"status":"ok","version":")") + version.toUtf8() + "\"}"});
}

void FakeAgent::setHealthDown()
{
    setResponse("/healthz", {503, R"({"status":"down"})"});
}

void FakeAgent::close()
{
    server_.close();
}

QList<RecordedRequest> FakeAgent::requestsFor(const QByteArray &path) const
{
    QList<RecordedRequest> matching;
    for (const RecordedRequest &request : requests_) {
        if (request.path == path)
            matching.append(request);
    }
    return matching;
}

void FakeAgent::onNewConnection()
{
    while (QTcpSocket *socket = server_.nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            buffers_.remove(socket);
            socket->deleteLater();
        });
    }
}

void FakeAgent::onReadyRead(QTcpSocket *socket)
{
    QByteArray &buffer = buffers_[socket];
    buffer += socket->readAll();
    for (;;) {
        const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        RecordedRequest request;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.path = requestLine.value(1);
        qsizetype contentLength = 0;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines[i].trimmed();
            const qsizetype colon = line.indexOf(':');
            if (colon <= 0)
                continue;
            const QByteArray name = line.left(colon).trimmed();
            const QByteArray value = line.mid(colon + 1).trimmed();
            request.headers.append({name, value});
            if (name.compare("content-length", Qt::CaseInsensitive) == 0)
                contentLength = value.toLongLong();
        }
        if (buffer.size() < headerEnd + 4 + contentLength)
            return;
        request.body = buffer.mid(headerEnd + 4, contentLength);
        buffer.remove(0, headerEnd + 4 + contentLength);
        requests_.append(request);
        emit requestReceived(request);
        respond(socket, request);
    }
}

void FakeAgent::respond(QTcpSocket *socket, const RecordedRequest &request)
{
    const CannedResponse response = responses_.value(request.path, CannedResponse{404, "not found", "text/plain"});
    if (response.hang)
        return;
    QByteArray bytes = "HTTP/1.1 " + QByteArray::number(response.status) + " Fake\r\n";
    if (response.status != 204 && response.status != 304) {
        bytes += "Content-Type: " + response.contentType + "\r\n";
        bytes += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    }
    bytes += "Connection: close\r\n\r\n";
    if (response.status != 204 && response.status != 304)
        bytes += response.body;
    QPointer<QTcpSocket> guarded(socket);
    auto send = [guarded, bytes] {
        if (!guarded)
            return;
        guarded->write(bytes);
        guarded->disconnectFromHost();
    };
    if (response.delayMs > 0)
        QTimer::singleShot(response.delayMs, this, send);
    else
        send();
}
