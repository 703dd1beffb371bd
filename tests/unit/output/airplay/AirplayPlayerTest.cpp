// The AirPlay player on the simulated appliance (media agent for the URLs) against a simulated
// receiver over real HTTP.
#include <gtest/gtest.h>

#include "SimReceiver.h"
#include "output/airplay/CAirplayPlayer.h"
#include "player/PlayerTypes.h"
#include "unit/support/SimRoot.h"

namespace {

using namespace std::chrono_literals;
using airplaytest::SimReceiver;
using testsupport::makePlaylist;
using testsupport::object;

class AirplayPlayerTest : public testsupport::ThreadCheckedTest {
protected:
    void SetUp() override {
        ThreadCheckedTest::SetUp();
        CAirplayPlayer::setTick(50ms);
        CAirplayPlayer::setSettleDelay(0ms);
        CurlWrapper::setTimeouts(1000ms, 2000ms);
    }
    void TearDown() override {
        CAirplayPlayer::setTick(1000ms);
        CAirplayPlayer::setSettleDelay(1000ms);
        CurlWrapper::setTimeouts(3000ms, 5000ms);
        ThreadCheckedTest::TearDown();
    }
    std::unique_ptr<CAirplayPlayer> player(const SimReceiver& rx, const char* title, const std::string& auth = "") {
        return std::make_unique<CAirplayPlayer>(playertype::kAirplay | playertype::kCapVideo, "AA:BB:CC:00:11:22",
                                                "Bedroom TV", title, "video", "127.0.0.1", rx.port(), auth);
    }
    static bool waitFor(const std::function<bool()>& done) { return testsupport::eventually(done, 15s); }
};

TEST_F(AirplayPlayerTest, AQueueOfVideoMusicAndPhotoPlaysThrough) {
    SimReceiver rx(1.0);
    makePlaylist("trip", {object("vi_201", MEDIA_VIDEO_E), object("mu_101"), object("ph_301", MEDIA_PHOTO_E)}, "video");
    auto p = player(rx, "trip");
    p->setSlideShowDelay(1);
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return rx.count(R"("path": "/photo")") == 1 && p->getPlayerState() == STATE_STOP_E; }));
    EXPECT_EQ(rx.count(R"("path": "/play")"), 2u);
    EXPECT_EQ(rx.count("/media/vi_201.mp4"), 1u) << "the agent's URL for the receiver";
    EXPECT_EQ(rx.count("/media/mu_101.mp3"), 1u);
    EXPECT_GE(rx.count(R"("path": "/stop")"), 1u);
}

TEST_F(AirplayPlayerTest, ControlsReachTheReceiverAndItsStopOrLossStopsThePlayer) {
    SimReceiver rx(60.0);
    makePlaylist("film", {object("vi_201", MEDIA_VIDEO_E)}, "video");
    auto p = player(rx, "film");
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return p->getTotalTimeSecond() == 60 && p->getPlayerState() == STATE_PLAY_E; }));
    ASSERT_EQ(p->pause(), 0);
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
    ASSERT_EQ(p->play(), 0);
    ASSERT_EQ(p->seek("00:00:30"), 0);
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 30; }));
    ASSERT_EQ(p->stop(true), 0);
    EXPECT_EQ(rx.count(R"("method": "POST", "path": "/rate?value=0")"), 1u);
    EXPECT_EQ(rx.count(R"("method": "POST", "path": "/rate?value=1")"), 1u);
    EXPECT_EQ(rx.count(R"("method": "POST", "path": "/scrub?position=30")"), 1u);
    EXPECT_EQ(rx.count(R"("method": "POST", "path": "/stop")"), 2u) << "the first pass stops it, then stop()";

    // Stopped from the receiver's remote: stopped, not moved on. Gone from the network: stopped.
    ASSERT_EQ(p->play(), 0);
    // Seen playing again (the stop set the position back to 0).
    ASSERT_TRUE(waitFor([&] { return rx.count("/media/vi_201.mp4") == 2 && p->getCurrTimeSecond() >= 1; }));
    rx.setSwitches(R"({"outside": "stop"})");
    ASSERT_TRUE(waitFor([&] { return p->getPlayerState() == STATE_STOP_E; }));
    EXPECT_EQ(rx.count("/media/vi_201.mp4"), 2u);
    rx.setSwitches("{}");
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return rx.count("/media/vi_201.mp4") == 3 && p->getPlayerState() == STATE_PLAY_E; }));
    rx.vanish();
    ASSERT_TRUE(waitFor([&] { return p->getPlayerState() == STATE_STOP_E; }));
}

TEST_F(AirplayPlayerTest, AReceiverThatWantsAPasswordIsDrivenThroughTheScript) {
    SimReceiver rx(60.0);
    rx.setSwitches(R"({"password": true})");
    makePlaylist("film", {object("vi_201", MEDIA_VIDEO_E)}, "video");
    auto p = player(rx, "film");
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitFor([&] { return callLog.count("php", {"-c=status"}) >= 2; }));
    EXPECT_TRUE(p->usesScript());
    EXPECT_EQ(callLog.count("php", {"-c=play", "-d=AA:BB:CC:00:11:22"}), 1);
    EXPECT_EQ(p->getPlayerState(), STATE_PLAY_E);
    ASSERT_EQ(p->stop(true), 0);
    EXPECT_EQ(callLog.count("php", {"-c=stop"}), 1);

    // Listed with an authentication method: the script from the start.
    SimReceiver open(60.0);
    auto listed = player(open, "film", "Passcode");
    EXPECT_TRUE(listed->usesScript());
}

}  // namespace
