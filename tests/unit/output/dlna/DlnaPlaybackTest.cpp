// The DLNA renderer player end to end on simulated renderers: what it sends the media agent,
// how it follows the position, and how it reacts to refusals, stalls and the renderer's own
// remote control.
#include <algorithm>
#include <tuple>

#include "DlnaTestSupport.h"

namespace dlnatest {
namespace {

using Clock = std::chrono::steady_clock;

size_t indexOf(const std::vector<std::string>& lines, const std::string& line) {
    auto it = std::find(lines.begin(), lines.end(), line);
    return it == lines.end() ? std::string::npos : static_cast<size_t>(it - lines.begin());
}

size_t countCommand(const std::vector<std::string>& lines, size_t from, size_t to, const char* command) {
    size_t n = 0;
    for (size_t i = from; i < to && i < lines.size(); ++i)
        if (isAgentCommand(lines[i], command)) ++n;
    return n;
}

TEST_F(DlnaTest, NormalQueuePlaysThroughInOrderAndStopsAtItsEnd) {
    // An object, a file whose name a shell would split, and a library id.
    const std::string rain = SimRoot::path() + "/share/Public/Music/02 Rain & Thunder.mp3";
    makePlaylist("trip", {object("mu_101"), file(rain), {MEDIA_AUDIO_E, CONTENT_DBID_E, "103"}});
    auto p = player("trip");
    newCalls();
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E, seconds(10)));
    EXPECT_EQ(p->getTotalTime(), "00:00:03");
    ASSERT_TRUE(waitParkedIn(*p, STATE_STOP_E, seconds(10))) << "the queue did not end";
    EXPECT_EQ(rendererState(), "STOPPED");
    std::vector<std::string> calls = newCalls();
    EXPECT_EQ(loads(calls), (std::vector<std::string>{loadObject("mu_101"), loadFile(rain), loadObject("mu_103")}));
    // Each track was started once.
    EXPECT_EQ(count(calls, agentCall({"-c", "Play", "--uuid", kTvId})), 3u);
}

TEST_F(DlnaTest, PhotoShowsForTheSlideShowDelayPlusOneTick) {
    makePlaylist("album", {object("ph_301", MEDIA_PHOTO_E), object("mu_101")});
    auto p = player("album");
    p->setSlideShowDelay(3);
    auto started = Clock::now();
    ASSERT_EQ(p->play(), 0);
    // The counter shows 0, 1, 2 a tick each; the pass that counts past the delay changes track.
    ASSERT_TRUE(waitFor([&] { return p->getCurrTime() == "00:00:02" && p->getCurrTrackIndex() == 0; }, seconds(10)));
    EXPECT_EQ(p->getTotalTime(), "00:00:03");
    ASSERT_TRUE(waitFor([&] { return p->getCurrTrackIndex() == 1; }, seconds(10)));
    ASSERT_TRUE(waitFor([&] { return shown(kTvId, "objectID") == "mu_101"; }, seconds(10)));
    // Loaded to the next entry loaded: four passes at least (a busy machine only adds to it).
    EXPECT_GE(Clock::now() - started, 4 * kTick);
    p->stop(true);
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
        std::vector<std::string> expected(static_cast<size_t>(attempts), loadObject("mu_101"));
        if (attempts == 5) expected.push_back(loadObject("mu_102"));
        std::vector<std::string> calls;
        EXPECT_TRUE(collectCalls(calls, seconds(4), [&] {
            return loads(calls).size() >= expected.size() && shown(kTvId, "objectID") == shows;
        }));
        EXPECT_EQ(loads(calls), expected);
        ASSERT_EQ(p->stop(true), 0);
    }
}

TEST_F(DlnaTest, StandingPositionGivesTheTrackUpAfterTwentyPollsAndFailedOnesAfterTen) {
    makePlaylist("trip", {file(SimRoot::longTrack()), object("mu_101")});
    auto p = player("trip");
    for (auto [settings, polls] : {std::pair(std::vector<std::string>{"stall=1"}, 20u),
                                   std::pair(std::vector<std::string>{"stall=0", "fail_position=1"}, 10u)}) {
        SCOPED_TRACE(settings.back());
        ASSERT_TRUE(renderer(kTvId, settings));
        p->setCurrTrackIndex(0);
        newCalls();
        auto started = Clock::now();
        ASSERT_EQ(p->play(), 0);
        // The position polls between loading the long track and loading the next entry.
        std::vector<std::string> calls;
        auto nextLoaded = [&] { return indexOf(calls, loadObject("mu_101")) != std::string::npos; };
        ASSERT_TRUE(collectCalls(calls, seconds(6), nextLoaded));
        size_t first = indexOf(calls, loadFile(SimRoot::longTrack()));
        ASSERT_NE(first, std::string::npos);
        EXPECT_EQ(countCommand(calls, first, indexOf(calls, loadObject("mu_101")), "getPositionInfo"), polls);
        EXPECT_GE(Clock::now() - started, (polls - 1) * kTick);
        ASSERT_EQ(p->stop(true), 0);
    }
}

