// The Chromecast tests' view of the simulated sender: its switches and what each sender
// process read.
#pragma once

#include <signal.h>

#include <string>

#include "unit/support/SimRoot.h"

namespace testsupport {

class CastSenderTest : public ThreadCheckedTest {
protected:
    void setSwitches(const std::string& json) { ASSERT_TRUE(writeFile(at("var/sim/cast-sender.json"), json)); }
    // Everything the sender of pid read, byte for byte.
    std::string received(pid_t pid) const {
        return readFile(m_root + "/var/sim/cast/" + std::to_string(pid) + ".log");
    }
    bool receivedLine(pid_t pid, const std::string& line) const {
        return received(pid).find(line) != std::string::npos;
    }
    // The process is gone and reaped (a zombie still answers kill 0).
    static bool gone(pid_t pid) { return pid > 0 && ::kill(pid, 0) != 0; }
};

}  // namespace testsupport
