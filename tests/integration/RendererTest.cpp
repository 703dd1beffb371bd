// Network renderers through the daemon: a DLNA renderer (through the media agent) and an AirPlay
// video receiver (over HTTP), each listed, given a playlist, played and stopped.
#include <gtest/gtest.h>

#include <chrono>

#include "util/Process.h"
#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;

TEST(RendererTest, ListedDlnaAndAirplayRenderersPlayAndStop) {
    const std::string dlna = "uuid:5f9ec1b3-ed59-49bb-8530-745e1d0a1c01";
    const std::string airplay = "5855CA1A2B3C";
    SimRoot root;
    ASSERT_TRUE(testsupport::writeFile(root.path() + "/var/sim/airplay.json",
                                       R"({"receivers": [{"name": "Bedroom TV", "deviceid": "58:55:CA:1A:2B:3C",
                                           "features": "0x5A7FFFF7,0x1E", "model": "AppleTV3,2", "length": 30}]})"));
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();

    auto playlist = [&](const std::string& title, const std::string& app, const char* media,
                        std::initializer_list<const char*> objects) {
        ASSERT_EQ(daemon.request("CreatePlaylist", {{"playlist", title}, {"playlistType", media}, {"appType", app}}).code, 0);
        for (const char* object : objects)
            ASSERT_EQ(daemon.request("AddContent", {{"playlist", title}, {"contentType", "object"}, {"mediaType", media},
                                                    {"content", object}, {"appType", app}}).code, 0);
    };
    playlist("TV", "music", "audio", {"mu_101", "mu_102"});
    playlist("Films", "video", "video", {"vi_201"});
    vclient::Answer list = daemon.request("ListRender", {{"renderType", "dlna+airplay"}});
    ASSERT_EQ(list.doc.nChildNode("device"), 3) << daemon.log();
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", dlna}, {"playlist", "TV"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", airplay}, {"playlist", "Films"}, {"appType", "video"}}).code, 0);
    for (const std::string& dev : {dlna, airplay}) ASSERT_EQ(daemon.request("Play", {{"dev", dev}}).code, 0);

    auto status = [&](const std::string& dev, const char* field) {
        vclient::Answer a = daemon.request("GetPlayerStatus", {{"dev", dev}});
        return std::string(xmltoa(a.doc.getChildNode(field).getText()));  // lives as long as the answer
    };
    ASSERT_TRUE(testsupport::eventually([&] { return status(dlna, "playerState") == "PLAY"; }, 10s, 100ms)) << daemon.log();
    ASSERT_TRUE(testsupport::eventually([&] { return status(airplay, "totalTime") == "00:00:30"; }, 15s, 100ms))
        << daemon.log();
    EXPECT_EQ(status(airplay, "playerState"), "PLAY");
    // The renderers themselves were told what to play.
    ProcessResult shown = runProcess({root.path() + "/var/sim/simctl", "renderer-show", dlna});
    EXPECT_NE(shown.output.find("mu_101"), std::string::npos) << shown.output;
    shown = runProcess({root.path() + "/var/sim/simctl", "airplay-show", airplay});
    EXPECT_NE(shown.output.find("/media/vi_201.mp4"), std::string::npos) << shown.output;

    for (const std::string& dev : {dlna, airplay}) {
        ASSERT_EQ(daemon.request("Stop", {{"dev", dev}}).code, 0);
        EXPECT_EQ(status(dev, "playerState"), "STOP") << dev;
    }
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
}
