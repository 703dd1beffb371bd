// Player commands: reaching the player through the manager, and the codes on the way.
#include <chrono>
#include <thread>

#include "unit/command/CommandTestSupport.h"

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;

TEST_F(CommandTest, SetPlaylistCreatesThePlayerOfAListedRender) {
    makePlaylist("Party", {file("/m/a.mp3"), file("/m/b.mp3")});
    EXPECT_EQ(run("SetPlaylist", {{"dev", "uuid:never-listed"}, {"playlist", "Party"}, {"appType", "music"}}), -4);

    FakePlayer* tv = playerOn("uuid:tv", "Party");
    ASSERT_NE(tv, nullptr);
    EXPECT_EQ(tv->getPlaylistSize(), 2u);
    ASSERT_EQ(runTv("SetPlaylist", {{"playlist", "Party"}, {"appType", "music"}}), 0);
    EXPECT_EQ(manager->player("uuid:tv"), tv);
    EXPECT_EQ(runTv("SetPlaylist"), -3);
}

TEST_F(CommandTest, TransportCommandsReachThePlayer) {
    FakePlayer* tv = playerOn("uuid:tv");
    tv->calls.clear();
    for (const char* command : {"Play", "Pause", "Stop", "Next", "Previous"}) EXPECT_EQ(runTv(command), 0) << command;
    EXPECT_EQ(runTv("Seek", {{"position", "00:01:30"}}), 0);
    EXPECT_EQ(tv->calls, (Calls{"play", "pause", "stop(true)", "next", "previous", "seek 00:01:30"}));
    EXPECT_EQ(runTv("Seek"), -3);
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
    EXPECT_EQ(runTv("Play"), -19);
    EXPECT_EQ(runTv("SetPlaylist", {{"playlist", "x"}, {"appType", "music"}}), -19);
    // The polled reads are never busy: they read the player's snapshot.
    for (const char* poll : {"GetMute", "GetPlayerStatus"}) EXPECT_EQ(runTv(poll), 0) << poll;
    EXPECT_EQ(runTv("GetVolume"), 30);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    release = true;
    holder.join();
    EXPECT_EQ(runTv("Play"), 0);
}

TEST_F(CommandTest, VolumeAndMute) {
    FakePlayer* tv = playerOn("uuid:tv");
    ASSERT_EQ(runTv("GetVolume"), 30);
    EXPECT_STREQ(field("volume"), "30");
    ASSERT_EQ(runTv("SetVolume", {{"vol", "55"}}), 0);
    for (auto [mute, volume] : {std::pair("on", 0), std::pair("ON", 55)}) {  // only "on" mutes
        ASSERT_EQ(runTv("SetMute", {{"mute", mute}}), 0);
        EXPECT_EQ(tv->volume, volume);
        ASSERT_EQ(runTv("GetMute"), 0);
        EXPECT_STREQ(field("mute"), volume ? "off" : "on");
    }
    tv->volume = -1;  // a device that cannot tell its volume answers the failure as the status
    EXPECT_EQ(runTv("GetVolume"), -1);
}

TEST_F(CommandTest, PlayModeAndTrackChoice) {
    makePlaylist("Party", {file("/m/a.mp3"), file("/m/b.mp3"), file("/m/c.mp3")});
    FakePlayer* tv = playerOn("uuid:tv", "Party");
    EXPECT_EQ(runTv("SetPlayMode", {{"playMode", "repeat"}}), -8);  // exact words only
    ASSERT_EQ(runTv("SetPlayMode", {{"playMode", "REPEAT_ONE"}}), 0);
    EXPECT_EQ(tv->getPlayMode(), PLAYMODE_REPEAT_ONE_E);

    ASSERT_EQ(runTv("SetTrack", {{"track", "2"}}), 0);
    EXPECT_EQ(tv->getCurrTrack(), 2u);
    EXPECT_EQ(runTv("SetTrack", {{"track", "3"}}), -1);
    ASSERT_EQ(runTv("SetTrackByContent", {{"content", "/m/b.mp3"}}), 0);
    EXPECT_EQ(tv->getCurrTrack(), 1u);
    EXPECT_EQ(runTv("SetTrackByContent", {{"content", "/m/none.mp3"}}), -1);
}

TEST_F(CommandTest, AudioAndSubtitleArguments) {
    FakePlayer* tv = playerOn("uuid:tv");
    tv->calls.clear();
    EXPECT_EQ(runTv("SetAudioAndSubtitle"), -3);  // nothing to set
    ASSERT_EQ(runTv("SetAudioAndSubtitle", {{"aid", "2"}, {"autoSub", "1"}}), 0);
    ASSERT_EQ(runTv("SetAudioAndSubtitle", {{"sid", "1"}, {"autoSub", "1"}, {"sseek", "5"}}), 0);
    ASSERT_EQ(runTv("SetAudioAndSubtitle", {{"position", "00:00:10"}, {"sseek", "5"}}), 0);
    // Style texts count only with a subtitle chosen.
    EXPECT_EQ(tv->calls, (Calls{"subtitle ext=- aid=2 sid=-1 pos=- sseek=- auto=1",
                                "subtitle ext=- aid=0 sid=1 pos=- sseek=5 auto=0",
                                "subtitle ext=- aid=0 sid=-1 pos=00:00:10 sseek=- auto=0"}));
}

TEST_F(CommandTest, ListPlayerDropsPlayersWhoseDeviceIsGoneAndAttributesNeedAListedRender) {
    playerOn("uuid:a")->exists = false;
    FakePlayer* tv = playerOn("uuid:tv");
    ASSERT_EQ(run("ListPlayer"), 0);
    ASSERT_EQ(answer.nChildNode("player"), 1);
    EXPECT_STREQ(answer.getChildNode("player").getChildNode("renderID").getText(), "uuid:tv");
    EXPECT_EQ(run("Play", {{"dev", "uuid:a"}}), -4);

    EXPECT_EQ(run("SetAttributes", {{"dev", "uuid:none"}, {"attr", "SAMPLERATE=Auto"}}), -1);
    ASSERT_EQ(runTv("SetAttributes", {{"attr", "SAMPLERATE=96000"}}), 0);
    EXPECT_EQ(tv->calls.back(), "attrs SAMPLERATE=96000");
}
