// Who is at the other end of the local channel, whose its socket file is, and a user's name.
#pragma once

#include <QString>
#include <QtGlobal>
#include <optional>

// The user id of the process connected to a local stream socket; none when the system does not say.
std::optional<uint> peerUserId(qintptr socketDescriptor);
// The user id that owns the file at path itself (a link is not followed); none when nothing is there.
std::optional<uint> fileOwnerId(const QString &path);
// The login name of a user id; empty when the account database does not know it.
QString userName(uint userId);
// Keeps the connection's descriptor open until this process ends (the system closes it then), so
// that the peer learns of the exit itself, after everything that runs on the way out.
void holdOpenUntilExit(qintptr socketDescriptor);
