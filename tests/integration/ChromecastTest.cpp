// A Chromecast through the daemon: listed by mDNS, given a playlist, played through its sender
// to the end of the queue; no sender outlives a stop or the daemon.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;

namespace {

const char kLivingRoom[] = "7f3a0c1e5d2b4c8a9e6f1a2b3c4d5e6f";

// Senders started on the root so far (each records what it read in var/sim/cast/PID.log).
std::vector<pid_t> senders(const std::string& root) {
    std::vector<pid_t> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(root + "/var/sim/cast", ec))
        if (e.path().extension() == ".log") out.push_back(static_cast<pid_t>(std::stol(e.path().stem().string())));
    return out;
}

bool allGone(const std::vector<pid_t>& pids) {
    for (pid_t p : pids)
        if (::kill(p, 0) == 0) return false;
    return true;
}

}  // namespace

TEST(ChromecastTest, AQueuePlaysThroughAndNoSenderOutlivesTheDaemon) {
    SimRoot root;
    ASSERT_TRUE(testsupport::writeFile(root.path() + "/var/sim/cast-sender.json", R"({"duration": 1})"));
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();

    vclient::Answer list = daemon.request("ListRender", {{"renderType", "chromecast"}});
    ASSERT_GE(list.doc.nChildNode("device"), 1) << daemon.log();
    ASSERT_EQ(daemon.request("CreatePlaylist", {{"playlist", "Songs"}, {"playlistType", "audio"}, {"appType", "music"}})
                  .code,
              0);
    for (const char* id : {"mu_101", "mu_102"})
        ASSERT_EQ(daemon.request("AddContent", {{"playlist", "Songs"}, {"contentType", "object"}, {"mediaType", "audio"},
                                                {"content", id}, {"appType", "music"}})
                      .code,
                  0);
    ASSERT_EQ(daemon.request("SetPlaylist", {{"dev", kLivingRoom}, {"playlist", "Songs"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(daemon.request("Play", {{"dev", kLivingRoom}}).code, 0);

    auto status = [&](const char* field) {
        vclient::Answer a = daemon.request("GetPlayerStatus", {{"dev", kLivingRoom}});
        if (std::string(field) == "Type") return std::string(xmltoa(a.doc.getChildNode("device").getAttribute("Type")));
        return std::string(xmltoa(a.doc.getChildNode(field).getText()));
    };
    auto received = [&] {
        const std::vector<pid_t> pids = senders(root.path());
        return pids.empty() ? std::string()
                            : testsupport::readFile(root.path() + "/var/sim/cast/" + std::to_string(pids[0]) + ".log");
    };
    ASSERT_TRUE(testsupport::eventually([&] { return received().find("Rain & Thunder") != std::string::npos; }, 20s,
                                        50ms))
        << daemon.log();
    EXPECT_EQ(status("Type"), "Chromecast");
    ASSERT_TRUE(testsupport::eventually([&] { return status("playerState") == "STOP"; }, 20s, 50ms)) << daemon.log();
    EXPECT_EQ(senders(root.path()).size(), 1u) << "one sender for the queue";
    EXPECT_TRUE(testsupport::eventually([&] { return allGone(senders(root.path())); }, 10s, 20ms));

    // Playing when the daemon stops: its sender goes with it.
    ASSERT_TRUE(testsupport::writeFile(root.path() + "/var/sim/cast-sender.json", R"({"duration": 60})"));
    ASSERT_EQ(daemon.request("Play", {{"dev", kLivingRoom}}).code, 0);
    ASSERT_TRUE(testsupport::eventually([&] { return senders(root.path()).size() == 2; }, 20s, 20ms));
    ASSERT_TRUE(testsupport::eventually([&] { return status("playerState") == "PLAY"; }, 20s, 50ms));
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
    EXPECT_TRUE(allGone(senders(root.path())));
}
