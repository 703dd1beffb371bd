// The DLNA renderer player on the simulated appliance, whose media agent simulates the renderers
// (a position that runs with the wall clock times a speed factor, switches set with simctl).
#include <algorithm>
#include <regex>
#include <tuple>

#include "output/dlna/CDlnaPlayer.h"
#include "player/PlayerTypes.h"
#include "util/TimeText.h"
#include "unit/support/SimRoot.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using testsupport::eventually;
using testsupport::file;
using testsupport::makePlaylist;
using testsupport::object;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

const char kTvId[] = "uuid:5f9ec1b3-ed59-49bb-8530-745e1d0a1c01";
const char kSpeakerId[] = "uuid:0b7d3c22-4a61-4f0e-9d2a-3e5c7b9a8f12";
// The tick the tests run with; the renderers run ten times faster to keep media time in step.
constexpr milliseconds kTick{100};

// A calls.log line of the agent: tessaly ["arg",...].
std::string agentCall(const Lines& args) { return testsupport::callLine("tessaly", args); }
size_t count(const Lines& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}
size_t indexOf(const Lines& lines, const std::string& line) {
    auto it = std::find(lines.begin(), lines.end(), line);
    return it == lines.end() ? std::string::npos : static_cast<size_t>(it - lines.begin());
}
// The agent's command lines among lines[from, to).
Lines commands(const Lines& lines, const char* command, size_t from = 0, size_t to = std::string::npos) {
    const std::string prefix = std::string("tessaly [\"-c\",\"") + command + "\"";
    Lines out;
    for (size_t i = from; i < std::min(to, lines.size()); ++i)
        if (lines[i].rfind(prefix, 0) == 0) out.push_back(lines[i]);
    return out;
}
Lines loads(const Lines& lines) { return commands(lines, "setAvTransportUrl"); }
// A setAvTransportUrl line for the TV.
std::string load(const char* kind, const std::string& what, Lines more = {}) {
    Lines args{"-c", "setAvTransportUrl", "--uuid", kTvId, kind, what};
    args.insert(args.end(), more.begin(), more.end());
    return agentCall(args);
}
std::string loadObject(const char* objectID) { return load("--objectID", objectID); }

bool waitState(CDlnaPlayer& p, playerState_e state, bool parked = false) {
    return eventually([&] { return (!parked || p.isParked()) && p.getPlayerState() == state; });
}

class DlnaTest : public testsupport::ThreadCheckedTest {
protected:
    void SetUp() override {
        ThreadCheckedTest::SetUp();
        CDlnaPlayer::setTick(kTick);
        for (const char* id : {kTvId, kSpeakerId}) ASSERT_TRUE(renderer(id, {"speed=10", "transition=0.015"}));
    }
    void TearDown() override {
        CDlnaPlayer::setTick(1000ms);
        ThreadCheckedTest::TearDown();
    }

    // A 40-second track outside the library (the renderer and the duration probe measure it).
    std::string longTrack() const { return tone("dlna-test/long40.mp3", 330, 40); }
    static std::unique_ptr<CDlnaPlayer> player(const char* title = nullptr, const char* id = kTvId) {
        return std::make_unique<CDlnaPlayer>(playertype::kDlna | playertype::kCapAudio | playertype::kCapVideo, id,
                                             id == std::string(kTvId) ? "Living Room TV" : "Study Speaker",
                                             title ? title : "", title ? "music" : "");
    }
    // simctl renderer-set ID KEY=VALUE...
    bool renderer(const char* id, Lines settings) const {
        settings.insert(settings.begin(), {m_root + "/var/sim/simctl", "renderer-set", id});
        ProcessOptions options;
        options.capture = ProcessOptions::Capture::Both;
        ProcessResult r = runProcess(settings, options);
        EXPECT_TRUE(r.ok()) << r.output;
        return r.ok();
    }
    // One field of simctl renderer-show (a JSON object, one field a line), unquoted.
    std::string shown(const char* id, const std::string& key) const {
        const std::string out = runProcess({m_root + "/var/sim/simctl", "renderer-show", id}).output;
        std::smatch m;
        return std::regex_search(out, m, std::regex("\"" + key + "\": \"?([^\",\n]*)")) ? m[1].str() : "";
    }
    std::string rendererState(const char* id = kTvId) const { return shown(id, "state"); }

