// Moving between tracks: the automatic advance at a track's end and the client's choices by
// number, by order and by content.
#include "PlayerTestSupport.h"

namespace {

using TrackNavigationTest = PlayerTest;

TEST_F(TrackNavigationTest, AdvancePastTheLastTrackInEveryMode) {
    const struct {
        playMode_e mode;
        bool more;
        uint64_t index[2];  // after the first and the second advance
    } cases[] = {
        {PLAYMODE_NORMAL_E, false, {3, 3}},     {PLAYMODE_REPEAT_E, true, {0, 1}},
        {PLAYMODE_SHUFFLE_E, false, {3, 3}},    {PLAYMODE_SHUFFLE_REPEAT_E, true, {0, 1}},
        {PLAYMODE_REPEAT_ONE_E, true, {3, 3}},  {PLAYMODE_SHUFFLE_REPEAT_ONE_E, true, {3, 3}},
    };
    makePlaylist("list", 4);
    for (const auto& c : cases) {
        auto p = playerWith("list");
        enterMode(*p, c.mode);
        p->setCurrTrackIndex(3);
        // Each advance starts the next track from scratch: no time, default tracks, no subtitle.
        for (int step = 0; step < 2; ++step) {
            p->setCurrTime("00:03:10");
            p->setTotalTime("00:04:00");
            p->setAudioTrack(2);
            p->setSubtitleTrack(1);
            p->setExternalSubtitle("/m/0.srt");
            EXPECT_EQ(p->changeToNextTrack(), c.more) << playModeText(c.mode);
            EXPECT_EQ(p->getCurrTrackIndex(), c.index[step]) << playModeText(c.mode) << " step " << step;
            std::string subtitle = "x";
            p->getExternalSubtitle(subtitle);
            EXPECT_EQ((std::vector<std::string>{p->getCurrTime(), p->getTotalTime(), subtitle}),
                      (std::vector<std::string>{"00:00:00", "00:00:00", ""}));
            EXPECT_EQ(std::pair(p->getAudioTrack(), p->getSubtitleTrack()), std::pair(0, -1));
        }
    }

    auto empty = playerWith("no such list");
    empty->setCurrTime("00:00:09");
    EXPECT_FALSE(empty->changeToNextTrack());
    EXPECT_EQ(empty->getCurrTime(), "00:00:09") << "an empty queue changes nothing";
}

TEST_F(TrackNavigationTest, SetCurrTrackByNumberByOrderAndByContent) {
    makePlaylist("list", 6);
    auto p = playerWith("list");
    EXPECT_EQ(p->setCurrTrack(6), -1);
    EXPECT_TRUE(p->takeCalls().empty()) << "a bad number leaves the device alone";

    EXPECT_EQ(p->setCurrTrack(4), 0);
    EXPECT_EQ(p->getCurrTrackIndex(), 4u);
    EXPECT_EQ(p->takeCalls(), (Calls{"stop(true)", "play"}));

    // Shuffled: a track number is found at whatever position holds it, by both lookups.
    p->setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
    for (unsigned int track = 0; track < 6; ++track) {
        ASSERT_EQ(p->setCurrTrack(track), 0);
        EXPECT_EQ(p->getCurrTrack(), track);
        p->setCurrTrackIndex(0);
        ASSERT_EQ(p->setCurrTrackIdByOrder(track), 0);
        EXPECT_EQ(p->getCurrTrack(), track);
    }
    p->takeCalls();
    uint64_t before = p->getCurrTrackIndex();
    EXPECT_EQ(p->setCurrTrackIdByOrder(6), -1);
    EXPECT_EQ(p->getCurrTrackIndex(), before);
    EXPECT_TRUE(p->calls.empty());

    // A kind of device that stops softly when the track changes.
    auto soft = playerWith("list");
    soft->fakeTraits.softStopOnTrackChange = true;
    ASSERT_EQ(soft->setCurrTrack(1), 0);
    EXPECT_EQ(soft->takeCalls(), (Calls{"stop(false)", "play"}));

    // By content: contents match exactly, and an entry added after the queue was loaded has no
    // item to play.
    auto q = playerWith("list");
    EXPECT_EQ(q->setCurrTrackByContent("/m/3.mp3"), 0);
    EXPECT_EQ(q->takeCalls(), (Calls{"stop(true)", "play"}));
    appendEntry("list", 9);
    EXPECT_EQ(q->setCurrTrackByContent("/m/3"), -1);
    EXPECT_EQ(q->setCurrTrackByContent("/m/9.mp3"), -1);
    EXPECT_EQ(q->getCurrTrackIndex(), 3u);
    EXPECT_TRUE(q->takeCalls().empty());
}

}  // namespace
