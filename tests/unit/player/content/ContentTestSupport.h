// Shared by the content-resolution tests: the simulated appliance root of the binary, and what
// the fakes recorded in calls.log.
#pragma once

#include <string>
#include <vector>

#include "unit/support/Players.h"
#include "unit/support/SimRoot.h"

namespace contenttest {

using testsupport::callLine;
using Lines = std::vector<std::string>;

using testsupport::FakePlayer;

class ContentTest : public testsupport::SimRootTest {
protected:
    // The calls.log lines written since the last look.
    Lines newCalls() { return callLog.fresh(); }
    static Lines agentCall(const std::vector<std::string>& args) { return {callLine("tessaly", args)}; }
};

// Library files whose names a shell would split or expand.
inline const char* const kRain = "share/Public/Music/02 Rain & Thunder.mp3";
inline const char* const kLive = "share/Public/Music/03 L'été <live>.mp3";
inline const char* const kPwned = "share/Public/Music/04 $(echo pwned).mp3";
inline const char* const kHoliday = "share/Public/Video/holiday.mp4";

}  // namespace contenttest
