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
        {"/share/Music/a b&c.mp3\n[playing] #1/1   0:01/0:02 (50%)\nvolume:100%   repeat: off\n", 0, true, 1, 2, 100},
        {"Concert\n[paused]  #3/7   1:02:03/2:00:00 (51%)\nvolume:  7%   repeat: off\n", 2, true, 3723, 7200, 7},
        // A title starting with a bracket is not the state line.
        {"[live] Song\n[playing] #1/1   10:00/11:30 (87%)\nvolume: 35%   repeat: off\n", 0, true, 600, 690, 35},
        {"volume: 35%   repeat: off   random: off   single: off   consume: off\n", 1, false, 0, 0, 35},  // stopped
        // Still playing when only the times are unreadable.
        {"t\n[playing] #1/1   0:0x/0:03 (0%)\nvolume: 50%\n", 0, false, 0, 0, 50},
        {"x\n[paused]  #1/1   75/90 (55%)\nvolume: 60%", 2, true, 75, 90, 60},  // plain seconds, cut short
        {"", 1, false, 0, 0, -1},
        {"MPD error: Connection refused\n", 1, false, 0, 0, -1},
        {"[stopped] #1/1 0:00/0:03\nvolume: n/a   repeat: off\n", 1, false, 0, 0, -1},
    };
    for (const Case& c : cases) {
        MpdStatus s = parseMpdStatus(c.text);
        EXPECT_EQ(std::tuple(s.state, s.timeKnown, s.current, s.total, s.volume),
                  std::tuple(c.state, c.timeKnown, c.current, c.total, c.volume))
            << c.text;
    }
    int current = -5, total = -5;
    for (const char* word : {"0:01", "/0:03", "1::2/0:03", "0:01/0:03x"}) {
        EXPECT_FALSE(parseMpdTimes(word, current, total)) << word;
        EXPECT_EQ(std::pair(current, total), std::pair(0, 0)) << word;
    }
}

TEST(MpdAttrTest, ReadsBothSettingsCaseInsensitively) {
    struct Case {
        const char* text;
        int result, rate, dsd;
    } cases[] = {
        {"SAMPLERATE=Auto,DSDPASS=enable", 0, -1, 1},
        {"samplerate=96000, dsdpass=Disable", 0, 96000, 0},
        // Not given, or not understood: -2; a later pair wins; pairs without '=' are skipped.
        {"samplerate=0,DSDPASS,DSDPASS=maybe,DSDPASS=Auto", 0, -2, -1},
        {"", -1, -2, -2},
    };
    for (const Case& c : cases) {
        int rate = 0, dsd = 0;
        EXPECT_EQ(ParseMpdAttr(c.text, &rate, &dsd), c.result) << c.text;
        EXPECT_EQ(std::pair(rate, dsd), std::pair(c.rate, c.dsd)) << c.text;
    }
    int dsd = 0;
    EXPECT_EQ(ParseMpdAttr("SAMPLERATE=1", nullptr, &dsd), -1);
}

}  // namespace
