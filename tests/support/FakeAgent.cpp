#include "support/FakeAgent.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

FakeAgent::FakeAgent()
{
    connect(&server_, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = server_.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                buffers_.remove(socket);
                socket->deleteLater();
            });
        }
    });
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

QList<RecordedRequest> FakeAgent::requestsFor(const QByteArray &path) const
{
    QList<RecordedRequest> matching;
    std::copy_if(requests_.begin(), requests_.end(), std::back_inserter(matching),
                 [&path](const RecordedRequest &request) { return request.path == path; });
    return matching;
}

void FakeAgent::onReadyRead(QTcpSocket *socket)
{
    QByteArray &buffer = buffers_[socket];
    buffer += socket->readAll();
    for (qsizetype headerEnd; (headerEnd = buffer.indexOf("\r\n\r\n")) >= 0;) {
        RecordedRequest request;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.path = requestLine.value(1);
        for (const QByteArray &line : lines.mid(1)) {
            if (const qsizetype colon = line.indexOf(':'); colon > 0)
                request.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        }
        const qsizetype contentLength = request.headers.value("content-length").toLongLong();
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
    const QByteArray bytes =
        "HTTP/1.1 " + QByteArray::number(response.status) + " Fake\r\nContent-Type: " + response.contentType +
        "\r\nContent-Length: " +
        QByteArray::number(response.announcedLength < 0 ? response.body.size() : response.announcedLength) +
        "\r\nConnection: close\r\n\r\n" + response.body;
    const auto send = [guarded = QPointer<QTcpSocket>(socket), bytes] {
        if (guarded) {
            guarded->write(bytes);
            guarded->disconnectFromHost();
        }
    };
    if (response.delayMs > 0)
        QTimer::singleShot(response.delayMs, this, send);
    else
        send();
}
