// Content resolution: how a playlist entry (a file path, a UPnP object id or a library id)
// becomes a file path, a URL, a duration or a subtitle choice, by asking the media agent and the
// media library's tools. Every program runs from an argument vector; nothing is shell-quoted.
#include <poll.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"
#include "player/CPlayer.h"
#include "xml/XMLNode.h"

namespace {

using Argv = std::vector<std::string>;

constexpr const char* kAgent = "/usr/bin/tessaly";
constexpr const char* kProbe = "/usr/local/medialibrary/bin/ardith";
constexpr const char* kHistory = "/usr/local/medialibrary/bin/ebonry";
constexpr const char* kId = "/usr/bin/id";
constexpr const char* kShares = "/sbin/pimbrel";

// Answers are small XML documents; one that does not fit was cut and cannot be trusted.
constexpr size_t kAnswerCap = 4096;
constexpr size_t kDurationCap = 1024;
// The agent answers from its database within milliseconds; a hung agent must not hold the
// player (and the manager's lock around it) for ever.
constexpr int kAgentTimeoutMs = 10000;
// Measuring a file may read it from a sleeping disk.
constexpr int kProbeTimeoutMs = 20000;

Argv agentArgv(const char* command) { return {approot::path(kAgent), "-c", command}; }

void appendOptional(Argv& argv, const char* option, const char* value) {
    if (value && *value) {
        argv.emplace_back(option);
        argv.emplace_back(value);
    }
}

// Runs argv and returns its standard output (up to the first NUL) in `answer`; false when it
// could not run, timed out, or said more than `cap` bytes.
bool capture(const Argv& argv, size_t cap, int timeoutMs, std::string& answer) {
    ProcessOptions options;
    options.timeoutMs = timeoutMs;
    options.outputCap = cap;
    ProcessResult r = runProcess(argv, options);
    if (r.spawnErrno != 0) {
        LOG_ERR("Execute %s failed: %s", formatCommandLine(argv).c_str(), std::strerror(r.spawnErrno));
        return false;
    }
    if (r.timedOut) {
        LOG_ERR("%s timed out", formatCommandLine(argv).c_str());
        return false;
    }
    if (r.truncated) {
        LOG_ERR("%s: answer longer than %zu bytes", formatCommandLine(argv).c_str(), cap);
        return false;
    }
    answer.assign(r.output.c_str());
    return true;
}

int msUntil(std::chrono::steady_clock::time_point deadline) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return left <= 0 ? 0 : static_cast<int>(std::min<long long>(left, INT_MAX));
}

// Like capture(), with the program's standard error discarded instead of passed to the daemon's
// ("2> /dev/null"): runProcess only offers that together with discarding standard output.
bool captureQuiet(const Argv& argv, size_t cap, int timeoutMs, std::string& answer) {
    Subprocess child;
    Subprocess::Options so;
    so.out = Subprocess::Stream::Pipe;
    so.err = Subprocess::Stream::Null;
    if (int err = child.start(argv, so); err != 0) {
        LOG_ERR("Execute %s failed: %s", formatCommandLine(argv).c_str(), std::strerror(err));
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string out;
    char buf[1024];
    for (;;) {
        int left = msUntil(deadline);
        if (left == 0) {
            child.kill();
            LOG_ERR("%s timed out", formatCommandLine(argv).c_str());
            return false;
        }
        pollfd p{child.stdoutFd(), POLLIN, 0};
        int n = ::poll(&p, 1, left);
        if (n == 0 || (n < 0 && errno == EINTR)) continue;
        if (n < 0) break;
        ssize_t got = ::read(child.stdoutFd(), buf, sizeof buf);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got <= 0) break;  // end of output (or a broken pipe: what was read stands)
        out.append(buf, std::min(static_cast<size_t>(got), cap - std::min(cap, out.size())));
    }
    if (!child.waitFor(msUntil(deadline))) {
        child.kill();
        LOG_ERR("%s timed out", formatCommandLine(argv).c_str());
        return false;
    }
    answer.assign(out.c_str());
    return true;
}

// The text of <root>/<field> of the agent's answer to argv; false when there is none.
bool agentField(const Argv& argv, const char* field, std::string& value, XMLNode* rootOut = nullptr) {
    LOG_TRACE("%s", formatCommandLine(argv).c_str());
    std::string answer;
    if (!capture(argv, kAnswerCap, kAgentTimeoutMs, answer)) return false;
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
    if (std::strchr(text, ':')) return CPlayer::hhmmssToSecond(text);
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 0 || value > INT_MAX) return -1;
    return static_cast<int>(value);
}

