#include "agent/DlnaAgent.h"

#include <strings.h>

#include <cctype>
#include <cstring>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"
#include "xml/XMLNode.h"

namespace dlnaagent {

namespace {
constexpr const char* kAgent = "/usr/bin/tessaly";
// The agent answers renderer actions within a second or two; a renderer that hangs the agent
// must not hold the player's loop (or a command thread) for ever.
constexpr int kAgentTimeoutMs = 10000;
}  // namespace

Argv command(const char* name, const std::string& uuid) { return {approot::path(kAgent), "-c", name, "--uuid", uuid}; }

bool query(const Argv& argv, size_t cap, std::string& reply) {
    ProcessOptions options;
    options.timeoutMs = kAgentTimeoutMs;
    options.outputCap = cap;
    ProcessResult r = runProcess(argv, options);
    if (r.spawnErrno != 0 || r.timedOut) {
        LOG_ERR("popen(%s) ... fail", formatCommandLine(argv).c_str());
        reply.clear();
        return false;
    }
    reply.assign(r.output.c_str());
    return true;
}

void fire(const Argv& argv) {
    ProcessOptions options;
    options.timeoutMs = kAgentTimeoutMs;
    options.capture = ProcessOptions::Capture::None;
    ProcessResult r = runProcess(argv, options);
    if (r.spawnErrno != 0 || r.timedOut) LOG_ERR("%s ... fail", formatCommandLine(argv).c_str());
}

std::string field(const std::string& reply, const char* name) {
    if (reply.empty()) return {};
    XMLNode root = XMLNode::parseString(reply, "root");
    if (root.isEmpty()) return {};
    const char* text = root.getChildNode(name).getText();
    return text ? text : "";
}

void appendTransportOptions(Argv& argv, const std::string& netInterface, int audioTrack, int subtitleTrack,
                            const char* externalSubtitle) {
    if (!netInterface.empty()) argv.insert(argv.end(), {"--interface", netInterface});
    if (audioTrack > 0) argv.insert(argv.end(), {"--audioTrack", std::to_string(audioTrack)});
    if (subtitleTrack >= 0) argv.insert(argv.end(), {"--subtitle", std::to_string(subtitleTrack)});
    if (externalSubtitle && *externalSubtitle) argv.insert(argv.end(), {"--externalSubtitle", externalSubtitle});
}

std::string urlEscape(const std::string& text) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || c == '/') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        }
    }
    return out;
}

bool containsNoCase(const std::string& text, const char* word) {
    size_t n = std::strlen(word);
    if (n == 0) return true;
    for (size_t i = 0; i + n <= text.size(); ++i)
        if (strncasecmp(text.c_str() + i, word, n) == 0) return true;
    return false;
}

}  // namespace dlnaagent
