// Playback on a local output while front ends poll the player: how long the daemon takes from
// Play to the first sound, how fast it answers GetPlayerStatus and GetVolume for the playing
// player, and whether the sound keeps flowing meanwhile.
//
//   playback_bench --socket PATH --root ROOT [--seconds T] [--clients N] [--baseline REQ_PER_S]
//
// Run it against a daemon started with --root ROOT on a simulated appliance. It writes a tone
// (WAV, 44.1 kHz 16-bit stereo) into ROOT/share/Public/Music/, makes a one-entry playlist of
// appType "bench-play", sets it on the USB DAC (usb_dac) and plays it. The simulated output
// appends what it plays to ROOT/var/sim/audio/usb_dac.pcm at the pace of playback, so the time to
// the first sound is the time until that file grows, and a window of polling during which it
// grew by less than ~90% of real time is a window in which the sound broke up.
//
// Each polling row runs N clients for T seconds, each repeating connect, request, answer,
// acknowledgement (latency: connect to the last byte of the answer). An answer with a negative
// status is an error, as is an exchange that fails. --baseline (requests per second of a minimal
// framing server, from run-bench's echo table) adds each row's share of it and the target line.
//
// With --airplay the player is the simulated AirPlay TV instead (make-root --receivers): a
// one-video playlist of appType "bench-video", Play timed to the receiver's first /play request
// (from its request log), and the same polling rows; there is no sound to watch then.
//
// Exit status: 0 when the playback could be set up and measured (whatever the target), 1 otherwise.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "client/VelmoraClient.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// The device under test: the USB DAC, or with --airplay the simulated AirPlay TV.
const char* kDev = "usb_dac";
const char* kApp = "bench-play";
constexpr const char* kAirplayTv = "5855CA1A2B3C";
constexpr const char* kPlaylist = "Playback bench";
constexpr const char* kToneName = "velmora-bench-tone.wav";

constexpr int kRate = 44100;
constexpr int kChannels = 2;
constexpr int kBytesPerSample = 2;
constexpr double kBytesPerSecond = kRate * kChannels * kBytesPerSample;  // 176,400
constexpr double kKeptUpShare = 0.9;        // of real time, over a polling window
constexpr double kTargetShareOfBaseline = 0.40;
constexpr int kMinToneSeconds = 60;

constexpr auto kPcmPollPeriod = 5ms;
constexpr auto kFirstAudioLimit = 20s;
constexpr auto kStateLimit = 5s;
constexpr int kTimeoutMs = 5000;

[[noreturn]] void die(const std::string& what);

double millisSince(Clock::time_point from) {
    return std::chrono::duration<double, std::milli>(Clock::now() - from).count();
}

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// ---------------------------------------------------------------------------------------------
// The tone

void putLe(std::string& out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xff);
}

// A 440 Hz sine at about -12 dBFS, written next to its final name and renamed into place so
// that nothing ever sees half a file.
void writeTone(const std::string& path, int seconds) {
    const uint32_t frames = static_cast<uint32_t>(kRate) * static_cast<uint32_t>(seconds);
    const uint32_t dataBytes = frames * kChannels * kBytesPerSample;
    std::string header;
    header += "RIFF";
    putLe(header, 36 + dataBytes, 4);
    header += "WAVEfmt ";
    putLe(header, 16, 4);                                      // fmt chunk size
    putLe(header, 1, 2);                                       // PCM
    putLe(header, kChannels, 2);
    putLe(header, kRate, 4);
    putLe(header, kRate * kChannels * kBytesPerSample, 4);     // byte rate
    putLe(header, kChannels * kBytesPerSample, 2);             // block align
    putLe(header, 8 * kBytesPerSample, 2);                     // bits per sample
    header += "data";
    putLe(header, dataBytes, 4);

    std::string tmp = path + ".part";
    FILE* f = std::fopen(tmp.c_str(), "wb");
    if (!f) die("cannot write " + tmp + ": " + std::strerror(errno));
    bool ok = std::fwrite(header.data(), 1, header.size(), f) == header.size();

    // One period of 440 Hz does not fit a whole number of samples: compute every sample.
    std::vector<int16_t> block(static_cast<size_t>(kRate) * kChannels);  // one second
    const double step = 2.0 * M_PI * 440.0 / kRate;
    uint32_t frame = 0;
    for (int s = 0; ok && s < seconds; ++s) {
        for (int i = 0; i < kRate; ++i, ++frame) {
            auto v = static_cast<int16_t>(std::lround(8000.0 * std::sin(step * frame)));
            block[static_cast<size_t>(i) * 2] = v;
            block[static_cast<size_t>(i) * 2 + 1] = v;
        }
        // WAV samples are little-endian, as this machine's.
        ok = std::fwrite(block.data(), sizeof block[0], block.size(), f) == block.size();
    }
    if (std::fclose(f) != 0) ok = false;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        int saved = errno;
        ::unlink(tmp.c_str());
        die("cannot write " + path + ": " + std::strerror(saved));
    }
}

