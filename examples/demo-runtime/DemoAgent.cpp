#include "DemoAgent.h"

#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QTextStream>
#include <QTimer>

namespace {

constexpr qsizetype maxHeaderBytes = 16 * 1024;
constexpr qsizetype maxBodyBytes = 1024 * 1024;
// A client that neither finishes its request nor hangs up is dropped after this long.
constexpr int idleConnectionMs = 10000;

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 413:
        return "Payload Too Large";
    default:
        return "Error";
    }
}

QByteArray jsonBody(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QString isoUtc(const QDateTime &moment)
{
    return moment.toUTC().toString(Qt::ISODate);
}

} // namespace

void logLine(const QString &message)
{
    QTextStream out(stdout);
    out << isoUtc(QDateTime::currentDateTimeUtc()) << " | " << message << Qt::endl;
}

DemoAgent::DemoAgent(QString version, QObject *parent)
    : QObject(parent), version_(std::move(version)), startedAt_(QDateTime::currentDateTimeUtc())
{
    connect(&server_, &QTcpServer::newConnection, this, &DemoAgent::onNewConnection);
}

bool DemoAgent::listen(quint16 port)
{
    // Loopback only: nothing outside this machine may reach the agent.
    if (!server_.listen(QHostAddress::LocalHost, port))
        return false;
    logLine(QStringLiteral("quillmere-demo-agent %1 listening on 127.0.0.1:%2").arg(version_).arg(port));
    return true;
}

void DemoAgent::onNewConnection()
{
    while (QTcpSocket *socket = server_.nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            buffers_.remove(socket);
            socket->deleteLater();
        });
        QTimer::singleShot(idleConnectionMs, socket, [socket] { socket->abort(); });
    }
}

void DemoAgent::onReadyRead(QTcpSocket *socket)
{
    QByteArray &buffer = buffers_[socket];
    buffer += socket->readAll();
    const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
    // The header may fill the limit, its blank line aside, in one piece or in many.
    if (headerEnd > maxHeaderBytes || (headerEnd < 0 && buffer.size() > maxHeaderBytes + 3)) {
        send(socket, {413, "text/plain", "request header too large\n"});
        return;
    }
    if (headerEnd < 0)
        return;

    Request request;
    const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    if (requestLine.size() < 2) {
        send(socket, {400, "text/plain", "malformed request line\n"});
        return;
    }
    request.method = requestLine[0];
    request.path = requestLine[1].split('?').value(0);
    qsizetype contentLength = 0;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().compare("content-length", Qt::CaseInsensitive) == 0)
            contentLength = line.mid(colon + 1).trimmed().toLongLong();
    }
    if (contentLength < 0 || contentLength > maxBodyBytes) {
        send(socket, {413, "text/plain", "request body too large\n"});
        return;
    }
    if (buffer.size() < headerEnd + 4 + contentLength)
        return; // the rest of the body is still on its way
    request.body = buffer.mid(headerEnd + 4, contentLength);
    send(socket, handle(request));
}

DemoAgent::Response DemoAgent::handle(const Request &request)
{
    const bool get = request.method == "GET";
    if (request.path == "/healthz")
        return get ? healthz() : Response{405, "text/plain", "use GET\n"};
    if (request.path == "/api/mounted-volumes/cache-sync")
        return request.method == "POST" ? acceptSnapshot(request.body) : Response{405, "text/plain", "use POST\n"};
    if (request.path == "/" || request.path == "/index.html")
        return get ? adminPage() : Response{405, "text/plain", "use GET\n"};
    return {404, "text/plain", "not found\n"};
}

DemoAgent::Response DemoAgent::healthz() const
{
    return {200, "application/json",
            jsonBody({{QStringLiteral("status"), QStringLiteral("ok")}, {QStringLiteral("version"), version_}})};
}

DemoAgent::Response DemoAgent::acceptSnapshot(const QByteArray &body)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return {400, "application/json",
                jsonBody({{QStringLiteral("ok"), false},
                          {QStringLiteral("error"), QStringLiteral("expected a JSON object")}})};
    lastSnapshot_ = body;
    lastSnapshotAt_ = QDateTime::currentDateTimeUtc();
    ++snapshotCount_;
    const QJsonObject snapshot = document.object();
    logLine(QStringLiteral("Volume snapshot received: event=%1 volumes=%2")
                .arg(snapshot.value(QStringLiteral("event")).toString())
                .arg(snapshot.value(QStringLiteral("volumes")).toArray().size()));
    return {200, "application/json", jsonBody({{QStringLiteral("ok"), true}})};
}

DemoAgent::Response DemoAgent::adminPage() const
{
    QString snapshot = QStringLiteral("<p>No volume snapshot received yet.</p>");
    if (snapshotCount_ > 0) {
        const QString pretty =
            QString::fromUtf8(QJsonDocument::fromJson(lastSnapshot_).toJson(QJsonDocument::Indented));
        snapshot = QStringLiteral("<p>Received %1 (%2 in total).</p>\n<pre>%3</pre>")
                       .arg(isoUtc(lastSnapshotAt_))
                       .arg(snapshotCount_)
                       .arg(pretty.toHtmlEscaped());
    }
    const QString html =
        QStringLiteral(R"(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="refresh" content="5">
<title>Quillmere demo agent</title>
<style>
body { font-family: system-ui, sans-serif; margin: 2rem; max-width: 48rem; color: #1d2430; }
dt { font-weight: 600; } dd { margin: 0 0 .6rem 0; }
pre { background: #f3f5f8; padding: 1rem; border-radius: 6px; overflow-x: auto; }
.ok { color: #1a7f37; }
</style>
</head>
<body>
<h1>Quillmere demo agent</h1>
<dl>
<dt>State</dt><dd class="ok">Running</dd>
<dt>Version</dt><dd>%1</dd>
<dt>Started</dt><dd>%2</dd>
<dt>Listening on</dt><dd>127.0.0.1:%3</dd>
</dl>
<h2>Last mounted-volume snapshot</h2>
%4
</body>
</html>
)")
            .arg(version_.toHtmlEscaped(), isoUtc(startedAt_), QString::number(server_.serverPort()), snapshot);
    return {200, "text/html; charset=utf-8", html.toUtf8()};
}

void DemoAgent::send(QTcpSocket *socket, const Response &response)
{
    QByteArray bytes = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reasonPhrase(response.status) + "\r\n";
    bytes += "Content-Type: " + response.contentType + "\r\n";
    bytes += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    bytes += "Cache-Control: no-store\r\n";
    bytes += "Connection: close\r\n\r\n";
    bytes += response.body;
    socket->write(bytes);
    socket->disconnectFromHost();
}
