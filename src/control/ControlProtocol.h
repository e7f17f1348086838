// What a command and the running program say to each other over the local channel: one JSON
// object on one line each way, so that a half-written or oversized request is plain to see.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <variant>

struct Configuration;

namespace ControlCommand {
inline const QString status = QStringLiteral("status");
inline const QString startAgent = QStringLiteral("start-agent");
inline const QString stopAgent = QStringLiteral("stop-agent");
inline const QString open = QStringLiteral("open");
inline const QString quit = QStringLiteral("quit");
// Answered with the status at once and again on every change, until either side goes; the
// program's last line before it exits is a "quit" reply.
inline const QString watch = QStringLiteral("watch");
// A second copy of the program, leaving, asks the first to tell the user it already runs.
inline const QString alreadyRunning = QStringLiteral("already-running");
} // namespace ControlCommand

struct ControlRequest {
    QString command;
    QString page; // for open

    friend bool operator==(const ControlRequest &, const ControlRequest &) = default;
};

// A request is a few dozen bytes; a longer one is refused before it is read whole.
constexpr qsizetype maximumControlRequestSize = 1024;

// One message as it goes over the channel: compact JSON and a line feed.
QByteArray encodeControlMessage(const QJsonObject &message);
QByteArray encodeControlRequest(const ControlRequest &request);
// The request on one line (its line feed removed), or why it is refused.
std::variant<ControlRequest, QString> decodeControlRequest(const QByteArray &line);
// A reply line from the running program; an empty object when it is not one.
QJsonObject decodeControlReply(const QByteArray &line);

// Where the channel is: beside the instance lock, in the session's runtime folder while it is a
// folder this user can write to, else in the temporary folder under a name that carries the user id.
QString controlSocketPath(const Configuration &configuration);
