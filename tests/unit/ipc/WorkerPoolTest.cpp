// The bounded worker threads.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "ipc/WorkerPool.h"
#include "unit/support/Files.h"

using namespace std::chrono_literals;

TEST(WorkerPoolTest, RunsJobsSideBySideUpToTheBoundAndFinishesTheQueuedOnes) {
    ipc::WorkerPool pool(3, "test-worker");
    std::mutex mutex;
    std::condition_variable cond;
    bool release = false;
    std::atomic<int> running{0}, peak{0}, done{0};
    auto job = [&] {
        const int now = ++running;
        for (int p = peak; now > p && !peak.compare_exchange_weak(p, now);) {}
        std::unique_lock lock(mutex);
        cond.wait(lock, [&] { return release; });
        --running;
        ++done;
    };
    // A job that throws does not take its thread along: all three still run the blocking jobs.
    ASSERT_TRUE(pool.submit([] { throw std::runtime_error("boom"); }));
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(pool.submit(job));
    ASSERT_TRUE(testsupport::eventually([&] { return running == 3; }, 10s));
    EXPECT_EQ(pool.threadCount(), 3u);
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    cond.notify_all();
    pool.finish();
    EXPECT_EQ(done, 8);
    EXPECT_EQ(peak, 3);
    EXPECT_FALSE(pool.submit(job));
}
