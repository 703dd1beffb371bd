// The mpc status answers the player reads each turn, as mpc prints them, and the output
// attributes clients echo back from a listing.
#include <gtest/gtest.h>

#include "output/mpd/MpdAttr.h"
#include "output/mpd/MpdStatus.h"

namespace {

TEST(MpdStatus, StateTimesAndVolume) {
    struct Case {
        const char* text;
        int state;  // 0 playing, 1 stopped, 2 paused
        bool timeKnown;
        int current, total, volume;
    } cases[] = {
        {"/share/Music/a b&c.mp3\n[playing] #1/1   0:01/0:02 (50%)\nvolume:100%   repeat: off   random: off\n", 0,
         true, 1, 2, 100},
        {"Concert\n[paused]  #3/7   1:02:03/2:00:00 (51%)\nvolume:  7%   repeat: off\n", 2, true, 3723, 7200, 7},
        // A title starting with a bracket is not the state line.
        {"[live] Song\n[playing] #1/1   10:00/11:30 (87%)\nvolume: 35%   repeat: off\n", 0, true, 600, 690, 35},
        // Stopped: only the volume line.
        {"volume: 35%   repeat: off   random: off   single: off   consume: off\n", 1, false, 0, 0, 35},
        // Still playing when only the times are unreadable.
        {"t\n[playing] #1/1   0:0x/0:03 (0%)\nvolume: 50%\n", 0, false, 0, 0, 50},
        // No trailing newline, as a capped read may leave it.
        {"x\n[paused]  #1/1   0:05/0:09 (55%)\nvolume: 60%", 2, true, 5, 9, 60},
        {"", 1, false, 0, 0, -1},
        {"MPD error: Connection refused\n", 1, false, 0, 0, -1},
        {"[stopped] #1/1 0:00/0:03\nvolume: n/a   repeat: off\n", 1, false, 0, 0, -1},
        {"volume:\n", 1, false, 0, 0, -1},
    };
    for (const Case& c : cases) {
        MpdStatus s = parseMpdStatus(c.text);
        EXPECT_EQ(s.state, c.state) << c.text;
        EXPECT_EQ(s.timeKnown, c.timeKnown) << c.text;
        EXPECT_EQ(s.current, c.current) << c.text;
        EXPECT_EQ(s.total, c.total) << c.text;
        EXPECT_EQ(s.volume, c.volume) << c.text;
    }
}

TEST(MpdStatus, MalformedTimesLeaveZeros) {
    int current = -5, total = -5;
    for (const char* word : {"", "0:01", "/0:03", "0:01/", "1::2/0:03", "99999999999/1", "0:01/0:03x"}) {
        EXPECT_FALSE(parseMpdTimes(word, current, total)) << word;
        EXPECT_EQ(std::pair(current, total), std::pair(0, 0)) << word;
    }
    EXPECT_TRUE(parseMpdTimes("75/90", current, total));  // plain seconds
    EXPECT_EQ(current, 75);
    EXPECT_EQ(total, 90);
}

TEST(MpdAttrTest, ReadsBothSettingsCaseInsensitively) {
    int rate = 0, dsd = 0;
    EXPECT_EQ(ParseMpdAttr("SAMPLERATE=Auto,DSDPASS=enable", &rate, &dsd), 0);
    EXPECT_EQ(rate, -1);
    EXPECT_EQ(dsd, 1);
    EXPECT_EQ(ParseMpdAttr("samplerate=96000, dsdpass=Disable", &rate, &dsd), 0);
    EXPECT_EQ(rate, 96000);
    EXPECT_EQ(dsd, 0);
    // Not given, or not understood: -2; a later pair wins; pairs without '=' are skipped.
    EXPECT_EQ(ParseMpdAttr("samplerate=0,DSDPASS,DSDPASS=maybe,DSDPASS=Auto", &rate, &dsd), 0);
    EXPECT_EQ(rate, -2);
    EXPECT_EQ(dsd, -1);
    EXPECT_EQ(ParseMpdAttr("", &rate, &dsd), -1);
    EXPECT_EQ(rate, -2);
    EXPECT_EQ(ParseMpdAttr("SAMPLERATE=1", nullptr, &dsd), -1);
}

}  // namespace
