// CUnixSocketIpc: a Unix-domain stream socket, as the daemon's listening socket (server) or
// as a caller's connection to it (client).
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>


class CUnixSocketIpc {
public:
    static constexpr int kIoTimeoutSec = 30;

    // Server: removes a leftover file at path, binds, and makes the file mode 0777.
    // Throws the C string "CUnixSocketIpc::CUnixSocketIpc" when socket() or bind() fails.
    CUnixSocketIpc(const char* path, bool server);
    ~CUnixSocketIpc();
    CUnixSocketIpc(const CUnixSocketIpc&) = delete;
    CUnixSocketIpc& operator=(const CUnixSocketIpc&) = delete;

    int Listen(int backlog);
    // Client: sets receive and send time-outs (30 s unless given; the send one also bounds a
    // connect to a daemon whose listen queue is full), then connects. 0 or -1.
    int Connect(int timeoutSec = kIoTimeoutSec);
    // Client: one read of the connection. Clears len bytes of buf first. Retries EINTR, and
    // EAGAIN/ETIMEDOUT twice. (The server's connections are the connection server's.)
    ssize_t Read(void* buf, size_t len);
    // Client: one write, retried on EINTR. Never raises SIGPIPE.
    ssize_t Write(const void* buf, size_t len);

    int getSockFd() const { return m_sockFd; }
    const char* getPath() const { return m_addr.sun_path; }

private:
    sockaddr_un m_addr{};
    int m_sockFd = -1;
    bool m_bServer;
    // The socket file this server bound (removed at the end only while it is still this one).
    dev_t m_boundDev = 0;
    ino_t m_boundIno = 0;
};
