// The manager's housekeeping: players whose render vanished are retired and can come back.
#include <gtest/gtest.h>

#include <atomic>

#include "player/CPlayerManager.h"
#include "player/ThreadLock.h"

namespace {

struct Calls {
    std::atomic<int> stops{0};
    std::atomic<int> monitorsOff{0};
};

class RecordingPlayer : public CPlayer {
public:
    RecordingPlayer(const std::string& id, Calls& calls) : CPlayer(0x10000, id, "name-" + id), m_calls(calls) {}
    int play() override { return 0; }
    int stop(bool force) override {
        if (force) ++m_calls.stops;
        return 0;
    }
    int pause() override { return 0; }
    int next() override { return 0; }
    int previous() override { return 0; }
    int seek(const char*) override { return 0; }
    int setAudioAndSubtitle(const char*, int, int, const char*, const char*, const char*, const char*, const char*,
                            const char*, int) override {
        return 0;
    }
    void monitor(bool on) override {
        if (!on) ++m_calls.monitorsOff;
    }
    void debugDump(std::string& out) override { out += "state of " + getRenderID(); }

private:
    Calls& m_calls;
};

// A manager whose back-end factory makes recording players.
class TestManager : public CPlayerManager {
public:
    Calls calls;
    TestManager() : CPlayerManager(3600) {}

    CPlayer* add(const std::string& id) {
        ThreadWriteLock lock(getRWLock());
        int result = -4;
        return addPlayer_(result, id, "", "");
    }
    void listed(const std::vector<std::string>& ids) {
        ThreadWriteLock lock(getRWLock());
        clearRenderFoundFlags_();
        for (const auto& id : ids) addRenderInCache(id.c_str(), id.c_str(), "10.0.0.9", 0x10000, "rsa", 7000, "", "");
    }

protected:
    std::unique_ptr<CPlayer> createBackend_(const std::string& id, const renderCacheInfo_s&, const std::string&,
                                            const std::string&, int&) override {
        return std::make_unique<RecordingPlayer>(id, calls);
    }
};

TEST(PlayerManagerTest, UndiscoveredRenderGetsNoPlayer) {
    TestManager m;
    EXPECT_EQ(m.add("uuid:never-seen"), nullptr);
    EXPECT_EQ(m.getNumOfPlayer(), 0u);
}

TEST(PlayerManagerTest, PlayerIsRetiredOnTheFourthMissedListingAndRevived) {
    TestManager m;
    m.listed({"a", "b"});
    CPlayer* a = m.add("a");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->getIP(), "10.0.0.9");
    ASSERT_NE(m.add("b"), nullptr);

    m.listed({"b"});  // "a" has gone from the network
    for (int pass = 1; pass <= 3; ++pass) {
        m.housekeepingPass();
        EXPECT_EQ(m.getNumOfPlayer(), 2u) << "pass " << pass;
    }
    m.housekeepingPass();
    EXPECT_EQ(m.getNumOfPlayer(), 1u);
    EXPECT_EQ(m.calls.stops.load(), 1);
    EXPECT_EQ(m.calls.monitorsOff.load(), 1);

    // Back on the network: the very same player returns, without an address until listed.
    m.listed({"a", "b"});
    EXPECT_EQ(m.add("a"), a);
    EXPECT_EQ(a->getIP(), "");
    EXPECT_EQ(m.getNumOfPlayer(), 2u);
}

TEST(PlayerManagerTest, SeenAgainResetsTheMissCount) {
    TestManager m;
    m.listed({"a"});
    ASSERT_NE(m.add("a"), nullptr);
    for (int round = 0; round < 3; ++round) {
        m.listed({});
        m.housekeepingPass();
        m.housekeepingPass();
        m.housekeepingPass();
        m.listed({"a"});
        m.housekeepingPass();
    }
    EXPECT_EQ(m.getNumOfPlayer(), 1u);
}

TEST(PlayerManagerTest, DebugInfoNamesThePlayer) {
    TestManager m;
    m.listed({"a"});
    ASSERT_NE(m.add("a"), nullptr);
    XMLNode out;
    ASSERT_EQ(m.getDebugInfo("a", out), 0);
    EXPECT_STREQ(out.getName(), "root");
    EXPECT_STREQ(out.getChildNode(0).getText(), "state of a");
    EXPECT_EQ(m.getDebugInfo("zzz", out), -4);
    EXPECT_EQ(m.getDebugInfo(nullptr, out), -4);
}

TEST(PlayerManagerTest, ThreadStopsPromptly) {
    TestManager m;
    ASSERT_EQ(m.start("manager"), 0);
    auto start = std::chrono::steady_clock::now();
    m.stopThread();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
