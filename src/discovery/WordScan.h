// Small text scanners shared by the device-description parsers: blank-separated words of
// /proc files and MPD's output lines.
#pragma once

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace wordscan {

// Values copied out of device texts are cut to this many bytes.
inline constexpr size_t kValueMax = 1024;

inline bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

inline std::string_view nextWord(const char* text, size_t& pos) {
    while (text[pos] && isBlank(text[pos])) ++pos;
    const size_t start = pos;
    while (text[pos] && !isBlank(text[pos])) ++pos;
    return std::string_view(text + start, pos - start);
}

inline bool toInt(const std::string& text, int& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (*end || errno == ERANGE || v < INT_MIN || v > INT_MAX) return false;
    out = static_cast<int>(v);
    return true;
}

inline std::vector<std::string> splitWords(std::string_view line) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && isBlank(line[i])) ++i;
        const size_t start = i;
        while (i < line.size() && !isBlank(line[i])) ++i;
        if (i > start) words.emplace_back(line.substr(start, i - start));
    }
    return words;
}

inline std::string firstLineContaining(const std::string& text, std::string_view needle) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (line.find(needle) != std::string::npos) return line;
    return {};
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace wordscan