long long fileSize(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// ---------------------------------------------------------------------------------------------
// Requests through the client library, for the set-up and the state samples

std::string g_socket;
bool g_playerSet = false;  // a failure after SetPlaylist stops the player before leaving

vclient::Answer sendOnce(const std::string& command, const vclient::Params& params, double* ms = nullptr) {
    auto t = Clock::now();
    vclient::Exchange ex = vclient::exchange(g_socket, vclient::buildRequest(command, params));
    if (ms) *ms = millisSince(t);
    if (!ex.ok) die(command + ": " + ex.error);
    vclient::Answer answer = vclient::parseAnswer(ex.answer);
    if (answer.status.empty()) die(command + ": the answer has no status");
    return answer;
}

// A player command that found the player busy (-19) is tried again for a while.
vclient::Answer request(const std::string& command, const vclient::Params& params, double* ms = nullptr) {
    vclient::Answer answer;
    for (int attempt = 0; attempt < 100; ++attempt) {
        answer = sendOnce(command, params, ms);
        if (answer.code != -19) break;
        std::this_thread::sleep_for(20ms);
    }
    if (answer.code < 0) die(command + " answered status " + answer.status);
    return answer;
}

std::string playerState() {
    vclient::Answer a = request("GetPlayerStatus", {{"dev", kDev}});
    const char* state = a.doc.getChildNode("playerState").getText();
    return state ? state : "";
}

bool waitForState(const std::string& wanted, std::chrono::milliseconds limit) {
    auto deadline = Clock::now() + limit;
    for (;;) {
        if (playerState() == wanted) return true;
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(50ms);
    }
}

void stopPlayer() {
    if (!g_playerSet) return;
    g_playerSet = false;
    for (int attempt = 0; attempt < 100; ++attempt) {
        vclient::Exchange ex = vclient::exchange(g_socket, vclient::buildRequest("Stop", {{"dev", kDev}}));
        if (!ex.ok) break;
        if (vclient::parseAnswer(ex.answer).code != -19) return;
        std::this_thread::sleep_for(20ms);
    }
    std::fprintf(stderr, "playback_bench: could not stop the player on %s\n", kDev);
}

void die(const std::string& what) {
    std::fprintf(stderr, "playback_bench: %s\n", what.c_str());
    stopPlayer();
    std::exit(1);
}

// ---------------------------------------------------------------------------------------------
// The polling load: raw framing, as velmora_load speaks it, so that its rates compare with the
// baseline that velmora_load measured.

constexpr size_t kHeaderSize = 256;
constexpr size_t kMaxBody = 16u << 20;

enum Failure : int { kConnect, kExchange, kBusy, kRefused, kFailureKinds };
constexpr std::array<const char*, kFailureKinds> kFailureNames = {"connect", "exchange", "busy (-19)",
                                                                  "other negative status"};

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
        if (n > 0) got += static_cast<size_t>(n);
        else if (n < 0 && errno == EINTR) continue;
        else return false;
    }
    return true;
}

bool parseHeader(const char* block, size_t& length) {
    size_t digits = 0;
    while (digits < kHeaderSize && block[digits] >= '0' && block[digits] <= '9') ++digits;
    if (digits == 0 || digits == kHeaderSize) return false;
    for (size_t i = digits; i < kHeaderSize; ++i)
        if (block[i] != '\0') return false;
    auto [end, ec] = std::from_chars(block, block + digits, length);
    return ec == std::errc() && end == block + digits && length > 0 && length <= kMaxBody;
}

