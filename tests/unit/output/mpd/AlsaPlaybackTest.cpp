// The local-output player end to end: a real private MPD per player on the simulated appliance,
// whose outputs record the PCM they are given.
#include <algorithm>

#include "AlsaTestSupport.h"
#include "output/BackendTable.h"

namespace alsatest {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

bool contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// True when every one of wanted occurs in lines, in this order.
bool inOrder(const std::vector<std::string>& lines, const std::vector<std::string>& wanted) {
    auto it = lines.begin();
    for (const auto& w : wanted)
        if ((it = std::find(it, lines.end(), w)) == lines.end()) return false;
    return true;
}

TEST_F(AlsaTest, QueuePlaysThroughOnceSkippingWhatCannotPlay) {
    const std::string missing = m_root + "/no/such/file.flac";  // MPD refuses it
    makePlaylist("trip", {{CONTENT_FILE_E, SimRoot::track(kToneA)},
                          {CONTENT_OBJECT_E, "mu_999"},  // the library does not know it
                          {CONTENT_FILE_E, missing},
                          {CONTENT_FILE_E, SimRoot::track(kToneB)},
                          {CONTENT_FILE_E, SimRoot::track(kToneC)}});
    auto p = player("trip");
    ASSERT_EQ(p->getPlaylistSize(), 5u);
    mpcCalls(*p);
    long before = pcmBytes();

    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E, seconds(10)));
    ASSERT_TRUE(waitState(*p, STATE_STOP_E, seconds(10))) << "the queue did not end";

    // Three seconds of tone went to the USB output.
    EXPECT_GE(pcmBytes() - before, 25 * kPcmBytesPerSecond / 10);
    EXPECT_TRUE(inOrder(mpcCalls(*p), {mpc(*p, {"add", "file://" + SimRoot::track(kToneA)}),
                                       mpc(*p, {"add", "file://" + missing}),
                                       mpc(*p, {"add", "file://" + SimRoot::track(kToneB)}),
                                       mpc(*p, {"add", "file://" + SimRoot::track(kToneC)})}));
    EXPECT_EQ(mpdStatus(*p).find("[playing]"), std::string::npos);
}

TEST_F(AlsaTest, SeekPauseAndResumeKeepThePosition) {
    makePlaylist("long", {{CONTENT_FILE_E, SimRoot::track(kLong)}});
    auto p = player("long");
    mpcCalls(*p);
    EXPECT_EQ(p->seek("00:00:02"), 0);
    EXPECT_TRUE(mpcCalls(*p).empty()) << "a seek while stopped is ignored";

    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E, seconds(10)));
    ASSERT_EQ(p->seek("00:00:02"), 0);
    EXPECT_TRUE(contains(mpcCalls(*p), mpc(*p, {"seek", "00:00:02"})));
    ASSERT_TRUE(waitFor([&] { return p->getCurrTimeSecond() >= 2; }, seconds(10)));
    EXPECT_EQ(p->getTotalTime(), "00:00:04");

    // pause() returns once MPD is paused.
    ASSERT_EQ(p->pause(), 0);
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
    EXPECT_NE(mpdStatus(*p).find("[paused]"), std::string::npos);
    std::string at = p->getCurrTime();
    long bytes = pcmBytes();
    std::this_thread::sleep_for(milliseconds(600));
    EXPECT_LT(pcmBytes() - bytes, kPcmBytesPerSecond / 4) << "still producing sound while paused";
    EXPECT_EQ(p->getCurrTime(), at);

    // Resumed, not restarted: no second add, and the position goes on from where it was.
    mpcCalls(*p);
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E, seconds(10)));
    EXPECT_GE(p->getCurrTimeSecond(), 2);
    std::vector<std::string> calls = mpcCalls(*p);
    EXPECT_TRUE(contains(calls, mpc(*p, {"play"})));
    EXPECT_TRUE(std::none_of(calls.begin(), calls.end(),
                             [](const std::string& l) { return l.find("\"add\"") != std::string::npos; }));

    // Paused behind the player's back: the player follows MPD.
    ASSERT_TRUE(runProcess({m_root + "/tmp/larkd/bin/mpc", "-p", std::to_string(p->getPort()), "pause"}).ok());
    EXPECT_TRUE(waitState(*p, STATE_PAUSE_E, seconds(10)));
}

