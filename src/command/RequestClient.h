// The client a request came from, for the handlers that act on its behalf (files it names are
// read with its rights). Set for the length of one request on the thread that serves it.
#pragma once

#include "ipc/PeerCredentials.h"
#include "util/ClientRights.h"

namespace requestclient {

// The client of the request served on this thread; null while the daemon acts for itself.
const clientCredentials_s* current();

// Makes `who` the current client until the end of the scope (null: the daemon itself, e.g. for
// the daemon's own temporary files while serving a client).
class Scope {
public:
    explicit Scope(const ipc::Peer* who);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    const ipc::Peer* m_previous;
};

}  // namespace requestclient
