// connection_holder: holds idle and slow connections open on a socket, as hostile or broken
// local clients would, while other benchmarks measure the clients that matter.
//
//   connection_holder --socket PATH [--silent N] [--drip M] [--drip-every-ms MS]
//
// Opens N connections that never send a byte and M that send one byte of a request that never
// ends every MS milliseconds (default 1000). A connection the server closes is opened again, so
// the numbers hold for as long as the holder runs. Prints "holding N+M" once all are open; runs
// until SIGTERM or SIGINT.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> g_stop{false};

extern "C" void onStop(int) { g_stop = true; }

int connectTo(const sockaddr_un& addr) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Whether the server closed fd (it is readable: end of file or an error; nothing is ever sent).
bool closedByServer(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) > 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string path;
    int silent = 0, drip = 0, everyMs = 1000;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i];
        if (opt == "--socket") path = argv[i + 1];
        else if (opt == "--silent") silent = std::atoi(argv[i + 1]);
        else if (opt == "--drip") drip = std::atoi(argv[i + 1]);
        else if (opt == "--drip-every-ms") everyMs = std::atoi(argv[i + 1]);
        else path.clear(), i = argc;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path || silent < 0 || drip < 0 || everyMs < 1) {
        std::fputs("usage: connection_holder --socket PATH [--silent N] [--drip M] [--drip-every-ms MS]\n", stderr);
        return 2;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    ::signal(SIGPIPE, SIG_IGN);
    struct sigaction sa{};
    sa.sa_handler = onStop;
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);

    std::vector<int> fds(static_cast<size_t>(silent + drip), -1);
    for (int& fd : fds) {
        while (!g_stop && (fd = connectTo(addr)) < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::printf("holding %d+%d\n", silent, drip);
    std::fflush(stdout);

    long reopened = 0;
    std::vector<bool> started(fds.size(), false);  // a dripping request has begun with its '<'
    while (!g_stop) {
        for (size_t i = 0; i < fds.size() && !g_stop; ++i) {
            const bool dripping = i >= static_cast<size_t>(silent);
            if (fds[i] >= 0 && !closedByServer(fds[i]) &&
                (!dripping || ::send(fds[i], started[i] ? "x" : "<", 1, MSG_NOSIGNAL) == 1)) {
                started[i] = dripping;
                continue;
            }
            if (fds[i] >= 0) ::close(fds[i]);
            fds[i] = connectTo(addr);
            started[i] = false;
            ++reopened;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(everyMs));
    }
    for (int fd : fds)
        if (fd >= 0) ::close(fd);
    std::fprintf(stderr, "connection_holder: %ld connection(s) opened again after the server closed them\n", reopened);
    return 0;
}
