#include "platform/LocalPeer.h"

#include <QFile>
#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

std::optional<uint> peerUserId(qintptr socketDescriptor)
{
#if defined(SO_PEERCRED)
    struct ucred credentials = {};
    socklen_t length = sizeof credentials;
    if (::getsockopt(int(socketDescriptor), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0)
        return uint(credentials.uid);
#else
    uid_t user = 0;
    gid_t group = 0;
    if (::getpeereid(int(socketDescriptor), &user, &group) == 0)
        return uint(user);
#endif
    return std::nullopt;
}

std::optional<uint> fileOwnerId(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return std::nullopt;
    return uint(status.st_uid);
}

QString userName(uint userId)
{
    struct passwd entry = {};
    struct passwd *found = nullptr;
    char buffer[4096];
    // The reentrant form: the log line that wants the name may not be the only lookup running.
    if (::getpwuid_r(uid_t(userId), &entry, buffer, sizeof buffer, &found) != 0 || !found)
        return {};
    return QString::fromLocal8Bit(found->pw_name);
}

void holdOpenUntilExit(qintptr socketDescriptor)
{
    // Close-on-exec: a control script started later must not keep the peer waiting.
    [[maybe_unused]] const int held = ::fcntl(int(socketDescriptor), F_DUPFD_CLOEXEC, 0);
}
