// Shared by the content-resolution tests: one simulated appliance root for the whole binary
// (make-root generates real media, which takes a moment), a player back-end that does nothing,
// and access to what the fakes recorded in calls.log.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/util/AppRoot.h"
#include "core/util/Process.h"
#include "player/CPlayer.h"
#include "player/PlayerTypes.h"
#include "playlist/CSqlitePlaylist.h"

namespace contenttest {

class IdlePlayer : public CPlayer {
public:
    explicit IdlePlayer(const char* title = nullptr, const char* appType = nullptr)
        : CPlayer(playertype::kDlna, "uuid:content-1", "Den", title, appType) {}
    int play() override { return 0; }
    int stop(bool) override { return 0; }
    int pause() override { return 0; }
    int next() override { return 0; }
    int previous() override { return 0; }
    int seek(const char*) override { return 0; }
    int setAudioAndSubtitle(const char*, int, int, const char*, const char*, const char*, const char*, const char*,
                            const char*, int) override {
        return 0;
    }
};

inline std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> out;
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// One calls.log line as the fakes write it: NAME ["arg",...] (only " and \ need escaping here).
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

// The root, built on first use and removed when the binary exits.
class SimRoot {
public:
    static const std::string& path() {
        static SimRoot root;
        return root.m_path;
    }

private:
    SimRoot() {
        char pattern[] = "/tmp/velmora-content-XXXXXX";
        if (!mkdtemp(pattern)) return;
        m_tmp = pattern;
        ProcessOptions options;
        options.capture = ProcessOptions::Capture::Both;
        ProcessResult r = runProcess({VELMORA_SOURCE_DIR "/sim/make-root", m_tmp + "/root"}, options);
        if (r.ok()) m_path = m_tmp + "/root";
        else ADD_FAILURE() << "make-root failed: " << r.output;
    }
    ~SimRoot() {
        std::error_code ec;
        if (!m_tmp.empty()) std::filesystem::remove_all(m_tmp, ec);
    }
    std::string m_tmp;
    std::string m_path;
};

class ContentTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_root = SimRoot::path();
        ASSERT_FALSE(m_root.empty());
        approot::set(m_root);
        // A fresh playlist store for each test.
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        std::error_code ec;
        std::filesystem::remove_all(m_root + "/share/.modl", ec);
        m_seen = lines(callsLog()).size();
    }
    void TearDown() override {
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        approot::set("");
    }

    std::string callsLog() const { return m_root + "/var/sim/calls.log"; }
    // The calls.log lines written since the last look.
    std::vector<std::string> newCalls() {
        std::vector<std::string> all = lines(callsLog());
        std::vector<std::string> out(all.begin() + static_cast<std::ptrdiff_t>(std::min(m_seen, all.size())),
                                     all.end());
        m_seen = all.size();
        return out;
    }
    static std::vector<std::string> agentCall(const std::vector<std::string>& args) {
        return {callLine("tessaly", args)};
    }
    std::string at(const std::string& rel) const { return m_root + "/" + rel; }

    std::string m_root;
    size_t m_seen = 0;
};

// Library files whose names a shell would split or expand.
inline const char* const kRain = "share/Public/Music/02 Rain & Thunder.mp3";
inline const char* const kLive = "share/Public/Music/03 L'été <live>.mp3";
inline const char* const kPwned = "share/Public/Music/04 $(echo pwned).mp3";
inline const char* const kMorning = "share/Public/Music/01 Morning.mp3";
inline const char* const kHoliday = "share/Public/Video/holiday.mp4";

}  // namespace contenttest
