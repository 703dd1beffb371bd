// A DLNA renderer through the daemon: listed, given a playlist, played through the media agent.
#include <gtest/gtest.h>

#include <chrono>

#include "util/Process.h"
#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;

TEST(DlnaRendererTest, ListedRendererPlaysAndStops) {
    const std::string tv = "uuid:5f9ec1b3-ed59-49bb-8530-745e1d0a1c01";
    SimRoot root;
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();

    ASSERT_EQ(daemon.request("CreatePlaylist", {{"playlist", "TV"}, {"playlistType", "audio"}, {"appType", "music"}}).code, 0);
    for (const char* object : {"mu_101", "mu_102"})
        ASSERT_EQ(daemon.request("AddContent", {{"playlist", "TV"}, {"contentType", "object"}, {"mediaType", "audio"},
                                                {"content", object}, {"appType", "music"}}).code, 0);
    vclient::Answer list = daemon.request("ListRender", {{"renderType", "dlna"}});
    ASSERT_EQ(list.doc.nChildNode("device"), 2);
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", tv}, {"playlist", "TV"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("Play", {{"dev", tv}}).code, 0);

    auto state = [&] {
        vclient::Answer a = daemon.request("GetPlayerStatus", {{"dev", tv}});
        const char* s = a.doc.getChildNode("playerState").getText();  // lives as long as the answer
        return std::string(s ? s : "");
    };
    ASSERT_TRUE(testsupport::eventually([&] { return state() == "PLAY"; }, 10s, 100ms)) << daemon.log();
    // The renderer itself was told to play the first track.
    ProcessResult show = runProcess({root.path() + "/var/sim/simctl", "renderer-show", tv});
    EXPECT_NE(show.output.find("mu_101"), std::string::npos) << show.output;

    vclient::Answer debug = daemon.request("debugDump", {{"dev", tv}});
    EXPECT_EQ(debug.code, 0);
    EXPECT_NE(std::string(debug.doc.getChildNode("debug").getText()).find("m_bIsPlaying"), std::string::npos);

    ASSERT_EQ(daemon.request("Stop", {{"dev", tv}}).code, 0);
    EXPECT_EQ(state(), "STOP");
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
}
