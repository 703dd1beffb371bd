// How discovery runs the platform's listing programs and configuration reader.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace discovery {

// Every listing program gets this long before it is given up on.
inline constexpr int kListingTimeoutSec = 10;

// Runs argv through the process runner with a time-out. 0 when the program ran to its end
// (whatever its exit status), with `output` holding at most `cap` bytes of what it printed, up
// to the first NUL; -1 when it could not be started, timed out or was killed, `output` empty.
// Agent and browse listings can outgrow the runner's usual 8 KiB, hence the cap argument.
int runListing(const std::vector<std::string>& argv, std::string& output, size_t cap = 256 * 1024,
               int timeoutSec = kListingTimeoutSec);

// Keeps only the lines containing `needle`, each with its newline (a line-matching filter).
std::string keepLinesContaining(const std::string& text, const std::string& needle);

}  // namespace discovery
