// bench_minimal_server: the smallest server that speaks the daemon's framing,
// as the baseline for velmora_load. Each connection's request is read once and
// answered with a fixed document behind the 256-byte length block; the
// acknowledgement is read once and the connection closed. Two forms: a detached
// thread per connection, or (--epoll) one thread with epoll, the daemon's own
// shape.
//
//   bench_minimal_server [--epoll] SOCKETPATH   (SIGTERM/SIGINT: remove the socket, exit 0)

#include <signal.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr std::string_view kAnswer =
    "<root>\n\t<status>ECHO</status>\n\t<version>XUMA 4.1.2</version>\n</root>\n";

char g_socketPath[sizeof(sockaddr_un::sun_path)];

extern "C" void onTerminate(int) {
    ::unlink(g_socketPath);  // both async-signal-safe
    ::_exit(0);
}

bool writeAll(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, data, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

void serve(int fd) {
    char request[4096];
    if (::read(fd, request, sizeof request) >= 0) {
        char header[256] = {};
        std::snprintf(header, sizeof header, "%zu", kAnswer.size());
        if (writeAll(fd, header, sizeof header) && writeAll(fd, kAnswer.data(), kAnswer.size())) {
            char ack[256];
            (void)::read(fd, ack, sizeof ack);
        }
    }
    ::close(fd);
}

// One thread for every connection: a request is read once and answered at once (the answer
// fits the socket buffer), the acknowledgement read once, then the connection is closed.
[[noreturn]] void serveWithEpoll(int listener) {
    const int ep = ::epoll_create1(EPOLL_CLOEXEC);
    ::fcntl(listener, F_SETFL, ::fcntl(listener, F_GETFL) | O_NONBLOCK);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = listener;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, listener, &ev);
    std::vector<bool> answered;
    epoll_event events[256];
    char header[256] = {};
    std::snprintf(header, sizeof header, "%zu", kAnswer.size());
    std::string framed(header, sizeof header);
    framed += kAnswer;
    for (;;) {
        const int n = ::epoll_wait(ep, events, 256, -1);
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == listener) {
                int c;
                while ((c = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
                    if (answered.size() <= static_cast<size_t>(c)) answered.resize(static_cast<size_t>(c) + 1);
                    answered[c] = false;
                    ev.data.fd = c;
                    ::epoll_ctl(ep, EPOLL_CTL_ADD, c, &ev);
                }
                continue;
            }
            char buf[4096];
            const ssize_t got = ::read(fd, buf, sizeof buf);
            if (got < 0 && errno == EAGAIN) continue;
            if (got > 0 && !answered[fd] && ::send(fd, framed.data(), framed.size(), MSG_NOSIGNAL) ==
                                                static_cast<ssize_t>(framed.size())) {
                answered[fd] = true;
                continue;
            }
            ::close(fd);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool epoll = argc == 3 && std::strcmp(argv[1], "--epoll") == 0;
    if (argc != 2 && !epoll) {
        std::fputs("usage: bench_minimal_server [--epoll] SOCKETPATH\n", stderr);
        return 2;
    }
    const char* path = argv[argc - 1];
    if (std::strlen(path) >= sizeof g_socketPath) {
        std::fprintf(stderr, "bench_minimal_server: socket path too long: %s\n", path);
        return 2;
    }
    std::strcpy(g_socketPath, path);

    ::signal(SIGPIPE, SIG_IGN);
    struct sigaction sa{};
    sa.sa_handler = onTerminate;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);

    int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) {
        std::perror("bench_minimal_server: socket");
        return 1;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, g_socketPath);
    ::unlink(g_socketPath);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listener, 128) != 0) {
        std::fprintf(stderr, "bench_minimal_server: %s: %s\n", g_socketPath, std::strerror(errno));
        return 1;
    }
    if (epoll) serveWithEpoll(listener);

    for (;;) {
        int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            // Out of descriptors or memory: let running connections finish.
            std::perror("bench_minimal_server: accept");
            ::usleep(10000);
            continue;
        }
        try {
            std::thread(serve, fd).detach();
        } catch (const std::system_error& e) {
            std::fprintf(stderr, "bench_minimal_server: thread: %s\n", e.what());
            ::close(fd);
        }
    }
}
