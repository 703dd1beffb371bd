// Play modes: what each transition does to the queue, the index and the resulting mode, and
// what a shuffle may and may not change.
#include <algorithm>

#include "PlayerTestSupport.h"

namespace {

using PlayModeTest = PlayerTest;

bool isPermutation(std::vector<uint64_t> orders) {
    std::sort(orders.begin(), orders.end());
    for (size_t i = 0; i < orders.size(); ++i)
        if (orders[i] != i) return false;
    return true;
}

TEST_F(PlayModeTest, ResultingModeOfEveryTransition) {
    makePlaylist("list", 5);
    for (int from = 0; from <= 5; ++from) {
        for (int to = 0; to <= 5; ++to) {
            auto p = playerWith("list");
            enterMode(*p, static_cast<playMode_e>(from));
            p->setPlayMode(static_cast<playMode_e>(to), 0, 0);
            // Every request is taken as asked, except REPEAT_ONE from SHUFFLE or SHUFFLE_REPEAT.
            int expected = to == 4 && (from == 2 || from == 3) ? 5 : to;
            EXPECT_EQ(p->getPlayMode(), expected) << from << " -> " << to;
            EXPECT_TRUE(isPermutation(queueOrders(*p))) << from << " -> " << to;
            EXPECT_TRUE(p->calls.empty()) << "a mode change never touches the device";
        }
    }
}

TEST_F(PlayModeTest, WhichTransitionsShuffleTheQueueAndWhatLeavingOneRestores) {
    makePlaylist("list", 60);  // large enough that a shuffle leaving playlist order is practically impossible
    auto p = playerWith("list");

    p->setPlayMode(PLAYMODE_REPEAT_ONE_E, 0, 0);
    p->setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
    EXPECT_EQ(queueOrders(*p), identity(60)) << "REPEAT_ONE -> SHUFFLE keeps playlist order";

    p->setPlayMode(PLAYMODE_NORMAL_E, 0, 0);
    p->setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
    auto shuffled = queueOrders(*p);
    EXPECT_NE(shuffled, identity(60)) << "NORMAL -> SHUFFLE shuffles";

    p->setPlayMode(PLAYMODE_SHUFFLE_REPEAT_E, 0, 0);
    EXPECT_EQ(queueOrders(*p), shuffled) << "between shuffle modes nothing is reshuffled";

    p->setPlayMode(PLAYMODE_REPEAT_ONE_E, 0, 0);  // becomes SHUFFLE_REPEAT_ONE, still shuffled
    EXPECT_EQ(queueOrders(*p), shuffled);
    p->setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
    EXPECT_NE(queueOrders(*p), shuffled) << "SHUFFLE_REPEAT_ONE -> SHUFFLE reshuffles";
    EXPECT_TRUE(isPermutation(queueOrders(*p)));

    // Leaving a shuffle restores playlist order.
    p->setCurrTrackIndex(7);
    uint64_t playing = p->getPlayQueue()[7].order;
    p->setPlayMode(PLAYMODE_REPEAT_E, 0, 0);
    EXPECT_EQ(queueOrders(*p), identity(60));
    EXPECT_EQ(p->getCurrTrackIndex(), playing) << "from SHUFFLE the index follows the track being played";
    enterMode(*p, PLAYMODE_SHUFFLE_REPEAT_ONE_E);
    p->setCurrTrackIndex(7);
    p->setPlayMode(PLAYMODE_NORMAL_E, 0, 0);
    EXPECT_EQ(queueOrders(*p), identity(60));
    EXPECT_EQ(p->getCurrTrackIndex(), 7u) << "from SHUFFLE_REPEAT_ONE the index stays";
}

TEST_F(PlayModeTest, ShuffleInvariants) {
    makePlaylist("list", 12);
    makePlaylist("one", 1);
    auto list = playerWith("list"), one = playerWith("one");
    for (int round = 0; round < 220; ++round) {
        FakePlayer* p = round % 10 ? list.get() : one.get();
        const auto uuids = queueUuids(*p);
        uint64_t current = static_cast<uint64_t>(round % uuids.size());
        p->setPlayMode(PLAYMODE_NORMAL_E, 0, 0);
        p->setCurrTrackIndex(current);
        p->setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
        auto orders = queueOrders(*p);
        ASSERT_TRUE(isPermutation(orders)) << "round " << round;
        ASSERT_EQ(orders[current], current) << "the current item never moves";
        ASSERT_EQ(queueUuids(*p), uuids) << "a shuffle permutes orders only";
        ASSERT_EQ(p->getCurrTrack(), current);
    }
}

}  // namespace
