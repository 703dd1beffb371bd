#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "core/util/PathUtil.h"
#include "core/util/TimeText.h"

namespace {

TEST(TimeText, TextToSeconds) {
    EXPECT_EQ(time_convert_to_second("1:02:05"), 3725);
    EXPECT_EQ(time_convert_to_second("12:34"), 12 * 3600 + 34 * 60);
    EXPECT_EQ(time_convert_to_second("125"), 0);
    EXPECT_EQ(time_convert_to_second(nullptr), 0);
    EXPECT_EQ(time_convert_to_second("0:00:07.500"), 7);
    // Only 30 characters count: the "99" lies beyond them.
    EXPECT_EQ(time_convert_to_second("0:1:000000000000000000000000000099"), 60);
    EXPECT_EQ(time_convert_to_second("99999999999:0:0"), INT_MAX);

    EXPECT_EQ(hhmmss_convert_to_sec("01:02:05"), 3725);
    EXPECT_EQ(hhmmss_convert_to_sec("125"), 125);
    EXPECT_EQ(hhmmss_convert_to_sec("0:01:05.250"), 65);
    EXPECT_EQ(hhmmss_convert_to_sec(nullptr), 0);
    EXPECT_EQ(hhmmss_convert_to_sec("99999999999999"), INT_MAX);
}

TEST(TimeText, SecondsToTextAndBack) {
    char buf[16];
    sec_convert_to_hhmmss(3725, buf, sizeof buf);
    EXPECT_STREQ(buf, "01:02:05");
    sec_convert_to_hhmmss(100 * 3600 + 59, buf, sizeof buf);
    EXPECT_STREQ(buf, "100:00:59");
    for (int s : {0, 59, 60, 3599, 86399}) {
        sec_convert_to_hhmmss(s, buf, sizeof buf);
        EXPECT_EQ(time_convert_to_second(buf), s) << buf;
        EXPECT_EQ(hhmmss_convert_to_sec(buf), s) << buf;
    }
    char tiny[4];
    sec_convert_to_hhmmss(3725, tiny, sizeof tiny);
    EXPECT_STREQ(tiny, "01:");
}

std::string escaped(const char* in, size_t size = 256) {
    std::vector<char> out(size);
    return convert_utf8_linux_filepath(in, out.data(), size) == 0 ? out.data() : "<fail>";
}

TEST(PathEscape, BackslashesShellSpecials) {
    EXPECT_EQ(escaped("a b(1).mp3"), "a\\ b\\(1\\).mp3");
    EXPECT_EQ(escaped("!\"$&'(),;=[]^`{}"), "\\!\\\"\\$\\&\\'\\(\\)\\,\\;\\=\\[\\]\\^\\`\\{\\}");
    EXPECT_EQ(escaped("/share/Música/日本 語.mp3"), "/share/Música/日本\\ 語.mp3");
    EXPECT_EQ(escaped("\xC3("), "\xC3(") << "a lead byte takes its next byte along, whatever it is";
    EXPECT_EQ(escaped("cut\xE6"), "cut\xE6");
}

TEST(PathEscape, NeverWritesPastTheBuffer) {
    EXPECT_EQ(escaped("1234567", 8), "1234567");
    EXPECT_EQ(escaped("12345678", 8), "<fail>");
    EXPECT_EQ(escaped("a b", 5), "a\\ b");
    EXPECT_EQ(escaped("a b", 4), "<fail>") << "fits unescaped but not escaped";
    char guard[6] = {'x', 'x', 'x', 'x', 'x', 'Z'};
    EXPECT_EQ(convert_utf8_linux_filepath_2("(((", guard, 5), -1);
    EXPECT_EQ(guard[5], 'Z');
}

TEST(TextScanners, LinesAndWords) {
    std::string_view text = "one two\r\nthree\n\nlast";
    std::vector<std::string_view> lines;
    while (!text.empty()) lines.push_back(Go_Next_Line(text));
    EXPECT_EQ(lines, (std::vector<std::string_view>{"one two", "three", "", "last"}));

    std::string_view words = "  sl  local_address\t\n  0: 0100007F:20C5 ";
    std::vector<std::string_view> got;
    for (auto w = Get_Next_Word(words); !w.empty(); w = Get_Next_Word(words)) got.push_back(w);
    EXPECT_EQ(got, (std::vector<std::string_view>{"sl", "local_address", "0:", "0100007F:20C5"}));
}

}  // namespace
