// Shared by the content-resolution tests: the simulated appliance root of the binary, a player
// back-end that only records, and what the fakes recorded in calls.log.
#pragma once

#include <string>
#include <vector>

#include "unit/support/Players.h"
#include "unit/support/SimRoot.h"

namespace contenttest {

using testsupport::callLine;

class IdlePlayer : public testsupport::FakePlayer {
public:
    explicit IdlePlayer(const char* title = nullptr, const char* appType = nullptr)
        : FakePlayer(playertype::kDlna, "uuid:content-1", "Den", title ? title : "", appType ? appType : "") {}
};

struct SimRoot {
    static const std::string& path() { return testsupport::simRoot(); }
};

inline std::vector<std::string> lines(const std::string& path) { return testsupport::readLines(path); }

class ContentTest : public testsupport::SimRootTest {
protected:
    std::string callsLog() const { return m_root + "/var/sim/calls.log"; }
    // The calls.log lines written since the last look.
    std::vector<std::string> newCalls() { return callLog.fresh(); }
    static std::vector<std::string> agentCall(const std::vector<std::string>& args) {
        return {callLine("tessaly", args)};
    }
};

// Library files whose names a shell would split or expand.
inline const char* const kRain = "share/Public/Music/02 Rain & Thunder.mp3";
inline const char* const kLive = "share/Public/Music/03 L'été <live>.mp3";
inline const char* const kPwned = "share/Public/Music/04 $(echo pwned).mp3";
inline const char* const kMorning = "share/Public/Music/01 Morning.mp3";
inline const char* const kHoliday = "share/Public/Video/holiday.mp4";

}  // namespace contenttest
