// Player commands through the daemon's socket, before any render has been listed.
#include <gtest/gtest.h>

#include "integration/DaemonFixture.h"

using namespace itest;

TEST(PlayerCommandsTest, UnknownPlayersAnswerMinusFourAndTheDaemonStays) {
    SimRoot root;
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();

    vclient::Answer list = daemon.request("ListPlayer");
    EXPECT_EQ(list.code, 0);
    EXPECT_EQ(list.doc.nChildNode("player"), 0);

    for (const char* command : {"Play", "Pause", "Stop", "Next", "Previous", "GetVolume", "GetMute", "GetPlayerStatus"})
        EXPECT_EQ(daemon.request(command, {{"dev", "uuid:nobody"}}).code, -4) << command;
    EXPECT_EQ(daemon.request("SetPlaylist", {{"dev", "uuid:nobody"}, {"playlist", "p"}, {"appType", "music"}}).code, -4);
    EXPECT_NE(daemon.log().find("Render uuid:nobody doesn't exist"), std::string::npos);
    EXPECT_EQ(daemon.request("SetPlayMode", {{"dev", "uuid:nobody"}, {"playMode", "shuffle"}}).code, -8);
    EXPECT_EQ(daemon.request("SetAttributes", {{"dev", "uuid:nobody"}, {"attr", "SAMPLERATE=Auto"}}).code, -1);
    EXPECT_EQ(daemon.request("Seek", {{"dev", "uuid:nobody"}}).code, -3);
    EXPECT_EQ(daemon.request("SetAudioAndSubtitle", {{"dev", "uuid:nobody"}}).code, -3);
    EXPECT_EQ(daemon.request("echo").status, "ECHO");
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
}
