// The watch over work a thread serves itself: a stall is handed on once, and a refused hand-on
// leaves the work where it is.
#include <gtest/gtest.h>

#include <atomic>

#include "ipc/StallWatch.h"
#include "unit/support/Files.h"

using namespace std::chrono_literals;

TEST(StallWatchTest, WorkPastTheLimitIsHandedOnOnceAndItsThreadIsTold) {
    std::atomic<int> stalls{0};
    std::atomic<bool> accept{true};
    ipc::StallWatch watch(20ms, [&] {
        ++stalls;
        return accept.load();
    });
    ASSERT_EQ(watch.start(), 0);

    const uint64_t slow = watch.begin();
    ASSERT_TRUE(testsupport::eventually([&] { return stalls == 1; }, 10s));
    EXPECT_FALSE(watch.end(slow)) << "its thread learns that someone else carried on";

    // After a quiet spell the watch sleeps for good; work begun then still wakes it.
    std::this_thread::sleep_for(1200ms);
    accept = false;
    const uint64_t stuck = watch.begin();
    ASSERT_TRUE(testsupport::eventually([&] { return stalls == 2; }, 10s));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(stalls, 2) << "a refused hand-on is not asked for again and again";
    EXPECT_TRUE(watch.end(stuck)) << "nobody took over: the thread carries on itself";
    watch.stop();
}
