// On macOS only root may list the sockets of another user's processes, so the owner of the agent's
// port stays unknown there and the port is trusted as it always was.
#include "platform/ListenerOwner.h"

std::optional<uint> listenerOwner(const QHostAddress &, quint16)
{
    return std::nullopt;
}
