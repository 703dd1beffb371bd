// The Chromecast player against the simulated sender. (That a player going away ends its
// sender is the daemon's end-to-end Chromecast test.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "output/cast/CChromecast.h"
#include "player/PlayerTypes.h"
#include "unit/output/cast/CastTestSupport.h"

namespace {

using namespace std::chrono_literals;

class CastPlayerTest : public testsupport::CastSenderTest {
protected:
    void SetUp() override {
        CastSenderTest::SetUp();
        CChromecast::setTick(50ms);
    }
    void TearDown() override {
        CChromecast::setTick(1000ms);
        ChromecastService::setReplyTimeout(35s);
        CastSenderTest::TearDown();
    }
    // A player of the given tracks, their length told by the sender; with volume >= 0 set
    // before it plays.
    std::unique_ptr<CChromecast> playing(const std::vector<std::string>& files, int seconds = 60, int volume = -1) {
        setSwitches(R"({"duration": )" + std::to_string(seconds) + "}");
        std::vector<testsupport::Entry> entries;
        for (const auto& f : files) entries.push_back(testsupport::file(at("share/Public/Music/" + f)));
        testsupport::makePlaylist("queue", entries);
        auto p = std::make_unique<CChromecast>(playertype::kChromecast | playertype::kCapAudio, "cast-1", "Den",
                                               "queue", "music", "10.0.0.7", 8009);
        EXPECT_TRUE(volume < 0 || p->setVolume(volume) == 0);
        EXPECT_EQ(p->play(), 0);
        return p;
    }
    // The sender's switches besides a minute's track length.
    void switches(const std::string& more) { setSwitches(R"({"duration": 60, )" + more + "}"); }
    static bool waitFor(const std::function<bool()>& done) { return testsupport::eventually(done, 20s); }
    bool waitSent(pid_t pid, const std::string& line) {
        return waitFor([&] { return receivedLine(pid, "{ \"cmd\":" + line + " }\r\n"); });
    }
    // How often what occurs in what every sender so far read.
    int loads(const std::string& what) {
        int n = 0;
        for (const auto& entry : std::filesystem::directory_iterator(at("var/sim/cast"))) {
            const std::string text = testsupport::readFile(entry.path());
            for (size_t p = 0; (p = text.find(what, p)) != std::string::npos; ++p) ++n;
        }
        return n;
    }
};

TEST_F(CastPlayerTest, AQueuePlaysThroughWithTitlesRelaunchingAnApplicationClosedOutsideAndStopsInNormalMode) {
    auto p = playing({"01 Morning.mp3", "02 Rain & Thunder.mp3"}, 1);
    ASSERT_TRUE(waitFor([&] { return loads("\"title\":\"Morning\"") == 1; }));
    const pid_t pid = p->senderPid();
    EXPECT_TRUE(receivedLine(pid, "{\"cmd\":\"LOAD\", \"url\":\"http://127.0.0.1:8200/media/mu_101.mp3\", "
                                  "\"title\":\"Morning\", \"imageUrl\":\"http://127.0.0.1:8200/art/mu_101.jpg\"}\r\n"));
    // Closed by another sender: the next load goes to the same sender, is refused, and a new
    // sender launches the application again for it.
    setSwitches(R"({"duration": 1, "outside": "close"})");
    ASSERT_TRUE(waitFor([&] { return loads("\"title\":\"Rain & Thunder\"") == 2; }));
    EXPECT_TRUE(receivedLine(pid, "\"title\":\"Rain & Thunder\"")) << "one sender for the queue";
    const pid_t next = p->senderPid();
    ASSERT_TRUE(waitFor([&] { return p->getPlayerState() == STATE_STOP_E; }));
    EXPECT_EQ(loads("\"cmd\":\"LOAD\""), 3) << "NORMAL: once through";
    EXPECT_EQ(callLog.count("node"), 2);
    EXPECT_TRUE(waitFor([&] { return gone(next) && gone(pid); })) << "a full stop ends the sender";
}

TEST_F(CastPlayerTest, ControlsReachTheSenderWithoutWaitingForIt) {
    auto p = playing({"01 Morning.mp3"}, 60, 30);
    ASSERT_TRUE(waitFor([&] { return p->senderPid() > 0 && p->getTotalTimeSecond() == 60; }));
    const pid_t pid = p->senderPid();
    EXPECT_TRUE(waitSent(pid, R"("SET_VOLUME", "volume":"0.300000")")) << "kept for the first load";

    ASSERT_EQ(p->pause(), 0);
    EXPECT_TRUE(receivedLine(pid, "{ \"cmd\":\"PAUSE\" }\r\n"));
    ASSERT_EQ(p->seek("00:00:30"), 0);
    EXPECT_TRUE(waitSent(pid, R"("SEEK", "seektime":"30.000000")")) << "sought while paused";
    ASSERT_EQ(p->setMute(true), 0);
    EXPECT_TRUE(p->isMute());
    EXPECT_TRUE(waitSent(pid, R"("SET_MUTE", "mute":"true")"));
    ASSERT_EQ(p->setMute(false), 0);
    ASSERT_EQ(p->setVolume(45), 0);
    ASSERT_EQ(p->play(), 0);
    EXPECT_TRUE(receivedLine(pid, "{ \"cmd\":\"PLAY\" }\r\n"));
    EXPECT_TRUE(waitFor([&] { return p->getCurrTimeSecondWithOutSeek() >= 30; })) << "the position counts on from 30";
    EXPECT_TRUE(waitSent(pid, R"("SET_VOLUME", "volume":"0.450000")"));
    EXPECT_EQ(p->getVolume(), 45);

    ASSERT_EQ(p->stop(true), 0);
    EXPECT_TRUE(receivedLine(pid, "{ \"cmd\":\"STOP\" }\r\n{ \"cmd\":\"CLOSE\" }\r\n"));
    EXPECT_TRUE(gone(pid));
}

TEST_F(CastPlayerTest, ASilentSenderHoldsUpNoCommandThread) {
    auto p = playing({"01 Morning.mp3"});
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecondWithOutSeek() >= 1; }));
    ChromecastService::setReplyTimeout(8s);
    const pid_t pid = p->senderPid();
    const size_t before = received(pid).size();
    switches(R"("silent": true)");
    // A status request goes unanswered: the worker waits out the reply time-out ...
    ASSERT_TRUE(waitFor([&] { return received(pid).find("STATUS", before) != std::string::npos; }));
    // ... while the controls are taken without it.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(p->setVolume(20), 0);
    EXPECT_EQ(p->seek("00:00:10"), 0);
    EXPECT_EQ(p->setMute(true), 0);
    EXPECT_EQ(p->getVolume(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
    setSwitches(R"({"duration": 60})");
    // Then the silent sender is replaced, and the new one gets what was asked meanwhile.
    ASSERT_TRUE(waitFor([&] { return p->senderPid() > 0 && p->senderPid() != pid; }));
    EXPECT_TRUE(gone(pid));
    EXPECT_TRUE(waitSent(p->senderPid(), R"("SET_MUTE", "mute":"true")"));
}

TEST_F(CastPlayerTest, TheReceiversOwnRemoteIsFollowed) {
    auto p = playing({"01 Morning.mp3"});
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecondWithOutSeek() >= 1; }));
    for (auto [outside, state] : {std::pair("pause", STATE_PAUSE_E), std::pair("resume", STATE_PLAY_E)}) {
        switches(std::string(R"("outside": ")") + outside + "\"");
        ASSERT_TRUE(waitFor([&] { return p->getPlayerState() == state; })) << outside;
    }
    const pid_t pid = p->senderPid();
    switches(R"("outside": "stop")");
    ASSERT_TRUE(waitFor([&] { return p->getPlayerState() == STATE_STOP_E; }));
    EXPECT_TRUE(waitFor([&] { return gone(pid); }));
    EXPECT_EQ(loads("\"cmd\":\"LOAD\""), 1) << "stopped, not moved on";
}

