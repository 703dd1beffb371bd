// listing_memory_bench: the daemon's resident memory while many clients list a long playlist
// whole, and how soon it is given back.
//
//   listing_memory_bench --socket PATH --pid PID [--entries N] [--clients C]
//
// Fills a playlist of N entries (default 20,000) through BatchAddPlaylist, then C clients
// (default 32) send ListContentOfPlaylist without paging at once, while the daemon's VmRSS is
// sampled; then C clients that close after the first bytes of their answer. After each round
// it waits up to 10 s for the resident memory to fall under 30 MiB. Prints a table with the
// targets (peak under 200 MiB, under 30 MiB within 10 s); exits 1 when a request failed.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "client/BatchFile.h"
#include "client/VelmoraClient.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kTitle = "Listing memory bench";
constexpr const char* kApp = "bench";
constexpr double kPeakTargetMiB = 200, kSettledTargetMiB = 30, kSettleSeconds = 10;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "listing_memory_bench: %s\n", what.c_str());
    std::exit(1);
}

double rssMiB(int pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
    die("the daemon (pid " + std::to_string(pid) + ") is gone");
}

// Samples the daemon's resident memory until stopped; the highest seen.
class PeakSampler {
public:
    explicit PeakSampler(int pid) : m_thread([this, pid] {
        while (!m_stop) {
            const double now = rssMiB(pid);
            if (now > m_peak) m_peak = now;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }) {}
    double stop() {
        m_stop = true;
        m_thread.join();
        return m_peak;
    }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<double> m_peak{0};
    std::thread m_thread;
};

// Seconds until the resident memory is under the target (-1: not within kSettleSeconds), and
// the figure at that time.
double settle(int pid, double& mib) {
    const auto start = Clock::now();
    for (;;) {
        mib = rssMiB(pid);
        const double waited = std::chrono::duration<double>(Clock::now() - start).count();
        if (mib < kSettledTargetMiB) return waited;
        if (waited >= kSettleSeconds) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

// A client that reads the header and a few bytes of its answer, then goes away.
void abandon(const std::string& socketPath, const std::string& request) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socketPath.c_str());
    char buf[4096];
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 &&
        ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()))
        (void)!::read(fd, buf, sizeof buf);
    ::close(fd);
}

void report(const char* what, double peak, double settledAfter, double settledMiB) {
    std::printf("%-44s peak %7.1f MiB (target < %.0f)   %s\n", what, peak, kPeakTargetMiB,
                peak < kPeakTargetMiB ? "PASS" : "FAIL");
    if (settledAfter >= 0)
        std::printf("%-44s %7.1f MiB after %.1f s (target < %.0f MiB within %.0f s)   PASS\n", "  given back:",
                    settledMiB, settledAfter, kSettledTargetMiB, kSettleSeconds);
    else
        std::printf("%-44s %7.1f MiB after %.0f s (target < %.0f MiB)   FAIL\n", "  given back:", settledMiB,
                    kSettleSeconds, kSettledTargetMiB);
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath;
    int pid = 0, entries = 20000, clients = 32;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i];
        if (opt == "--socket") socketPath = argv[i + 1];
        else if (opt == "--pid") pid = std::atoi(argv[i + 1]);
        else if (opt == "--entries") entries = std::atoi(argv[i + 1]);
        else if (opt == "--clients") clients = std::atoi(argv[i + 1]);
        else die("unknown option " + opt);
    }
    if (socketPath.empty() || pid <= 0 || entries < 1 || clients < 1)
        die("usage: listing_memory_bench --socket PATH --pid PID [--entries N] [--clients C]");

    auto request = [&](const std::string& command, const vclient::Params& params) {
        vclient::Exchange ex = vclient::exchange(socketPath, vclient::buildRequest(command, params));
        if (!ex.ok) die(command + ": " + ex.error);
        return ex;
    };
    request("DelPlaylist", {{"playlist", kTitle}, {"appType", kApp}});
    std::vector<vclient::BatchItem> items;
    for (int i = 0; i < entries; ++i)
        items.push_back({"/share/Multimedia/Music/Artist " + std::to_string(i % 500) + "/Album/" +
                             std::to_string(i) + " - A track with a name of ordinary length.mp3",
                         "audio", "file"});
    const std::string dir = socketPath.substr(0, socketPath.rfind('/'));
    const std::string batch = vclient::writeBatchFile(dir, vclient::buildBatchFile(kTitle, kApp, "audio", items));
    if (batch.empty()) die("cannot write a batch file in " + dir);
    if (vclient::parseAnswer(request("BatchAddPlaylist", {{"filePath", batch}}).answer).code != 0)
        die("BatchAddPlaylist failed");

    const std::string list = vclient::buildRequest("ListContentOfPlaylist", {{"playlist", kTitle}, {"appType", kApp}});
    std::printf("%d clients listing a playlist of %d entries whole; daemon at %.1f MiB before\n", clients, entries,
                rssMiB(pid));

    PeakSampler sampler(pid);
    std::atomic<int> failed{0};
    std::atomic<size_t> answerBytes{0};
    const auto start = Clock::now();
    {
        std::vector<std::thread> threads;
        for (int c = 0; c < clients; ++c)
            threads.emplace_back([&] {
                vclient::Exchange ex = vclient::exchange(socketPath, list);
                if (!ex.ok || ex.answer.find("<status>0</status>") == std::string::npos) ++failed;
                answerBytes = ex.answer.size();
            });
        for (std::thread& t : threads) t.join();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    double settled = 0;
    const double peak = sampler.stop();
    const double after = settle(pid, settled);
    std::printf("answers of %.1f MB, all %d in %.1f s, %d failed\n", static_cast<double>(answerBytes) / 1e6, clients,
                seconds, failed.load());
    report("concurrent unpaged listings:", peak, after, settled);

    PeakSampler abandoned(pid);
    {
        std::vector<std::thread> threads;
        for (int c = 0; c < clients; ++c) threads.emplace_back([&] { abandon(socketPath, list); });
        for (std::thread& t : threads) t.join();
    }
    // The daemon notices the clients gone as it writes; give it the same ten seconds.
    const double abandonedPeak = abandoned.stop();
    const double abandonedAfter = settle(pid, settled);
    report("clients closing after the first bytes:", abandonedPeak, abandonedAfter, settled);

    request("DelPlaylist", {{"playlist", kTitle}, {"appType", kApp}});
    return failed == 0 ? 0 : 1;
}
