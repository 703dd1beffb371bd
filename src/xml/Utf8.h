// What text may travel in the daemon's XML: UTF-8 of the characters XML 1.0 allows (tab, line
// feed, carriage return, U+0020..U+D7FF, U+E000..U+FFFD, U+10000..U+10FFFF).
#pragma once

#include <string>
#include <string_view>

namespace utf8 {

// Whether text is entirely such characters, well encoded (no overlong forms, no surrogates).
bool isXmlText(std::string_view text);
// Appends text with every byte sequence that is not such a character replaced by U+FFFD.
void appendSanitized(std::string& out, std::string_view text);

}  // namespace utf8
