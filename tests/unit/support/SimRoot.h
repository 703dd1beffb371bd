// The simulated appliance (sim/make-root) shared by the tests of one binary, what its fake
// platform programs were run with, and a fixture that points the daemon's code at it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "util/Process.h"
#include "playlist/CSqlitePlaylist.h"
#include "unit/support/Files.h"

namespace testsupport {

// Made on first use (it generates real media, which takes a moment) and removed at exit, with
// any server a failed test left running on it.
inline const std::string& simRoot() {
    struct Root {
        TempDir dir{"velmora-sim"};
        std::string path;
        Root() {
            ProcessOptions opts;
            opts.timeoutMs = 120000;
            opts.capture = ProcessOptions::Capture::Both;
            ProcessResult r = runProcess({VELMORA_SOURCE_DIR "/sim/make-root", dir.path()}, opts);
            if (r.ok()) path = dir.path();
            else ADD_FAILURE() << "make-root failed: " << r.output;
        }
        ~Root() {
            if (!path.empty()) runProcess({path + "/var/sim/simctl", "stop-mpd"});
        }
    };
    static Root root;
    return root.path;
}

// A sine tone at path, made with ffmpeg; args (channels, rate...) go before the path.
inline bool makeTone(const std::string& path, int hz, int seconds, std::vector<std::string> args) {
    args.insert(args.begin(), {"ffmpeg", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                               "sine=frequency=" + std::to_string(hz) + ":duration=" + std::to_string(seconds)});
    args.push_back(path);
    ProcessOptions options;
    options.capture = ProcessOptions::Capture::Both;
    options.timeoutMs = 60000;
    ProcessResult f = runProcess(args, options);
    if (!f.ok()) ADD_FAILURE() << "ffmpeg failed: " << f.output;
    return f.ok();
}

inline size_t threadCount() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/task")) ++n;
    return n;
}

// One var/sim/calls.log line as the fakes write it: NAME ["arg",...] (only " and \ need
// escaping for the texts used here).
inline std::string callLine(const std::string& name, const std::vector<std::string>& args) {
    std::string out = name + " [";
    for (size_t i = 0; i < args.size(); ++i) {
        out += i ? ",\"" : "\"";
        for (char c : args[i]) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
        out += '"';
    }
    return out + "]";
}

class CallLog {
public:
    explicit CallLog(const std::string& root = "") : m_path(root + "/var/sim/calls.log") {}
    void clear() {
        std::ofstream(m_path, std::ios::trunc);
        m_seen = 0;
    }
    // The lines written since the last look.
    std::vector<std::string> fresh() {
        std::vector<std::string> all = readLines(m_path);
        size_t from = std::min(m_seen, all.size());
        m_seen = all.size();
        return {all.begin() + static_cast<std::ptrdiff_t>(from), all.end()};
    }
    // Runs of program with each of args among its arguments.
    int count(const std::string& program, const std::vector<std::string>& args = {}) const {
        int n = 0;
        for (const std::string& line : readLines(m_path)) {
            bool match = line.rfind(program + " [", 0) == 0;
            for (const std::string& a : args) match = match && line.find("\"" + a + "\"") != std::string::npos;
            n += match;
        }
        return n;
    }

private:
    std::string m_path;
    size_t m_seen = 0;
};

// Each test starts on the shared root with an empty calls.log and an empty playlist store.
class SimRootTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_root = simRoot();
        ASSERT_FALSE(m_root.empty());
        approot::set(m_root);
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        std::error_code ec;
        std::filesystem::remove_all(m_root + "/share/.modl", ec);
        callLog = CallLog(m_root);
        callLog.clear();
    }
    void TearDown() override {
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        approot::set("");
    }
    std::string at(const std::string& rel) const { return m_root + "/" + rel; }

    std::string m_root;
    CallLog callLog;
};

// A SimRootTest that fails when a test leaves a thread behind (a player's worker or monitor).
class ThreadCheckedTest : public SimRootTest {
protected:
    void SetUp() override {
        SimRootTest::SetUp();
        std::thread([] {}).join();  // a sanitizer runtime starts a helper thread with the first thread
        m_threads = threadCount();
    }
    void TearDown() override {
        EXPECT_EQ(threadCount(), m_threads) << "a thread outlived its player";
        SimRootTest::TearDown();
    }

    size_t m_threads = 0;
};

}  // namespace testsupport
