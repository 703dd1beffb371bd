// The base class shared between a back-end's worker thread and the manager: the worker advances
// and reads the queue without the player's lock (it must not take it: the manager holds it while
// waiting for the worker in stop()), while the manager, holding that lock, rewrites the queue.
// Run under ThreadSanitizer (-DVELMORA_SANITIZE=thread) to see unsynchronised accesses; in any
// build it catches a base class that calls stop() while holding something the worker waits
// for, and copies of the queue taken half-way through an edit.
#include <condition_variable>
#include <mutex>

#include "PlayerTestSupport.h"
#include "util/Log.h"
#include "thread/ThreadLock.h"

namespace {

using namespace std::chrono_literals;

// A back-end whose thread keeps doing what a playing worker does at a track's end and between
// tracks; stop() returns only once that thread has come round its loop again, as a real
// back-end's stop() waits for its worker to park.
class WorkerPlayer : public testsupport::FakePlayer {
public:
    explicit WorkerPlayer(const char* title) : FakePlayer(playertype::kDlna, "uuid:render-2", "Kitchen", title, "music") {}
    ~WorkerPlayer() override { quit(); }

    void quit() {
        {
            std::lock_guard lock(m_mutex);
            m_exit = true;
        }
        m_cond.notify_all();
        join();
    }

    int play() override {
        setPlayerState(STATE_PLAY_E);
        return 0;
    }
    int stop(bool) override {
        std::unique_lock lock(m_mutex);
        uint64_t seen = m_passes;
        // Two passes: one that certainly began after this call did.
        if (!m_cond.wait_for(lock, 2s, [&] { return m_exit || m_passes >= seen + 2; })) stopTimedOut = true;
        setPlayerState(STATE_STOP_E);
        return 0;
    }
    uint64_t passes() {
        std::lock_guard lock(m_mutex);
        return m_passes;
    }

    // Written by the worker only, read after quit().
    uint64_t entriesFound = 0;
    uint64_t tornCopies = 0;
    std::atomic<bool> stopTimedOut{false};

protected:
    void process() override {
        for (;;) {
            {
                std::lock_guard lock(m_mutex);
                if (m_exit) return;
            }
            changeToNextTrack();
            playlistElm_s elm;
            if (getPlaylistElmByIndex(elm, -1) == 0) ++entriesFound;
            (void)getCurrTrack();
            (void)getPlaylistSize();
            (void)getPlaylistID();
            std::vector<playQueueItem_s> queue = playQueueCopy();
            if (!isPermutation(queue)) ++tornCopies;
            // Every playlist here is alice's and of "music": anything else is a torn copy.
            if (playlistTitleCopy().empty() || appTypeCopy() != "music" || ownerCopy() != "alice") ++tornCopies;
            (void)tagCopy();
            {
                std::lock_guard lock(m_mutex);
                ++m_passes;
            }
            m_cond.notify_all();
        }
    }

private:
    // Every edit keeps the orders a permutation of the positions; a copy that is not one was
    // taken half-way through an edit.
    static bool isPermutation(const std::vector<playQueueItem_s>& queue) {
        std::vector<bool> seen(queue.size(), false);
        for (const auto& item : queue) {
            if (item.order >= queue.size() || seen[item.order]) return false;
            seen[item.order] = true;
        }
        return true;
    }

    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_exit = false;
    uint64_t m_passes = 0;
};

using WorkerRaceTest = PlayerTest;

TEST_F(WorkerRaceTest, ManagerEditsWhileTheWorkerAdvancesAndReads) {
    makePlaylist("one", 12);
    int two = makePlaylist("two", 7);
    auto p = std::make_unique<WorkerPlayer>("one");
    p->setPlayerState(STATE_PLAY_E);
    // changeToNextTrack logs every advance: thousands of lines here.
    vlog::setQuiet(true);
    ASSERT_EQ(p->start("race-worker"), 0);

    int64_t fakeUuid = 100000;
    const auto deadline = std::chrono::steady_clock::now() + 500ms;
    for (unsigned round = 0; std::chrono::steady_clock::now() < deadline; ++round) {
        ThreadSingleLock playerLock(p->getLock());
        size_t size = p->getPlaylistSize();
        switch (round % 12) {
            case 0:
            case 1: {
                playQueueItem_s item{size, fakeUuid++};
                p->addItemToPlayQueue(item);
                break;
            }
            case 2:
            case 3:
                if (size > 1) {
                    // Now and then the current entry, which stops and restarts the device.
                    playQueueItem_s item = p->getPlayQueue()[round % size];
                    p->delItemFromPlayQueue(item);
                }
                break;
            case 4:
                if (size > 1) p->reorderPlayQueue(0, size - 1);
                break;
            case 5: p->setPlayMode(PLAYMODE_SHUFFLE_REPEAT_E, 0, 0); break;
            case 6:
                if (size > 2) p->reorderPlayQueue(1, size - 1);
                break;
            case 7: p->setPlayMode(round % 24 < 12 ? PLAYMODE_REPEAT_E : PLAYMODE_NORMAL_E, 0, 0); break;
            case 8: p->loadPlaylist_(); break;
            case 9:
                p->setPlayerState(STATE_PLAY_E);
                p->setPlaylist(round % 24 < 12 ? "two" : "one", "music");
                break;
            case 10:
                if (size > 0) p->setCurrTrack(static_cast<unsigned int>(round % size));
                break;
            case 11: {
                playerStatus_s status;
                p->getStatus(status);
                if (round % 36 == 11) {
                    p->clearPlayQueue(false);
                    p->loadPlaylist_();
                }
                break;
            }
        }
    }
    uint64_t passes = p->passes();
    p->quit();
    vlog::setQuiet(false);

    EXPECT_FALSE(p->stopTimedOut) << "stop() waited for a worker that was itself waiting";
    EXPECT_GT(passes, 20u) << "the worker hardly ran alongside the edits";
    EXPECT_GT(p->entriesFound, 0u);
    EXPECT_EQ(p->tornCopies, 0u);

    // What the edits left is still a queue the store agrees with once reloaded.
    p->setPlaylist("two", "music");
    EXPECT_EQ(p->getPlaylistID(), two);
    EXPECT_EQ(queueUuids(*p), storeUuids(two));
}

}  // namespace
