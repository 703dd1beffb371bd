// Client side of the daemon's protocol: building a request, one exchange over the socket,
// and reading the answer. Used by velmoractl, the tests and the tools.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "xml/XMLNode.h"

namespace vclient {

inline constexpr const char* kDefaultSocket = "/tmp/.@Velmora.xxx";

// The socket of a daemon started with --root root (the appliance's own when root is empty).
std::string socketPathForRoot(const std::string& root);

using Params = std::vector<std::pair<std::string, std::string>>;

// <root><command>C</command><paramList><name>value</name>...</paramList></root>, escaped.
std::string buildRequest(const std::string& command, const Params& params);

struct Exchange {
    bool ok = false;
    bool reached = false;     // false: the daemon could not be reached at all
    bool notRunning = false;  // nothing listens on the socket (no socket file, or refused)
    bool busy = false;        // the daemon did not take the connection, or answer, in time
    std::string error;        // what went wrong, for people
    std::string answer;       // the answer text
};

// Connects, sends the request, reads the length block and the answer, acknowledges. Each step
// gives up after timeoutSec.
Exchange exchange(const std::string& socketPath, const std::string& request, int timeoutSec = 30);

struct Answer {
    XMLNode doc;           // the answer's <root>; empty when it did not parse
    std::string status;    // text of <status>
    bool isEcho = false;   // status "ECHO"
    int code = 0;          // status as a number (0 for ECHO)
};

Answer parseAnswer(const std::string& text);

// Readable "name: value" lines for the children of node, nested elements indented.
std::string formatFields(const XMLNode& node, int indent = 0);

}  // namespace vclient
