// Time texts, mute and status reads racing a back-end thread.
#include <atomic>
#include <thread>

#include "PlayerTestSupport.h"

namespace {

TEST(PlayerTimeTest, HhmmssToSecond) {
    // Fields count from the hours: "01:30" is an hour and a half.
    for (auto [text, seconds] : {std::pair("1:2:3", 3723), std::pair("01:30", 3600), std::pair("90", 0),
                                 std::pair("", 0), std::pair("2:", 7200), std::pair("::7", 7),
                                 std::pair("99999999999:0:0", INT32_MAX)})  // clamped, not overflowed
        EXPECT_EQ(CPlayer::hhmmssToSecond(text), seconds) << text;
    EXPECT_EQ(CPlayer::hhmmssToSecond(nullptr), 0);

    std::string text;
    for (auto [seconds, expected] : {std::pair(3599, "00:59:59"), std::pair(100 * 3600, "100:00:00")}) {
        CPlayer::secondToHHMMSS(seconds, text);
        EXPECT_EQ(text, expected);
    }
}

TEST(PlayerMuteTest, UnmuteRestoresTheVolumeRememberedByAnyPlayer) {
    FakePlayer kitchen, hall;
    kitchen.volume = 40;
    EXPECT_EQ(kitchen.setMute(true), 0);  // what muting does to a volume is the command test's

    hall.volume = 0;  // already silent: nothing new is remembered
    hall.setMute(true);
    hall.setMute(false);
    EXPECT_EQ(hall.volume, 40) << "one remembered volume for the whole process";
    kitchen.setMute(false);
    EXPECT_EQ(kitchen.volume, 40);

    kitchen.volume = -1;
    EXPECT_TRUE(kitchen.isMute()) << "a device without a volume reads as muted";
}

// Status reads (the manager, under the player lock) race the back-end's reports (its own
// thread, without that lock); run under the thread sanitizer this must stay silent.
TEST(PlayerConcurrencyTest, StatusReadsRaceBackendReports) {
    FakePlayer p;
    std::atomic<bool> done{false};
    std::thread backend([&] {
        for (int i = 0; i < 2000; ++i) {
            p.setCurrTime(i);
            p.setTotalTime("00:10:00");
            p.setPlayerState(i % 2 ? STATE_PLAY_E : STATE_PAUSE_E);
            p.setSubtitleTrack(i % 3);
            p.setCurrTrackIndex(0);
        }
        done = true;
    });
    size_t malformed = 0;
    while (!done) {
        playerStatus_s s;
        p.getStatus(s);
        if (s.totalTime.size() != 8) ++malformed;
    }
    EXPECT_EQ(malformed, 0u);
    backend.join();
}

}  // namespace