TEST_F(DlnaTest, OutsideStopStopsThePlayerUnlessNearTheEnd) {
    makePlaylist("trip", {file(SimRoot::longTrack()), object("mu_101")});
    auto p = player("trip");
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 2; }, seconds(10)));
    EXPECT_EQ(p->getTotalTime(), "00:00:40");

    // Stopped on the renderer some 30 s before the end: the user stopped it there.
    ASSERT_TRUE(renderer(kTvId, {"position=10", "speed=1"}));
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 10; }, seconds(10)));
    ASSERT_TRUE(renderer(kTvId, {"outside=stop"}));
    ASSERT_TRUE(waitParkedIn(*p, STATE_STOP_E, seconds(10)));
    EXPECT_EQ(p->getCurrTrackIndex(), 0u);

    // Some 8 s before the end: the renderer finished early; the track ends and the queue goes on.
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 1; }, seconds(10)));
    ASSERT_TRUE(renderer(kTvId, {"position=32"}));
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 32; }, seconds(10)));
    ASSERT_TRUE(renderer(kTvId, {"outside=stop"}));
    ASSERT_TRUE(waitFor([&] { return p->getCurrTrackIndex() == 1; }, seconds(6)));
    EXPECT_NE(p->getPlayerState(), STATE_STOP_E);
    EXPECT_FALSE(p->isParked());
    p->stop(true);
}

TEST_F(DlnaTest, PauseFromEitherSideHoldsThePositionAndResumesWithoutReloading) {
    makePlaylist("long", {file(SimRoot::longTrack())});
    auto p = player("long");
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 2; }, seconds(10)));

    ASSERT_EQ(p->pause(), 0);
    EXPECT_TRUE(p->isParked());
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
    EXPECT_EQ(rendererState(), "PAUSED_PLAYBACK");
    newCalls();
    ASSERT_EQ(p->play(), 0);
    EXPECT_EQ(p->getPlayerState(), STATE_PLAY_E);
    EXPECT_EQ(rendererState(), "PLAYING");
    std::vector<std::string> calls = newCalls();
    EXPECT_EQ(count(calls, agentCall({"-c", "Play", "--uuid", kTvId})), 1u);
    EXPECT_TRUE(loads(calls).empty());

    // Paused on the renderer's remote: the player parks and the monitor watches without acting.
    ASSERT_TRUE(renderer(kTvId, {"position=10", "outside=pause"}));
    ASSERT_TRUE(waitParkedIn(*p, STATE_PAUSE_E, seconds(10)));
    // The watch has seen the pause once a second look at the renderer has begun.
    newCalls();
    size_t looks = 0;
    ASSERT_TRUE(waitFor([&] {
        looks += count(newCalls(), agentCall({"-c", "getTransportInfo", "--uuid", kTvId}));
        return looks >= 2;
    }, seconds(10)));
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
    EXPECT_EQ(rendererState(), "PAUSED_PLAYBACK");
    // Played on the remote: resumed where it was, not loaded again.
    newCalls();
    ASSERT_TRUE(renderer(kTvId, {"outside=play"}));
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E, seconds(10)));
    EXPECT_TRUE(waitFor([&] { return !p->isParked() && p->getCurrTimeSecond() >= 12; }, seconds(10)));
    EXPECT_TRUE(loads(newCalls()).empty());

    // Switched off, the monitor leaves a renderer resumed from outside alone.
    ASSERT_EQ(p->pause(), 0);
    p->monitor(false);
    EXPECT_FALSE(p->isMonitoring());
    ASSERT_TRUE(renderer(kTvId, {"outside=play"}));
    std::this_thread::sleep_for(4 * kTick);
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
}

