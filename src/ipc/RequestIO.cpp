#include "ipc/RequestIO.h"

#include <vector>

namespace requestio {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Position just past the end of a start or end tag beginning at `from` (a '<'), honouring
// quoted attribute values; npos when the tag is not finished yet.
size_t tagEnd(std::string_view s, size_t from) {
    char quote = 0;
    for (size_t i = from + 1; i < s.size(); ++i) {
        char c = s[i];
        if (quote) {
            if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            return i + 1;
        }
    }
    return std::string_view::npos;
}

// The element name of a start or end tag beginning at `from`.
std::string_view tagName(std::string_view s, size_t from) {
    size_t begin = from + (s[from + 1] == '/' ? 2 : 1);
    size_t end = begin;
    while (end < s.size() && !isBlank(s[end]) && s[end] != '>' && s[end] != '/') ++end;
    return s.substr(begin, end - begin);
}

size_t pastMarker(std::string_view s, size_t from, std::string_view marker) {
    size_t at = s.find(marker, from);
    return at == std::string_view::npos ? at : at + marker.size();
}

}  // namespace

DocState scanDocument(std::string_view s) {
    // Open elements, innermost last: an end tag that closes another element can never become
    // a document, so the parser may answer it at once.
    std::vector<std::string_view> open;
    size_t i = 0;
    while (i < s.size()) {
        if (open.empty()) {
            while (i < s.size() && isBlank(s[i])) ++i;
            if (i == s.size()) return DocState::NeedMore;
            if (s[i] != '<') return DocState::Complete;  // text outside any element: never a document
        } else {
            i = s.find('<', i);
            if (i == std::string_view::npos) return DocState::NeedMore;
        }

        std::string_view rest = s.substr(i);
        size_t next;
        if (rest.size() < 9 && std::string_view("<![CDATA[").starts_with(rest) && rest.size() > 1) {
            return DocState::NeedMore;  // could still be a CDATA or comment opening
        }
        if (rest.starts_with("<?")) {
            next = pastMarker(s, i + 2, "?>");
        } else if (rest.starts_with("<!--")) {
            next = pastMarker(s, i + 4, "-->");
        } else if (rest.starts_with("<![CDATA[")) {
            next = pastMarker(s, i + 9, "]]>");
        } else if (rest.starts_with("<!")) {
            next = tagEnd(s, i);
        } else if (rest.starts_with("</")) {
            next = tagEnd(s, i);
            if (next != std::string_view::npos) {
                if (open.empty() || open.back() != tagName(s, i)) return DocState::Complete;
                open.pop_back();
                if (open.empty()) return DocState::Complete;
            }
        } else {
            next = tagEnd(s, i);
            if (next != std::string_view::npos) {
                bool selfClosing = s[next - 2] == '/';
                if (!selfClosing) open.push_back(tagName(s, i));
                else if (open.empty()) return DocState::Complete;
            }
        }
        if (next == std::string_view::npos) return DocState::NeedMore;
        i = next;
    }
    return DocState::NeedMore;
}

}  // namespace requestio
