// The AirPlay-speaker player against the simulated sender.
#include <gtest/gtest.h>
#include <signal.h>

#include "output/raop/CRaopPlayer.h"
#include "player/PlayerTypes.h"
#include "unit/support/SimRoot.h"

namespace {

using namespace std::chrono_literals;
using testsupport::callLine;

class RaopPlayerTest : public testsupport::ThreadCheckedTest {
protected:
    void SetUp() override {
        ThreadCheckedTest::SetUp();
        CRaopPlayer::setTick(50ms);
        dir = m_root + "/share/Public/Music/raop-test";
        for (auto [name, seconds] : {std::pair("long.mp3", 120), std::pair("a.mp3", 2), std::pair("b.mp3", 2)})
            ASSERT_FALSE(tone(std::string("raop-test/") + name, 440, seconds).empty());
    }
    void TearDown() override {
        CRaopPlayer::setTick(1000ms);
        ThreadCheckedTest::TearDown();
    }
    void makePlaylist(const char* title, const std::vector<std::string>& files) {
        std::vector<testsupport::Entry> entries;
        for (const auto& f : files) entries.push_back(testsupport::file(dir + "/" + f));
        testsupport::makePlaylist(title, entries);
    }
    std::unique_ptr<CRaopPlayer> player(const char* title, bool encrypted = false) {
        return std::make_unique<CRaopPlayer>(playertype::kRaop | playertype::kCapAudio, "AABBCCDDEEFF", "Amp", title,
                                             "music", encrypted, "10.0.0.9", 5000);
    }
    // How often the sender of pid received the datagram text; "file NAME" for a test track.
    long received(pid_t pid, std::string text) {
        if (text.rfind("file ", 0) == 0) text.insert(5, dir + "/");
        const auto sent = testsupport::readLines(m_root + "/var/sim/raop/" + std::to_string(pid) + ".log");
        return std::count(sent.begin(), sent.end(), text);
    }
    // Waits for a sender other than old to receive the track name.
    bool started(CRaopPlayer& p, const char* name, pid_t old = 0) {
        return waitFor([&] { return p.childPid() > 0 && p.childPid() != old && received(p.childPid(), name); });
    }
    void switches(const char* json) { ASSERT_TRUE(testsupport::writeFile(m_root + "/var/sim/raop.json", json)); }
    static bool waitFor(const std::function<bool()>& done) { return testsupport::eventually(done, 15s); }

    std::string dir;
};

TEST_F(RaopPlayerTest, EachOperationIsOneDatagramADeadSenderIsStartedAgainAndStopEndsTheSender) {
    makePlaylist("long", {"long.mp3"});
    auto p = player("long");
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(started(*p, "file long.mp3"));
    EXPECT_EQ(callLog.count("raop_play", {"-i", "--port", "5000", "-e", "10.0.0.9"}), 1) << "-e: not encrypted";
    const pid_t old = p->childPid();
    ASSERT_EQ(::kill(old, SIGKILL), 0);
    ASSERT_TRUE(started(*p, "file long.mp3", old)) << "a new sender plays the track from its beginning";
    const pid_t pid = p->childPid();
    ASSERT_TRUE(waitFor([&] { return p->getTotalTimeSecond() == 120 && p->getPlayerState() == STATE_PLAY_E; }));

    EXPECT_EQ(p->setVolume(150), 0);
    EXPECT_EQ(p->getVolume(), 100);
    EXPECT_EQ(p->setVolume(-5), 0);
    // Sought while paused (nothing counts meanwhile): the first position after the resume is 90.
    ASSERT_EQ(p->pause(), 0);
    const int before = p->getCurrTimeSecondWithOutSeek();
    ASSERT_EQ(p->seek("00:01:30"), 0);
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecondWithOutSeek() != before; }));
    EXPECT_GE(p->getCurrTimeSecondWithOutSeek(), 90) << "the position counts on from 90";

    ASSERT_EQ(p->stop(true), 0);
    for (const char* d : {"volume 100", "volume 0", "pause", "seek 90", "play", "quit"})
        EXPECT_TRUE(received(pid, d)) << d;
    for (const char* end : {"srv", "cli"})
        EXPECT_FALSE(testsupport::exists(m_root + "/tmp/.raop_play." + end + "." + std::to_string(pid)));
    EXPECT_NE(::kill(pid, 0), 0) << "the sender is gone";

    // An encrypting speaker: no -e.
    auto secret = player("long", true);
    ASSERT_EQ(secret->play(), 0);
    ASSERT_TRUE(waitFor([&] { return callLog.count("raop_play", {"10.0.0.9"}) == 3; }));
    EXPECT_EQ(callLog.count("raop_play", {"-e"}), 2);
}

TEST_F(RaopPlayerTest, NormalStopsAfterAFinishedTrackRepeatGoesOnMissingFilesStopAtOnce) {
    makePlaylist("two", {"a.mp3", "b.mp3"});
    auto p = player("two");
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(started(*p, "file a.mp3"));
    const pid_t first = p->childPid();
    ASSERT_TRUE(waitFor([&] { return p->getCurrTrackIndex() == 1 && p->getPlayerState() == STATE_STOP_E; }));
    EXPECT_FALSE(received(first, "file b.mp3")) << "NORMAL stops after each finished track";

    p->setPlayMode(PLAYMODE_REPEAT_E, 0, 0);
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return received(p->childPid(), "file b.mp3") && received(p->childPid(), "file a.mp3"); }))
        << "REPEAT goes on";
    ASSERT_EQ(p->stop(true), 0);

    makePlaylist("gone", {"missing1.mp3", "missing2.mp3"});
    auto q = player("gone");
    ASSERT_EQ(q->play(), 0);
    ASSERT_TRUE(waitFor([&] { return q->getPlayerState() == STATE_STOP_E && q->isParked(); }));
    EXPECT_EQ(q->getTotalTimeSecond(), 0);
}

TEST_F(RaopPlayerTest, ASenderThatPlaysNothingOrNeverComesUpLeavesNothing) {
    makePlaylist("long", {"long.mp3"});
    // A sender that answers "state" with garbage, or not at all, plays nothing: the track ends
    // after ten passes (and, the last of its queue, starts again).
    for (const char* sw : {R"({"garbage": true})", R"({"stall": true})"}) {
        auto r = player("long");
        ASSERT_EQ(r->play(), 0);
        ASSERT_TRUE(waitFor([&] { return r->getPlayerState() == STATE_PLAY_E; }));
        switches(sw);
        ASSERT_TRUE(waitFor([&] { return received(r->childPid(), "file long.mp3") >= 2; })) << sw;
        switches("{}");
        ASSERT_EQ(r->stop(true), 0);
    }

    switches(R"({"nosocket": true})");
    auto q = player("long");
    ASSERT_EQ(q->play(), 0);
    ASSERT_TRUE(waitFor([&] { return q->getPlayerState() == STATE_STOP_E && q->isParked() && q->childPid() > 0; }));
    EXPECT_NE(::kill(q->childPid(), 0), 0) << "the sender that never came up was ended";
}

}  // namespace
