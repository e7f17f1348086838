// Finding who owns a listening socket in the kernel's TCP tables, and reading those tables.
#include "platform/linux/ListeningSockets.h"

#include "platform/ListenerOwner.h"

#include <QFile>
#include <cstring>

namespace {

const QByteArray listenState = "0A";

// The table writes an address as 8 (IPv4) or 32 (IPv6) hex digits, each group of 8 being a 32-bit
// word in the kernel's byte order, which is this machine's. An IPv4 address comes back mapped into
// IPv6, as QHostAddress gives it.
std::optional<Q_IPV6ADDR> tableAddress(const QByteArray &hex)
{
    if (hex.size() != 8 && hex.size() != 32)
        return std::nullopt;
    Q_IPV6ADDR address{};
    quint8 *bytes = address.c;
    if (hex.size() == 8) {
        address.c[10] = address.c[11] = 0xff;
        bytes += 12;
    }
    for (qsizetype group = 0; group < hex.size() / 8; ++group) {
        bool ok = false;
        const quint32 word = hex.mid(group * 8, 8).toUInt(&ok, 16);
        if (!ok)
            return std::nullopt;
        std::memcpy(bytes + 4 * group, &word, sizeof word);
    }
    return address;
}

bool operator==(const Q_IPV6ADDR &left, const Q_IPV6ADDR &right)
{
    return std::memcmp(left.c, right.c, sizeof left.c) == 0;
}

} // namespace

std::optional<uint> listenerOwnerInTable(const QByteArray &table, const QHostAddress &address, quint16 port)
{
    // A host name, not an address, would read as "::" here.
    if (address.isNull())
        return std::nullopt;
    const Q_IPV6ADDR wanted = address.toIPv6Address();
    const bool wantedIsIPv4 = address.protocol() == QAbstractSocket::IPv4Protocol;
    const Q_IPV6ADDR anyIPv4 = *tableAddress("00000000"), anyIPv6{};

    std::optional<uint> owner;
    int bestRank = 0;
    for (const QByteArray &line : table.split('\n')) {
        // sl, local address:port, remote address:port, state, queues, timer, retransmits, uid, ...
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.value(3) != listenState) // a line cut short has no uid below, and is passed over there
            continue;
        const QList<QByteArray> local = fields[1].split(':');
        bool portOk = false, uidOk = false;
        if (local.size() != 2 || local[1].toUShort(&portOk, 16) != port || !portOk)
            continue;
        const std::optional<Q_IPV6ADDR> bound = tableAddress(local[0]);
        const uint uid = fields.value(7).toUInt(&uidOk);
        if (!bound || !uidOk)
            continue;
        const int rank = *bound == wanted ? 3 : wantedIsIPv4 && *bound == anyIPv4 ? 2 : *bound == anyIPv6 ? 1 : 0;
        if (rank > bestRank) {
            bestRank = rank;
            owner = uid;
        }
    }
    return owner;
}

std::optional<uint> listenerOwner(const QHostAddress &address, quint16 port)
{
    QByteArray tables;
    for (const QString &path : {QStringLiteral("/proc/net/tcp"), QStringLiteral("/proc/net/tcp6")}) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly))
            tables += file.readAll() + '\n';
    }
    return listenerOwnerInTable(tables, address, port);
}
