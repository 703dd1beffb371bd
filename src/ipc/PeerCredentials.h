// Who is at the other end of an accepted Unix socket, as the kernel recorded it at connect.
#pragma once

#include <optional>

#include "util/ClientRights.h"

namespace ipc {

// The peer's uid, gid and supplementary groups. When the kernel cannot tell (it always can for a
// Unix stream socket), the peer is taken to be the unprivileged "nobody", so nothing is granted
// on a guess.
clientCredentials_s readPeerCredentials(int fd);

// The peer of a connection being served, read from its socket when first asked (most requests
// never ask). Used by the thread serving the request, while the connection is open.
class Peer {
public:
    explicit Peer(int fd) : m_fd(fd) {}
    const clientCredentials_s& credentials() const {
        if (!m_credentials) m_credentials = readPeerCredentials(m_fd);
        return *m_credentials;
    }

private:
    int m_fd;
    mutable std::optional<clientCredentials_s> m_credentials;
};

}  // namespace ipc
