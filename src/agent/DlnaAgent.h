// The DLNA back-end's side of the media agent (/usr/bin/tessaly): argument vectors for its
// renderer commands and the fields of its small XML replies. Every id and path travels as one
// raw argument; nothing here goes through a shell.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace dlnaagent {

using Argv = std::vector<std::string>;

// Reply buffers: the short state replies and the longer ones that carry URLs.
inline constexpr size_t kShortReply = 1024;
inline constexpr size_t kLongReply = 4096;

// {agent, "-c", name, "--uuid", uuid}.
Argv command(const char* name, const std::string& uuid);

// Runs argv (logged) and keeps at most `cap` bytes of what it printed. False, with a
// "popen(%s) ... fail" line, when it could not run or hung past the agent time-out.
bool query(const Argv& argv, size_t cap, std::string& reply);

// Runs argv for its effect only (Play, Stop): output discarded, status ignored.
void fire(const Argv& argv);

// The text of <root>/<name> in a reply; empty when the reply has no such element.
std::string field(const std::string& reply, const char* name);

// setAvTransportUrl options, in the order the agent expects them: --interface (when known),
// --audioTrack (above 0 only), --subtitle (0 or more), --externalSubtitle (when given).
void appendTransportOptions(Argv& argv, const std::string& netInterface, int audioTrack, int subtitleTrack,
                            const char* externalSubtitle);

// Percent-encodes everything but unreserved characters and '/', so a path can sit in a URL.
std::string urlEscape(const std::string& text);

// Whether `text` contains `word` in any case.
bool containsNoCase(const std::string& text, const char* word);

}  // namespace dlnaagent
