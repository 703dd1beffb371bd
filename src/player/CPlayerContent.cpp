// What the player base learns about its entries from the media library's tools (durations,
// play history, users, shares) and, through the media agent's client, its subtitle choice.
// Every program runs from an argument vector; nothing is shell-quoted.
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
#include "agent/MediaAgent.h"
#include "player/CPlayer.h"
#include "xml/XMLNode.h"

namespace {

using Argv = std::vector<std::string>;

constexpr const char* kProbe = "/usr/local/medialibrary/bin/ardith";
constexpr const char* kHistory = "/usr/local/medialibrary/bin/ebonry";
constexpr const char* kId = "/usr/bin/id";
constexpr const char* kShares = "/sbin/pimbrel";

constexpr size_t kDurationCap = 1024;
// The tools answer within milliseconds; a hung one must not hold the player for ever.
constexpr int kToolTimeoutMs = 10000;
// Measuring a file may read it from a sleeping disk.
constexpr int kProbeTimeoutMs = 20000;


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

// The file behind a playlist entry, whatever names it.
int entryFilePath(const playlistElm_s& elm, std::string& path) {
    std::string objectID;
    switch (elm.ContentType) {
        case CONTENT_FILE_E:
            if (elm.Content.empty()) return -1;
            path = elm.Content;
            return 0;
        case CONTENT_OBJECT_E: return mediaagent::upnpObjectToFilePath(elm.Content, path);
        case CONTENT_DBID_E:
            if (mediaagent::dbIDToUpnpObjectID(elm.Content, elm.MediaType, objectID) != 0) return -1;
            return mediaagent::upnpObjectToFilePath(objectID, path);
        default: return -1;
    }
}

}  // namespace

// ---- durations, users, history -------------------------------------------------------------

void CPlayer::setTotalTime(const playlistElm_s& elm) {
    std::string total;
    std::string path;
    if (entryFilePath(elm, path) == 0) {
        Argv argv{approot::path(kProbe), "getDuration", "--filePath", path};
        LOG_TRACE("### %s", formatCommandLine(argv).c_str());
        std::string answer;
        if (captureOutput(argv, kDurationCap, kProbeTimeoutMs, answer, true)) {
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
    options.timeoutMs = kToolTimeoutMs;
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
    options.timeoutMs = kToolTimeoutMs;
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
        if (mediaagent::dbIDToUpnpObjectID(entry.Content, entry.MediaType, objectID) != 0) return -1;
    } else {
        LOG_ERR("Error, Unkown type!!");
        return -1;
    }
    std::string path;
    if (mediaagent::automaticSubtitle(objectID, path) != 0) return -1;
    setAutoPlugSubtitle(path);
    setSubtitleStyle(getSsize(), getScolor(), getSseek(), "UTF-8");
    LOG_TRACE("auto-plug subtitle %s", path.c_str());
    return 0;
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
    if (!captureOutput(argv, 64 * 1024, kToolTimeoutMs, listing)) return -1;
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
