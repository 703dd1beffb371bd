// A simulated AirPlay receiver for the tests: sim/lib/simairplay.py on a free loopback port,
// with its request log and switches (see sim/README.md).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "unit/support/Files.h"
#include "util/Process.h"

namespace airplaytest {

using namespace std::chrono_literals;

class SimReceiver {
public:
    explicit SimReceiver(double length = 10) {
        m_process.start({"/usr/bin/python3", VELMORA_SOURCE_DIR "/sim/lib/simairplay.py", m_dir.path(), "--length",
                         std::to_string(length)});
        testsupport::eventually([&] { return testsupport::exists(m_dir.path() + "/port"); }, 10s);
        m_port = std::atoi(testsupport::readFile(m_dir.path() + "/port").c_str());
    }
    int port() const { return m_port; }
    // Each request since the last look as "METHOD PATH", then forgotten.
    std::vector<std::string> takeRequests() {
        std::vector<std::string> all = testsupport::readLines(m_dir.path() + "/requests.log");
        all.erase(all.begin(), all.begin() + static_cast<long>(std::min(m_seen, all.size())));
        m_seen += all.size();
        return all;
    }
    void setSwitches(const std::string& json) { testsupport::writeFile(m_dir.path() + "/switches.json", json); }
    // Gone from the network: nothing listens on its port any more.
    void vanish() { m_process.kill(); }
    // Whether a request line was seen, and how many of them.
    size_t count(const std::string& fragment) {
        size_t n = 0;
        for (const auto& line : testsupport::readLines(m_dir.path() + "/requests.log"))
            n += line.find(fragment) != std::string::npos;
        return n;
    }

private:
    testsupport::TempDir m_dir{"velmora-airplay"};
    Subprocess m_process;
    int m_port = 0;
    size_t m_seen = 0;
};

}  // namespace airplaytest
