// Reading the text that "mpc status" prints. Kept apart from the player so the parsing can be
// tested on captured answers without an MPD.
//
// Typical answers (mpc 0.34 against MPD 0.23):
//
//   playing:   /share/Music/a b&c.mp3
//              [playing] #1/1   0:01/0:02 (50%)
//              volume:100%   repeat: off   random: off   single: off   consume: off
//   paused:    [paused]  #1/1   1:02:03/2:00:00 (51%)       <- hours appear on long files
//   stopped:   volume: 35%   repeat: off   random: off   single: off   consume: off
//   no mixer:  volume: n/a   repeat: off   ...
//
// The first line is the song's title or file name, which may itself begin with "[".
#pragma once

#include <string_view>

struct MpdStatus {
    // 0 playing, 1 anything else (stopped, no state line, unreadable), 2 paused.
    int state = 1;
    // The position word parsed; when false, current and total are 0.
    bool timeKnown = false;
    int current = 0;  // seconds into the file
    int total = 0;    // the file's length in seconds
    int volume = -1;  // 0..100, -1 when not reported as "NN%"
};

MpdStatus parseMpdStatus(std::string_view text);

// "m:ss/m:ss" or "h:mm:ss/h:mm:ss" (any number of ':' groups) -> seconds. False, with both left
// at 0, for anything else.
bool parseMpdTimes(std::string_view word, int& current, int& total);
