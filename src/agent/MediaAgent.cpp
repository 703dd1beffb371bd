#include "agent/MediaAgent.h"

#include <strings.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"
#include "util/TimeText.h"

namespace mediaagent {

namespace {

constexpr const char* kAgent = "/usr/bin/tessaly";
// The agent answers from its database, and renderer actions, within a second or two; a hung
// agent must not hold a player (or a command thread) for ever.
constexpr int kAgentTimeoutMs = 10000;
// Answers are small XML documents; one that does not fit was cut and cannot be trusted.
constexpr size_t kAnswerCap = 4096;

void appendOptional(Argv& argv, const char* option, const char* value) {
    if (value && *value) {
        argv.emplace_back(option);
        argv.emplace_back(value);
    }
}

// The text of <root>/<field> of the agent's answer to argv; false when there is none.
bool agentField(const Argv& argv, const char* field, std::string& value, XMLNode* rootOut = nullptr) {
    LOG_TRACE("%s", formatCommandLine(argv).c_str());
    std::string answer;
    if (!captureOutput(argv, kAnswerCap, kAgentTimeoutMs, answer)) return false;
    LOG_TRACE("\n\n%s", answer.c_str());
    XMLNode root = XMLNode::parseString(answer, "root");
    if (root.isEmpty()) {
        LOG_ERR("%s: no answer document", formatCommandLine(argv).c_str());
        return false;
    }
    const char* text = root.getChildNode(field).getText();
    if (!text || !*text) {
        LOG_ERR("%s: no %s in the answer", formatCommandLine(argv).c_str(), field);
        return false;
    }
    value = text;
    if (rootOut) *rootOut = root;
    return true;
}

// Seconds from the agent's slice fields: plain seconds, or hh:mm:ss; -1 when absent or unreadable.
int sliceSeconds(const char* text) {
    if (!text || !*text) return -1;
    if (std::strchr(text, ':')) return hhmmss_convert_to_sec(text);
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 0 || value > INT_MAX) return -1;
    return static_cast<int>(value);
}

bool isTrue(const char* text) {
    return text && (std::strcmp(text, "1") == 0 || strcasecmp(text, "true") == 0 || strcasecmp(text, "yes") == 0);
}

}  // namespace

Argv command(const char* name) { return {approot::path(kAgent), "-c", name}; }

Argv command(const char* name, const std::string& uuid) {
    Argv argv = command(name);
    argv.insert(argv.end(), {"--uuid", uuid});
    return argv;
}

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

XMLNode ask(const Argv& argv) {
    LOG_AGENT("%s", formatCommandLine(argv).c_str());
    std::string answer;
    if (!query(argv, kAnswerCap * 2, answer)) return XMLNode();
    return XMLNode::parseString(answer, "root");
}

// ---- content resolution --------------------------------------------------------------------

int dbIDToUpnpObjectID(const std::string& dbID, int mediaType, std::string& objectID) {
    Argv argv = command("getObjectID");
    argv.insert(argv.end(), {"--dbID", dbID, "--mediaType", std::to_string(mediaType)});
    return agentField(argv, "objectID", objectID) ? 0 : -1;
}

int upnpObjectToFilePath(const std::string& objectID, std::string& filePath) {
    Argv argv = command("getFilePath");
    argv.insert(argv.end(), {"--objectID", objectID});
    return agentField(argv, "filePath", filePath) ? 0 : -1;
}

int upnpObjectToFilePath(const std::string& objectID, std::string& filePath, int& startTime,
                                  int& duration) {
    Argv argv = command("getFilePath");
    argv.insert(argv.end(), {"--objectID", objectID});
    XMLNode root;
    if (!agentField(argv, "filePath", filePath, &root)) return -1;
    startTime = sliceSeconds(root.getChildNode("startTime").getText());
    duration = sliceSeconds(root.getChildNode("duration").getText());
    // Half a slice is no slice: play the whole file rather than guess.
    if (startTime < 0 || duration < 0) startTime = duration = -1;
    return 0;
}

int dbIDToFilePath(const std::string& dbID, int mediaType, std::string& filePath, int& startTime,
                            int& duration) {
    std::string objectID;
    if (dbIDToUpnpObjectID(dbID, mediaType, objectID) != 0) return -1;
    return upnpObjectToFilePath(objectID, filePath, startTime, duration);
}

int filePathToObjectID(const std::string& filePath, std::string& objectID) {
    Argv argv = command("getObjectID");
    argv.insert(argv.end(), {"--filePath", filePath});
    return agentField(argv, "objectID", objectID) ? 0 : -1;
}

namespace {
// getContentUrl for an object (--objectID) or a file (--filePath).
int contentUrl(const char* by, const std::string& what, std::string& url, const char* clientType,
               const char* netInterface) {
    Argv argv = command("getContentUrl");
    argv.insert(argv.end(), {by, what});
    appendOptional(argv, "--clientType", clientType);
    appendOptional(argv, "--interface", netInterface);
    return agentField(argv, "url", url) ? 0 : -1;
}
}  // namespace

