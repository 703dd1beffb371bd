// Shared by the DLNA player tests: the simulated appliance of the binary, whose media agent
// simulates the renderers (transport state, a position that runs with the wall clock times a
// speed factor, switches set with simctl), a fresh playlist store per test, a short tick with the
// renderers sped up to match, and helpers to read calls.log and wait on a player.
#pragma once

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "player/PlayerTypes.h"
#include "render/CDlnaPlayer.h"
#include "unit/support/SimRoot.h"

namespace dlnatest {

using std::chrono::milliseconds;
using std::chrono::seconds;

inline const char kTvId[] = "uuid:5f9ec1b3-ed59-49bb-8530-745e1d0a1c01";
inline const char kSpeakerId[] = "uuid:0b7d3c22-4a61-4f0e-9d2a-3e5c7b9a8f12";

// The tick the tests run with, and the renderer speed that keeps media time in step with it.
constexpr milliseconds kTick{100};
constexpr const char* kSpeed = "speed=10";
constexpr const char* kTransition = "transition=0.015";

// The shared root, with a 40-second track outside the library made on first use (the renderer
// and the duration probe measure it).
class SimRoot {
public:
    static const std::string& path() {
        static const std::string root = makeLongTrack() ? testsupport::simRoot() : "";
        return root;
    }
    static std::string longTrack() { return path() + "/share/Public/Music/dlna-test/long40.mp3"; }
    static std::string music(const char* name) { return path() + "/share/Public/Music/" + name; }

private:
    static bool makeLongTrack() {
        const std::string dir = testsupport::simRoot() + "/share/Public/Music/dlna-test/";
        if (testsupport::simRoot().empty()) return false;
        testsupport::makeDirs(dir);
        ProcessOptions options;
        options.capture = ProcessOptions::Capture::Both;
        options.timeoutMs = 60000;
        ProcessResult f = runProcess({"ffmpeg", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                      "sine=frequency=330:duration=40", "-ac", "1", "-ar", "22050", "-b:a", "32k",
                                      dir + "long40.mp3"},
                                     options);
        if (!f.ok()) ADD_FAILURE() << "ffmpeg failed: " << f.output;
        return f.ok();
    }
};

inline std::vector<std::string> fileLines(const std::string& path) { return testsupport::readLines(path); }

// A calls.log line of the agent: tessaly ["arg",...].
inline std::string agentCall(const std::vector<std::string>& args) { return testsupport::callLine("tessaly", args); }

inline bool isAgentCommand(const std::string& line, const char* command) {
    return line.rfind(std::string("tessaly [\"-c\",\"") + command + "\"", 0) == 0;
}

inline size_t count(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

inline size_t threadCount() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/task")) ++n;
    return n;
}

inline bool waitFor(const std::function<bool()>& done, milliseconds limit) {
    return testsupport::eventually(done, limit, milliseconds(10));
}

class DlnaTest : public testsupport::SimRootTest {
protected:
    void SetUp() override {
        ASSERT_FALSE(SimRoot::path().empty());
        testsupport::SimRootTest::SetUp();
        CDlnaPlayer::setTick(kTick);
        for (const char* id : {kTvId, kSpeakerId})
            ASSERT_TRUE(renderer(id, {"present=1", "refuse=0", "refuse_content=", "busy=0", "stall=0",
                                      "fail_position=0", "xbmc=0", "transcode=0", "volume=30", kSpeed,
                                      kTransition}));
        // A sanitizer runtime starts a helper thread with the first thread; not ours to count.
        std::thread([] {}).join();
        m_threads = threadCount();
    }
    void TearDown() override {
        EXPECT_EQ(threadCount(), m_threads) << "a thread outlived its player";
        CDlnaPlayer::setTick(milliseconds(1000));
        testsupport::SimRootTest::TearDown();
    }

    // A playlist of the "music" app; entries are (media type, content type, content).
    struct Entry {
        mediaType_e media;
        contentType_e type;
        std::string content;
    };
    static void makePlaylist(const char* title, const std::vector<Entry>& entries) {
        ASSERT_EQ(playlistStore().addPlaylist(title, MEDIA_MIXED_E, "music", "admin", "test"), 0);
        for (const Entry& e : entries)
            ASSERT_EQ(playlistStore().addElmInPlaylist(title, e.media, e.type, "music", e.content.c_str(), -1), 0);
    }
    static Entry object(const char* id, mediaType_e media = MEDIA_AUDIO_E) { return {media, CONTENT_OBJECT_E, id}; }
    static Entry file(const std::string& path) { return {MEDIA_AUDIO_E, CONTENT_FILE_E, path}; }

    static std::unique_ptr<CDlnaPlayer> player(const char* title = nullptr, const char* id = kTvId) {
        return std::make_unique<CDlnaPlayer>(playertype::kDlna | playertype::kCapAudio | playertype::kCapVideo, id,
                                             id == std::string(kTvId) ? "Living Room TV" : "Study Speaker",
                                             title ? title : "", title ? "music" : "");
    }

    // simctl renderer-set ID KEY=VALUE...
    bool renderer(const char* id, const std::vector<std::string>& settings) const {
        std::vector<std::string> argv{m_root + "/var/sim/simctl", "renderer-set", id};
        argv.insert(argv.end(), settings.begin(), settings.end());
        ProcessOptions options;
        options.capture = ProcessOptions::Capture::Both;
        ProcessResult r = runProcess(argv, options);
        EXPECT_TRUE(r.ok()) << r.output;
        return r.ok();
    }
    // One field of simctl renderer-show (a JSON object, one field a line), unquoted.
    std::string shown(const char* id, const std::string& key) const {
        ProcessResult r = runProcess({m_root + "/var/sim/simctl", "renderer-show", id});
        std::string needle = "\"" + key + "\": ";
        size_t at = r.output.find(needle);
        if (at == std::string::npos) return {};
        at += needle.size();
        std::string value = r.output.substr(at, r.output.find_first_of(",\n", at) - at);
        if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
        return value;
    }
    std::string rendererState(const char* id = kTvId) const { return shown(id, "state"); }

    std::string callsLog() const { return m_root + "/var/sim/calls.log"; }
    // The calls.log lines written since the last look.
    std::vector<std::string> newCalls() { return callLog.fresh(); }
    // The agent's setAvTransportUrl lines among lines.
    static std::vector<std::string> loads(const std::vector<std::string>& lines) {
        std::vector<std::string> out;
        for (const auto& l : lines)
            if (isAgentCommand(l, "setAvTransportUrl")) out.push_back(l);
        return out;
    }
    static std::string loadObject(const char* objectID, const char* id = kTvId) {
        return agentCall({"-c", "setAvTransportUrl", "--uuid", id, "--objectID", objectID});
    }
    static std::string loadFile(const std::string& path, const char* id = kTvId) {
        return agentCall({"-c", "setAvTransportUrl", "--uuid", id, "--filePath", path});
    }

    static bool waitState(CDlnaPlayer& p, playerState_e state, milliseconds limit) {
        return waitFor([&] { return p.getPlayerState() == state; }, limit);
    }
    static bool waitParkedIn(CDlnaPlayer& p, playerState_e state, milliseconds limit) {
        return waitFor([&] { return p.isParked() && p.getPlayerState() == state; }, limit);
    }

    size_t m_threads = 0;
};

}  // namespace dlnatest
