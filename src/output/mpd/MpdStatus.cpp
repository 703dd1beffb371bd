#include "output/mpd/MpdStatus.h"

#include <vector>

namespace {

constexpr long long kMaxSeconds = 1000000000;  // far past any real file; keeps the folding in range

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string_view nextWord(std::string_view& cursor) {
    size_t start = 0;
    while (start < cursor.size() && isBlank(cursor[start])) ++start;
    size_t end = start;
    while (end < cursor.size() && !isBlank(cursor[end])) ++end;
    std::string_view word = cursor.substr(start, end - start);
    cursor.remove_prefix(end);
    return word;
}

// "1:02:03" -> 3723; false for an empty group, a stray character or an absurd value.
bool foldColonGroups(std::string_view text, int& out) {
    if (text.empty()) return false;
    long long value = 0;
    long long group = 0;
    bool digits = false;
    for (char c : text) {
        if (c >= '0' && c <= '9') {
            group = group * 10 + (c - '0');
            digits = true;
            if (group > kMaxSeconds) return false;
        } else if (c == ':') {
            if (!digits) return false;
            value = value * 60 + group;
            if (value > kMaxSeconds) return false;
            group = 0;
            digits = false;
        } else {
            return false;
        }
    }
    if (!digits) return false;
    value = value * 60 + group;
    if (value > kMaxSeconds) return false;
    out = static_cast<int>(value);
    return true;
}

int parseVolumeWord(std::string_view word) {
    if (word.size() < 2 || word.back() != '%') return -1;
    word.remove_suffix(1);
    int volume = 0;
    for (char c : word) {
        if (c < '0' || c > '9') return -1;
        volume = volume * 10 + (c - '0');
        if (volume > 1000) return -1;
    }
    return volume;
}

}  // namespace

bool parseMpdTimes(std::string_view word, int& current, int& total) {
    current = 0;
    total = 0;
    size_t slash = word.find('/');
    if (slash == std::string_view::npos) return false;
    int cur = 0;
    int tot = 0;
    if (!foldColonGroups(word.substr(0, slash), cur) || !foldColonGroups(word.substr(slash + 1), tot)) return false;
    current = cur;
    total = tot;
    return true;
}

MpdStatus parseMpdStatus(std::string_view text) {
    MpdStatus status;
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }

    // The volume line closes the answer; the state line is the last "[" line above it (the title
    // line above that may start with "[" too).
    size_t volumeLine = lines.size();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].substr(0, 7) == "volume:") {
            volumeLine = i;
            std::string_view rest = lines[i].substr(7);
            status.volume = parseVolumeWord(nextWord(rest));
            break;
        }
    }
    for (size_t i = volumeLine; i-- > 0;) {
        if (lines[i].empty() || lines[i][0] != '[') continue;
        std::string_view cursor = lines[i];
        std::string_view state = nextWord(cursor);
        if (state == "[playing]") status.state = 0;
        else if (state == "[paused]") status.state = 2;
        else break;
        nextWord(cursor);  // queue position "#1/1"
        status.timeKnown = parseMpdTimes(nextWord(cursor), status.current, status.total);
        break;
    }
    return status;
}
