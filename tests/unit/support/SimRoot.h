// The simulated appliance (sim/make-root), fresh for each test, what its fake platform programs
// were run with, playlists on it, and a fixture that points the daemon's code at it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "util/Process.h"
#include "playlist/CSqlitePlaylist.h"
#include "unit/support/Files.h"

namespace testsupport {

inline size_t threadCount() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

// One var/sim/calls.log line as the fakes write it: NAME ["arg",...] (only " and \ need
// escaping for the texts used here).
inline std::string callLine(const std::string& name, const std::vector<std::string>& args) {
    std::string out = name + " [";
    for (size_t i = 0; i < args.size(); ++i) {
        out += i ? ",\"" : "\"";
        for (char c : args[i]) out += c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
        out += '"';
    }
    return out + "]";
}

class CallLog {
public:
    explicit CallLog(const std::string& root = "") : m_path(root + "/var/sim/calls.log") {}
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

// Playlist entries, and a playlist of appType holding them in order.
struct Entry {
    mediaType_e media;
    contentType_e type;
    std::string content;
};
inline Entry file(std::string path, mediaType_e media = MEDIA_AUDIO_E) { return {media, CONTENT_FILE_E, std::move(path)}; }
inline Entry object(std::string id, mediaType_e media = MEDIA_AUDIO_E) { return {media, CONTENT_OBJECT_E, std::move(id)}; }
inline void makePlaylist(const std::string& title, const std::vector<Entry>& entries,
                         const std::string& appType = "music", const std::string& owner = "admin") {
    ASSERT_EQ(playlistStore().addPlaylist(title.c_str(), MEDIA_MIXED_E, appType.c_str(), owner.c_str(), ""), 0);
    for (const Entry& e : entries)
        ASSERT_EQ(playlistStore().addElmInPlaylist(title.c_str(), e.media, e.type, appType.c_str(), e.content.c_str(), -1),
                  0);
}

// Each test runs on an appliance of its own, with an empty playlist store; the servers it
// started there are stopped and the whole is removed when it ends.
class SimRootTest : public ::testing::Test {
protected:
    void SetUp() override {
        ProcessOptions opts;
        opts.timeoutMs = 120000;
        opts.capture = ProcessOptions::Capture::Both;
        ProcessResult r = runProcess({VELMORA_SOURCE_DIR "/sim/make-root", m_dir.path()}, opts);
        ASSERT_TRUE(r.ok()) << "make-root failed: " << r.output;
        m_root = m_dir.path();
        approot::set(m_root);
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        callLog = CallLog(m_root);
    }
    void TearDown() override {
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        approot::set("");
        runProcess({m_root + "/var/sim/simctl", "stop-mpd"});
    }
    std::string at(const std::string& rel) const { return m_root + "/" + rel; }
    // A sine tone at share/Public/Music/<name>, made with ffmpeg on first use (args, such as
    // channels and rate, go before the path); its path.
    std::string tone(const std::string& name, int hz, int seconds,
                     std::vector<std::string> args = {"-ac", "1", "-ar", "22050", "-b:a", "32k"}) const {
        const std::string path = at("share/Public/Music/" + name);
        if (exists(path)) return path;
        makeDirs(path.substr(0, path.rfind('/')));
        args.insert(args.begin(), {"ffmpeg", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                   "sine=frequency=" + std::to_string(hz) + ":duration=" + std::to_string(seconds)});
        args.push_back(path);
        ProcessOptions options;
        options.capture = ProcessOptions::Capture::Both;
        options.timeoutMs = 60000;
        ProcessResult f = runProcess(args, options);
        EXPECT_TRUE(f.ok()) << "ffmpeg failed: " << f.output;
        return path;
    }

    TempDir m_dir{"velmora-sim"};
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
