// The thread base and the monitor. (The try-lock guard is exercised by the Busy answers of the
// player commands.)
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "thread/CMyMonitor.h"
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

struct Target {
    std::atomic<int> calls{0};
    void callback() { ++calls; }
    std::string getDeviceName() const { return "test-device"; }
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

TEST(MonitorTest, CallsBackPausesAndResumes) {
    Target target;
    myMonitor::CMyMonitor<Target> monitor(&target, 0);
    ASSERT_EQ(monitor.start("monitor"), 0);
    while (target.calls < 3) std::this_thread::sleep_for(1ms);

    monitor.pause();
    EXPECT_TRUE(monitor.isPaused());
    EXPECT_TRUE(monitor.isStopRequested());
    std::this_thread::sleep_for(20ms);  // a callback under way may still finish
    int frozen = target.calls;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(target.calls.load(), frozen);

    monitor.resume();
    while (target.calls < frozen + 3) std::this_thread::sleep_for(1ms);
}

TEST(MonitorTest, DestroyingAPausedMonitorWakesAndEndsIt) {
    Target target;
    auto start = std::chrono::steady_clock::now();
    {
        myMonitor::CMyMonitor<Target> monitor(&target, 3600);
        ASSERT_EQ(monitor.start("monitor"), 0);
        while (target.calls < 1) std::this_thread::sleep_for(1ms);
        monitor.pause();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}
