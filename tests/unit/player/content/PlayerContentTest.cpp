// What a player derives from its entries through the library's tools: total times measured on
// the real media, the auto-plug subtitle, play history, user ids, share paths and real paths.
#include <pwd.h>
#include <unistd.h>

#include <filesystem>

#include "ContentTestSupport.h"

using namespace contenttest;

namespace {

playlistElm_s entry(contentType_e type, mediaType_e media, std::string content) {
    playlistElm_s e;
    e.MediaType = media;
    e.ContentType = type;
    e.Content = std::move(content);
    return e;
}

}  // namespace

TEST_F(ContentTest, TotalTimeIsMeasuredOnTheFile) {
    FakePlayer player;
    player.setTotalTime(entry(CONTENT_FILE_E, MEDIA_AUDIO_E, at(kRain)));
    EXPECT_EQ(player.getTotalTime(), "00:00:03");
    EXPECT_EQ(newCalls(), (Lines{callLine("ardith", {"getDuration", "--filePath", at(kRain)})}));

    player.setTotalTime(entry(CONTENT_OBJECT_E, MEDIA_VIDEO_E, "vi_201"));
    EXPECT_EQ(player.getTotalTime(), "00:00:05");
    EXPECT_EQ(newCalls(), (Lines{callLine("tessaly", {"-c", "getFilePath", "--objectID", "vi_201"}),
                                 callLine("ardith", {"getDuration", "--filePath", at(kHoliday)})}));

    player.setTotalTime("01:00:00");
    player.setTotalTime(entry(CONTENT_DBID_E, MEDIA_AUDIO_E, "104"));
    EXPECT_EQ(player.getTotalTime(), "00:00:03");

    // Nothing measured: zero, not the last track's time.
    const playlistElm_s unmeasurable[] = {
        entry(CONTENT_OBJECT_E, MEDIA_AUDIO_E, "nope"),                           // agent knows no file
        entry(CONTENT_FILE_E, MEDIA_AUDIO_E, at("share/Public/Music/gone.mp3")),  // ardith prints nothing
        entry(CONTENT_FILE_E, MEDIA_AUDIO_E, ""),
        entry(CONTENT_UNKNOW_E, MEDIA_AUDIO_E, at(kRain)),
    };
    for (const auto& e : unmeasurable) {
        player.setTotalTime("01:02:03");
        player.setTotalTime(e);
        EXPECT_EQ(player.getTotalTime(), "00:00:00") << e.Content;
    }
}

TEST_F(ContentTest, AutoPlugSubtitleIsTheTrackTheServerMarksAutomatic) {
    FakePlayer player;
    // holiday.fr.srt comes first in the answer but is not marked.
    ASSERT_EQ(player.findAutoPlugSubtitle(entry(CONTENT_OBJECT_E, MEDIA_VIDEO_E, "vi_201")), 0);
    EXPECT_EQ(player.getAutoPlugSubtitle(), at("share/Public/Video/holiday.srt"));
    EXPECT_EQ(player.getSencoding(), "UTF-8");
    EXPECT_EQ(newCalls(), agentCall({"-c", "getExternalSubtitle", "--objectID", "vi_201"}));

    player.clearAutoPlugSubtitle();
    ASSERT_EQ(player.findAutoPlugSubtitle(entry(CONTENT_DBID_E, MEDIA_VIDEO_E, "201")), 0);
    EXPECT_EQ(player.getAutoPlugSubtitle(), at("share/Public/Video/holiday.srt"));

    // No external subtitles, or no object id to ask with: nothing, and the last choice is gone.
    EXPECT_EQ(player.findAutoPlugSubtitle(entry(CONTENT_OBJECT_E, MEDIA_AUDIO_E, "mu_101")), -1);
    EXPECT_EQ(player.getAutoPlugSubtitle(), "");
    player.setAutoPlugSubtitle("/old.srt");
    newCalls();
    EXPECT_EQ(player.findAutoPlugSubtitle(entry(CONTENT_FILE_E, MEDIA_VIDEO_E, at(kHoliday))), -1);
    EXPECT_EQ(player.getAutoPlugSubtitle(), "");
    EXPECT_TRUE(newCalls().empty());
}

