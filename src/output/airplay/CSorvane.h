// The platform's AirPlay script (run by its PHP interpreter), which drives receivers that ask
// for a password: the AirPlay player falls back on it for such receivers. Each operation is
// one run of the script; its answer is a small XML document whose "status" must be "0".
#pragma once

#include <string>

namespace CSorvane {

class CSorvaneOpInterface {
public:
    enum Op {
        kStop = 1,
        kPause = 2,
        kResume = 3,
        kPhoto = 4,     // arg1: the photo's path
        kPlay = 5,      // arg1: the URL; arg2 (optional): -i; arg3 (optional): the subtitle's path (-t)
        kStopOnly = 6,
        kScrub = 7,     // arg1: the position
    };

    // 0 when the script answers status "0"; -1 for anything else, an unknown op, op 4 without
    // a path, or a script that cannot run or answer in time.
    static int sendCommand(int op, const std::string& device, const char* arg1, const char* arg2, const char* arg3);
    // Current and total time in whole seconds (both 0 when nothing could be read).
    static int getPosInfo(const std::string& device, int& currTime, int& totalTime);
};

}  // namespace CSorvane