// "h:mm:ss" with digits only around the two colons.
bool isTimeText(const std::string& text) {
    int colons = 0;
    bool digitSeen = false;
    for (char c : text) {
        if (c == ':') {
            if (!digitSeen) return false;
            ++colons;
            digitSeen = false;
        } else if (std::isdigit(static_cast<unsigned char>(c))) {
            digitSeen = true;
        } else {
            return false;
        }
    }
    return colons == 2 && digitSeen;
}

bool isTrue(const char* text) {
    return text && (std::strcmp(text, "1") == 0 || strcasecmp(text, "true") == 0 || strcasecmp(text, "yes") == 0);
}

// The file behind a playlist entry, whatever names it.
int entryFilePath(const playlistElm_s& elm, std::string& path) {
    std::string objectID;
    switch (elm.ContentType) {
        case CONTENT_FILE_E:
            if (elm.Content.empty()) return -1;
            path = elm.Content;
            return 0;
        case CONTENT_OBJECT_E: return CPlayer::upnpObjectToFilePath(elm.Content, path);
        case CONTENT_DBID_E:
            if (CPlayer::dbIDToUpnpObjectID(elm.Content, elm.MediaType, objectID) != 0) return -1;
            return CPlayer::upnpObjectToFilePath(objectID, path);
        default: return -1;
    }
}

}  // namespace

// ---- agent queries -------------------------------------------------------------------------

int CPlayer::dbIDToUpnpObjectID(const std::string& dbID, int mediaType, std::string& objectID) {
    Argv argv = agentArgv("getObjectID");
    argv.insert(argv.end(), {"--dbID", dbID, "--mediaType", std::to_string(mediaType)});
    return agentField(argv, "objectID", objectID) ? 0 : -1;
}

int CPlayer::upnpObjectToFilePath(const std::string& objectID, std::string& filePath) {
    Argv argv = agentArgv("getFilePath");
    argv.insert(argv.end(), {"--objectID", objectID});
    return agentField(argv, "filePath", filePath) ? 0 : -1;
}

int CPlayer::upnpObjectToFilePath(const std::string& objectID, std::string& filePath, int& startTime,
                                  int& duration) {
    Argv argv = agentArgv("getFilePath");
    argv.insert(argv.end(), {"--objectID", objectID});
    XMLNode root;
    if (!agentField(argv, "filePath", filePath, &root)) return -1;
    startTime = sliceSeconds(root.getChildNode("startTime").getText());
    duration = sliceSeconds(root.getChildNode("duration").getText());
    // Half a slice is no slice: play the whole file rather than guess.
    if (startTime < 0 || duration < 0) startTime = duration = -1;
    return 0;
}

int CPlayer::dbIDToFilePath(const std::string& dbID, int mediaType, std::string& filePath, int& startTime,
                            int& duration) {
    std::string objectID;
    if (dbIDToUpnpObjectID(dbID, mediaType, objectID) != 0) return -1;
    return upnpObjectToFilePath(objectID, filePath, startTime, duration);
}

int CPlayer::filePathToObjectID(const std::string& filePath, std::string& objectID) {
    Argv argv = agentArgv("getObjectID");
    argv.insert(argv.end(), {"--filePath", filePath});
    return agentField(argv, "objectID", objectID) ? 0 : -1;
}

int CPlayer::upnpObjectToUrl(const std::string& objectID, std::string& url, const char* clientType,
                             const char* netInterface) {
    Argv argv = agentArgv("getContentUrl");
    argv.insert(argv.end(), {"--objectID", objectID});
    appendOptional(argv, "--clientType", clientType);
    appendOptional(argv, "--interface", netInterface);
    return agentField(argv, "url", url) ? 0 : -1;
}

int CPlayer::filePathToUrl(const std::string& filePath, std::string& url, const char* clientType,
                           const char* netInterface) {
    Argv argv = agentArgv("getContentUrl");
    argv.insert(argv.end(), {"--filePath", filePath});
    appendOptional(argv, "--clientType", clientType);
    appendOptional(argv, "--interface", netInterface);
    return agentField(argv, "url", url) ? 0 : -1;
}

