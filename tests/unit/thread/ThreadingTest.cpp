// The thread base and the monitor. (The try-lock guard is exercised by the Busy answers of the
// player commands.)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "thread/CThread.h"
#include "thread/ThreadLock.h"

using namespace std::chrono_literals;

namespace {

class Worker : public CThread {
public:
    std::atomic<int> steps{0};
    bool startedUp = false, exited = false;
    ~Worker() override { join(); }

protected:
    void onStartup() override { startedUp = true; }
    void process() override {
        steps = 3;
        throw "escaped";  // must not take the process down
    }
    void onExit() override { exited = true; }
};

}  // namespace

TEST(ThreadTest, BodyRunsAndAnExceptionStaysInside) {
    Worker w;
    ASSERT_EQ(w.start("worker"), 0);
    w.join();
    EXPECT_TRUE(w.startedUp);
    EXPECT_EQ(w.steps.load(), 3);
    EXPECT_FALSE(w.exited);  // the throw skipped onExit
}
