// The play queue against the playlist store: loading, switching playlists, deleting, reordering
// and clearing, with what each asks of the device.
#include <algorithm>

#include "PlayerTestSupport.h"

namespace {

using PlayQueueTest = PlayerTest;

TEST_F(PlayQueueTest, LoadFollowsThePlaylistAndKeepsTheIndex) {
    int id = makePlaylist("list", 4);
    auto p = playerWith("list");
    EXPECT_EQ(p->getPlaylistID(), id);
    EXPECT_EQ(queueUuids(*p), storeUuids(id));
    EXPECT_TRUE(p->calls.empty());

    p->setCurrTrackIndex(2);
    appendEntry("list", 4);
    ASSERT_EQ(playlistStore().delElmInPlaylist("list", "music", static_cast<uint64_t>(storeUuids(id)[0])), 0);
    playlistStore().reorderPlaylistElm(id, 3, 0);
    p->loadPlaylist();
    EXPECT_EQ(queueUuids(*p), storeUuids(id));
    EXPECT_EQ(queueOrders(*p), identity(4));
    EXPECT_EQ(p->getCurrTrackIndex(), 2u);

    // A reload in a shuffle mode keeps the mode but plays in playlist order.
    p->setPlayMode(PLAYMODE_SHUFFLE_REPEAT_E, 0, 0);
    p->loadPlaylist();
    EXPECT_EQ(p->getPlayMode(), PLAYMODE_SHUFFLE_REPEAT_E);
    EXPECT_EQ(queueOrders(*p), identity(4));
}

TEST_F(PlayQueueTest, SetPlaylistRestartsOnlyWhatWasPlaying) {
    int first = makePlaylist("first", 3);
    int second = makePlaylist("second", 5);

    auto p = playerWith("first");
    p->setCurrTrackIndex(2);
    p->setPlaylist("second", "music");
    EXPECT_EQ(p->takeCalls(), (Calls{"stop(true)"}));
    EXPECT_EQ(queueUuids(*p), storeUuids(second));
    EXPECT_EQ(p->getCurrTrackIndex(), 0u);

    p->play();
    p->takeCalls();
    p->setPlaylist("first", "music");
    EXPECT_EQ(p->takeCalls(), (Calls{"stop(true)", "play"}));

    // A kind of device that stops softly when a playlist is loaded.
    auto soft = playerWith("first");
    soft->fakeTraits.softStopOnLoad = true;
    soft->setPlayerState(STATE_PLAY_E);
    soft->setPlaylist("second", "music");
    EXPECT_EQ(soft->takeCalls(), (Calls{"stop(false)", "play"}));

    // An unknown title: stopped, the old queue stays, the new title is kept.
    p->setPlaylist("gone", "music");
    EXPECT_EQ(p->takeCalls(), (Calls{"stop(true)"}));
    EXPECT_STREQ(p->getPlaylistTitle(), "gone");
    EXPECT_EQ(p->getPlaylistID(), -1);
    EXPECT_EQ(queueUuids(*p), storeUuids(first));
}

TEST_F(PlayQueueTest, DeleteRelativeToTheCurrentTrack) {
    const struct {
        const char* what;
        playMode_e mode;
        uint64_t current, deleted, index;
        Calls calls;
    } cases[] = {
        {"before", PLAYMODE_NORMAL_E, 2, 0, 1, {}},
        {"after", PLAYMODE_NORMAL_E, 2, 4, 2, {}},
        {"current", PLAYMODE_NORMAL_E, 2, 2, 2, {"stop(true)", "play"}},
        {"last, normal", PLAYMODE_NORMAL_E, 4, 4, 4, {"stop(true)"}},
        {"last, repeat", PLAYMODE_REPEAT_E, 4, 4, 0, {"stop(true)", "play"}},
        {"last, repeat one", PLAYMODE_REPEAT_ONE_E, 4, 4, 4, {"stop(true)"}},
    };
    int id = makePlaylist("list", 5);
    for (const auto& c : cases) {
        auto p = playerWith("list");
        p->setPlayMode(c.mode, 0, 0);
        p->setCurrTrackIndex(c.current);
        const auto original = queueUuids(*p);
        playQueueItem_s item{0, original[c.deleted]};
        p->delItemFromPlayQueue(item);

        auto expected = original;
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(c.deleted));
        EXPECT_EQ(queueUuids(*p), expected) << c.what;
        EXPECT_EQ(queueOrders(*p), identity(4)) << c.what;
        EXPECT_EQ(p->getCurrTrackIndex(), c.index) << c.what;
        EXPECT_EQ(p->takeCalls(), c.calls) << c.what;
        if (c.deleted != c.current) {
            EXPECT_EQ(p->getPlayQueue()[c.index].uuid, original[c.current]) << c.what << ": same track still current";
        }
    }

    auto p = playerWith("list");
    playQueueItem_s stranger{0, storeUuids(id).back() + 1000};
    p->delItemFromPlayQueue(stranger);
    EXPECT_EQ(p->getPlaylistSize(), 5u);
    EXPECT_TRUE(p->calls.empty());
}

TEST_F(PlayQueueTest, ReorderMovesTheItemOrInAShuffleSwapsTwo) {
    makePlaylist("list", 5);
    auto p = playerWith("list");
    p->setCurrTrackIndex(1);
    auto u = queueUuids(*p);
    p->reorderPlayQueue(0, 3);
    p->reorderPlayQueue(1, 5);  // past the end: nothing moves
    p->reorderPlayQueue(7, 2);  // from past the end: nothing moves
    EXPECT_EQ(queueUuids(*p), (std::vector<int64_t>{u[1], u[2], u[3], u[0], u[4]}));
    EXPECT_EQ(queueOrders(*p), identity(5));
    EXPECT_EQ(p->getCurrTrackIndex(), 1u) << "the caller moves the index";
    EXPECT_TRUE(p->calls.empty());

    // In a shuffle the two tracks swap places.
    p->setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
    auto queue = p->getPlayQueue();
    auto at = [&](uint64_t order) {
        return std::find_if(queue.begin(), queue.end(), [&](const auto& item) { return item.order == order; });
    };
    std::iter_swap(at(1), at(4));
    p->reorderPlayQueue(1, 4);
    for (size_t i = 0; i < queue.size(); ++i)
        EXPECT_EQ(std::pair(p->getPlayQueue()[i].order, p->getPlayQueue()[i].uuid),
                  std::pair(queue[i].order, queue[i].uuid)) << i;
}

}  // namespace