TEST_F(CastPlayerTest, ALostSenderIsReplacedWhereTheTrackWasThenGivenUp) {
    auto p = playing({"01 Morning.mp3"});
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecondWithOutSeek() >= 2; }));
    const pid_t first = p->senderPid();
    switches(R"("drop": 1)");
    ASSERT_TRUE(waitFor([&] { return p->senderPid() > 0 && p->senderPid() != first; }));
    const pid_t second = p->senderPid();
    EXPECT_TRUE(gone(first));
    ASSERT_TRUE(waitFor([&] { return received(second).find("\"cmd\":\"SEEK\"") != std::string::npos; }));
    const std::string lines = received(second);
    const size_t seek = lines.find("\"seektime\":\"");
    ASSERT_NE(seek, std::string::npos);
    EXPECT_GE(std::atof(lines.c_str() + seek + 12), 2.0) << lines;
    EXPECT_EQ(p->getPlayerState(), STATE_PLAY_E);
    // It plays again (two status requests after the seek: the first one's answer was heard).
    ASSERT_TRUE(waitFor([&] {
        const std::string text = received(second);
        const size_t status = text.find("STATUS", seek);
        return status != std::string::npos && text.find("STATUS", status + 1) != std::string::npos;
    }));

    // Lost for good: three new senders, then the player stops with none left.
    switches(R"("drop": 100)");
    ASSERT_TRUE(waitFor([&] { return p->getPlayerState() == STATE_STOP_E; }));
    EXPECT_EQ(callLog.count("node"), 2 + CChromecast::kMaxReloads);
    EXPECT_EQ(p->senderPid(), -1);
}

}  // namespace