// -1 for an answer with a status of 0 or more, else the failure kind.
int judgeStatus(std::string_view body) {
    constexpr std::string_view open = "<status>", close = "</status>";
    size_t from = body.find(open);
    if (from == std::string_view::npos) return kExchange;
    from += open.size();
    size_t to = body.find(close, from);
    if (to == std::string_view::npos) return kExchange;
    std::string_view status = body.substr(from, to - from);
    long code = 0;
    auto [end, ec] = std::from_chars(status.data(), status.data() + status.size(), code);
    if (ec != std::errc() || end != status.data() + status.size()) return kExchange;
    if (code == -19) return kBusy;
    return code < 0 ? kRefused : -1;
}

int exchangeRaw(const sockaddr_un& addr, const std::string& request, std::string& body) {
    Fd sock(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.get() < 0) return kConnect;
    timeval tv{kTimeoutMs / 1000, (kTimeoutMs % 1000) * 1000};
    ::setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (::connect(sock.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) return kConnect;
    if (::send(sock.get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        return kExchange;
    std::array<char, kHeaderSize> header;
    if (!readExactly(sock.get(), header.data(), header.size())) return kExchange;
    size_t length = 0;
    if (!parseHeader(header.data(), length)) return kExchange;
    body.resize(length);
    if (!readExactly(sock.get(), body.data(), length)) return kExchange;
    int verdict = judgeStatus(body);
    ::send(sock.get(), "A", 1, MSG_NOSIGNAL);  // the acknowledgement; its fate does not matter
    return verdict;
}

struct ClientResult {
    uint64_t requests = 0;
    std::array<uint64_t, kFailureKinds> failures{};
    std::vector<uint32_t> latenciesUs;
};

struct LoadResult {
    double seconds = 0;
    uint64_t requests = 0;  // served, status >= 0
    uint64_t errors = 0;
    std::array<uint64_t, kFailureKinds> failures{};
    uint32_t p50 = 0, p99 = 0;
};

uint32_t percentile(std::vector<uint32_t>& v, double p) {
    if (v.empty()) return 0;
    size_t rank = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    std::nth_element(v.begin(), v.begin() + static_cast<ptrdiff_t>(rank), v.end());
    return v[rank];
}

LoadResult runLoad(const sockaddr_un& addr, const std::string& request, int clients, double seconds) {
    std::vector<ClientResult> results(static_cast<size_t>(clients));
    std::vector<std::thread> threads;
    std::latch start(clients + 1);
    Clock::time_point deadline = Clock::time_point::max();
    for (auto& r : results) {
        threads.emplace_back([&, &result = r] {
            std::string body;
            result.latenciesUs.reserve(1 << 14);
            start.arrive_and_wait();
            for (;;) {
                Clock::time_point t0 = Clock::now();
                if (t0 >= deadline) break;
                int failure = exchangeRaw(addr, request, body);
                Clock::time_point t1 = Clock::now();
                if (failure >= 0) {
                    ++result.failures[failure];
                    if (failure == kConnect) std::this_thread::sleep_for(1ms);
                    continue;
                }
                ++result.requests;
                auto us = std::chrono::duration_cast<std::chrono::microseconds>(t1 - t0).count();
                result.latenciesUs.push_back(static_cast<uint32_t>(std::min<int64_t>(us, UINT32_MAX)));
            }
        });
    }
    Clock::time_point begin = Clock::now();
    deadline = begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    start.count_down();  // publishes the deadline to the clients
    for (auto& t : threads) t.join();

    LoadResult out;
    out.seconds = secondsBetween(begin, Clock::now());
    std::vector<uint32_t> latencies;
    for (auto& r : results) {
        out.requests += r.requests;
        for (int k = 0; k < kFailureKinds; ++k) out.failures[k] += r.failures[k];
        latencies.insert(latencies.end(), r.latenciesUs.begin(), r.latenciesUs.end());
    }
    for (uint64_t f : out.failures) out.errors += f;
    out.p50 = percentile(latencies, 0.50);
    out.p99 = percentile(latencies, 0.99);
    return out;
}

// ---------------------------------------------------------------------------------------------

struct Options {
    std::string socket;
    std::string root;
    double seconds = 5.0;
    int clients = 8;
    double baseline = 0;  // 0: not given
    bool airplay = false;
};

void usage() {
    std::fputs("usage: playback_bench --socket PATH --root ROOT [--airplay] [--seconds T] [--clients N] "
               "[--baseline REQ_PER_S]\n",
               stderr);
    std::exit(1);
}

bool parseDouble(const char* text, double& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text, &end);
    return end != text && *end == '\0' && errno == 0 && std::isfinite(value);
}

Options parseOptions(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg == "--airplay") {
            o.airplay = true;
            continue;
        }
        if (arg == "--help" || arg == "-h" || i + 1 >= argc) usage();
        const char* value = argv[++i];
        bool ok = true;
        if (arg == "--socket") {
            o.socket = value;
        } else if (arg == "--root") {
            o.root = value;
        } else if (arg == "--seconds") {
            ok = parseDouble(value, o.seconds) && o.seconds > 0 && o.seconds <= 3600;
        } else if (arg == "--clients") {
            char* end = nullptr;
            long v = std::strtol(value, &end, 10);
            ok = end != value && *end == '\0' && v >= 1 && v <= 1024;
            o.clients = static_cast<int>(v);
        } else if (arg == "--baseline") {
            ok = parseDouble(value, o.baseline) && o.baseline > 0;
        } else {
            usage();
        }
        if (!ok) {
            std::fprintf(stderr, "playback_bench: bad value for %s: '%s'\n", argv[i - 1], value);
            usage();
        }
    }
    if (o.socket.empty() || o.root.empty()) usage();
    return o;
}

