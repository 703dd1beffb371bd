// The shared worker of the device players, against a scripted device: the hand-offs between
// the command threads and the worker, the play modes, and the faults a device step can bring.
#include <gtest/gtest.h>

#include <atomic>

#include "thread/ThreadLock.h"

#include "ScriptedPlayer.h"
#include "unit/player/PlayerTestSupport.h"
#include "util/Log.h"

namespace workertest {
namespace {

using Start = ScriptedPlayer::Start;
using Follow = ScriptedPlayer::Follow;

bool contains(const Calls& calls, const std::string& call) { return ScriptedPlayer::count(calls, call) > 0; }

class WorkerTest : public PlayerTest {
protected:
    void SetUp() override {
        PlayerTest::SetUp();
        vlog::setQuiet(true);  // the worker traces every pass
        makePlaylist("three", 3);
    }
    void TearDown() override {
        vlog::setQuiet(false);
        PlayerTest::TearDown();
    }
};

TEST_F(WorkerTest, StartsParkedPlaysPausesResumesAndStopsBeforeAnswering) {
    ScriptedPlayer empty("");
    EXPECT_EQ(empty.play(), -1);
    EXPECT_EQ(empty.next(), 0) << "a stopped player ignores next()";
    ScriptedPlayer p("three");
    EXPECT_EQ(p.takeCalls(), Calls{"stop(true)"}) << "the first pass stops the device, then parks";
    EXPECT_TRUE(p.isParked());
    EXPECT_EQ(p.stop(true), 0);
    EXPECT_EQ(p.pause(), 0);
    EXPECT_TRUE(p.takeCalls().empty()) << "a stopped player has nothing to stop or pause";

    ASSERT_EQ(p.play(), 0);
    ASSERT_TRUE(p.waitForCount("follow", 3));
    EXPECT_EQ(p.starts(), Calls{"start 0"});
    EXPECT_EQ(p.getPlayerState(), STATE_PLAY_E);
    EXPECT_EQ(p.play(), 0);

    ASSERT_EQ(p.pause(), 0);
    EXPECT_EQ(p.getPlayerState(), STATE_PAUSE_E);
    EXPECT_TRUE(contains(p.takeCalls(), "pause"));
    ASSERT_EQ(p.play(), 0);
    EXPECT_EQ(p.getPlayerState(), STATE_PLAY_E);
    ASSERT_TRUE(p.waitForCount("follow", 1));
    EXPECT_EQ(p.calls().front(), "resume") << "the paused track goes on; it does not start again";
    EXPECT_TRUE(p.starts().empty());

    // A device that will not resume leaves the player paused and says so.
    ASSERT_EQ(p.pause(), 0);
    p.resumes = false;
    EXPECT_EQ(p.play(), -1);
    EXPECT_EQ(p.getPlayerState(), STATE_PAUSE_E);

    // Stopping a paused player stops the device, done by the time stop() answers.
    p.setCurrTime(42);
    p.takeCalls();
    ASSERT_EQ(p.stop(false), 0);
    EXPECT_EQ(p.takeCalls(), Calls{"stop(false)"});
    EXPECT_EQ(p.getPlayerState(), STATE_STOP_E);
    EXPECT_EQ(p.getCurrTime(), "00:00:00");
}

TEST_F(WorkerTest, TheEndOfATrackMovesOnByThePlayMode) {
    // The starts until the player stops, or the first four; the last row is a back-end whose rule
    // is to stop after each finished track.
    for (const auto& [mode, stopAfterEach, expected] :
         {std::tuple(PLAYMODE_NORMAL_E, false, Calls{"start 0", "start 1+", "start 2+"}),
          std::tuple(PLAYMODE_REPEAT_E, false, Calls{"start 0", "start 1+", "start 2+", "start 0+"}),
          std::tuple(PLAYMODE_REPEAT_E, true, Calls{"start 0"})}) {
        SCOPED_TRACE(std::to_string(mode) + (stopAfterEach ? " stopping after each" : ""));
        ScriptedPlayer p("three");
        p.setPlayMode(mode, 0, 0);
        p.stopAfterEachTrack = stopAfterEach;
        p.onFollow([] { return Follow::Over; });
        ASSERT_EQ(p.play(), 0);
        ASSERT_TRUE(p.waitFor([&](const Calls& calls) {
            return ScriptedPlayer::startsIn(calls).size() >= expected.size() &&
                   (expected.size() == 4 || calls.back().rfind("stop(", 0) == 0);
        }));
        Calls starts = p.starts();
        starts.resize(std::min(starts.size(), expected.size()));
        EXPECT_EQ(starts, expected);
        if (expected.size() < 4) {
            ASSERT_TRUE(testsupport::eventually([&] { return p.getPlayerState() == STATE_STOP_E; }));
            EXPECT_EQ(p.starts().size(), expected.size()) << "nothing starts after the stop";
        }
    }
}

TEST_F(WorkerTest, ARefusedQueueStopsAfterOneRoundAndAnUnplayableOneAtOnce) {
    ScriptedPlayer p("three");
    p.setPlayMode(PLAYMODE_REPEAT_E, 0, 0);
    p.onStart([](size_t) { return Start::Refused; });
    ASSERT_EQ(p.play(), 0);
    ASSERT_TRUE(p.waitForCount("stop(true)", 2));
    EXPECT_EQ(p.starts(), (Calls{"start 0", "start 1+", "start 2+"}));
    EXPECT_FALSE(contains(p.calls(), "follow"));

    // One refusal among playable tracks is skipped, and the count starts again.
    p.takeCalls();
    p.setCurrTrackIndex(0);
    p.onStart([](size_t index) { return index == 1 ? Start::Refused : Start::Started; });
    p.onFollow([] { return Follow::Over; });
    ASSERT_EQ(p.play(), 0);
    ASSERT_TRUE(p.waitForStarts(6));
    Calls starts = p.starts();
    starts.resize(6);
    EXPECT_EQ(starts, (Calls{"start 0", "start 1+", "start 2+", "start 0+", "start 1+", "start 2+"}));
    ASSERT_EQ(p.stop(true), 0);

    p.takeCalls();
    p.onStart([](size_t) { return Start::Unresolvable; });
    ASSERT_EQ(p.play(), 0);
    ASSERT_TRUE(p.waitForCount("stop(true)", 1));
    EXPECT_EQ(p.starts().size(), 1u);
}

TEST_F(WorkerTest, NextAndPreviousGoRoundTheQueueAndDestroyingAPlayingPlayerStopsTheDevice) {
    auto p = std::make_unique<ScriptedPlayer>("three");
    p->setPlayMode(PLAYMODE_NORMAL_E, 0, 0);
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(p->waitForCount("follow", 1));
    ASSERT_EQ(p->previous(), 0);
    ASSERT_TRUE(p->waitForStarts(2));
    EXPECT_EQ(p->starts().back(), "start 2") << "before the first comes the last, whatever the mode";
    ASSERT_EQ(p->next(), 0);
    ASSERT_TRUE(p->waitForStarts(3));
    EXPECT_EQ(p->starts().back(), "start 0");

    // Stopped: ignored, unless the back-end's rule is to start playing.
    ASSERT_EQ(p->stop(true), 0);
    EXPECT_EQ(p->next(), 0);
    EXPECT_EQ(p->getCurrTrackIndex(), 0u);
    p->skipPlays = true;
    ASSERT_EQ(p->next(), 0);
    ASSERT_TRUE(p->waitForStarts(4));
    EXPECT_EQ(p->starts().back(), "start 1");

    p->takeCalls();
    ASSERT_TRUE(p->waitForCount("follow", 2));
    std::atomic<bool> stopped{false};
    p->onStop([&] { stopped = true; });
    p.reset();  // joins: a worker left running would touch freed memory (ASan) or hang here
    EXPECT_TRUE(stopped);
}

TEST_F(WorkerTest, ACommandCutsALongTrackStartShortAndWins) {
    ScriptedPlayer p("three");
    // A device that takes its time, in naps a command cuts short (then it gives up).
    p.onStart([&](size_t) {
        for (int i = 0; i < 2000; ++i)
            if (!p.steps().nap(5ms)) return Start::Refused;
        return Start::Started;
    });
    ASSERT_EQ(p.play(), 0);
    ASSERT_TRUE(p.waitForStarts(1));
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(p.stop(true), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
    EXPECT_EQ(p.getPlayerState(), STATE_STOP_E);
    EXPECT_EQ(p.getCurrTrackIndex(), 0u) << "the given-up start is not a refusal: the queue did not move";
    EXPECT_FALSE(contains(p.calls(), "follow"));
}

TEST_F(WorkerTest, AStopThatHangsIsGivenUpAndCarriedOutLater) {
    ScriptedPlayer p("three", 200ms);
    ASSERT_EQ(p.play(), 0);
    ASSERT_TRUE(p.waitForCount("follow", 1));
    std::atomic<bool> release{false};
    p.onStop([&] { testsupport::eventually([&] { return release.load(); }); });
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(p.stop(true), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s) << "the caller's wait is bounded";
    release = true;
    ASSERT_TRUE(testsupport::eventually([&] { return p.isParked(); }));
    EXPECT_EQ(p.getPlayerState(), STATE_STOP_E);
    ASSERT_EQ(p.play(), 0);
    ASSERT_TRUE(p.waitForCount("start 0", 2)) << "the worker takes commands again";
}

TEST_F(WorkerTest, FollowsAPauseStopOrResumeMadeOnTheDeviceItself) {
    ScriptedPlayer p("three");
    std::atomic<Follow> next{Follow::Playing};
    p.onFollow([&] { return next.exchange(Follow::Playing); });
    ASSERT_EQ(p.play(), 0);
    ASSERT_TRUE(p.waitForCount("follow", 1));

    next = Follow::PausedOutside;
    ASSERT_TRUE(p.waitForCount("pause", 1));
    ASSERT_TRUE(testsupport::eventually([&] { return p.getPlayerState() == STATE_PAUSE_E && p.isParked(); }));

    // Resumed on the device: the player plays on without telling the device anything.
    p.takeCalls();
    p.resumedOnDevice = true;
    ASSERT_TRUE(p.waitForCount("follow", 1));
    p.resumedOnDevice = false;
    EXPECT_EQ(p.getPlayerState(), STATE_PLAY_E);
    EXPECT_FALSE(contains(p.calls(), "resume"));
    EXPECT_TRUE(p.starts().empty());

    next = Follow::StoppedOutside;
    ASSERT_TRUE(p.waitForCount("stop(true)", 1));
    ASSERT_TRUE(testsupport::eventually([&] { return p.getPlayerState() == STATE_STOP_E; }));
}

// The manager edits the queue, the mode and the playlist under the player's lock while the
// worker, without that lock, moves through the queue at full speed and reads it; stop() and
// play() from the edits hand off to that worker. ThreadSanitizer sees unsynchronised access;
// any build sees torn copies and a hand-off that deadlocks or times out.
TEST_F(WorkerTest, TheManagerEditsWhileTheWorkerMovesThroughTheQueue) {
    makePlaylist("one", 12);
    const int two = makePlaylist("two", 7);
    ScriptedPlayer p("one", 5s);
    p.setPlayMode(PLAYMODE_REPEAT_E, 0, 0);
    std::atomic<uint64_t> torn{0};
    std::atomic<uint64_t> follows{0};
    p.onFollow([&] {
        std::vector<playQueueItem_s> queue = p.playQueueCopy();
        std::vector<bool> seen(queue.size(), false);
        for (const auto& item : queue) {
            if (item.order >= queue.size() || seen[item.order]) ++torn;
            else seen[item.order] = true;
        }
        if (p.playlistTitleCopy().empty() || p.appTypeCopy() != "music" || p.ownerCopy() != "alice") ++torn;
        playlistElm_s elm;
        (void)p.getPlaylistElmByIndex(elm, -1);
        ++follows;
        return Follow::Over;
    });
    ASSERT_EQ(p.play(), 0);

    int64_t fakeUuid = 100000;
    const auto deadline = std::chrono::steady_clock::now() + 500ms;
    for (unsigned round = 0; std::chrono::steady_clock::now() < deadline; ++round) {
        ThreadSingleLock playerLock(p.getLock());
        size_t size = p.getPlaylistSize();
        playQueueItem_s item{size, fakeUuid++};
        switch (round % 8) {
            case 0: p.addItemToPlayQueue(item); break;
            case 1: if (size > 1) p.delItemFromPlayQueue(item = p.getPlayQueue()[round % size]); break;
            case 2: if (size > 1) p.reorderPlayQueue(0, size - 1); break;
            case 3: p.setPlayMode(round % 16 < 8 ? PLAYMODE_SHUFFLE_REPEAT_E : PLAYMODE_REPEAT_E, 0, 0); break;
            case 4: p.loadPlaylist(); break;
            case 5: p.setPlaylist(round % 16 < 8 ? "two" : "one", "music"); break;
            case 6: if (size > 0) p.setCurrTrack(static_cast<unsigned int>(round % size)); break;
            case 7: round % 3 == 0 ? p.next() : p.play(); break;
        }
    }
    EXPECT_GT(follows.load(), 20u) << "the worker hardly ran alongside the edits";
    EXPECT_EQ(torn.load(), 0u);

    ThreadSingleLock playerLock(p.getLock());
    p.setPlaylist("two", "music");
    EXPECT_EQ(p.getPlaylistID(), two);
    EXPECT_EQ(queueUuids(p), storeUuids(two));
}

}  // namespace
}  // namespace workertest