TEST_F(AlsaTest, SlicePlaysOnlyItsPartOfTheFile) {
    // mu_105 is second 1 to 2 of a three-second file.
    makePlaylist("slice", {{CONTENT_OBJECT_E, "mu_105"}});
    auto p = player("slice");
    ASSERT_EQ(p->setVolume(80), 0);
    mpcCalls(*p);
    long before = pcmBytes();
    auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E, seconds(10)));
    EXPECT_EQ(p->getTotalTime(), "00:00:01");  // the slice's length, not the file's
    EXPECT_LE(p->getCurrTimeSecond(), 1);      // counted from the slice's start
    ASSERT_EQ(p->seek("00:00:00"), 0);         // the slice's start is added for MPD
    ASSERT_TRUE(waitState(*p, STATE_STOP_E, seconds(5)));

    EXPECT_LT(std::chrono::steady_clock::now() - started, milliseconds(2800)) << "played on past the slice";
    EXPECT_LT(pcmBytes() - before, 22 * kPcmBytesPerSecond / 10);
    EXPECT_GT(pcmBytes() - before, kPcmBytesPerSecond / 2);
    // Muted around the jump to the slice's start, then the volume is back.
    std::vector<std::string> calls = mpcCalls(*p);
    EXPECT_TRUE(inOrder(calls, {mpc(*p, {"volume", "0"}), mpc(*p, {"play"}), mpc(*p, {"seek", "00:00:01"}),
                                mpc(*p, {"volume", "80"})}));
    EXPECT_EQ(std::count(calls.begin(), calls.end(), mpc(*p, {"seek", "00:00:01"})), 2);  // ours and seek()'s
    EXPECT_EQ(p->getVolume(), 80);
}

TEST_F(AlsaTest, VolumeAndMuteRoundTrip) {
    auto p = player();
    EXPECT_EQ(p->getVolume(), 100);
    EXPECT_EQ(p->setVolume(101), -1);
    ASSERT_EQ(p->setVolume(40), 0);
    // A second mute must not save the 0; a second un-mute has nothing saved and leaves the volume.
    for (bool mute : {true, true}) ASSERT_EQ(p->setMute(mute), 0);
    EXPECT_EQ(p->getVolume(), 0);
    for (bool mute : {false, false}) ASSERT_EQ(p->setMute(mute), 0);
    EXPECT_EQ(p->getVolume(), 40);

    // Volume 0 counts as a mute whose un-mute is volume 1.
    ASSERT_EQ(p->setVolume(0), 0);
    EXPECT_TRUE(p->isMute());
    ASSERT_EQ(p->setMute(false), 0);
    EXPECT_EQ(p->getVolume(), 1);
}

TEST_F(AlsaTest, AttributesGoToTheOutputAndTheSharedServerReloads) {
    auto p = player();
    mpcCalls(*p);
    EXPECT_EQ(p->setAttributes("SAMPLERATE=Auto,DSDPASS=enable"), 0);
    std::vector<std::string> calls = newCalls();
    EXPECT_TRUE(contains(calls, mpc(*p, {"setoutputattr", "USB DAC", "1", "-1"})));
    EXPECT_TRUE(contains(calls, callLine("mpc", {"-p", "8893", "reloadsettings"})));
    EXPECT_EQ(p->setAttributes("VOLUME=3,DSDPASS"), -1);
    EXPECT_EQ(p->setAttributes(nullptr), -1);
    EXPECT_TRUE(newCalls().empty());
}

TEST_F(AlsaTest, FactoryRefusesABusyDeviceWithoutStartingAServer) {
    renderCacheInfo_s render;
    render.type = playertype::kAlsa | playertype::kAlsaUsb;
    render.card = "1";
    render.device = "0";
    ASSERT_TRUE(runProcess({m_root + "/var/sim/simctl", "busy", "1", "0"}).ok());
    int result = 0;
    EXPECT_EQ(BackendTable().create("alsa:usb_dac", render, "", "", result), nullptr);
    EXPECT_EQ(result, -19);
    EXPECT_EQ(callLog.count("mpd"), 0) << "a server was started";
    ASSERT_TRUE(runProcess({m_root + "/var/sim/simctl", "free", "1", "0"}).ok());
}

TEST_F(AlsaTest, DestroyingAPlayingPlayerEndsItsServerAndThread) {
    makePlaylist("long", {{CONTENT_FILE_E, SimRoot::track(kLong)}});
    auto p = player("long");
    const std::string port = std::to_string(p->getPort());
    const std::string instance = m_root + "/var/sim/mpd/" + port;
    int pid = std::atoi(testsupport::readFile(instance + "/pid").c_str());
    ASSERT_TRUE(processRuns(pid));
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E, seconds(10)));

    auto started = std::chrono::steady_clock::now();
    p.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(6));
    EXPECT_FALSE(processRuns(pid));
    EXPECT_FALSE(testsupport::exists(instance + "/socket"));
    EXPECT_TRUE(contains(newCalls(), callLine("mpd", {"--port", port, "--kill", m_root + "/tmp/larkd/morrat.conf"})));
    // The thread count is checked by the fixture.
}

}  // namespace
}  // namespace alsatest
