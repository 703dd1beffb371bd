#include "util/Version.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>
#include <vector>

#include "UtilTestSupport.h"

using namespace std::chrono_literals;

namespace {

class VersionTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(testutil::installFakeReader(m_root.path()));
        testutil::makeDirs(m_root / "etc/config");
        ASSERT_TRUE(replace(modl(), "XUMA/Version=2.3.1\nOther/Version=1.0\n", 0));
        ASSERT_TRUE(testutil::writeFile(m_root / "etc/config/tarvik.conf",
                                        "System/Version=5.1.0\nSystem/Build Number=20240101\n"));
    }
    std::string modl() const { return m_root / "etc/config/modl.conf"; }
    size_t runs() const { return testutil::readLines(m_root / "sbin/yarrow.calls").size(); }
    // Replaces the file in one step, as an editor saving it would, with its time moved ahead.
    bool replace(const std::string& path, const std::string& text, long secondsAhead) {
        const std::string next = path + ".new";
        struct stat st;
        if (!testutil::writeFile(next, text) || ::stat(next.c_str(), &st) != 0) return false;
        timespec times[2] = {st.st_atim, st.st_mtim};
        times[1].tv_sec += secondsAhead;
        return ::utimensat(AT_FDCWD, next.c_str(), times, 0) == 0 && ::rename(next.c_str(), path.c_str()) == 0;
    }

    testutil::TempDir m_root;
    testutil::RootGuard m_guard{m_root.path()};
};

TEST_F(VersionTest, CachedUntilTheFileChangesWhichIsReadOnceHoweverManyCallersWait) {
    for (int i = 0; i < 20; ++i) ASSERT_EQ(getVersionText("XUMA"), "XUMA 2.3.1");
    EXPECT_EQ(testutil::readFile(m_root / "sbin/yarrow.calls"), "-f " + modl() + " XUMA Version\n");
    EXPECT_EQ(runs(), 1u) << "served from the cache";

    // The file is looked at again within a second or so, and read once when it has changed.
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                std::string v = getVersionText("XUMA");
                bad += v != "XUMA 2.3.1" && v != "XUMA 9.9.9";
            }
        });
    }
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(replace(modl(), "XUMA/Version=9.9.9\nOther/Version=1.0\n", 10));
    EXPECT_TRUE(testsupport::eventually([] { return getVersionText("XUMA") == "XUMA 9.9.9"; }, 10s));
    stop = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(runs(), 2u) << "the change is read once, not by every waiting caller";
    EXPECT_EQ(getVersionText("Other"), "Other 1.0") << "each package has its own entry";
    EXPECT_EQ(runs(), 3u);
}

TEST_F(VersionTest, FirmwareIsTheFallbackAndFailuresAreRemembered) {
    EXPECT_EQ(getVersionText("Missing", false), "");
    EXPECT_EQ(getVersionText("Missing"), "FW 5.1.0.20240101");
    const size_t before = runs();
    EXPECT_EQ(getVersionText("Missing", false), "");
    EXPECT_EQ(runs(), before) << "a failure is remembered for a while too";
}

}  // namespace
