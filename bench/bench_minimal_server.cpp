// bench_minimal_server: the smallest server that speaks the daemon's framing,
// as the baseline for velmora_load. A detached thread per connection reads the
// request once, answers a fixed document behind the 256-byte length block,
// reads the acknowledgement once and closes.
//
//   bench_minimal_server SOCKETPATH      (SIGTERM/SIGINT: remove the socket, exit 0)

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>
#include <thread>

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

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: bench_minimal_server SOCKETPATH\n", stderr);
        return 2;
    }
    if (std::strlen(argv[1]) >= sizeof g_socketPath) {
        std::fprintf(stderr, "bench_minimal_server: socket path too long: %s\n", argv[1]);
        return 2;
    }
    std::strcpy(g_socketPath, argv[1]);

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