int CPlayer::browseByUpnpObjectID(const std::string& objectID, std::string& out, const char* clientType,
                                  int startingIndex, int requestedCount, const char* netInterface) {
    Argv argv = agentArgv("browse");
    argv.insert(argv.end(), {"--objectID", objectID, "--browseFlag", "BrowseMetadata"});
    appendOptional(argv, "--clientType", clientType);
    if (startingIndex != -1) argv.insert(argv.end(), {"--startingIndex", std::to_string(startingIndex)});
    if (requestedCount != -1) argv.insert(argv.end(), {"--requestedCount", std::to_string(requestedCount)});
    appendOptional(argv, "--interface", netInterface);
    LOG_AGENT("cmd: %s", formatCommandLine(argv).c_str());
    std::string answer;
    if (!capture(argv, kAnswerCap, kAgentTimeoutMs, answer)) return -1;
    if (answer.empty()) {
        LOG_ERR("%s: empty answer", formatCommandLine(argv).c_str());
        return -1;
    }
    out = std::move(answer);
    return 0;
}

int CPlayer::browseByDbID(const std::string& dbID, int mediaType, std::string& out, const char* clientType,
                          int startingIndex, int requestedCount, const char* netInterface) {
    std::string objectID;
    if (dbIDToUpnpObjectID(dbID, mediaType, objectID) != 0) return -1;
    return browseByUpnpObjectID(objectID, out, clientType, startingIndex, requestedCount, netInterface);
}

int CPlayer::browseByFilePath(const std::string& filePath, std::string& out, const char* clientType,
                              int startingIndex, int requestedCount, const char* netInterface) {
    std::string objectID;
    if (filePathToObjectID(filePath, objectID) != 0) return -1;
    return browseByUpnpObjectID(objectID, out, clientType, startingIndex, requestedCount, netInterface);
}

// ---- durations, users, history -------------------------------------------------------------

void CPlayer::setTotalTime(const playlistElm_s& elm) {
    std::string total;
    std::string path;
    if (entryFilePath(elm, path) == 0) {
        Argv argv{approot::path(kProbe), "getDuration", "--filePath", path};
        LOG_TRACE("### %s", formatCommandLine(argv).c_str());
        std::string answer;
        if (captureQuiet(argv, kDurationCap, kProbeTimeoutMs, answer)) {
            if (!answer.empty() && answer.back() == '\n') answer.pop_back();
            if (!answer.empty() && answer.back() == '\r') answer.pop_back();
            if (answer.empty()) LOG_WARN("fgets error.");
            else if (isTimeText(answer)) total = answer;
            else LOG_WARN("%s: not a duration: %s", formatCommandLine(argv).c_str(), answer.c_str());
        }
    }
    setTotalTime(total.empty() ? std::string("00:00:00") : total);
}

int CPlayer::getUserId(const std::string& owner, std::string& uid) {
    // A name starting with '-' would reach id as an option.
    if (owner.empty() || owner[0] == '-') {
        LOG_ERR("no such user: \"%s\"", owner.c_str());
        return -1;
    }
    Argv argv{approot::path(kId), "-u", owner};
    ProcessOptions options;
    options.timeoutMs = kAgentTimeoutMs;
    options.outputCap = 256;
    ProcessResult r = runProcess(argv, options);
    if (!r.ok()) {
        LOG_ERR("%s failed", formatCommandLine(argv).c_str());
        return -1;
    }
    std::string text;
    for (char c : r.output)
        if (c != '\n' && c != '\r' && c != '\t') text += c;
    if (text.empty() || !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); })) {
        LOG_ERR("%s: no user id in \"%s\"", formatCommandLine(argv).c_str(), text.c_str());
        return -1;
    }
    LOG_TRACE("uid = %s", text.c_str());
    uid = std::move(text);
    return 0;
}

