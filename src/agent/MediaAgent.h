// The media agent (/usr/bin/tessaly): the appliance's UPnP control point and the front end of
// its media database. Every question the daemon asks it goes through here: the agent's path,
// how it is run (an argument vector with a time-out and a cap on its answer; ids and paths
// travel raw, never shell-quoted) and how its small XML answers are read.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "xml/XMLNode.h"

namespace mediaagent {

using Argv = std::vector<std::string>;

// Answer caps: the short state answers and the longer ones that carry URLs.
inline constexpr size_t kShortReply = 1024;
inline constexpr size_t kLongReply = 4096;

// {agent, "-c", name}, and with "--uuid", uuid for a renderer's command.
Argv command(const char* name);
Argv command(const char* name, const std::string& uuid);

// Runs argv and keeps at most `cap` bytes of its answer. False, with a "popen(%s) ... fail"
// line, when it could not run or hung past the agent time-out.
bool query(const Argv& argv, size_t cap, std::string& reply);
// Runs argv for its effect only (a renderer's Play, Stop): output discarded, status ignored.
void fire(const Argv& argv);
// The text of <root>/<name> in an answer; empty when the answer has no such element.
std::string field(const std::string& reply, const char* name);
// The answer's <root> element (logged); an empty handle when the agent could not run or its
// answer is no document.
XMLNode ask(const Argv& argv);

// Content resolution. Each returns 0, or -1 with a log line and its outputs untouched when the
// agent cannot run, times out, or its answer lacks the wanted element.
int dbIDToUpnpObjectID(const std::string& dbID, int mediaType, std::string& objectID);
int upnpObjectToFilePath(const std::string& objectID, std::string& filePath);
// Also where the track starts in its file and how long it lasts, in seconds, for a track that
// is a slice of a larger file; both -1 for a whole file.
int upnpObjectToFilePath(const std::string& objectID, std::string& filePath, int& startTime, int& duration);
// Library id -> object id -> file path.
int dbIDToFilePath(const std::string& dbID, int mediaType, std::string& filePath, int& startTime, int& duration);
int filePathToObjectID(const std::string& filePath, std::string& objectID);
// clientType and netInterface: null or empty leaves the option out.
int upnpObjectToUrl(const std::string& objectID, std::string& url, const char* clientType = nullptr,
                    const char* netInterface = nullptr);
int filePathToUrl(const std::string& filePath, std::string& url, const char* clientType = nullptr,
                  const char* netInterface = nullptr);
// The agent's whole metadata answer (a DIDL-Lite document), for the caller to parse.
// startingIndex and requestedCount of -1 leave the option out.
int browseByUpnpObjectID(const std::string& objectID, std::string& out, const char* clientType = nullptr,
                         int startingIndex = -1, int requestedCount = -1, const char* netInterface = nullptr);
int browseByDbID(const std::string& dbID, int mediaType, std::string& out, const char* clientType = nullptr,
                 int startingIndex = -1, int requestedCount = -1, const char* netInterface = nullptr);
int browseByFilePath(const std::string& filePath, std::string& out, const char* clientType = nullptr,
                     int startingIndex = -1, int requestedCount = -1, const char* netInterface = nullptr);
// Title and album art of the item a browse answer describes (its Result holds a DIDL-Lite
// document, as elements or as escaped text); empty where the answer has none.
struct ItemMetadata {
    std::string title;
    std::string albumArtUrl;
};
ItemMetadata itemMetadata(const std::string& browseAnswer);

// The path of the first external subtitle file the server marks automatic for the object
// (getExternalSubtitle); -1 when there is none.
int automaticSubtitle(const std::string& objectID, std::string& path);

// Options of a renderer's setAvTransportUrl, in the order the agent expects them: --interface
// (when known), --audioTrack (above 0 only), --subtitle (0 or more), --externalSubtitle.
void appendTransportOptions(Argv& argv, const std::string& netInterface, int audioTrack, int subtitleTrack,
                            const char* externalSubtitle);
// Percent-encodes everything but unreserved characters and '/', so a path can sit in a URL.
std::string urlEscape(const std::string& text);

}  // namespace mediaagent
