// Shared by the local-output tests: one simulated appliance root per test binary (its mpd and
// mpc wrappers run Debian's real mpd, whose outputs append their PCM to var/sim/audio), short
// audio files made with ffmpeg, a fresh playlist store per test and helpers to wait on a player.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/util/AppRoot.h"
#include "core/util/Process.h"
#include "player/PlayerTypes.h"
#include "playlist/CSqlitePlaylist.h"
#include "render/CAlsaPlayer.h"

namespace alsatest {

constexpr long kPcmBytesPerSecond = 44100 * 2 * 2;  // what the simulated outputs record

// Test tracks, under share/Public/Music/alsa-test/. A name a shell would split and expand
// proves the file reaches mpc as one raw argument.
inline const char* const kToneA = "a440.flac";
inline const char* const kToneB = "02 Rain & $(echo pwned) 'x'.flac";
inline const char* const kToneC = "c659.flac";
inline const char* const kLong = "long4s.flac";

class SimRoot {
public:
    static const std::string& path() {
        static SimRoot root;
        return root.m_path;
    }
    static std::string track(const char* name) { return path() + "/share/Public/Music/alsa-test/" + name; }

private:
    SimRoot() {
        char pattern[] = "/tmp/velmora-alsa-XXXXXX";
        if (!mkdtemp(pattern)) return;
        m_tmp = pattern;
        std::string root = m_tmp + "/root";
        ProcessOptions options;
        options.capture = ProcessOptions::Capture::Both;
        options.timeoutMs = 60000;
        ProcessResult r = runProcess({VELMORA_SOURCE_DIR "/sim/make-root", root}, options);
        if (!r.ok()) {
            ADD_FAILURE() << "make-root failed: " << r.output;
            return;
        }
        std::filesystem::create_directories(root + "/share/Public/Music/alsa-test");
        struct Tone {
            const char* name;
            int hz;
            int seconds;
        };
        for (Tone t : {Tone{kToneA, 440, 1}, Tone{kToneB, 523, 1}, Tone{kToneC, 659, 1}, Tone{kLong, 330, 4}}) {
            std::string source = "sine=frequency=" + std::to_string(t.hz) + ":duration=" + std::to_string(t.seconds);
            std::string out = root + "/share/Public/Music/alsa-test/" + t.name;
            ProcessResult f = runProcess({"ffmpeg", "-loglevel", "error", "-y", "-f", "lavfi", "-i", source, "-ac",
                                          "2", "-ar", "44100", out},
                                         options);
            if (!f.ok()) {
                ADD_FAILURE() << "ffmpeg failed: " << f.output;
                return;
            }
        }
        m_path = root;
    }
    ~SimRoot() {
        std::error_code ec;
        if (m_tmp.empty()) return;
        // Any server a failed test left behind goes with the root.
        runProcess({m_tmp + "/root/var/sim/simctl", "stop-mpd"}, {});
        std::filesystem::remove_all(m_tmp, ec);
    }
    std::string m_tmp;
    std::string m_path;
};

inline std::vector<std::string> fileLines(const std::string& path) {
    std::vector<std::string> out;
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// A calls.log line: NAME ["arg",...] (only " and \ are escaped for the texts used here).
inline std::string callLine(const std::string& name, const std::vector<std::string>& args) {
    std::string out = name + " [";
    for (size_t i = 0; i < args.size(); ++i) {
        if (i) out += ',';
        out += '"';
        for (char c : args[i]) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
        out += '"';
    }
    return out + "]";
}

inline size_t threadCount() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/task")) ++n;
    return n;
}

// True when pid names a process that still runs (a zombie no longer does).
inline bool processRuns(int pid) {
    if (pid <= 0 || ::kill(pid, 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
}

class AlsaTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_root = SimRoot::path();
        ASSERT_FALSE(m_root.empty());
        approot::set(m_root);
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        std::error_code ec;
        std::filesystem::remove_all(m_root + "/share/.modl", ec);
        CAlsaPlayer::setPollPeriod(std::chrono::milliseconds(200));
        // A sanitizer runtime starts a helper thread with the first thread; not ours to count.
        std::thread([] {}).join();
        m_threads = threadCount();
        m_seen = fileLines(callsLog()).size();
    }
    void TearDown() override {
        EXPECT_EQ(threadCount(), m_threads) << "a thread outlived its player";
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        CAlsaPlayer::setPollPeriod(std::chrono::milliseconds(1000));
        approot::set("");
    }

    // A "music" playlist; entries are (content type, content).
    static void makePlaylist(const char* title, const std::vector<std::pair<contentType_e, std::string>>& entries) {
        ASSERT_EQ(playlistStore().addPlaylist(title, MEDIA_AUDIO_E, "music", "alice", "test"), 0);
        for (const auto& [type, content] : entries)
            ASSERT_EQ(playlistStore().addElmInPlaylist(title, MEDIA_AUDIO_E, type, "music", content.c_str(), -1), 0);
    }
    static std::unique_ptr<CAlsaPlayer> player(const char* title = nullptr) {
        return std::make_unique<CAlsaPlayer>(playertype::kAlsa | playertype::kAlsaUsb, "alsa:usb_dac", "USB DAC",
                                             title ? title : "", title ? "music" : "", "1");
    }

    std::string callsLog() const { return m_root + "/var/sim/calls.log"; }
    // The calls.log lines written since the last look.
    std::vector<std::string> newCalls() {
        std::vector<std::string> all = fileLines(callsLog());
        size_t from = std::min(m_seen, all.size());
        m_seen = all.size();
        return {all.begin() + static_cast<std::ptrdiff_t>(from), all.end()};
    }
    // The mpc calls of one player since the last look, without the status polls.
    std::vector<std::string> mpcCalls(const CAlsaPlayer& p) {
        std::vector<std::string> out;
        std::string prefix = "mpc [\"-p\",\"" + std::to_string(p.getPort()) + "\",";
        for (const auto& line : newCalls())
            if (line.rfind(prefix, 0) == 0 && line != prefix + "\"status\"]") out.push_back(line);
        return out;
    }
    std::string mpc(const CAlsaPlayer& p, const std::vector<std::string>& args) const {
        return callLine("mpc", [&] {
            std::vector<std::string> all{"-p", std::to_string(p.getPort())};
            all.insert(all.end(), args.begin(), args.end());
            return all;
        }());
    }
    // What the player's MPD says right now.
    std::string mpdStatus(const CAlsaPlayer& p) const {
        ProcessResult r = runProcess({m_root + "/tmp/larkd/bin/mpc", "-p", std::to_string(p.getPort()), "status"});
        return r.output;
    }
    long pcmBytes() const {
        std::error_code ec;
        auto size = std::filesystem::file_size(m_root + "/var/sim/audio/usb_dac.pcm", ec);
        return ec ? 0 : static_cast<long>(size);
    }

    static bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }
    static bool waitState(CAlsaPlayer& p, playerState_e state, std::chrono::milliseconds limit) {
        return waitFor([&] { return p.getPlayerState() == state; }, limit);
    }

    std::string m_root;
    size_t m_seen = 0;
    size_t m_threads = 0;
};

}  // namespace alsatest
