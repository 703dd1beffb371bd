#include "output/raop/RaopChild.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "util/AppRoot.h"
#include "util/Log.h"

namespace {

constexpr const char* kSender = "/usr/local/medialibrary/bin/raop_play";
// A sender ends promptly on "quit"; one that is still busy gets this long before it is ended.
constexpr int kQuitWaitMs = 3000;

bool fillAddress(sockaddr_un& addr, const std::string& path) {
    addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool exists(const std::string& path) {
    struct stat st{};
    return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

RaopChild::~RaopChild() { close(); }

std::vector<std::string> RaopChild::argv(const std::string& ip, int port, bool encrypted) {
    std::vector<std::string> out{approot::path(kSender), "-i", "--port", std::to_string(port)};
    if (!encrypted) out.emplace_back("-e");
    out.push_back(ip);
    return out;
}

int RaopChild::start(const std::string& ip, int port, bool encrypted, int tries, const std::function<bool()>& wait) {
    std::lock_guard lock(m_mutex);
    if (m_fd >= 0) return 0;
    closeLocked();
    VLOG_AT("\033[0;36m", "ip:%s port:%d", ip.c_str(), port);
    const std::vector<std::string> args = argv(ip, port, encrypted);
    LOG_TRACE("xxx %s", formatCommandLine(args).c_str());
    Subprocess::Options options;
    options.err = Subprocess::Stream::Null;
    if (int err = m_child.start(args, options); err != 0) {
        LOG_ERR("%s: %s", args[0].c_str(), std::strerror(err));
        return -1;
    }
    const std::string pid = std::to_string(m_child.pid());
    m_serverPath = approot::path("/tmp/.raop_play.srv." + pid);
    m_clientPath = approot::path("/tmp/.raop_play.cli." + pid);

    bool ready = false;
    for (int left = tries - 1; left >= 0; --left) {
        if (exists(m_serverPath)) {
            ready = true;
            break;
        }
        LOG_TRACE("(tid:%lu) cnt(%d) %s is not exist", static_cast<unsigned long>(pthread_self()), left,
                  m_serverPath.c_str());
        if (left == 0 || m_child.tryWait() || !wait()) break;
    }
    sockaddr_un server{};
    sockaddr_un client{};
    if (ready && fillAddress(server, m_serverPath) && fillAddress(client, m_clientPath)) {
        m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (m_fd < 0) LOG_ERR("socket() ... err");
        ::unlink(m_clientPath.c_str());
        if (m_fd >= 0 && ::bind(m_fd, reinterpret_cast<sockaddr*>(&client), sizeof client) != 0) {
            LOG_ERR("bind()...err");
            ::close(m_fd);
            m_fd = -1;
        }
        if (m_fd >= 0 && ::connect(m_fd, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
            LOG_ERR("connect() ... err");
            ::close(m_fd);
            m_fd = -1;
        }
    }
    if (m_fd >= 0) return 0;
    LOG_ERR("%s: the sender did not come up", formatCommandLine(args).c_str());
    closeLocked();
    return -1;
}

void RaopChild::close() {
    std::lock_guard lock(m_mutex);
    closeLocked();
}

void RaopChild::closeLocked() {
    if (m_fd >= 0) {
        sendLocked("quit");
        ::close(m_fd);
        m_fd = -1;
    }
    if (m_child.running()) {
        // It quits on "quit"; one that does not is ended.
        if (!m_child.waitFor(kQuitWaitMs)) m_child.terminate(1000);
    }
    if (!m_clientPath.empty()) ::unlink(m_clientPath.c_str());
    if (!m_serverPath.empty()) ::unlink(m_serverPath.c_str());
    m_clientPath.clear();
    m_serverPath.clear();
}

bool RaopChild::connected() {
    std::lock_guard lock(m_mutex);
    return m_fd >= 0;
}

bool RaopChild::dead() {
    std::lock_guard lock(m_mutex);
    return m_child.pid() > 0 && m_child.tryWait();
}

pid_t RaopChild::pid() {
    std::lock_guard lock(m_mutex);
    return m_child.pid();
}

bool RaopChild::send(const std::string& text) {
    std::lock_guard lock(m_mutex);
    return sendLocked(text);
}

bool RaopChild::sendLocked(const std::string& text) {
    if (m_fd < 0) return false;
    if (::send(m_fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) != static_cast<ssize_t>(text.size())) {
        LOG_ERR("write()... err");
        return false;
    }
    return true;
}

bool RaopChild::playing(std::chrono::milliseconds wait) {
    std::lock_guard lock(m_mutex);
    // An answer left over from an exchange that timed out is not this one's.
    char buf[1025];
    while (m_fd >= 0 && ::recv(m_fd, buf, sizeof buf - 1, MSG_DONTWAIT) > 0) {
    }
    if (!sendLocked("state")) return false;
    pollfd p{m_fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(wait.count())) <= 0) {
        LOG_ERR("read(): no answer");
        return false;
    }
    const ssize_t n = ::recv(m_fd, buf, sizeof buf - 1, MSG_DONTWAIT);
    if (n <= 0) {
        LOG_ERR("read(): %s", std::strerror(errno));
        return false;
    }
    buf[n] = '\0';
    VLOG_AT("\033[1;35m", "Check Raop: %s", buf);
    return std::strstr(buf, "NO_PAUSE") != nullptr;
}
