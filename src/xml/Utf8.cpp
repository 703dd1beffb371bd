#include "xml/Utf8.h"

namespace utf8 {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool allowed(char32_t c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
           (c >= 0x10000 && c <= 0x10FFFF);
}

// The length of the well-formed, allowed character at text[i], or 0.
size_t charAt(std::string_view text, size_t i) {
    const auto b = static_cast<unsigned char>(text[i]);
    if (b < 0x80) return allowed(b) ? 1 : 0;
    size_t n;
    char32_t c;
    if ((b & 0xE0) == 0xC0) n = 2, c = b & 0x1F;
    else if ((b & 0xF0) == 0xE0) n = 3, c = b & 0x0F;
    else if ((b & 0xF8) == 0xF0) n = 4, c = b & 0x07;
    else return 0;
    if (i + n > text.size()) return 0;
    for (size_t k = 1; k < n; ++k) {
        const auto cont = static_cast<unsigned char>(text[i + k]);
        if ((cont & 0xC0) != 0x80) return 0;
        c = (c << 6) | (cont & 0x3F);
    }
    static constexpr char32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < kMin[n]) return 0;  // an overlong form
    return allowed(c) ? n : 0;
}

}  // namespace

bool isXmlText(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const size_t n = charAt(text, i);
        if (n == 0) return false;
        i += n;
    }
    return true;
}

void appendSanitized(std::string& out, std::string_view text) {
    size_t run = 0;
    for (size_t i = 0; i < text.size();) {
        const size_t n = charAt(text, i);
        if (n > 0) {
            i += n;
            continue;
        }
        out.append(text.substr(run, i - run));
        out.append(kReplacement);
        run = ++i;
    }
    out.append(text.substr(run));
}

}  // namespace utf8