TEST_F(ContentTest, PlayHistoryRecordsPositionTotalAndAKnownOwner) {
    const struct passwd* pw = getpwuid(geteuid());
    ASSERT_NE(pw, nullptr);
    const std::string owner = pw->pw_name;
    const std::string uid = std::to_string(geteuid());
    testsupport::makePlaylist("mix", {testsupport::file(at(kPwned)), testsupport::object("mu_102"),
                                      {MEDIA_VIDEO_E, CONTENT_DBID_E, "201"}}, "music", owner);
    FakePlayer player("mix", "music");
    ASSERT_EQ(player.getPlaylistSize(), 3u);

    // Nothing played yet: nothing to record.
    EXPECT_EQ(player.savePlayHistory(), 0);
    EXPECT_TRUE(newCalls().empty());

    player.setCurrTime(42);
    player.setTotalTime("00:03:00");
    ASSERT_EQ(player.savePlayHistory(), 0);
    EXPECT_EQ(newCalls(), (Lines{callLine("ebonry", {"savePlayHistory", at(kPwned), "-p", "42",
                                                     "-m", "1", "-s", "180", "-o", uid})}));

    // An object is recorded under its file; the seek offset counts towards the position.
    player.setCurrTrackIndex(1);
    player.setSeekOffset("00:01:00");
    ASSERT_EQ(player.savePlayHistory(), 0);
    EXPECT_EQ(newCalls(), (Lines{callLine("tessaly", {"-c", "getFilePath", "--objectID", "mu_102"}),
                                 callLine("ebonry", {"savePlayHistory", at(kRain), "-p", "102", "-m", "1", "-s",
                                                     "180", "-o", uid})}));

    player.setCurrTrackIndex(2);
    ASSERT_EQ(player.savePlayHistory(), 0);
    EXPECT_EQ(newCalls(), (Lines{callLine("ebonry", {"savePlayHistory", "-p", "102", "-m", "1",
                                                     "-e", "201", "-a", "2", "-x", uid})}));

    // An owner unknown to the system: nothing recorded.
    testsupport::makePlaylist("strangers", {testsupport::file(at(kRain))}, "music", "no-such-user-velmora");
    FakePlayer stranger("strangers", "music");
    stranger.setCurrTime(5);
    EXPECT_EQ(stranger.savePlayHistory(), -1);
    EXPECT_TRUE(newCalls().empty());

    std::string kept = "kept";
    for (const char* bad : {"no-such-user-velmora", "", "-G"})  // "-G" would be an option of id
        EXPECT_EQ(CPlayer::getUserId(bad, kept), -1) << bad;
    EXPECT_EQ(kept, "kept");
}

TEST_F(ContentTest, SubtitlePathsResolveInsideTheirShare) {
    std::string full;
    ASSERT_EQ(CPlayer::convertFullSubtitle("Public/Video/holiday.srt", full), 0);
    EXPECT_EQ(full, at("share/Public/Video/holiday.srt"));
    EXPECT_EQ(newCalls(), (Lines{callLine("pimbrel", {"-sv", "-a", "admin"})}));
    ASSERT_EQ(CPlayer::convertFullSubtitle("/Public/a b/it's.srt", full), 0);
    EXPECT_EQ(full, at("share/Public/a b/it's.srt"));

    std::filesystem::create_directories(at("share/Multimedia"));
    ASSERT_EQ(CPlayer::convertFullSubtitle("Multimedia/x.srt", full), 0);
    EXPECT_EQ(full, at("share/Multimedia/x.srt"));
    std::filesystem::remove(at("share/Multimedia"));

    full = "kept";
    for (const char* bad : {"Multimedia/x.srt", "Pub/x.srt", "Public/../../etc/passwd", "Public/a/../../b", "../x",
                            "", "/"})
        EXPECT_EQ(CPlayer::convertFullSubtitle(bad, full), -1) << bad;
    EXPECT_EQ(full, "kept");
}

TEST_F(ContentTest, RealFilePathResolvesLinksToRegularFiles) {
    const std::string dir = at("tmp/real");
    std::filesystem::create_directories(dir + "/sub");
    std::filesystem::create_symlink(at(kPwned), dir + "/link.mp3");
    std::filesystem::create_symlink(dir + "/missing", dir + "/dangling");
    std::string real;
    ASSERT_EQ(CPlayer::getRealFilePath((dir + "/sub/../link.mp3").c_str(), real), 0);
    EXPECT_EQ(real, std::filesystem::canonical(at(kPwned)).string());
    real = "kept";
    for (const std::string& bad : {dir + "/sub", dir + "/dangling", std::string()})
        EXPECT_EQ(CPlayer::getRealFilePath(bad.c_str(), real), -1) << bad;
    EXPECT_EQ(CPlayer::getRealFilePath(nullptr, real), -1);
    EXPECT_EQ(real, "kept");
}
