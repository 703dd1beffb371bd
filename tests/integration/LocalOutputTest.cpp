// A local sound output end to end: listed, given a playlist, played by a real MPD.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "core/util/Process.h"
#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;

namespace {

class LocalOutputTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < 3; ++i) makeTone("t" + std::to_string(i) + ".wav", 300 + 200 * i, "1");
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

    std::string makeTone(const std::string& name, int hz, const char* seconds) {
        std::string path = root.path() + "/share/Public/Music/" + name;
        ProcessOptions opts;
        opts.timeoutMs = 20000;
        opts.capture = ProcessOptions::Capture::Both;
        ProcessResult r = runProcess({"/usr/bin/ffmpeg", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                      "sine=frequency=" + std::to_string(hz) + ":duration=" + seconds, path},
                                     opts);
        EXPECT_TRUE(r.ok()) << r.output;
        return path;
    }
    long long pcmBytes() {
        struct stat st;
        return ::stat((root.path() + "/var/sim/audio/usb_dac.pcm").c_str(), &st) == 0 ? st.st_size : 0;
    }
    vclient::Answer req(const std::string& command, const vclient::Params& params = {}) {
        return daemon->request(command, params);
    }
    std::string status(const char* field) {
        vclient::Answer a = req("GetPlayerStatus", {{"dev", "usb_dac"}});
        const char* text = a.doc.getChildNode(field).getText();
        return text ? text : "";
    }
    void playlistOf(const std::vector<std::string>& files) {
        ASSERT_EQ(req("CreatePlaylist", {{"playlist", "Tones"}, {"playlistType", "audio"}, {"appType", "music"}}).code, 0);
        for (const std::string& f : files)
            ASSERT_EQ(req("AddContent", {{"playlist", "Tones"}, {"contentType", "file"}, {"mediaType", "audio"},
                                         {"content", root.path() + "/share/Public/Music/" + f}, {"appType", "music"}})
                          .code,
                      0);
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

    playlistOf({"t0.wav", "t1.wav", "t2.wav"});
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

TEST_F(LocalOutputTest, SeekPauseAndResume) {
    makeTone("long.wav", 440, "20");
    playlistOf({"long.wav"});
    ASSERT_EQ(req("ListRender").code, 0);
    ASSERT_EQ(req("SetPlaylist", {{"dev", "usb_dac"}, {"playlist", "Tones"}, {"appType", "music"}}).code, 0);
    ASSERT_EQ(req("Play", {{"dev", "usb_dac"}}).code, 0);
    ASSERT_TRUE(eventually([&] { return status("playerState") == "PLAY"; }, 5s));

    ASSERT_EQ(req("Seek", {{"dev", "usb_dac"}, {"position", "00:00:10"}}).code, 0);
    ASSERT_TRUE(eventually([&] { return status("currTime") >= "00:00:10"; }, 5s));

    ASSERT_EQ(req("Pause", {{"dev", "usb_dac"}}).code, 0);
    EXPECT_EQ(status("playerState"), "PAUSE");
    long long paused = pcmBytes();
    std::this_thread::sleep_for(1500ms);
    EXPECT_LT(pcmBytes() - paused, 176400) << "no sound while paused";
    ASSERT_EQ(req("Play", {{"dev", "usb_dac"}}).code, 0);
    ASSERT_TRUE(eventually([&] { return pcmBytes() > paused + 176400; }, 5s)) << "sound again after resuming";
    EXPECT_GE(status("currTime"), "00:00:10");

    ASSERT_EQ(req("Stop", {{"dev", "usb_dac"}}).code, 0);
    EXPECT_EQ(status("playerState"), "STOP");
}

TEST_F(LocalOutputTest, BusySoundDeviceRefusesThePlayer) {
    ProcessOptions opts;
    opts.capture = ProcessOptions::Capture::Both;
    ASSERT_TRUE(runProcess({root.path() + "/var/sim/simctl", "busy", "1", "0"}, opts).ok());
    ASSERT_EQ(req("ListRender").code, 0);
    EXPECT_EQ(req("SetPlaylist", {{"dev", "usb_dac"}, {"playlist", "none"}, {"appType", "music"}}).code, -19);
    EXPECT_EQ(req("ListPlayer").doc.nChildNode("player"), 0);
}

}  // namespace
