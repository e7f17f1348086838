// The kernel's TCP socket tables (/proc/net/tcp and /proc/net/tcp6), read for who listens where.
#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <optional>

// The owner of the listening socket that a connection to address:port reaches, from the text of
// /proc/net/tcp, /proc/net/tcp6 or both one after the other: a socket bound to the address itself
// wins over one bound to every IPv4 address, which wins over one bound to every IPv6 address (it
// may refuse IPv4). None when no such socket listens.
std::optional<uint> listenerOwnerInTable(const QByteArray &table, const QHostAddress &address, quint16 port);
