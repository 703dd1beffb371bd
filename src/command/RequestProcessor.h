// Serving one connection: read one request, dispatch it, answer, wait for the acknowledgement.
#pragma once

#include "util/ClientRights.h"

class CUnixSocketIpc;
class CPlayerManager;

struct processArg_s {
    int fd;
    CUnixSocketIpc* ipc;
    CPlayerManager* playerManager;
    clientCredentials_s peer;  // who connected: handlers act on its behalf with its rights
};
typedef processArg_s processArg_t;

// Serves the connection in arg; never throws. The caller closes arg.fd afterwards.
void serveConnection(const processArg_s& arg) noexcept;

// Thread-entry form: owns a heap-allocated processArg_s (new), serves it, closes and frees it.
void* process(void* arg);
