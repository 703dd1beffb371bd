// velmora_load: closed-loop load generator for the daemon's socket protocol.
//
// Each client thread repeats one exchange until the run time is over:
// connect, write the request, read the 256-byte length block and the answer,
// write an acknowledgement, close. One line of results is printed at the end.
//
// Self-contained on purpose (raw sockets, no project library) so that the same
// binary measures the daemon and bench_minimal_server without bias.

#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kHeaderSize = 256;
constexpr size_t kMaxBody = 16u << 20;

enum Failure : int {
    kConnect,
    kWrite,
    kHeaderRead,
    kBadHeader,
    kBodyRead,
    kBadStatus,
    kFailureKinds
};

constexpr std::array<const char*, kFailureKinds> kFailureNames = {
    "connect", "write request", "read header", "bad header", "read answer", "bad status"};

struct Options {
    std::string socketPath;
    int clients = 1;
    double seconds = 5.0;
    std::string request = "<root><command>echo</command></root>";
    std::string label = "load";
    bool tableHeader = false;
    int timeoutMs = 5000;
};

struct ClientResult {
    uint64_t requests = 0;
    std::array<uint64_t, kFailureKinds> failures{};
    std::vector<uint32_t> latenciesUs;
};

class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

bool readExactly(int fd, char* buf, size_t len) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = ::read(fd, buf + got, len - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return false;  // EOF, time-out or error
        }
    }
    return true;
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// The block is decimal digits followed by NUL bytes only.
bool parseHeader(const char* block, size_t& length) {
    size_t digits = 0;
    while (digits < kHeaderSize && block[digits] >= '0' && block[digits] <= '9') ++digits;
    if (digits == 0 || digits == kHeaderSize) return false;
    for (size_t i = digits; i < kHeaderSize; ++i)
        if (block[i] != '\0') return false;
    auto [end, ec] = std::from_chars(block, block + digits, length);
    return ec == std::errc() && end == block + digits && length > 0 && length <= kMaxBody;
}

// "ECHO" (the echo command) or a non-negative result code is a served request;
// a negative code means the daemon refused it.
bool statusAcceptable(std::string_view body) {
    constexpr std::string_view open = "<status>", close = "</status>";
    size_t from = body.find(open);
    if (from == std::string_view::npos) return false;
    from += open.size();
    size_t to = body.find(close, from);
    if (to == std::string_view::npos) return false;
    std::string_view status = body.substr(from, to - from);
    if (status == "ECHO") return true;
    long code = 0;
    auto [end, ec] = std::from_chars(status.data(), status.data() + status.size(), code);
    return ec == std::errc() && end == status.data() + status.size() && code >= 0;
}

void setTimeouts(int fd, int timeoutMs) {
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

// One exchange; returns -1 on success or the failure kind.
int exchange(const Options& opt, const sockaddr_un& addr, std::string& body) {
    Fd sock(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.get() < 0) return kConnect;
    setTimeouts(sock.get(), opt.timeoutMs);
    if (::connect(sock.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0)
        return kConnect;
    // The daemon reads a request with one read: send it with one write.
    if (::send(sock.get(), opt.request.data(), opt.request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(opt.request.size()))
        return kWrite;
    std::array<char, kHeaderSize> header;
    if (!readExactly(sock.get(), header.data(), header.size())) return kHeaderRead;
    size_t length = 0;
    if (!parseHeader(header.data(), length)) return kBadHeader;
    body.resize(length);
    if (!readExactly(sock.get(), body.data(), length)) return kBodyRead;
    if (!statusAcceptable(body)) return kBadStatus;
    // The server reads the acknowledgement once and ignores it; a failure here
    // does not make the answer less served.
    writeAll(sock.get(), "A");
    return -1;
}

void runClient(const Options& opt, const sockaddr_un& addr, Clock::time_point& deadline,
               std::latch& start, ClientResult& result) {
    std::string body;
    result.latenciesUs.reserve(1 << 16);
    start.arrive_and_wait();
    for (;;) {
        Clock::time_point t0 = Clock::now();
        if (t0 >= deadline) break;
        int failure = exchange(opt, addr, body);
        Clock::time_point t1 = Clock::now();
        if (failure >= 0) {
            ++result.failures[failure];
            // A refused or dead server fails instantly: do not spin on it.
            if (failure == kConnect) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        ++result.requests;
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(t1 - t0).count();
        result.latenciesUs.push_back(static_cast<uint32_t>(std::min<int64_t>(us, UINT32_MAX)));
    }
}

void printHeader() {
    std::printf("%-20s %7s %7s %9s %10s %9s %9s %7s\n", "label", "clients", "seconds", "requests",
                "req/s", "p50_us", "p99_us", "errors");
}

void usage(FILE* out) {
    std::fputs(
        "usage: velmora_load --socket PATH [--clients N] [--seconds T] [--request XML]\n"
        "                    [--label NAME] [--timeout-ms MS] [--table-header]\n"
        "       velmora_load --header-only\n"
        "  Prints: label clients seconds requests req/s p50_us p99_us errors\n"
        "  (latency: connect to last answer byte, over all clients)\n",
        out);
}

template <typename T>
bool parseNumber(const char* text, T& value) {
    const char* end = text + std::strlen(text);
    auto [ptr, ec] = std::from_chars(text, end, value);
    return ec == std::errc() && ptr == end;
}

bool parseOptions(int argc, char** argv, Options& opt) {
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg == "--table-header") {
            opt.tableHeader = true;
            continue;
        }
        if (arg == "--header-only") {
            printHeader();
            std::exit(0);
        }
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            std::exit(0);
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "velmora_load: %s needs a value\n", argv[i]);
            return false;
        }
        const char* value = argv[++i];
        bool ok = true;
        if (arg == "--socket") {
            opt.socketPath = value;
        } else if (arg == "--clients") {
            ok = parseNumber(value, opt.clients) && opt.clients >= 1 && opt.clients <= 4096;
        } else if (arg == "--seconds") {
            char* end = nullptr;
            opt.seconds = std::strtod(value, &end);
            ok = end != value && *end == '\0' && opt.seconds > 0 && opt.seconds <= 86400;
        } else if (arg == "--request") {
            opt.request = value;
            ok = !opt.request.empty();
        } else if (arg == "--label") {
            opt.label = value;
        } else if (arg == "--timeout-ms") {
            ok = parseNumber(value, opt.timeoutMs) && opt.timeoutMs >= 1;
        } else {
            std::fprintf(stderr, "velmora_load: unknown option %s\n", argv[i - 1]);
            return false;
        }
        if (!ok) {
            std::fprintf(stderr, "velmora_load: bad value for %s: '%s'\n", argv[i - 1], value);
            return false;
        }
    }
    if (opt.socketPath.empty()) {
        std::fputs("velmora_load: --socket is required\n", stderr);
        return false;
    }
    return true;
}