TEST_F(DlnaTest, EachMonitorJudgesOnlyItsOwnRenderer) {
    makePlaylist("long", {file(SimRoot::longTrack())});
    makePlaylist("album", {object("ph_301", MEDIA_PHOTO_E)});
    auto tv = player("long", kTvId);
    auto speaker = player("album", kSpeakerId);
    speaker->setSlideShowDelay(60);
    ASSERT_EQ(tv->play(), 0);
    ASSERT_EQ(speaker->play(), 0);
    ASSERT_TRUE(waitFor([&] { return tv->getCurrTimeSecond() >= 2; }, seconds(10)));
    ASSERT_TRUE(waitState(*speaker, STATE_PLAY_E, seconds(10)));

    // The TV paused on its remote: its monitor keeps seeing a paused renderer.
    ASSERT_TRUE(renderer(kTvId, {"position=10", "outside=pause"}));
    ASSERT_TRUE(waitParkedIn(*tv, STATE_PAUSE_E, seconds(10)));
    // A paused slide show leaves its renderer showing the photo, which reports PLAYING: that is
    // no resume, whatever the other renderer did before.
    ASSERT_EQ(speaker->pause(), 0);
    EXPECT_EQ(rendererState(kSpeakerId), "PLAYING");
    std::this_thread::sleep_for(6 * kTick);
    EXPECT_EQ(speaker->getPlayerState(), STATE_PAUSE_E);
    EXPECT_EQ(tv->getPlayerState(), STATE_PAUSE_E);
    tv->stop(true);
    speaker->stop(true);
}

TEST_F(DlnaTest, SeekReloadsAtThePositionAndDestroyingStopsTheRenderer) {
    makePlaylist("long", {file(SimRoot::longTrack())});
    auto p = player("long");
    newCalls();
    EXPECT_EQ(p->seek("00:00:20"), 0);  // stopped: ignored
    EXPECT_TRUE(newCalls().empty());

    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 1; }, seconds(10)));
    newCalls();
    ASSERT_EQ(p->seek("00:00:20"), 0);
    auto loadAt = [](const char* position) {
        return agentCall({"-c", "setAvTransportUrl", "--uuid", kTvId, "--filePath", SimRoot::longTrack(), "--position",
                          position});
    };
    std::vector<std::string> calls = newCalls();
    size_t load = indexOf(calls, loadAt("00:00:20"));
    ASSERT_NE(load, std::string::npos);
    EXPECT_EQ(countCommand(calls, 0, load, "Stop"), 0u);
    EXPECT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 20; }, seconds(10)));
    EXPECT_EQ(p->getPlayerState(), STATE_PLAY_E);
    EXPECT_EQ(p->getCurrTrackIndex(), 0u);

    // A transcoded stream cannot be moved while it plays: the renderer is stopped first.
    ASSERT_TRUE(renderer(kTvId, {"transcode=1"}));
    ASSERT_EQ(p->seek("00:00:05"), 0);
    calls = newCalls();
    load = indexOf(calls, loadAt("00:00:05"));
    ASSERT_NE(load, std::string::npos);
    EXPECT_GE(countCommand(calls, 0, load, "Stop"), 1u);
    EXPECT_EQ(p->getSeekOffset(), "00:00:05");

    // Destroyed while playing: the renderer is stopped, the threads end (the fixture counts).
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E, seconds(10)));
    auto started = Clock::now();
    p.reset();
    EXPECT_LT(Clock::now() - started, seconds(5)) << "ending the player waits for nothing slow";
    EXPECT_EQ(rendererState(), "STOPPED");
}

TEST_F(DlnaTest, NewPlayerAsksForXbmcStopsItsRendererAndClampsTheVolume) {
    ASSERT_TRUE(renderer(kTvId, {"xbmc=1"}));
    auto p = player();
    EXPECT_TRUE(p->isXBMC());
    std::vector<std::string> calls = newCalls();
    EXPECT_EQ(count(calls, agentCall({"-c", "isXBMC", "--uuid", kTvId})), 1u);
    EXPECT_GE(count(calls, agentCall({"-c", "Stop", "--uuid", kTvId})), 1u);

    EXPECT_EQ(p->getVolume(), 30);
    ASSERT_EQ(p->setVolume(150), 0);
    EXPECT_EQ(p->getVolume(), 100);
    ASSERT_EQ(p->setVolume(-3), 0);
    EXPECT_EQ(p->getVolume(), 0);
    calls = newCalls();
    EXPECT_EQ(count(calls, agentCall({"-c", "setVolume", "--uuid", kTvId, "--vol", "100"})), 1u);
    EXPECT_EQ(count(calls, agentCall({"-c", "setVolume", "--uuid", kTvId, "--vol", "0"})), 1u);
    ASSERT_TRUE(renderer(kTvId, {"present=0"}));
    EXPECT_EQ(p->setVolume(50), -1);
    EXPECT_EQ(p->getVolume(), -1);
}

}  // namespace
}  // namespace dlnatest
