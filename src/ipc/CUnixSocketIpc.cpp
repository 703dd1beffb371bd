#include "ipc/CUnixSocketIpc.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {
constexpr int kClientReadRetries = 2;
}  // namespace

CUnixSocketIpc::CUnixSocketIpc(const char* path, bool server) : m_bServer(server) {
    m_addr.sun_family = AF_UNIX;
    std::strncpy(m_addr.sun_path, path ? path : "", sizeof m_addr.sun_path - 1);

    m_sockFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_sockFd < 0) throw "CUnixSocketIpc::CUnixSocketIpc";
    if (!server) return;

    ::unlink(m_addr.sun_path);
    if (::bind(m_sockFd, reinterpret_cast<const sockaddr*>(&m_addr), sizeof m_addr) != 0) {
        ::close(m_sockFd);
        m_sockFd = -1;
        throw "CUnixSocketIpc::CUnixSocketIpc";
    }
    ::chmod(m_addr.sun_path, 0777);
    struct stat st{};
    if (::stat(m_addr.sun_path, &st) == 0) {
        m_boundDev = st.st_dev;
        m_boundIno = st.st_ino;
    }
}

CUnixSocketIpc::~CUnixSocketIpc() {
    // Only the socket this object bound: another daemon may have replaced it since.
    struct stat st{};
    if (m_bServer && m_addr.sun_path[0] != '\0' && ::stat(m_addr.sun_path, &st) == 0 && st.st_dev == m_boundDev &&
        st.st_ino == m_boundIno)
        ::unlink(m_addr.sun_path);
    if (m_sockFd != -1) ::close(m_sockFd);
}

int CUnixSocketIpc::Listen(int backlog) { return ::listen(m_sockFd, backlog); }

int CUnixSocketIpc::Connect(int timeoutSec) {
    timeval tv{timeoutSec, 0};
    if (::setsockopt(m_sockFd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) return -1;
    if (::setsockopt(m_sockFd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) != 0) return -1;
    int rc;
    do {
        rc = ::connect(m_sockFd, reinterpret_cast<const sockaddr*>(&m_addr), sizeof m_addr);
    } while (rc != 0 && errno == EINTR);
    return rc;
}

ssize_t CUnixSocketIpc::Read(void* buf, size_t len) {
    std::memset(buf, 0, len);
    int retries = kClientReadRetries;
    for (;;) {
        ssize_t n = ::read(m_sockFd, buf, len);
        if (n >= 0) return n;
        if (errno == EINTR) continue;
        if ((errno == EAGAIN || errno == ETIMEDOUT) && retries-- > 0) continue;
        return -1;
    }
}

ssize_t CUnixSocketIpc::Write(const void* buf, size_t len) {
    for (;;) {
        ssize_t n = ::send(m_sockFd, buf, len, MSG_NOSIGNAL);
        if (n >= 0 || errno != EINTR) return n;
    }
}

