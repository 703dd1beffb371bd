// Player commands: reaching the player through the manager, and the codes on the way.
#include <chrono>
#include <thread>

#include "unit/command/CommandTestSupport.h"

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;

TEST_F(CommandTest, SetPlaylistCreatesThePlayerOfAListedRender) {
    makePlaylist("Party", {{MEDIA_AUDIO_E, CONTENT_FILE_E, "/m/a.mp3"}, {MEDIA_AUDIO_E, CONTENT_FILE_E, "/m/b.mp3"}});
    EXPECT_EQ(run("SetPlaylist", {{"dev", "uuid:never-listed"}, {"playlist", "Party"}, {"appType", "music"}}), -4);

    FakePlayer* tv = playerOn("uuid:tv", "Party");
    ASSERT_NE(tv, nullptr);
    EXPECT_EQ(tv->getPlaylistSize(), 2u);
    // Setting it again reaches the same player.
    ASSERT_EQ(run("SetPlaylist", {{"dev", "uuid:tv"}, {"playlist", "Party"}, {"appType", "music"}}), 0);
    EXPECT_EQ(manager->player("uuid:tv"), tv);
    EXPECT_EQ(run("SetPlaylist", {{"dev", "uuid:tv"}}), -3);
}

TEST_F(CommandTest, TransportCommandsReachThePlayer) {
    FakePlayer* tv = playerOn("uuid:tv");
    tv->calls.clear();
    for (const char* command : {"Play", "Pause", "Stop", "Next", "Previous"})
        EXPECT_EQ(run(command, {{"dev", "uuid:tv"}}), 0) << command;
    EXPECT_EQ(run("Seek", {{"dev", "uuid:tv"}, {"position", "00:01:30"}}), 0);
    EXPECT_EQ(tv->calls, (Calls{"play", "pause", "stop(true)", "next", "previous", "seek 00:01:30"}));

    EXPECT_EQ(run("Seek", {{"dev", "uuid:tv"}}), -3);
    EXPECT_EQ(run("Play"), -3);
}

TEST_F(CommandTest, BusyPlayerAnswersAtOnceInsteadOfWaitingButPollsAreServed) {
    FakePlayer* tv = playerOn("uuid:tv");
    std::atomic<bool> held{false}, release{false};
    std::thread holder([&] {
        pthread_mutex_lock(&tv->getLock());  // as a long back-end call would
        held = true;
        while (!release) std::this_thread::sleep_for(1ms);
        pthread_mutex_unlock(&tv->getLock());
    });
    while (!held) std::this_thread::sleep_for(1ms);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run("Play", {{"dev", "uuid:tv"}}), -19);
    EXPECT_EQ(run("SetPlaylist", {{"dev", "uuid:tv"}, {"playlist", "x"}, {"appType", "music"}}), -19);
    // The polled reads are never busy: they read the player's snapshot.
    EXPECT_EQ(run("GetMute", {{"dev", "uuid:tv"}}), 0);
    EXPECT_EQ(run("GetPlayerStatus", {{"dev", "uuid:tv"}}), 0);
    EXPECT_EQ(run("GetVolume", {{"dev", "uuid:tv"}}), 30);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    release = true;
    holder.join();
    EXPECT_EQ(run("Play", {{"dev", "uuid:tv"}}), 0);
}

TEST_F(CommandTest, VolumeAndMute) {
    FakePlayer* tv = playerOn("uuid:tv");
    ASSERT_EQ(run("GetVolume", {{"dev", "uuid:tv"}}), 30);
    EXPECT_STREQ(field("volume"), "30");
    ASSERT_EQ(run("SetVolume", {{"dev", "uuid:tv"}, {"vol", "55"}}), 0);
    ASSERT_EQ(run("SetMute", {{"dev", "uuid:tv"}, {"mute", "on"}}), 0);
    EXPECT_EQ(tv->volume, 0);
    ASSERT_EQ(run("GetMute", {{"dev", "uuid:tv"}}), 0);
    EXPECT_STREQ(field("mute"), "on");
    ASSERT_EQ(run("SetMute", {{"dev", "uuid:tv"}, {"mute", "ON"}}), 0);  // only "on" mutes
    EXPECT_EQ(tv->volume, 55);
    ASSERT_EQ(run("GetMute", {{"dev", "uuid:tv"}}), 0);
    EXPECT_STREQ(field("mute"), "off");

    // A device that cannot tell its volume answers the failure as the status.
    tv->volume = -1;
    EXPECT_EQ(run("GetVolume", {{"dev", "uuid:tv"}}), -1);
}

