#include "output/mpd/MpdAttr.h"

#include <strings.h>

#include <cstdlib>
#include <string>
#include <string_view>

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

bool equalsNoCase(std::string_view a, const char* b) {
    std::string copy(a);
    return strcasecmp(copy.c_str(), b) == 0;
}

int sampleRateValue(std::string_view value) {
    if (equalsNoCase(value, "Auto")) return -1;
    std::string copy(value);
    long rate = std::strtol(copy.c_str(), nullptr, 10);
    return rate < 1 ? -2 : static_cast<int>(rate > 100000000 ? 100000000 : rate);
}

int dsdValue(std::string_view value) {
    if (equalsNoCase(value, "Enable")) return 1;
    if (equalsNoCase(value, "Disable")) return 0;
    if (equalsNoCase(value, "Auto")) return -1;
    return -2;
}

}  // namespace

int ParseMpdAttr(const char* attrs, int* sampleRate, int* dsd) {
    if (!sampleRate || !dsd) return -1;
    *sampleRate = -2;
    *dsd = -2;
    if (!attrs || !*attrs) return -1;

    std::string_view rest(attrs);
    while (!rest.empty()) {
        size_t comma = rest.find(',');
        std::string_view pair = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        size_t eq = pair.find('=');
        if (eq == std::string_view::npos) continue;
        std::string_view key = trim(pair.substr(0, eq));
        std::string_view value = trim(pair.substr(eq + 1));
        if (equalsNoCase(key, "SAMPLERATE")) *sampleRate = sampleRateValue(value);
        else if (equalsNoCase(key, "DSDPASS")) *dsd = dsdValue(value);
    }
    return 0;
}
