// The mpc status answers the player reads each turn, as mpc prints them.
#include <gtest/gtest.h>

#include "render/MpdStatus.h"

namespace {

TEST(MpdStatus, PlayingLineGivesPositionAndVolume) {
    MpdStatus s = parseMpdStatus(
        "/share/Music/a b&c.mp3\n"
        "[playing] #1/1   0:01/0:02 (50%)\n"
        "volume:100%   repeat: off   random: off   single: off   consume: off\n");
    EXPECT_EQ(s.state, 0);
    EXPECT_TRUE(s.timeKnown);
    EXPECT_EQ(s.current, 1);
    EXPECT_EQ(s.total, 2);
    EXPECT_EQ(s.volume, 100);
}

TEST(MpdStatus, PausedLongFileCountsHours) {
    MpdStatus s = parseMpdStatus(
        "Concert\n"
        "[paused]  #3/7   1:02:03/2:00:00 (51%)\n"
        "volume:  7%   repeat: off   random: off   single: off   consume: off\n");
    EXPECT_EQ(s.state, 2);
    EXPECT_EQ(s.current, 3723);
    EXPECT_EQ(s.total, 7200);
    EXPECT_EQ(s.volume, 7);
}

TEST(MpdStatus, TitleStartingWithBracketIsNotTheStateLine) {
    MpdStatus s = parseMpdStatus(
        "[live] Song\n"
        "[playing] #1/1   10:00/11:30 (87%)\n"
        "volume: 35%   repeat: off   random: off   single: off   consume: off\n");
    EXPECT_EQ(s.state, 0);
    EXPECT_EQ(s.current, 600);
    EXPECT_EQ(s.total, 690);

    // Stopped: only the volume line, so the title-like line above it is not there at all.
    s = parseMpdStatus("volume: 35%   repeat: off   random: off   single: off   consume: off\n");
    EXPECT_EQ(s.state, 1);
    EXPECT_FALSE(s.timeKnown);
    EXPECT_EQ(s.volume, 35);
}

TEST(MpdStatus, UnreadableAnswersAreNotPlaying) {
    for (const char* text : {"", "MPD error: Connection refused\n", "[stopped] #1/1 0:00/0:03\nvolume: 5%\n"}) {
        MpdStatus s = parseMpdStatus(text);
        EXPECT_EQ(s.state, 1) << text;
        EXPECT_EQ(s.current, 0) << text;
        EXPECT_EQ(s.total, 0) << text;
    }
    EXPECT_EQ(parseMpdStatus("volume: n/a   repeat: off\n").volume, -1);
    EXPECT_EQ(parseMpdStatus("volume:\n").volume, -1);
    // No trailing newline, as a capped read may leave it.
    EXPECT_EQ(parseMpdStatus("x\n[paused]  #1/1   0:05/0:09 (55%)\nvolume: 60%").volume, 60);
}

TEST(MpdStatus, MalformedPositionLeavesTimesAtZero) {
    MpdStatus s = parseMpdStatus("t\n[playing] #1/1   0:0x/0:03 (0%)\nvolume: 50%\n");
    EXPECT_EQ(s.state, 0);  // still playing: only the times are unknown
    EXPECT_FALSE(s.timeKnown);
    EXPECT_EQ(s.current, 0);
    EXPECT_EQ(s.total, 0);

    int current = -5, total = -5;
    for (const char* word : {"", "0:01", "/0:03", "0:01/", "1::2/0:03", "99999999999/1", "0:01/0:03x"}) {
        EXPECT_FALSE(parseMpdTimes(word, current, total)) << word;
        EXPECT_EQ(current, 0);
        EXPECT_EQ(total, 0);
    }
    EXPECT_TRUE(parseMpdTimes("75/90", current, total));  // plain seconds
    EXPECT_EQ(current, 75);
    EXPECT_EQ(total, 90);
}

}  // namespace