int CPlayer::savePlayHistory() {
    const int position = getCurrTimeSecond();
    if (position == 0) return 0;
    playlistElm_s elm;
    if (getPlaylistElmByIndex(elm, -1) != 0) {
        LOG_ERR("savePlayHistory: no current entry");
        return -1;
    }
    std::string uid;
    if (getUserId(ownerCopy(), uid) != 0) return -1;

    Argv argv{approot::path(kHistory), "savePlayHistory"};
    if (elm.ContentType == CONTENT_FILE_E || elm.ContentType == CONTENT_OBJECT_E) {
        std::string path;
        if (entryFilePath(elm, path) != 0) {
            LOG_ERR("savePlayHistory: %s does not resolve to a file", elm.Content.c_str());
            return -1;
        }
        argv.insert(argv.end(), {path, "-p", std::to_string(position), "-m", "1", "-s",
                                 std::to_string(getTotalTimeSecond()), "-o", uid});
    } else if (elm.ContentType == CONTENT_DBID_E) {
        argv.insert(argv.end(), {"-p", std::to_string(position), "-m", "1", "-e", elm.Content, "-a",
                                 std::to_string(static_cast<int>(elm.MediaType)), "-x", uid});
    } else {
        LOG_ERR("Error, Unkown type!!");
        return -1;
    }
    LOG_TRACE("savePlayHistory cmd = %s", formatCommandLine(argv).c_str());
    ProcessOptions options;
    options.timeoutMs = kAgentTimeoutMs;
    options.capture = ProcessOptions::Capture::None;
    ProcessResult r = runProcess(argv, options);
    if (!r.ok()) {
        LOG_ERR("Execute %s failed", formatCommandLine(argv).c_str());
        return -1;
    }
    return 0;
}

// ---- subtitles -----------------------------------------------------------------------------

int CPlayer::findAutoPlugSubtitle(const playlistElm_s& entry) {
    // A choice made for the previous track must not follow this one.
    clearAutoPlugSubtitle();
    std::string objectID;
    if (entry.ContentType == CONTENT_OBJECT_E) {
        objectID = entry.Content;
    } else if (entry.ContentType == CONTENT_DBID_E) {
        if (dbIDToUpnpObjectID(entry.Content, entry.MediaType, objectID) != 0) return -1;
    } else {
        LOG_ERR("Error, Unkown type!!");
        return -1;
    }

    Argv argv = agentArgv("getExternalSubtitle");
    argv.insert(argv.end(), {"--objectID", objectID});
    LOG_TRACE("%s", formatCommandLine(argv).c_str());
    std::string answer;
    if (!capture(argv, kAnswerCap, kAgentTimeoutMs, answer)) return -1;
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
        const char* path = track.getChildNode("TrackPath").getText();
        if (!isTrue(track.getChildNode("Automatic").getText()) || !path || !*path) continue;
        setAutoPlugSubtitle(path);
        setSubtitleStyle(getSsize(), getScolor(), getSseek(), "UTF-8");
        LOG_TRACE("auto-plug subtitle %s", path);
        return 0;
    }
    return -1;
}

int CPlayer::convertFullSubtitle(const std::string& sharePath, std::string& fullPath) {
    std::string_view rest(sharePath);
    while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
    std::string_view share = rest.substr(0, rest.find('/'));
    rest.remove_prefix(share.size());
    if (share.empty() || share == "." || share == "..") {
        LOG_ERR("%s names no share", sharePath.c_str());
        return -1;
    }
    // The result is opened on a client's word: it must stay inside the share.
    for (std::string_view cursor = rest; !cursor.empty();) {
        while (!cursor.empty() && cursor.front() == '/') cursor.remove_prefix(1);
        std::string_view part = cursor.substr(0, cursor.find('/'));
        if (part == "..") {
            LOG_ERR("%s leaves its share", sharePath.c_str());
            return -1;
        }
        cursor.remove_prefix(part.size());
    }

    Argv argv{approot::path(kShares), "-sv", "-a", "admin"};
    std::string listing;
    if (!capture(argv, 64 * 1024, kAgentTimeoutMs, listing)) return -1;
    for (std::string_view cursor(listing); !cursor.empty();) {
        size_t end = cursor.find('\n');
        std::string_view line = cursor.substr(0, end);
        cursor.remove_prefix(end == std::string_view::npos ? cursor.size() : end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        size_t tab = line.find('\t');
        if (tab == std::string_view::npos || line.substr(0, tab) != share) continue;
        std::string_view dir = line.substr(tab + 1);
        if (dir.empty()) continue;
        fullPath.assign(dir);
        fullPath.append(rest);
        return 0;
    }
    LOG_ERR("no share %.*s", static_cast<int>(share.size()), share.data());
    return -1;
}

int CPlayer::getRealFilePath(const char* path, std::string& realPath) {
    if (!path || !*path) return -1;
    char* resolved = ::realpath(path, nullptr);
    if (!resolved) return -1;
    struct stat st;
    bool regular = ::stat(resolved, &st) == 0 && S_ISREG(st.st_mode);
    if (regular) realPath = resolved;
    std::free(resolved);
    return regular ? 0 : -1;
}