    // The calls.log lines written since the last look.
    Lines newCalls() { return callLog.fresh(); }
    // Waits until the watch of a parked renderer has looked at it three times from now: what
    // the first two looks made the player do is done by then.
    bool watched(const char* id) {
        newCalls();
        size_t looks = 0;
        return eventually([&] {
            looks += count(newCalls(), agentCall({"-c", "getTransportInfo", "--uuid", id}));
            return looks >= 3;
        });
    }
    // Appends the new calls.log lines to calls until done() holds (false after limit).
    bool collectCalls(Lines& calls, milliseconds limit, const std::function<bool()>& done) {
        return eventually([&] {
            for (std::string& line : newCalls()) calls.push_back(std::move(line));
            return done();
        }, limit);
    }
};

TEST_F(DlnaTest, NormalQueueShowsAPhotoForItsDelayPlusOneTickPlaysThroughInOrderAndStops) {
    // A photo, an object, a file whose name a shell would split, and a library id.
    const std::string rain = at("share/Public/Music/02 Rain & Thunder.mp3");
    makePlaylist("trip", {object("ph_301", MEDIA_PHOTO_E), object("mu_101"), file(rain),
                          {MEDIA_AUDIO_E, CONTENT_DBID_E, "103"}});
    auto p = player("trip");
    p->setSlideShowDelay(2);
    newCalls();
    auto started = Clock::now();
    ASSERT_EQ(p->play(), 0);
    // The counter shows 0, 1 a tick each; the pass that counts past the delay changes track.
    ASSERT_TRUE(eventually([&] { return p->getCurrTime() == "00:00:01" && p->getCurrTrackIndex() == 0; }));
    EXPECT_EQ(p->getTotalTime(), "00:00:02");
    Lines calls;
    ASSERT_TRUE(collectCalls(calls, 10s, [&] { return indexOf(calls, loadObject("mu_101")) != std::string::npos; }));
    // Loaded to the next entry loaded: three passes at least (a busy machine only adds to it).
    EXPECT_GE(Clock::now() - started, 3 * kTick);
    EXPECT_TRUE(eventually([&] { return p->getCurrTrackIndex() >= 1 && p->getTotalTime() == "00:00:03"; }));
    ASSERT_TRUE(waitState(*p, STATE_STOP_E, true)) << "the queue did not end";
    EXPECT_EQ(rendererState(), "STOPPED");
    for (std::string& line : newCalls()) calls.push_back(std::move(line));
    EXPECT_EQ(loads(calls),
              (Lines{loadObject("ph_301"), loadObject("mu_101"), load("--filePath", rain), loadObject("mu_103")}));
    // Each entry was started once.
    EXPECT_EQ(count(calls, agentCall({"-c", "Play", "--uuid", kTvId})), 4u);
}

TEST_F(DlnaTest, BusyRendererIsAskedFiveTimesAtMost) {
    makePlaylist("trip", {object("mu_101"), object("mu_102")});
    auto p = player("trip");
    p->setPlayMode(PLAYMODE_REPEAT_E, 0, 0);
    // Three Busy answers: the fourth attempt loads the track. Five: the track is given up after
    // its fifth attempt and the next one loads at once.
    for (auto [busy, shows, attempts] : {std::tuple("busy=3", "mu_101", 4), std::tuple("busy=5", "mu_102", 5)}) {
        SCOPED_TRACE(busy);
        ASSERT_TRUE(renderer(kTvId, {busy, "stall=1"}));
        p->setCurrTrackIndex(0);
        newCalls();
        ASSERT_EQ(p->play(), 0);
        Lines expected(static_cast<size_t>(attempts), loadObject("mu_101"));
        if (attempts == 5) expected.push_back(loadObject("mu_102"));
        Lines calls;
        EXPECT_TRUE(collectCalls(calls, 4s, [&] {
            return loads(calls).size() >= expected.size() && shown(kTvId, "objectID") == shows;
        }));
        EXPECT_EQ(loads(calls), expected);
        ASSERT_EQ(p->stop(true), 0);
    }
}

