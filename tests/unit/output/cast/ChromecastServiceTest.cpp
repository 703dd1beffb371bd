// The Chromecast service against the simulated sender: the exact line of every operation with
// its escaping, and the failures a sender can show. A lost receiver is the player's test.
#include <gtest/gtest.h>

#include <chrono>

#include "output/cast/ChromecastService.h"
#include "unit/output/cast/CastTestSupport.h"

namespace {

using namespace std::chrono_literals;

class ChromecastServiceTest : public testsupport::CastSenderTest {
protected:
    void TearDown() override {
        ChromecastService::setReplyTimeout(35s);
        CastSenderTest::TearDown();
    }
    // A loaded service (sender started, application launched).
    void load(ChromecastService& s, Response& r) {
        ASSERT_EQ(s.setContentUrl(r, "http://127.0.0.1:8200/media/mu_101.mp3", "Morning", "", ""), 0);
        ASSERT_EQ(r.m_response, 0);
        ASSERT_GT(s.senderPid(), 0);
    }
};

TEST_F(ChromecastServiceTest, EveryOperationWritesItsLine) {
    ChromecastService s("cast-1", "10.0.0.7", 8009, "Den");
    Response r;
    ASSERT_EQ(s.setContentUrl(r, "http://h/media/mu_101.mp3?a=\"q\"&b=c\\d", "Say \"hi\"\n\tthere \xc3\xa9t\xc3\xa9",
                              "http://h/art.jpg", "http://h/sub.srt"),
              0);
    const pid_t pid = s.senderPid();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(callLog.count("node", {at("usr/local/medialibrary/bin/nodejs/ChromecastSender.js"), "10.0.0.7"}), 1);
    // The usual port goes without saying; a group's own port is passed on.
    EXPECT_EQ(ChromecastService::senderArgv("10.0.0.7", 8009).size(), 3u);
    EXPECT_EQ(ChromecastService::senderArgv("10.0.0.7", 32101).back(), "32101");
    EXPECT_EQ(r.m_state, "PLAYING");
    EXPECT_FLOAT_EQ(r.m_duration, 3.0f);

    Response x;
    EXPECT_EQ(s.play(x), 0);
    EXPECT_EQ(s.pause(x), 0);
    EXPECT_EQ(s.seek(x, 1.5f), 0);
    EXPECT_EQ(s.getPosInfo(x), 0);
    EXPECT_EQ(x.m_state, "PAUSED");
    EXPECT_FLOAT_EQ(x.m_position, 1.5f);
    EXPECT_EQ(s.setVolume(x, 0.4f), 0);
    EXPECT_EQ(s.getVolume(x), 0);
    EXPECT_FLOAT_EQ(x.m_volume, 0.4f);
    EXPECT_EQ(s.setMute(x, true), 0);
    EXPECT_EQ(s.getMute(x), 0);
    EXPECT_TRUE(x.m_muted);
    EXPECT_EQ(s.setMute(x, false), 0);
    EXPECT_EQ(s.stop(x), 0);
    EXPECT_EQ(s._close(x), 0);
    EXPECT_EQ(received(pid),
              "{ \"cmd\":\"LAUNCH\" }\r\n"
              "{\"cmd\":\"LOAD\", \"url\":\"http://h/media/mu_101.mp3?a=\\\"q\\\"&b=c\\\\d\", "
              "\"title\":\"Say \\\"hi\\\"\\n\\tthere \xc3\xa9t\xc3\xa9\", \"imageUrl\":\"http://h/art.jpg\", "
              "\"subtitle\":\"http://h/sub.srt\"}\r\n"
              "{ \"cmd\":\"PLAY\" }\r\n{ \"cmd\":\"PAUSE\" }\r\n{ \"cmd\":\"SEEK\", \"seektime\":\"1.500000\" }\r\n"
              "{ \"cmd\":\"STATUS\" }\r\n{ \"cmd\":\"SET_VOLUME\", \"volume\":\"0.400000\" }\r\n"
              "{ \"cmd\":\"GET_VOLUME\" }\r\n{ \"cmd\":\"SET_MUTE\", \"mute\":\"true\" }\r\n"
              "{ \"cmd\":\"GET_MUTE\" }\r\n{ \"cmd\":\"SET_MUTE\", \"mute\":\"false\" }\r\n"
              "{ \"cmd\":\"STOP\" }\r\n{ \"cmd\":\"CLOSE\" }\r\n");
    s.closeSender();  // going away ends the sender
    EXPECT_TRUE(gone(pid));
}

TEST_F(ChromecastServiceTest, NothingIsSentBeforeTheSenderRunsAndTheApplicationIsLaunchedAndALoadCanBeRefused) {
    ChromecastService s("cast-1", "10.0.0.7", 8009, "Den");
    Response r;
    EXPECT_NE(s.play(r), 0) << "Sender not init";
    EXPECT_NE(s.getPosInfo(r), 0);
    EXPECT_EQ(callLog.count("node"), 0) << "only a load starts the sender";

    // The launch's answer makes no sense: the sender runs, the application is not launched.
    setSwitches(R"({"garbage": true})");
    EXPECT_NE(s.setContentUrl(r, "http://h/media/mu_101.mp3", "", "", ""), 0);
    const pid_t pid = s.senderPid();
    ASSERT_GT(pid, 0);
    setSwitches("{}");
    EXPECT_NE(s.seek(r, 3), 0) << "Receiver is not launch";
    EXPECT_EQ(received(pid), "{ \"cmd\":\"LAUNCH\" }\r\n");

    // A refused load is a failed answer of a working exchange; the sender stays for the next track.
    setSwitches(R"({"refuse_load": true})");
    ChromecastService t("cast-1", "10.0.0.7", 8009, "Den");
    EXPECT_EQ(t.setContentUrl(r, "http://h/media/mu_101.mp3", "", "", ""), 0);
    EXPECT_EQ(std::pair(r.m_response, r.m_errMsg), std::pair(3L, std::string("LOAD_FAILED")));
    EXPECT_TRUE(t.inited());
}

TEST_F(ChromecastServiceTest, ASenderThatDoesNotAnswerIsEndedAfterTheReplyTimeout) {
    ChromecastService::setReplyTimeout(300ms);
    for (const char* how : {R"({"silent": true})", R"({"partial": true})", R"({"exit": true})"}) {
        SCOPED_TRACE(how);
        ChromecastService s("cast-1", "10.0.0.7", 8009, "Den");
        Response r;
        load(s, r);
        const pid_t pid = s.senderPid();
        setSwitches(how);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_NE(s.getPosInfo(r), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 20s) << "bounded by the reply time-out, not 35 s";
        EXPECT_TRUE(gone(pid)) << "its half answer would be taken for the next one's";
        EXPECT_NE(s.play(r), 0);
        setSwitches("{}");
        load(s, r);  // a new sender in step again
        Response x;
        EXPECT_EQ(s.getPosInfo(x), 0);
        EXPECT_EQ(x.m_response, 0);
    }
}

}  // namespace
