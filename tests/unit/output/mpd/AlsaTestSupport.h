// Shared by the local-output tests: the simulated appliance of the binary (its mpd and mpc
// wrappers run Debian's real mpd, whose outputs append their PCM to var/sim/audio), short audio
// files made with ffmpeg, a fresh playlist store per test and helpers to wait on a player.
#pragma once

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "player/PlayerTypes.h"
#include "output/mpd/CAlsaPlayer.h"
#include "unit/support/SimRoot.h"

namespace alsatest {

using testsupport::callLine;

constexpr long kPcmBytesPerSecond = 44100 * 2 * 2;  // what the simulated outputs record

// Test tracks, under share/Public/Music/alsa-test/. A name a shell would split and expand
// proves the file reaches mpc as one raw argument.
inline const char* const kToneA = "a440.flac";
inline const char* const kToneB = "02 Rain & $(echo pwned) 'x'.flac";
inline const char* const kToneC = "c659.flac";
inline const char* const kLong = "long4s.flac";

// The shared root, with the test tracks made on first use.
struct SimRoot {
    static const std::string& path() {
        static const std::string root = testsupport::simRoot().empty() ? "" : makeTones();
        return root;
    }
    static std::string track(const char* name) { return path() + "/share/Public/Music/alsa-test/" + name; }

private:
    static std::string makeTones() {
        const std::string dir = testsupport::simRoot() + "/share/Public/Music/alsa-test/";
        testsupport::makeDirs(dir);
        for (auto [name, hz, seconds] : {std::tuple(kToneA, 440, 1), std::tuple(kToneB, 523, 1),
                                         std::tuple(kToneC, 659, 1), std::tuple(kLong, 330, 4)})
            if (!testsupport::makeTone(dir + name, hz, seconds, {"-ac", "2", "-ar", "44100"})) return "";
        return testsupport::simRoot();
    }
};

// True when pid names a process that still runs (a zombie no longer does).
inline bool processRuns(int pid) {
    if (pid <= 0 || ::kill(pid, 0) != 0) return false;
    std::string text = testsupport::readFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
}

class AlsaTest : public testsupport::ThreadCheckedTest {
protected:
    void SetUp() override {
        ASSERT_FALSE(SimRoot::path().empty());
        ThreadCheckedTest::SetUp();
        CAlsaPlayer::setPollPeriod(std::chrono::milliseconds(200));
    }
    void TearDown() override {
        CAlsaPlayer::setPollPeriod(std::chrono::milliseconds(1000));
        ThreadCheckedTest::TearDown();
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

    // The calls.log lines written since the last look.
    std::vector<std::string> newCalls() { return callLog.fresh(); }
    // The mpc calls of one player since the last look, without the status polls.
    std::vector<std::string> mpcCalls(const CAlsaPlayer& p) {
        std::vector<std::string> out;
        const std::string prefix = mpc(p, {}).substr(0, mpc(p, {}).size() - 1) + ",";
        for (const auto& line : newCalls())
            if (line.rfind(prefix, 0) == 0 && line != mpc(p, {"status"})) out.push_back(line);
        return out;
    }
    std::string mpc(const CAlsaPlayer& p, const std::vector<std::string>& args) const {
        std::vector<std::string> all{"-p", std::to_string(p.getPort())};
        all.insert(all.end(), args.begin(), args.end());
        return callLine("mpc", all);
    }
    // What the player's MPD says right now.
    std::string mpdStatus(const CAlsaPlayer& p) const {
        return runProcess({m_root + "/tmp/larkd/bin/mpc", "-p", std::to_string(p.getPort()), "status"}).output;
    }
    long pcmBytes() const {
        std::error_code ec;
        auto size = std::filesystem::file_size(m_root + "/var/sim/audio/usb_dac.pcm", ec);
        return ec ? 0 : static_cast<long>(size);
    }

    template <class Pred>
    static bool waitFor(Pred done, std::chrono::milliseconds limit) {
        return testsupport::eventually(done, limit, std::chrono::milliseconds(20));
    }
    static bool waitState(CAlsaPlayer& p, playerState_e state, std::chrono::milliseconds limit) {
        return waitFor([&] { return p.getPlayerState() == state; }, limit);
    }
};

}  // namespace alsatest
