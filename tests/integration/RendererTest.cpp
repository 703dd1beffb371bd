// Network renderers through the daemon, each listed, given a playlist, played and stopped: a DLNA
// renderer (through the media agent), an AirPlay video receiver (over HTTP), and a simulated
// cast receiver played by the real cast sender over TLS on loopback, with nothing simulated on
// the daemon's side; no sender outlives a stop or the daemon.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "util/Process.h"
#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;
using testsupport::eventually;

namespace {

std::string state(Daemon& daemon, const std::string& dev, const char* field = "playerState") {
    return daemon.field("GetPlayerStatus", {{"dev", dev}}, field);
}

// Cast senders running for this root (their command lines name its copy of the sender).
int senders(const std::string& root) {
    int n = 0;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator("/proc", ec)) {
        const std::string cmdline = testsupport::readFile(e.path().string() + "/cmdline");
        n += cmdline.find(root + "/usr/local/medialibrary/bin/nodejs/ChromecastSender.js") != std::string::npos;
    }
    return n;
}

}  // namespace

TEST(RendererTest, ListedDlnaAirplayAndCastRenderersPlayAndStop) {
    const std::string dlna = "uuid:5f9ec1b3-ed59-49bb-8530-745e1d0a1c01";
    const std::string airplay = "5855CA1A2B3C";
    const std::string tv = "5e1c7a3b9d0f4e2a8b6c1d3e5f7a9b0c";
    SimRoot root({"--cast-receiver"});
    ASSERT_TRUE(testsupport::writeFile(root.path() + "/var/sim/airplay.json",
                                       R"({"receivers": [{"name": "Bedroom TV", "deviceid": "58:55:CA:1A:2B:3C",
                                           "features": "0x5A7FFFF7,0x1E", "model": "AppleTV3,2", "length": 30}]})"));
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();

    ASSERT_TRUE(daemon.makePlaylist("TV", "music", "audio", {"mu_101", "mu_102"}));
    ASSERT_TRUE(daemon.makePlaylist("Films", "video", "video", {"vi_201"}));
    vclient::Answer list = daemon.request("ListRender", {{"renderType", "dlna+airplay"}});
    ASSERT_EQ(list.doc.nChildNode("device"), 3) << daemon.log();
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", dlna}, {"playlist", "TV"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", airplay}, {"playlist", "Films"}, {"appType", "video"}}).code, 0);
    for (const std::string& dev : {dlna, airplay}) ASSERT_EQ(daemon.request("Play", {{"dev", dev}}).code, 0);

    ASSERT_TRUE(eventually([&] { return state(daemon, dlna) == "PLAY"; }, 10s, 100ms)) << daemon.log();
    ASSERT_TRUE(eventually([&] { return state(daemon, airplay, "totalTime") == "00:00:30"; }, 15s, 100ms))
        << daemon.log();
    EXPECT_EQ(state(daemon, airplay), "PLAY");
    // The renderers themselves were told what to play.
    ProcessResult shown = runProcess({root.path() + "/var/sim/simctl", "renderer-show", dlna});
    EXPECT_NE(shown.output.find("mu_101"), std::string::npos) << shown.output;
    shown = runProcess({root.path() + "/var/sim/simctl", "airplay-show", airplay});
    EXPECT_NE(shown.output.find("/media/vi_201.mp4"), std::string::npos) << shown.output;

    for (const std::string& dev : {dlna, airplay}) {
        ASSERT_EQ(daemon.request("Stop", {{"dev", dev}}).code, 0);
        EXPECT_EQ(state(daemon, dev), "STOP") << dev;
    }

    // A queue of two tracks plays through on the cast receiver.
    ASSERT_EQ(daemon.request("ListRender", {{"renderType", "chromecast"}}).doc.nChildNode("device"), 1) << daemon.log();
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", tv}, {"playlist", "TV"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("Play", {{"dev", tv}}).code, 0);

    const std::string received = root.path() + "/var/sim/cast/" + tv + "/received.log";
    auto loads = [&] {
        const std::string text = testsupport::readFile(received);
        int n = 0;
        for (size_t p = 0; (p = text.find("\"type\":\"LOAD\"", p)) != std::string::npos; ++p) ++n;
        return n;
    };
    ASSERT_TRUE(eventually([&] { return loads() == 1 && state(daemon, tv) == "PLAY"; }, 30s, 50ms)) << daemon.log();
    ASSERT_TRUE(eventually([&] { return loads() == 2; }, 30s, 50ms)) << daemon.log();
    ASSERT_TRUE(eventually([&] { return state(daemon, tv) == "STOP"; }, 30s, 50ms)) << daemon.log();
    EXPECT_NE(testsupport::readFile(received).find("Rain & Thunder"), std::string::npos) << "the title went with the load";
    EXPECT_TRUE(eventually([&] { return senders(root.path()) == 0; })) << "a full stop";

    // Playing when the daemon stops: its sender goes with it.
    ASSERT_EQ(daemon.request("Play", {{"dev", tv}}).code, 0);
    ASSERT_TRUE(eventually([&] { return loads() == 3 && senders(root.path()) == 1; }, 30s, 50ms));
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
    EXPECT_EQ(senders(root.path()), 0);
}
