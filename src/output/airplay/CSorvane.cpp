#include "output/airplay/CSorvane.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"
#include "xml/XMLNode.h"

namespace CSorvane {

namespace {

constexpr int kScriptTimeoutMs = 15000;
constexpr size_t kReplyMax = 4096;

std::vector<std::string> scriptArgv(const char* op, const std::string& device) {
    return {approot::path("/usr/local/apache/bin/php"), approot::path("/usr/local/medialibrary/bin/Sorvane/sorvane.php"),
            std::string("-c=") + op, "-d=" + device};
}

// Runs the script; its answer's root element, or an empty handle when there is none.
XMLNode run(const std::vector<std::string>& argv) {
    LOG_TRACE("%s", formatCommandLine(argv).c_str());
    ProcessOptions options;
    options.timeoutMs = kScriptTimeoutMs;
    options.outputCap = kReplyMax;
    ProcessResult r = runProcess(argv, options);
    if (r.spawnErrno != 0 || r.timedOut || r.termSignal != 0) return XMLNode();
    return XMLNode::parseString(r.output, "root");
}

bool statusIsZero(const XMLNode& root) {
    const char* status = root.getChildNode("status").getText();
    return status && std::strcmp(status, "0") == 0;
}

}  // namespace

int CSorvaneOpInterface::sendCommand(int op, const std::string& device, const char* arg1, const char* arg2,
                                     const char* arg3) {
    std::vector<std::string> argv;
    switch (op) {
        case kStop: argv = scriptArgv("stop", device); break;
        case kPause: argv = scriptArgv("pause", device); break;
        case kResume: argv = scriptArgv("resume", device); break;
        case kPhoto:
            if (!arg1) break;
            argv = scriptArgv("photo", device);
            argv.push_back(std::string("-u=") + arg1);
            break;
        case kPlay:
            argv = scriptArgv("play", device);
            argv.push_back(std::string("-u=") + (arg1 ? arg1 : ""));
            break;
        case kStopOnly: argv = scriptArgv("stop_only", device); break;
        case kScrub:
            argv = scriptArgv("scrub", device);
            argv.push_back(std::string("-t=") + (arg1 ? arg1 : ""));
            break;
        default: break;
    }
    if (argv.empty()) return -1;
    argv.push_back("-x");
    // The play command's optional parts come after -x.
    if (op == kPlay && arg2) argv.push_back(std::string("-i=") + arg2);
    if (op == kPlay && arg3) argv.push_back(std::string("-t=") + arg3);
    XMLNode root = run(argv);
    return !root.isEmpty() && statusIsZero(root) ? 0 : -1;
}

int CSorvaneOpInterface::getPosInfo(const std::string& device, int& currTime, int& totalTime) {
    currTime = 0;
    totalTime = 0;
    std::vector<std::string> argv = scriptArgv("status", device);
    argv.push_back("-x");
    XMLNode root = run(argv);
    if (root.isEmpty()) {
        LOG_ERR("....err");
        return -1;
    }
    const char* duration = root.getChildNode("duration").getText();
    const char* position = root.getChildNode("position").getText();
    if (duration) totalTime = static_cast<int>(std::strtol(duration, nullptr, 10));
    if (position) currTime = static_cast<int>(std::strtol(position, nullptr, 10));
    LOG_TRACK("[currTime ]:%d  %s", currTime, position ? position : "");
    return statusIsZero(root) ? 0 : -1;
}

}  // namespace CSorvane
