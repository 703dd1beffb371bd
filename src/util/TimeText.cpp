#include "util/TimeText.h"

#include <climits>
#include <cstdio>
#include <cstring>

namespace {

long long clampInt(long long v) {
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return v;
}

// atoi without its undefined behaviour on overflow.
long long parseInt(const char* s) {
    while (*s == ' ' || *s == '\t') ++s;
    bool neg = false;
    if (*s == '+' || *s == '-') neg = *s++ == '-';
    long long v = 0;
    for (; *s >= '0' && *s <= '9'; ++s) {
        v = v * 10 + (*s - '0');
        if (v > INT_MAX) v = INT_MAX;
    }
    return neg ? -v : v;
}

}  // namespace

int time_convert_to_second(const char* text) {
    if (text == nullptr) return 0;
    char copy[31];
    std::strncpy(copy, text, sizeof copy - 1);
    copy[sizeof copy - 1] = '\0';

    char* parts[3] = {copy, nullptr, nullptr};
    char* colon = std::strchr(copy, ':');
    if (colon == nullptr) return 0;
    *colon = '\0';
    parts[1] = colon + 1;
    if ((colon = std::strchr(parts[1], ':')) != nullptr) {
        *colon = '\0';
        parts[2] = colon + 1;
    }
    long long total = parseInt(parts[0]) * 3600 + parseInt(parts[1]) * 60 + (parts[2] ? parseInt(parts[2]) : 0);
    return static_cast<int>(clampInt(total));
}

int hhmmss_convert_to_sec(const char* text) {
    if (text == nullptr) return 0;
    long long value = 0;
    long long group = 0;
    for (const char* p = text; *p; ++p) {
        if (*p >= '0' && *p <= '9') {
            group = group * 10 + (*p - '0');
        } else if (*p == ':') {
            value = (value + group) * 60;
            group = 0;
        } else {
            break;
        }
        if (group > INT_MAX || value > INT_MAX) return INT_MAX;
    }
    return static_cast<int>(clampInt(value + group));
}

void sec_convert_to_hhmmss(int seconds, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) return;
    std::snprintf(buffer, size, "%02d:%02d:%02d", seconds / 3600, seconds % 3600 / 60, seconds % 60);
}

std::string sec_to_hhmmss(int seconds) {
    char buffer[16];
    sec_convert_to_hhmmss(seconds, buffer, sizeof buffer);
    return buffer;
}
