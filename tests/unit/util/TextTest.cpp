#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "core/util/PathUtil.h"
#include "core/util/TimeText.h"

namespace {

TEST(TimeText, TextToSecondsAndBack) {
    struct {
        const char* text;
        int seconds;
    } cases[] = {
        {"1:02:05", 3725}, {"12:34", 12 * 60 + 34},  {"125", 125},
        {nullptr, 0},      {"0:01:05.250", 65},      {"99999999999:0:0", INT_MAX},
        {"99999999999999", INT_MAX},  // clamped, not overflowed
    };
    for (const auto& c : cases) EXPECT_EQ(hhmmss_convert_to_sec(c.text), c.seconds) << (c.text ? c.text : "null");
    char buf[16];
    sec_convert_to_hhmmss(100 * 3600 + 59, buf, sizeof buf);
    EXPECT_STREQ(buf, "100:00:59");
    for (int s : {0, 59, 3599, 86399}) {
        sec_convert_to_hhmmss(s, buf, sizeof buf);
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

TEST(PathEscape, BackslashesShellSpecialsButNeverWritesPastTheBuffer) {
    EXPECT_EQ(escaped("/share/Música/a b(1).mp3"), "/share/Música/a\\ b\\(1\\).mp3");
    EXPECT_EQ(escaped("1234567", 8), "1234567");
    EXPECT_EQ(escaped("12345678", 8), "<fail>");
    EXPECT_EQ(escaped("a b", 5), "a\\ b");
    EXPECT_EQ(escaped("a b", 4), "<fail>") << "fits unescaped but not escaped";
    char guard[6] = {'x', 'x', 'x', 'x', 'x', 'Z'};
    EXPECT_EQ(convert_utf8_linux_filepath_2("(((", guard, 5), -1);
    EXPECT_EQ(guard[5], 'Z');
}

}  // namespace
