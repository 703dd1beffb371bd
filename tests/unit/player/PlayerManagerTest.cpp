// The manager's housekeeping: players whose render vanished are retired and can come back.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "unit/support/Players.h"

namespace {

using testsupport::FakeManager;

TEST(PlayerManagerTest, PlayerIsRetiredOnTheFourthMissedListingInARowAndRevived) {
    FakeManager m;
    EXPECT_EQ(m.add("uuid:never-seen"), nullptr) << "an undiscovered render gets no player";
    m.listOnly({"a", "b"});
    testsupport::FakePlayer* a = m.add("a");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(m.add("b"), nullptr);
    // Three misses, then a sighting: the count starts again.
    for (int round = 0; round < 2; ++round) {
        m.listOnly({"b"});
        for (int pass = 0; pass < 3; ++pass) m.housekeepingPass();
        m.listOnly({"a", "b"});
        m.housekeepingPass();
    }
    EXPECT_EQ(m.getNumOfPlayer(), 2u);

    m.listOnly({"b"});  // "a" has gone from the network
    for (int pass = 1; pass <= 4; ++pass) {
        m.housekeepingPass();
        EXPECT_EQ(m.getNumOfPlayer(), pass < 4 ? 2u : 1u) << "pass " << pass;
    }
    for (const char* call : {"stop(true)", "monitor(off)"}) EXPECT_EQ(std::count(a->calls.begin(), a->calls.end(), call), 1);

    // Back on the network: the very same player returns, with the address of this listing.
    m.listOnly({"a", "b"});
    EXPECT_EQ(m.add("a"), a);
    EXPECT_EQ(a->getIP(), "10.0.0.7");
    EXPECT_EQ(m.getNumOfPlayer(), 2u);
}

// A pass waits the pass period; a stop must not (the daemon's own stop waits for it).
TEST(PlayerManagerTest, ThreadStopsPromptly) {
    FakeManager m;
    ASSERT_EQ(m.start("manager"), 0);
    auto start = std::chrono::steady_clock::now();
    m.stopThread();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
