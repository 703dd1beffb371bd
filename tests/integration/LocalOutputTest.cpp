// A local sound output end to end: listed, given a playlist, played by a real MPD.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "util/Process.h"
#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;

namespace {

class LocalOutputTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < 3; ++i) {
            ProcessResult r = runProcess({"/usr/bin/ffmpeg", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                          "sine=frequency=" + std::to_string(300 + 200 * i) + ":duration=1",
                                          root.path() + "/share/Public/Music/t" + std::to_string(i) + ".wav"});
            ASSERT_TRUE(r.ok());
        }
        daemon = std::make_unique<Daemon>(root.path());
        ASSERT_TRUE(daemon->waitReady()) << daemon->log();
    }
    void TearDown() override {
        if (daemon) {
            EXPECT_EQ(daemon->stop(), 0) << daemon->log();
        }
        // Nothing of the private MPD servers may outlive the daemon.
        ProcessOptions opts;
        opts.capture = ProcessOptions::Capture::Both;
        ProcessResult r = runProcess({"/usr/bin/pgrep", "-f", root.path() + "/var/sim/mpd/"}, opts);
        EXPECT_NE(r.exitStatus, 0) << "mpd still running: " << r.output;
    }

    long long pcmBytes() { return static_cast<long long>(testsupport::readFile(root.path() + "/var/sim/audio/usb_dac.pcm").size()); }
    vclient::Answer req(const std::string& command, const vclient::Params& params = {}) {
        return daemon->request(command, params);
    }
    std::string status(const char* field) {
        vclient::Answer a = req("GetPlayerStatus", {{"dev", "usb_dac"}});
        const char* text = a.doc.getChildNode(field).getText();
        return text ? text : "";
    }
    template <class Pred>
    static bool eventually(Pred pred, std::chrono::milliseconds limit) {
        return testsupport::eventually(pred, limit, 100ms);
    }

    SimRoot root;
    std::unique_ptr<Daemon> daemon;
};

TEST_F(LocalOutputTest, ListedOutputPlaysItsQueueThroughAndStops) {
    vclient::Answer list = req("ListRender", {{"renderType", "alsa"}});
    ASSERT_EQ(list.code, 0);
    ASSERT_EQ(list.doc.nChildNode("device"), 3);
    EXPECT_STREQ(list.doc.getChildNode("device").getAttribute("Type"), "ALSA");

    ASSERT_EQ(req("CreatePlaylist", {{"playlist", "Tones"}, {"playlistType", "audio"}, {"appType", "music"}}).code, 0);
    for (const char* f : {"t0.wav", "t1.wav", "t2.wav"})
        ASSERT_EQ(req("AddContent", {{"playlist", "Tones"}, {"contentType", "file"}, {"mediaType", "audio"},
                                     {"content", root.path() + "/share/Public/Music/" + f}, {"appType", "music"}})
                      .code,
                  0);
    ASSERT_EQ(req("SetPlaylist", {{"dev", "usb_dac"}, {"playlist", "Tones"}, {"appType", "music"}}).code, 0);
    EXPECT_EQ(status("playerState"), "STOP");
    EXPECT_STREQ(req("ListPlayer").doc.getChildNode("player").getChildNode("renderID").getText(), "usb_dac");

    ASSERT_EQ(req("Play", {{"dev", "usb_dac"}}).code, 0);
    ASSERT_TRUE(eventually([&] { return status("playerState") == "PLAY"; }, 5s));
    ASSERT_TRUE(eventually([&] { return status("currTrack") == "1"; }, 5s)) << "moved on after the first track";
    ASSERT_TRUE(eventually([&] { return status("playerState") == "STOP"; }, 10s)) << "stopped at the end";
    EXPECT_EQ(status("currTrack"), "2");
    // Three seconds of 44.1 kHz 16-bit stereo, give or take what MPD buffers.
    EXPECT_GT(pcmBytes(), 2 * 176400);
    EXPECT_LT(pcmBytes(), 5 * 176400);
}

TEST_F(LocalOutputTest, BusySoundDeviceRefusesThePlayer) {
    ASSERT_TRUE(runProcess({root.path() + "/var/sim/simctl", "busy", "1", "0"}).ok());
    ASSERT_EQ(req("ListRender").code, 0);
    EXPECT_EQ(req("SetPlaylist", {{"dev", "usb_dac"}, {"playlist", "none"}, {"appType", "music"}}).code, -19);
    EXPECT_EQ(req("ListPlayer").doc.nChildNode("player"), 0);
}

}  // namespace
