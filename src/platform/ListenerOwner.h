// Who holds the socket listening on a loopback port: any local user may bind the agent's port
// while the agent is down, and that user's program must not be taken for the agent.
#pragma once

#include <QHostAddress>
#include <QtGlobal>
#include <optional>

// The user id owning the listening socket that takes connections to address:port; none when the
// system does not tell (macOS) or nothing listens there now.
std::optional<uint> listenerOwner(const QHostAddress &address, quint16 port);
