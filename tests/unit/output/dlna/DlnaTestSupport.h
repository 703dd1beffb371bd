// Shared by the DLNA player tests: the simulated appliance of the binary, whose media agent
// simulates the renderers (transport state, a position that runs with the wall clock times a
// speed factor, switches set with simctl), a fresh playlist store per test, a short tick with the
// renderers sped up to match, and helpers to read calls.log and wait on a player.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "player/PlayerTypes.h"
#include "output/dlna/CDlnaPlayer.h"
#include "unit/support/SimRoot.h"

namespace dlnatest {

using std::chrono::milliseconds;
using std::chrono::seconds;

inline const char kTvId[] = "uuid:5f9ec1b3-ed59-49bb-8530-745e1d0a1c01";
inline const char kSpeakerId[] = "uuid:0b7d3c22-4a61-4f0e-9d2a-3e5c7b9a8f12";

// The tick the tests run with; the renderers run ten times faster to keep media time in step.
constexpr milliseconds kTick{100};

// The shared root, with a 40-second track outside the library made on first use (the renderer
// and the duration probe measure it).
struct SimRoot {
    static const std::string& path() {
        static const std::string root = testsupport::simRoot().empty() ? "" : makeLongTrack();
        return root;
    }
    static std::string longTrack() { return path() + "/share/Public/Music/dlna-test/long40.mp3"; }

private:
    static std::string makeLongTrack() {
        const std::string& root = testsupport::simRoot();
        testsupport::makeDirs(root + "/share/Public/Music/dlna-test");
        bool made = testsupport::makeTone(root + "/share/Public/Music/dlna-test/long40.mp3", 330, 40,
                                          {"-ac", "1", "-ar", "22050", "-b:a", "32k"});
        return made ? root : "";
    }
};

// A calls.log line of the agent: tessaly ["arg",...].
inline std::string agentCall(const std::vector<std::string>& args) { return testsupport::callLine("tessaly", args); }

inline bool isAgentCommand(const std::string& line, const char* command) {
    return line.rfind(std::string("tessaly [\"-c\",\"") + command + "\"", 0) == 0;
}

inline size_t count(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

inline bool waitFor(const std::function<bool()>& done, milliseconds limit) {
    return testsupport::eventually(done, limit, milliseconds(10));
}

class DlnaTest : public testsupport::ThreadCheckedTest {
protected:
    void SetUp() override {
        ASSERT_FALSE(SimRoot::path().empty());
        ThreadCheckedTest::SetUp();
        CDlnaPlayer::setTick(kTick);
        for (const char* id : {kTvId, kSpeakerId})
            ASSERT_TRUE(renderer(id, {"present=1", "refuse=0", "refuse_content=", "busy=0", "stall=0",
                                      "fail_position=0", "xbmc=0", "transcode=0", "volume=30", "speed=10",
                                      "transition=0.015"}));
    }
    void TearDown() override {
        CDlnaPlayer::setTick(milliseconds(1000));
        ThreadCheckedTest::TearDown();
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

    // The calls.log lines written since the last look.
    std::vector<std::string> newCalls() { return callLog.fresh(); }
    // Appends the new calls.log lines to calls until done() holds (false after limit).
    bool collectCalls(std::vector<std::string>& calls, milliseconds limit, const std::function<bool()>& done) {
        auto more = [&] {
            for (std::string& line : newCalls()) calls.push_back(std::move(line));
            return done();
        };
        return waitFor(more, limit);
    }
    // The agent's setAvTransportUrl lines among lines.
    static std::vector<std::string> loads(const std::vector<std::string>& lines) {
        std::vector<std::string> out;
        for (const auto& l : lines)
            if (isAgentCommand(l, "setAvTransportUrl")) out.push_back(l);
        return out;
    }
    static std::string loadObject(const char* objectID) {
        return agentCall({"-c", "setAvTransportUrl", "--uuid", kTvId, "--objectID", objectID});
    }
    static std::string loadFile(const std::string& path) {
        return agentCall({"-c", "setAvTransportUrl", "--uuid", kTvId, "--filePath", path});
    }

    static bool waitState(CDlnaPlayer& p, playerState_e state, milliseconds limit) {
        return waitFor([&] { return p.getPlayerState() == state; }, limit);
    }
    static bool waitParkedIn(CDlnaPlayer& p, playerState_e state, milliseconds limit) {
        return waitFor([&] { return p.isParked() && p.getPlayerState() == state; }, limit);
    }
};

}  // namespace dlnatest
