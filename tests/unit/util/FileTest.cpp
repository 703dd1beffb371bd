// Paths, time texts and the command log.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <regex>
#include <string>

#include "UtilTestSupport.h"
#include "util/DebugLog.h"
#include "util/PathUtil.h"
#include "util/TimeText.h"

namespace {

using testutil::TempDir;

TEST(CommandLog, AppendsAndRollsOverPastTenMebibytes) {
    TempDir dir;
    const std::string log = dir / "cmd.log";
    ASSERT_EQ(debug_write_log(log.c_str(), "Accept() [fail]"), 0);
    EXPECT_TRUE(std::regex_match(testutil::readFile(log), std::regex(R"(\[\d\d:\d\d:\d\d\] Accept\(\) \[fail\]\n)")));

    ASSERT_EQ(::truncate(log.c_str(), 10485760), 0);
    ASSERT_EQ(debug_write_log(log.c_str(), "kept"), 0);
    EXPECT_GT(testutil::readFile(log).size(), 10485760u) << "exactly at the limit is still appended to";
    ASSERT_EQ(debug_write_log(log.c_str(), "fresh"), 0);
    EXPECT_TRUE(std::regex_match(testutil::readFile(log), std::regex(R"(\[\d\d:\d\d:\d\d\] fresh\n)")));

    EXPECT_EQ(debug_write_log((dir / "no/such/dir/log").c_str(), "x"), -1);
}

TEST(RealPath, ResolvesDirectoriesButKeepsAFilesOwnName) {
    TempDir tmp;
    std::string base, out;
    ASSERT_EQ(get_real_path(tmp.path().c_str(), base), 0);
    testutil::makeDirs(tmp / "real/sub");
    ASSERT_TRUE(testutil::writeFile(tmp / "real/it's a song.mp3", "x"));
    ASSERT_EQ(::symlink("real", (tmp / "link").c_str()), 0);
    ASSERT_EQ(::symlink("it's a song.mp3", (tmp / "real/alias.mp3").c_str()), 0);

    ASSERT_EQ(get_real_path((tmp / "link/it's a song.mp3").c_str(), out), 0);
    EXPECT_EQ(out, base + "/real/it's a song.mp3") << "no quote escaping: nothing goes through a shell";
    ASSERT_EQ(get_real_path((tmp / "link/alias.mp3").c_str(), out), 0);
    EXPECT_EQ(out, base + "/real/alias.mp3");
    ASSERT_EQ(get_real_path((tmp / "link/sub/../sub/").c_str(), out), 0);
    EXPECT_EQ(out, base + "/real/sub");
    EXPECT_EQ(get_real_path((tmp / "link/missing").c_str(), out), -1);
}

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
    EXPECT_EQ(sec_to_hhmmss(100 * 3600 + 59), "100:00:59");
    for (int s : {0, 59, 3599, 86399}) EXPECT_EQ(hhmmss_convert_to_sec(sec_to_hhmmss(s).c_str()), s) << s;
}

}  // namespace