TEST_F(DlnaTest, StandingPositionGivesTheTrackUpAfterTwentyPollsAndFailedOnesAfterTen) {
    makePlaylist("trip", {file(longTrack()), object("mu_101")});
    auto p = player("trip");
    for (auto [settings, polls] : {std::pair(Lines{"stall=1"}, 20u),
                                   std::pair(Lines{"stall=0", "fail_position=1"}, 10u)}) {
        SCOPED_TRACE(settings.back());
        ASSERT_TRUE(renderer(kTvId, settings));
        p->setCurrTrackIndex(0);
        newCalls();
        auto started = Clock::now();
        ASSERT_EQ(p->play(), 0);
        // The position polls between loading the long track and loading the next entry.
        Lines calls;
        auto nextLoaded = [&] { return indexOf(calls, loadObject("mu_101")) != std::string::npos; };
        ASSERT_TRUE(collectCalls(calls, 6s, nextLoaded));
        size_t first = indexOf(calls, load("--filePath", longTrack()));
        ASSERT_NE(first, std::string::npos);
        EXPECT_EQ(commands(calls, "getPositionInfo", first, indexOf(calls, loadObject("mu_101"))).size(), polls);
        EXPECT_GE(Clock::now() - started, (polls - 1) * kTick);
        ASSERT_EQ(p->stop(true), 0);
    }
}

TEST_F(DlnaTest, OutsideStopStopsThePlayerUnlessNearTheEnd) {
    makePlaylist("trip", {file(longTrack()), object("mu_101")});
    auto p = player("trip");
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(eventually([&] { return p->getCurrTimeSecond() >= 2; }));
    EXPECT_EQ(p->getTotalTime(), "00:00:40");

    // Stopped on the renderer some 30 s before the end: the user stopped it there.
    ASSERT_TRUE(renderer(kTvId, {"position=10", "speed=1"}));
    ASSERT_TRUE(eventually([&] { return p->getCurrTimeSecond() >= 10; }));
    ASSERT_TRUE(renderer(kTvId, {"outside=stop"}));
    ASSERT_TRUE(waitState(*p, STATE_STOP_E, true));
    EXPECT_EQ(p->getCurrTrackIndex(), 0u);

    // Some 8 s before the end: the renderer finished early; the track ends and the queue goes on.
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(eventually([&] { return p->getCurrTimeSecond() >= 1; }));
    ASSERT_TRUE(renderer(kTvId, {"position=32"}));
    ASSERT_TRUE(eventually([&] { return p->getCurrTimeSecond() >= 32; }));
    ASSERT_TRUE(renderer(kTvId, {"outside=stop"}));
    ASSERT_TRUE(eventually([&] { return p->getCurrTrackIndex() == 1; }));
    EXPECT_NE(p->getPlayerState(), STATE_STOP_E);
    EXPECT_FALSE(p->isParked());
    p->stop(true);
}