int upnpObjectToUrl(const std::string& objectID, std::string& url, const char* clientType, const char* netInterface) {
    return contentUrl("--objectID", objectID, url, clientType, netInterface);
}

int filePathToUrl(const std::string& filePath, std::string& url, const char* clientType, const char* netInterface) {
    return contentUrl("--filePath", filePath, url, clientType, netInterface);
}

int browseByUpnpObjectID(const std::string& objectID, std::string& out, const char* clientType,
                                  int startingIndex, int requestedCount, const char* netInterface) {
    Argv argv = command("browse");
    argv.insert(argv.end(), {"--objectID", objectID, "--browseFlag", "BrowseMetadata"});
    appendOptional(argv, "--clientType", clientType);
    if (startingIndex != -1) argv.insert(argv.end(), {"--startingIndex", std::to_string(startingIndex)});
    if (requestedCount != -1) argv.insert(argv.end(), {"--requestedCount", std::to_string(requestedCount)});
    appendOptional(argv, "--interface", netInterface);
    LOG_AGENT("cmd: %s", formatCommandLine(argv).c_str());
    std::string answer;
    if (!captureOutput(argv, kAnswerCap, kAgentTimeoutMs, answer)) return -1;
    if (answer.empty()) {
        LOG_ERR("%s: empty answer", formatCommandLine(argv).c_str());
        return -1;
    }
    out = std::move(answer);
    return 0;
}

int browseByDbID(const std::string& dbID, int mediaType, std::string& out, const char* clientType,
                          int startingIndex, int requestedCount, const char* netInterface) {
    std::string objectID;
    if (dbIDToUpnpObjectID(dbID, mediaType, objectID) != 0) return -1;
    return browseByUpnpObjectID(objectID, out, clientType, startingIndex, requestedCount, netInterface);
}

int browseByFilePath(const std::string& filePath, std::string& out, const char* clientType,
                              int startingIndex, int requestedCount, const char* netInterface) {
    std::string objectID;
    if (filePathToObjectID(filePath, objectID) != 0) return -1;
    return browseByUpnpObjectID(objectID, out, clientType, startingIndex, requestedCount, netInterface);
}

int automaticSubtitle(const std::string& objectID, std::string& path) {
    Argv argv = command("getExternalSubtitle");
    argv.insert(argv.end(), {"--objectID", objectID});
    LOG_TRACE("%s", formatCommandLine(argv).c_str());
    std::string answer;
    if (!captureOutput(argv, kAnswerCap, kAgentTimeoutMs, answer)) return -1;
    if (answer.empty()) {
        LOG_ERR("faile to fread");
        return -1;
    }
    XMLNode result = XMLNode::parseString(answer, "root").getChildNode("u:GetExternalSubtitleResponse")
                         .getChildNode("Result");
    XMLNode didl = result.getChildNode("DIDL-Lite");
    // Some agents send the DIDL-Lite document as escaped text rather than as elements.
    if (didl.isEmpty() && result.getText()) didl = XMLNode::parseString(result.getText(), "DIDL-Lite");

    // The server marks the file it would play by itself; the first such track wins, in the
    // server's order.
    for (int i = 0, n = didl.nChildNode("ExternalSubtitleTrack"); i < n; ++i) {
        XMLNode track = didl.getChildNode("ExternalSubtitleTrack", i);
        const char* trackPath = track.getChildNode("TrackPath").getText();
        if (!isTrue(track.getChildNode("Automatic").getText()) || !trackPath || !*trackPath) continue;
        path = trackPath;
        return 0;
    }
    return -1;
}

// ---- renderer commands ---------------------------------------------------------------------

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

namespace {

// The text of the first element named `name` below node, depth first.
std::string firstText(const XMLNode& node, const char* name) {
    for (int i = 0; i < node.nChildNode(); ++i) {
        XMLNode child = node.getChildNode(i);
        if (strcasecmp(xmltoa(child.getName()), name) == 0 && child.getText()) return child.getText();
        std::string below = firstText(child, name);
        if (!below.empty()) return below;
    }
    return {};
}

}  // namespace

ItemMetadata itemMetadata(const std::string& browseAnswer) {
    ItemMetadata meta;
    XMLNode result = XMLNode::parseString(browseAnswer, "root").getChildNode("Result");
    if (result.isEmpty()) return meta;
    XMLNode didl = result;
    // Agents that follow the UPnP answer format send the document as text.
    if (result.nChildNode() == 0 && result.getText()) didl = XMLNode::parseString(result.getText());
    meta.title = firstText(didl, "dc:title");
    meta.albumArtUrl = firstText(didl, "upnp:albumArtURI");
    return meta;
}

}  // namespace mediaagent
