#include "ipc/PeerCredentials.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "util/Log.h"

namespace ipc {
namespace {
constexpr uid_t kNobody = 65534;
}

clientCredentials_s readPeerCredentials(int fd) {
    clientCredentials_s who;
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        LOG_ERR("SO_PEERCRED ... fail: %s", std::strerror(errno));
        who.uid = kNobody;
        who.gid = kNobody;
        return who;
    }
    who.uid = cred.uid;
    who.gid = cred.gid;
    // The supplementary groups: asked with room for a few, then with the size the kernel names.
    who.groups.resize(16);
    for (int attempt = 0; attempt < 2; ++attempt) {
        socklen_t size = static_cast<socklen_t>(who.groups.size() * sizeof(gid_t));
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, who.groups.data(), &size) == 0) {
            who.groups.resize(size / sizeof(gid_t));
            return who;
        }
        if (errno != ERANGE) break;
        who.groups.resize(size / sizeof(gid_t));
    }
    LOG_ERR("SO_PEERGROUPS ... fail: %s", std::strerror(errno));
    who.groups.clear();  // the primary group alone: fewer rights, never more
    return who;
}

}  // namespace ipc