uint32_t percentile(std::vector<uint32_t>& v, double p) {
    if (v.empty()) return 0;
    size_t rank = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    std::nth_element(v.begin(), v.begin() + static_cast<ptrdiff_t>(rank), v.end());
    return v[rank];
}

}  // namespace

int main(int argc, char** argv) {
    // A server that closes before reading the acknowledgement must not end the run.
    ::signal(SIGPIPE, SIG_IGN);
    Options opt;
    if (!parseOptions(argc, argv, opt)) {
        usage(stderr);
        return 2;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (opt.socketPath.size() >= sizeof addr.sun_path) {
        std::fprintf(stderr, "velmora_load: socket path too long: %s\n", opt.socketPath.c_str());
        return 2;
    }
    std::memcpy(addr.sun_path, opt.socketPath.c_str(), opt.socketPath.size() + 1);

    std::vector<ClientResult> results(static_cast<size_t>(opt.clients));
    std::vector<std::thread> threads;
    std::latch start(opt.clients + 1);
    Clock::time_point deadline = Clock::time_point::max();
    for (auto& r : results)
        threads.emplace_back(runClient, std::cref(opt), std::cref(addr), std::ref(deadline),
                             std::ref(start), std::ref(r));
    Clock::time_point begin = Clock::now();
    deadline = begin + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(opt.seconds));
    start.count_down();  // publishes the deadline to the clients
    for (auto& t : threads) t.join();
    double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();

    uint64_t requests = 0, errors = 0;
    std::array<uint64_t, kFailureKinds> failures{};
    std::vector<uint32_t> latencies;
    for (auto& r : results) {
        requests += r.requests;
        for (int k = 0; k < kFailureKinds; ++k) failures[k] += r.failures[k];
        latencies.insert(latencies.end(), r.latenciesUs.begin(), r.latenciesUs.end());
    }
    for (uint64_t f : failures) errors += f;

    if (opt.tableHeader) printHeader();
    uint32_t p50 = percentile(latencies, 0.50);
    uint32_t p99 = percentile(latencies, 0.99);
    std::printf("%-20s %7d %7.1f %9llu %10.0f %9u %9u %7llu\n", opt.label.c_str(), opt.clients,
                elapsed, static_cast<unsigned long long>(requests),
                static_cast<double>(requests) / elapsed, p50, p99,
                static_cast<unsigned long long>(errors));
    std::fflush(stdout);
    if (errors > 0) {
        std::fprintf(stderr, "velmora_load: %s errors:", opt.label.c_str());
        for (int k = 0; k < kFailureKinds; ++k)
            if (failures[k] > 0)
                std::fprintf(stderr, " %s %llu", kFailureNames[k],
                             static_cast<unsigned long long>(failures[k]));
        std::fputc('\n', stderr);
    }
    return requests > 0 ? 0 : 1;
}
