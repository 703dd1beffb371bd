// Who is at the other end of an accepted Unix socket, as the kernel recorded it at connect.
#pragma once

#include "util/ClientRights.h"

// The peer's uid, gid and supplementary groups. When the kernel cannot tell (it always can for a
// Unix stream socket), the peer is taken to be the unprivileged "nobody", so nothing is granted
// on a guess.
clientCredentials_s readPeerCredentials(int fd);
