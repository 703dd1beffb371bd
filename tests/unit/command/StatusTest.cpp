// GetPlayerStatus: the answer's fields, and the cache of the track lists of videos.
#include "unit/command/CommandTestSupport.h"

namespace {

class StatusTest : public CommandTest {
protected:
    FakePlayer* watching(const std::vector<testsupport::Entry>& entries) {
        makePlaylist("Watch", entries);
        FakePlayer* p = playerOn("uuid:tv", "Watch", playertype::kAlsa | playertype::kAlsaUsb | playertype::kCapAudio);
        if (p) p->fakeTraits = {.typeText = "ALSA", .subtypeText = "USB"};
        return p;
    }
    int poll() { return runTv("GetPlayerStatus"); }
};

TEST_F(StatusTest, AnswerDescribesThePlayerAndItsTrack) {
    FakePlayer* tv = watching({file("/m/a.mp3"), testsupport::object("ph_301", MEDIA_PHOTO_E)});
    ASSERT_EQ(runTv("SetPlayMode", {{"playMode", "REPEAT"}}), 0);
    tv->setCurrTime("00:00:30");
    tv->setSeekOffset("00:01:00");
    ASSERT_EQ(poll(), 0);

    std::string names;
    for (int i = 0; i < answer.nChildNode(); ++i) names += std::string(answer.getChildNode(i).getName()) + " ";
    EXPECT_EQ(names, "status deviceName device playerType playerState playMode playlistTitle appType trackType "
                     "trackContentType trackContent currTrack totalTracks currTime totalTime playlistOwner "
                     "playlistTag currentAudioTrack currentSubtitleTrack ");
    EXPECT_STREQ(answer.getChildNode("device").getAttribute("Type"), "ALSA");
    EXPECT_STREQ(answer.getChildNode("device").getAttribute("Subtype"), "USB");
    EXPECT_STREQ(field("playMode"), "REPEAT");
    EXPECT_STREQ(field("trackType"), "audio");
    EXPECT_STREQ(field("trackContent"), "/m/a.mp3");
    EXPECT_STREQ(field("currTime"), "00:01:30") << "the position counts from the seek offset";
    EXPECT_EQ(field("playlistTag"), nullptr);  // empty: no text

    tv->setCurrTrack(1);
    ASSERT_EQ(poll(), 0);
    EXPECT_STREQ(field("trackType"), "photo");
    EXPECT_STREQ(field("trackContentType"), "object");
    // Neither audio nor photos touch the track cache.
    EXPECT_TRUE(answer.getChildNode("TotalAudioTrack").isEmpty());
    EXPECT_EQ(agentCalls("getAudioTrack"), 0);
}

TEST_F(StatusTest, VideoTrackListsAreCachedFor120Seconds) {
    watching({{MEDIA_VIDEO_E, CONTENT_OBJECT_E, "vi_201"}});
    ASSERT_EQ(poll(), 0);
    XMLNode audio = answer.getChildNode("TotalAudioTrack");
    ASSERT_FALSE(audio.isEmpty());
    EXPECT_GE(audio.nChildNode("AudioTrack"), 1);
    EXPECT_FALSE(audio.getChildNode("AudioTrack").getChildNode("TrackLang").isEmpty());
    EXPECT_FALSE(answer.getChildNode("TotalSubtitleTrack").isEmpty());
    EXPECT_FALSE(answer.getChildNode("TotalExternalSubtitle").isEmpty());
    EXPECT_EQ(agentCalls("getAudioTrack"), 1);
    EXPECT_EQ(agentCalls("getSubtitle"), 1);
    EXPECT_EQ(agentCalls("getExternalSubtitle"), 1);

    // Fresh for 119 s after the last use, served from the cache; refreshed after 120 s.
    for (auto [later, runs] : {std::pair(119, 1), std::pair(119, 1), std::pair(120, 2)}) {
        s_now += later;
        ASSERT_EQ(poll(), 0);
        EXPECT_FALSE(answer.getChildNode("TotalAudioTrack").isEmpty());
        EXPECT_EQ(agentCalls("getAudioTrack"), runs);
    }
}

TEST_F(StatusTest, TheFiftyFirstVideoReplacesTheLeastRecentlyUsed) {
    std::vector<testsupport::Entry> videos;
    for (int i = 0; i <= StatusCache::kEntries; ++i) videos.emplace_back(MEDIA_VIDEO_E, CONTENT_OBJECT_E, "vx_" + std::to_string(i));
    FakePlayer* tv = watching(videos);
    auto pollTrack = [&](int i) {
        ASSERT_EQ(tv->setCurrTrack(static_cast<unsigned>(i)), 0);
        s_now += 1;
        ASSERT_EQ(poll(), 0);
    };
    for (int i = 0; i < StatusCache::kEntries; ++i) pollTrack(i);
    pollTrack(0);  // so that video 1 becomes the least recently used
    pollTrack(StatusCache::kEntries);  // the 51st
    for (int i : {0, 2, 1}) pollTrack(i);  // 0 and 2 still cached; 1 was the one replaced
    EXPECT_EQ(agentCalls("getAudioTrack", "vx_0"), 1);
    EXPECT_EQ(agentCalls("getAudioTrack", "vx_1"), 2) << "replaced, so asked again";
    EXPECT_EQ(agentCalls("getAudioTrack", "vx_2"), 1);
}

TEST_F(StatusTest, VideoWithoutObjectIdTakesAnEntryWithEmptyLists) {
    watching({{MEDIA_VIDEO_E, CONTENT_FILE_E, "/not/in/the/library.mp4"}});
    ASSERT_EQ(poll(), 0);
    EXPECT_TRUE(answer.getChildNode("TotalAudioTrack").isEmpty());
    EXPECT_EQ(agentCalls("getObjectID"), 1);
    ASSERT_EQ(poll(), 0);
    EXPECT_EQ(agentCalls("getObjectID"), 1) << "the key was kept";
    EXPECT_EQ(agentCalls("getAudioTrack"), 0);
}

}  // namespace