struct Row {
    const char* command = nullptr;  // also the row's name
    LoadResult load;
    double audioSeconds = 0;  // of sound delivered during the window
    double window = 0;        // seconds from the first client's start to the last one's end
    std::string stateBefore, stateAfter;
    bool keptUp = false;
};

}  // namespace

int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    const Options opt = parseOptions(argc, argv);
    g_socket = opt.socket;

    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (opt.socket.size() >= sizeof addr.sun_path) die("socket path too long: " + opt.socket);
    std::memcpy(addr.sun_path, opt.socket.c_str(), opt.socket.size() + 1);

    char* real = ::realpath(opt.root.c_str(), nullptr);
    if (!real) die("no root " + opt.root + ": " + std::strerror(errno));
    const std::string root = real;
    std::free(real);
    if (opt.airplay) {
        kDev = kAirplayTv;
        kApp = "bench-video";
    }
    // What shows the device at work: the output's sound file, or the receiver's request log.
    const std::string pcm = opt.airplay ? root + "/var/sim/airplay/" + kAirplayTv + "/requests.log"
                                        : root + "/var/sim/audio/" + kDev + ".pcm";
    const std::string tone = root + "/share/Public/Music/" + kToneName;

    // A playlist left by an earlier run is replaced (deleting a missing one succeeds).
    request("DelPlaylist", {{"playlist", kPlaylist}, {"appType", kApp}});
    if (opt.airplay) {
        request("CreatePlaylist", {{"playlist", kPlaylist}, {"playlistType", "video"}, {"appType", kApp}});
        request("AddContent", {{"playlist", kPlaylist},
                               {"appType", kApp},
                               {"content", "vi_201"},
                               {"contentType", "object"},
                               {"mediaType", "video"}});
    } else {
        // Long enough for both polling windows and the start, with room to spare.
        const int toneSeconds = std::max(kMinToneSeconds, static_cast<int>(std::ceil(2 * opt.seconds)) + 30);
        writeTone(tone, toneSeconds);
        request("CreatePlaylist", {{"playlist", kPlaylist}, {"playlistType", "audio"}, {"appType", kApp}});
        request("AddContent", {{"playlist", kPlaylist},
                               {"appType", kApp},
                               {"content", tone},
                               {"contentType", "file"},
                               {"mediaType", "audio"}});
    }

    vclient::Answer renders = request("ListRender", {{"renderType", opt.airplay ? "airplay" : "alsa"}});
    bool listed = false;
    for (int i = 0; i < renders.doc.nChildNode("device"); ++i) {
        const char* id = renders.doc.getChildNode("device", i).getChildNode("deviceId").getText();
        if (id && std::string_view(id) == kDev) listed = true;
    }
    if (!listed) die(std::string("ListRender does not list ") + kDev);

    double setPlaylistMs = 0;
    g_playerSet = true;  // from here on a failure stops the player, should it exist
    request("SetPlaylist", {{"dev", kDev}, {"playlist", kPlaylist}, {"appType", kApp}}, &setPlaylistMs);

    // Play to first audio (or the receiver's first request): from sending Play until the file grows.
    const long long before = fileSize(pcm);
    double playMs = 0;
    const auto playStart = Clock::now();
    request("Play", {{"dev", kDev}}, &playMs);
    double firstAudioMs = -1;
    while (Clock::now() - playStart < kFirstAudioLimit) {
        if (fileSize(pcm) > before) {
            firstAudioMs = millisSince(playStart);
            break;
        }
        std::this_thread::sleep_for(kPcmPollPeriod);
    }
    if (firstAudioMs < 0) die("nothing in " + pcm + " within 20 s of Play");
    if (!waitForState("PLAY", kStateLimit)) die(std::string(kDev) + " plays but does not report PLAY");

    // An AirPlay receiver's volume is its own (GetVolume answers -1): only the status is polled.
    std::vector<Row> rows(opt.airplay ? 1 : 2);
    rows[0].command = "GetPlayerStatus";
    if (!opt.airplay) rows[1].command = "GetVolume";
    for (Row& row : rows) {
        const std::string text = vclient::buildRequest(row.command, {{"dev", kDev}});
        row.stateBefore = playerState();
        const long long size0 = fileSize(pcm);
        const auto t0 = Clock::now();
        row.load = runLoad(addr, text, opt.clients, opt.seconds);
        const long long size1 = fileSize(pcm);
        row.window = secondsBetween(t0, Clock::now());
        row.stateAfter = playerState();
        row.audioSeconds = opt.airplay ? row.window : static_cast<double>(size1 - size0) / kBytesPerSecond;
        row.keptUp = row.audioSeconds >= kKeptUpShare * row.window && row.stateBefore == "PLAY" &&
                     row.stateAfter == "PLAY";
    }

    stopPlayer();

    std::printf("SetPlaylist on %s (creates the player):  %8.1f ms\n", kDev, setPlaylistMs);
    std::printf("Play to %-35s%8.1f ms   (the Play request itself: %.1f ms)\n",
                opt.airplay ? "the receiver's /play request:" : "first audio:", firstAudioMs, playMs);
    std::printf("\n%d clients, %.1f s per row, while %s plays\n", opt.clients, opt.seconds, kDev);
    std::printf("%-16s %10s %9s %9s %7s %12s %12s  %s\n", "row", "req/s", "p50 us", "p99 us", "errors", "% baseline",
                "audio/wall s", "audio kept up");
    for (const Row& row : rows) {
        double rate = row.load.seconds > 0 ? static_cast<double>(row.load.requests) / row.load.seconds : 0;
        char share[16] = "-";
        if (opt.baseline > 0) std::snprintf(share, sizeof share, "%.1f%%", 100.0 * rate / opt.baseline);
        char audio[32];
        std::snprintf(audio, sizeof audio, "%.2f/%.2f", row.audioSeconds, row.window);
        std::printf("%-16s %10.0f %9u %9u %7llu %12s %12s  %s\n", row.command, rate, row.load.p50, row.load.p99,
                    static_cast<unsigned long long>(row.load.errors), share, audio, row.keptUp ? "yes" : "no");
    }
    for (const Row& row : rows) {
        if (row.load.errors > 0) {
            std::printf("%s errors:", row.command);
            for (int k = 0; k < kFailureKinds; ++k)
                if (row.load.failures[k] > 0)
                    std::printf(" %s %llu", kFailureNames[k], static_cast<unsigned long long>(row.load.failures[k]));
            std::printf("\n");
        }
        if (row.stateBefore != "PLAY" || row.stateAfter != "PLAY")
            std::printf("%s: player state %s before the polling, %s after\n", row.command, row.stateBefore.c_str(),
                        row.stateAfter.c_str());
    }

    std::printf("\n");
    const Row& status = rows[0];
    double statusRate = status.load.seconds > 0 ? static_cast<double>(status.load.requests) / status.load.seconds : 0;
    if (opt.baseline > 0) {
        bool pass = statusRate >= kTargetShareOfBaseline * opt.baseline && status.load.errors == 0 && status.keptUp;
        std::printf("status polls: %.0f req/s = %.1f%% of baseline %.0f, %llu errors, audio %s   "
                    "(target >= %.0f%%, 0 errors, unbroken)   %s\n",
                    statusRate, 100.0 * statusRate / opt.baseline, opt.baseline,
                    static_cast<unsigned long long>(status.load.errors), status.keptUp ? "unbroken" : "BROKEN",
                    100 * kTargetShareOfBaseline, pass ? "PASS" : "FAIL");
    } else {
        std::printf("status polls: no --baseline given, target (>= %.0f%% of baseline, 0 errors, audio unbroken) "
                    "not judged\n",
                    100 * kTargetShareOfBaseline);
    }
    std::fflush(stdout);
    return 0;
}
