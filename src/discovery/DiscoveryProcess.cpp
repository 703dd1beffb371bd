#include "discovery/DiscoveryProcess.h"

#include <string_view>

#include "util/Log.h"
#include "util/Process.h"

namespace discovery {

int runListing(const std::vector<std::string>& argv, std::string& output, size_t cap, int timeoutSec) {
    output.clear();
    ProcessOptions options;
    options.timeoutMs = timeoutSec > 0 ? timeoutSec * 1000 : -1;
    options.outputCap = cap;
    ProcessResult r = runProcess(argv, options);
    if (r.spawnErrno != 0) {
        LOG_ERR("popen(%s) ... fail", formatCommandLine(argv).c_str());
        return -1;
    }
    if (r.timedOut || r.termSignal != 0) {
        LOG_WARN("%s did not finish (timed out: %d, signal %d)", formatCommandLine(argv).c_str(), r.timedOut ? 1 : 0,
                 r.termSignal);
        return -1;
    }
    output.assign(r.output.c_str());
    return 0;
}

std::string keepLinesContaining(const std::string& text, const std::string& needle) {
    std::string kept;
    std::string_view rest(text);
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        if (line.find(needle) != std::string_view::npos) {
            kept.append(line);
            kept += '\n';
        }
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 1);
    }
    return kept;
}

}  // namespace discovery
