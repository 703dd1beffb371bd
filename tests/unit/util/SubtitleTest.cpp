#include "util/Subtitle.h"

#include <gtest/gtest.h>

#include "UtilTestSupport.h"

namespace {

class SubtitleFinder : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(testutil::installFakeReader(m_root.path()));
        testutil::makeDirs(m_root / "mnt/ext/opt/XUMA/etc/config");
        testutil::makeDirs(m_dir + "/movie.dir.srt");
        for (const char* f : {"movie.mkv", "movie.srt", "movie.chi.srt", "movie.ENG.ass", "movie2.srt", "other.srt",
                              "movie.txt"})
            ASSERT_TRUE(testutil::writeFile(m_dir + "/" + f, "x"));
    }
    std::string find(const std::string& setting, const std::string& lang, const std::string& media = "movie.mkv") {
        EXPECT_TRUE(testutil::writeFile(m_root / "mnt/ext/opt/XUMA/etc/config/Vantrel.conf",
                                        "/default_subtitle=" + setting + "\n/default_subtitle_lang=" + lang + "\n"));
        std::string out;
        return is_default_subtitle_found(media[0] == '/' ? media : m_dir + "/" + media, out) ? out : "<none>";
    }
    void remove(const char* name) { ASSERT_EQ(::unlink((m_dir + "/" + name).c_str()), 0); }

    testutil::TempDir m_root;
    testutil::RootGuard m_guard{m_root.path()};
    std::string m_dir = m_root / "share/Public/Movies";
};

TEST_F(SubtitleFinder, OffMeansNoLookElseLanguageFirstThenThisVideosOwnFiles) {
    EXPECT_EQ(find("0", "eng"), "<none>");
    EXPECT_EQ(testutil::readFile(m_root / "sbin/yarrow.calls").find("default_subtitle_lang"), std::string::npos);
    EXPECT_EQ(find("1", "eng"), m_dir + "/movie.ENG.ass");
    EXPECT_EQ(find("2", "chi"), m_dir + "/movie.chi.srt");
    EXPECT_EQ(find("1", "fre"), m_dir + "/movie.ENG.ass") << "the smallest name of movie.*";
    for (const char* f : {"movie.srt", "movie.chi.srt", "movie.ENG.ass"}) remove(f);
    EXPECT_EQ(find("1", "fre"), m_dir + "/movie2.srt") << "any name starting with the video's";
    remove("movie2.srt");
    EXPECT_EQ(find("1", "fre"), "<none>") << "directories and other extensions never match";
}

TEST_F(SubtitleFinder, UnusablePaths) {
    EXPECT_EQ(find("1", "", "/"), "<none>");
    EXPECT_EQ(find("1", "", "noextension"), "<none>");
    EXPECT_EQ(find("1", "", m_root / "absent/movie.mkv"), "<none>");
    ASSERT_TRUE(testutil::writeFile(m_root / "top.mkv", "x"));
    ASSERT_TRUE(testutil::writeFile(m_root / "top.SRT", "x"));
    EXPECT_EQ(find("1", "", m_root / "top.mkv"), m_root / "top.SRT");
}

}  // namespace
