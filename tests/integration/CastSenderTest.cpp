// The whole Chromecast path with nothing simulated on the daemon's side: the daemon runs the
// real cast sender, which plays a queue on a simulated cast receiver over TLS on loopback. No
// sender outlives a stop or the daemon.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;

namespace {

// Senders running for this root (their command lines name its copy of the sender).
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

TEST(CastSenderTest, AQueueOfTwoTracksPlaysThroughOnACastReceiver) {
    SimRoot root({"--cast-receiver"});
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();
    const std::string tv = "5e1c7a3b9d0f4e2a8b6c1d3e5f7a9b0c";

    vclient::Answer list = daemon.request("ListRender", {{"renderType", "chromecast"}});
    ASSERT_EQ(list.doc.nChildNode("device"), 1) << daemon.log();
    ASSERT_EQ(daemon.request("CreatePlaylist", {{"playlist", "Songs"}, {"playlistType", "audio"}, {"appType", "music"}})
                  .code,
              0);
    for (const char* id : {"mu_101", "mu_102"})
        ASSERT_EQ(daemon.request("AddContent", {{"playlist", "Songs"}, {"contentType", "object"}, {"mediaType", "audio"},
                                                {"content", id}, {"appType", "music"}})
                      .code,
                  0);
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", tv}, {"playlist", "Songs"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("Play", {{"dev", tv}}).code, 0);

    const std::string received = root.path() + "/var/sim/cast/" + tv + "/received.log";
    auto loads = [&] {
        const std::string text = testsupport::readFile(received);
        int n = 0;
        for (size_t p = 0; (p = text.find("\"type\":\"LOAD\"", p)) != std::string::npos; ++p) ++n;
        return n;
    };
    auto state = [&] {
        vclient::Answer a = daemon.request("GetPlayerStatus", {{"dev", tv}});
        return std::string(xmltoa(a.doc.getChildNode("playerState").getText()));
    };
    ASSERT_TRUE(testsupport::eventually([&] { return loads() == 1 && state() == "PLAY"; }, 30s, 50ms)) << daemon.log();
    ASSERT_TRUE(testsupport::eventually([&] { return loads() == 2; }, 30s, 50ms)) << daemon.log();
    ASSERT_TRUE(testsupport::eventually([&] { return state() == "STOP"; }, 30s, 50ms)) << daemon.log();
    const std::string text = testsupport::readFile(received);
    EXPECT_NE(text.find("Rain & Thunder"), std::string::npos) << "the title went with the load";
    EXPECT_TRUE(testsupport::eventually([&] { return senders(root.path()) == 0; }, 10s, 20ms)) << "a full stop";

    // Playing when the daemon stops: its sender goes with it.
    ASSERT_EQ(daemon.request("Play", {{"dev", tv}}).code, 0);
    ASSERT_TRUE(testsupport::eventually([&] { return loads() == 3 && senders(root.path()) == 1; }, 30s, 50ms));
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
    EXPECT_EQ(senders(root.path()), 0);
}
