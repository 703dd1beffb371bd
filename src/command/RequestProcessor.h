// Serving one connection: read one request, dispatch it, answer, wait for the acknowledgement.
#pragma once

class CUnixSocketIpc;
class CPlayerManager;

struct processArg_s {
    int fd;
    CUnixSocketIpc* ipc;
    CPlayerManager* playerManager;
};
typedef processArg_s processArg_t;

// Serves the connection in arg; never throws. The caller closes arg.fd afterwards.
void serveConnection(const processArg_s& arg) noexcept;

// Thread-entry form: owns a heap-allocated processArg_s (new), serves it, closes and frees it.
void* process(void* arg);