TEST_F(CommandTest, PlayModeAndTrackChoice) {
    makePlaylist("Party", {{MEDIA_AUDIO_E, CONTENT_FILE_E, "/m/a.mp3"}, {MEDIA_AUDIO_E, CONTENT_FILE_E, "/m/b.mp3"},
                           {MEDIA_AUDIO_E, CONTENT_FILE_E, "/m/c.mp3"}});
    FakePlayer* tv = playerOn("uuid:tv", "Party");
    EXPECT_EQ(run("SetPlayMode", {{"dev", "uuid:tv"}, {"playMode", "repeat"}}), -8);  // exact words only
    ASSERT_EQ(run("SetPlayMode", {{"dev", "uuid:tv"}, {"playMode", "REPEAT_ONE"}}), 0);
    EXPECT_EQ(tv->getPlayMode(), PLAYMODE_REPEAT_ONE_E);

    ASSERT_EQ(run("SetTrack", {{"dev", "uuid:tv"}, {"track", "2"}}), 0);
    EXPECT_EQ(tv->getCurrTrack(), 2u);
    EXPECT_EQ(run("SetTrack", {{"dev", "uuid:tv"}, {"track", "3"}}), -1);
    ASSERT_EQ(run("SetTrackByContent", {{"dev", "uuid:tv"}, {"content", "/m/b.mp3"}}), 0);
    EXPECT_EQ(tv->getCurrTrack(), 1u);
    EXPECT_EQ(run("SetTrackByContent", {{"dev", "uuid:tv"}, {"content", "/m/none.mp3"}}), -1);
}

TEST_F(CommandTest, AudioAndSubtitleArguments) {
    FakePlayer* tv = playerOn("uuid:tv");
    tv->calls.clear();
    EXPECT_EQ(run("SetAudioAndSubtitle", {{"dev", "uuid:tv"}}), -3);  // nothing to set
    ASSERT_EQ(run("SetAudioAndSubtitle", {{"dev", "uuid:tv"}, {"aid", "2"}, {"autoSub", "1"}}), 0);
    ASSERT_EQ(run("SetAudioAndSubtitle", {{"dev", "uuid:tv"}, {"sid", "1"}, {"autoSub", "1"}, {"sseek", "5"}}), 0);
    ASSERT_EQ(run("SetAudioAndSubtitle", {{"dev", "uuid:tv"}, {"position", "00:00:10"}, {"sseek", "5"}}), 0);
    EXPECT_EQ(tv->calls, (Calls{
                             "subtitle ext=- aid=2 sid=-1 pos=- sseek=- auto=1",
                             "subtitle ext=- aid=0 sid=1 pos=- sseek=5 auto=0",
                             // style texts count only with a subtitle chosen
                             "subtitle ext=- aid=0 sid=-1 pos=00:00:10 sseek=- auto=0",
                         }));
}

TEST_F(CommandTest, ListPlayerDropsPlayersWhoseDeviceIsGone) {
    playerOn("uuid:a")->exists = false;
    playerOn("uuid:b");
    ASSERT_EQ(run("ListPlayer"), 0);
    ASSERT_EQ(answer.nChildNode("player"), 1);
    EXPECT_STREQ(answer.getChildNode("player").getChildNode("renderID").getText(), "uuid:b");
    EXPECT_EQ(run("Play", {{"dev", "uuid:a"}}), -4);
}

TEST_F(CommandTest, AttributesGoToThePlayerOrNeedAListedRender) {
    EXPECT_EQ(run("SetAttributes", {{"dev", "uuid:none"}, {"attr", "SAMPLERATE=Auto"}}), -1);
    FakePlayer* tv = playerOn("uuid:tv");
    ASSERT_EQ(run("SetAttributes", {{"dev", "uuid:tv"}, {"attr", "SAMPLERATE=96000"}}), 0);
    EXPECT_EQ(tv->calls.back(), "attrs SAMPLERATE=96000");
}