TEST_F(DlnaTest, SeekReloadsAndPauseFromEitherSideResumesWithoutReloadingEachMonitorOnItsOwnRenderer) {
    makePlaylist("long", {file(longTrack())});
    auto p = player("long");
    newCalls();
    EXPECT_EQ(p->seek("00:00:20"), 0);  // stopped: ignored
    EXPECT_TRUE(newCalls().empty());
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(eventually([&] { return p->getCurrTimeSecond() >= 1; }));

    // A seek loads the track again at the position; a stream that is not transcoded needs no
    // stop first, a transcoded one cannot be moved while it plays.
    for (auto [transcode, position, stops] : {std::tuple("transcode=0", "00:00:20", 0u),
                                              std::tuple("transcode=1", "00:00:05", 1u)}) {
        SCOPED_TRACE(transcode);
        ASSERT_TRUE(renderer(kTvId, {transcode}));
        newCalls();
        ASSERT_EQ(p->seek(position), 0);
        Lines calls = newCalls();
        size_t loaded = indexOf(calls, load("--filePath", longTrack(), {"--position", position}));
        ASSERT_NE(loaded, std::string::npos);
        EXPECT_EQ(std::min<size_t>(commands(calls, "Stop", 0, loaded).size(), 1), stops);
        if (stops) {
            EXPECT_EQ(p->getSeekOffset(), position);
        }
        EXPECT_TRUE(eventually([&] { return p->getCurrTimeSecond() >= time_convert_to_second(position); }));
        EXPECT_EQ(p->getPlayerState(), STATE_PLAY_E);
    }
    ASSERT_TRUE(renderer(kTvId, {"transcode=0"}));

    ASSERT_EQ(p->pause(), 0);
    EXPECT_TRUE(p->isParked());
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
    EXPECT_EQ(rendererState(), "PAUSED_PLAYBACK");
    newCalls();
    ASSERT_EQ(p->play(), 0);
    EXPECT_EQ(p->getPlayerState(), STATE_PLAY_E);
    EXPECT_EQ(rendererState(), "PLAYING");
    Lines calls = newCalls();
    EXPECT_EQ(count(calls, agentCall({"-c", "Play", "--uuid", kTvId})), 1u);
    EXPECT_TRUE(loads(calls).empty());

    // Paused on the renderer's remote: the player parks and the monitor watches without acting.
    ASSERT_TRUE(renderer(kTvId, {"position=10", "outside=pause"}));
    ASSERT_TRUE(waitState(*p, STATE_PAUSE_E, true));
    // Meanwhile a paused slide show leaves its renderer showing the photo, which reports PLAYING:
    // that is no resume, whatever the TV's renderer did before. Each monitor judges its own.
    makePlaylist("album", {object("ph_301", MEDIA_PHOTO_E)});
    auto speaker = player("album", kSpeakerId);
    speaker->setSlideShowDelay(60);
    ASSERT_EQ(speaker->play(), 0);
    ASSERT_TRUE(waitState(*speaker, STATE_PLAY_E));
    ASSERT_EQ(speaker->pause(), 0);
    EXPECT_EQ(rendererState(kSpeakerId), "PLAYING");
    ASSERT_TRUE(watched(kSpeakerId));
    EXPECT_EQ(speaker->getPlayerState(), STATE_PAUSE_E);
    ASSERT_TRUE(watched(kTvId));
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
    EXPECT_EQ(rendererState(), "PAUSED_PLAYBACK");
    // Played on the remote: resumed where it was, not loaded again.
    newCalls();
    ASSERT_TRUE(renderer(kTvId, {"outside=play"}));
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E));
    EXPECT_TRUE(eventually([&] { return !p->isParked() && p->getCurrTimeSecond() >= 12; }));
    EXPECT_TRUE(loads(newCalls()).empty());

    // Switched off, the monitor leaves a renderer resumed from outside alone.
    ASSERT_EQ(p->pause(), 0);
    p->monitor(false);
    EXPECT_FALSE(p->isMonitoring());
    ASSERT_TRUE(renderer(kTvId, {"outside=play"}));
    std::this_thread::sleep_for(4 * kTick);
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
}

TEST_F(DlnaTest, NewPlayerAsksForXbmcStopsItsRendererAndClampsTheVolume) {
    ASSERT_TRUE(renderer(kTvId, {"xbmc=1"}));
    auto p = player();
    EXPECT_TRUE(p->isXBMC());
    Lines calls = newCalls();
    EXPECT_EQ(count(calls, agentCall({"-c", "isXBMC", "--uuid", kTvId})), 1u);
    EXPECT_GE(count(calls, agentCall({"-c", "Stop", "--uuid", kTvId})), 1u);

    EXPECT_EQ(p->getVolume(), 30);
    for (auto [asked, set] : {std::pair(150, "100"), std::pair(-3, "0")}) {
        ASSERT_EQ(p->setVolume(asked), 0);
        EXPECT_EQ(std::to_string(p->getVolume()), set);
        EXPECT_EQ(commands(newCalls(), "setVolume"),
                  Lines{agentCall({"-c", "setVolume", "--uuid", kTvId, "--vol", set})});
    }
    ASSERT_TRUE(renderer(kTvId, {"present=0"}));
    EXPECT_EQ(p->setVolume(50), -1);
    EXPECT_EQ(p->getVolume(), -1);
}

}  // namespace
