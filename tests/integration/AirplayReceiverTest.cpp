// An AirPlay video receiver through the daemon: found by mDNS, given a playlist, played over
// HTTP, seen in the player's status, stopped.
#include <gtest/gtest.h>

#include <chrono>

#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"
#include "util/Process.h"

using namespace itest;
using namespace std::chrono_literals;

TEST(AirplayReceiverTest, ListedReceiverPlaysAndStops) {
    SimRoot root;
    ASSERT_TRUE(testsupport::writeFile(root.path() + "/var/sim/airplay.json",
                                       R"({"receivers": [{"name": "Bedroom TV", "deviceid": "58:55:CA:1A:2B:3C",
                                           "features": "0x5A7FFFF7,0x1E", "model": "AppleTV3,2", "length": 30}]})"));
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();
    const std::string tv = "5855CA1A2B3C";

    vclient::Answer list = daemon.request("ListRender", {{"renderType", "airplay"}});
    ASSERT_EQ(list.doc.nChildNode("device"), 1) << daemon.log();
    EXPECT_STREQ(list.doc.getChildNode("device").getAttribute("Type"), "AirPlay");

    ASSERT_EQ(daemon.request("CreatePlaylist", {{"playlist", "Films"}, {"playlistType", "video"}, {"appType", "video"}}).code, 0);
    ASSERT_EQ(daemon.request("AddContent", {{"playlist", "Films"}, {"contentType", "object"}, {"mediaType", "video"},
                                            {"content", "vi_201"}, {"appType", "video"}}).code, 0);
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", tv}, {"playlist", "Films"}, {"appType", "video"}}).code, 0);
    ASSERT_EQ(daemon.request("Play", {{"dev", tv}}).code, 0);

    auto status = [&](const char* field) {
        vclient::Answer a = daemon.request("GetPlayerStatus", {{"dev", tv}});
        if (std::string(field) == "Type") return std::string(xmltoa(a.doc.getChildNode("device").getAttribute("Type")));
        return std::string(xmltoa(a.doc.getChildNode(field).getText()));
    };
    ASSERT_TRUE(testsupport::eventually([&] { return status("totalTime") == "00:00:30"; }, 15s, 100ms)) << daemon.log();
    EXPECT_EQ(status("playerState"), "PLAY");
    EXPECT_EQ(status("Type"), "AirPlay");
    ProcessResult shown = runProcess({root.path() + "/var/sim/simctl", "airplay-show", tv});
    EXPECT_NE(shown.output.find("/media/vi_201.mp4"), std::string::npos) << shown.output;

    ASSERT_EQ(daemon.request("Stop", {{"dev", tv}}).code, 0);
    EXPECT_EQ(status("playerState"), "STOP");
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
}

TEST(AirplayReceiverTest, ListedSpeakerPlaysThroughTheSender) {
    SimRoot root;
    ASSERT_TRUE(testsupport::writeFile(root.path() + "/var/sim/airplay.json",
                                       R"({"speakers": [{"name": "Kitchen Speaker", "mac": "0011223344FF"}]})"));
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();
    const std::string amp = "0011223344FF";

    vclient::Answer list = daemon.request("ListRender", {{"renderType", "airplay"}});
    ASSERT_EQ(list.doc.nChildNode("device"), 1) << daemon.log();
    EXPECT_STREQ(list.doc.getChildNode("device").getAttribute("Type"), "Raop");

    const std::string song = root.path() + "/share/Public/Music/01 Morning.mp3";
    ASSERT_EQ(daemon.request("CreatePlaylist", {{"playlist", "Songs"}, {"playlistType", "audio"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("AddContent", {{"playlist", "Songs"}, {"contentType", "file"}, {"mediaType", "audio"},
                                            {"content", song}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", amp}, {"playlist", "Songs"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("Play", {{"dev", amp}}).code, 0);

    auto type = [&] {
        vclient::Answer a = daemon.request("GetPlayerStatus", {{"dev", amp}});
        return std::string(xmltoa(a.doc.getChildNode("device").getAttribute("Type")));
    };
    EXPECT_EQ(type(), "Raop");
    // The sender's runs, as the simulated appliance records them.
    auto senderRuns = [&] {
        std::vector<std::string> runs;
        for (const std::string& line : testsupport::readLines(root.path() + "/var/sim/calls.log"))
            if (line.rfind("raop_play [", 0) == 0) runs.push_back(line);
        return runs;
    };
    ASSERT_TRUE(testsupport::eventually([&] { return senderRuns().size() == 1; }, 15s, 100ms)) << daemon.log();
    EXPECT_EQ(senderRuns()[0], R"(raop_play ["-i","--port","5000","127.0.0.1"])") << "the speaker encrypts: no -e";
    ASSERT_EQ(daemon.request("Stop", {{"dev", amp}}).code, 0);
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
}
