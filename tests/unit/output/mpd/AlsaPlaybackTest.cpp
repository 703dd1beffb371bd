// The local-output player end to end: a real private MPD per player on the simulated appliance
// (its mpd and mpc wrappers run Debian's real mpd), whose outputs append the PCM they are given
// to var/sim/audio.
#include <signal.h>

#include <algorithm>
#include <filesystem>

#include "output/BackendTable.h"
#include "output/mpd/CAlsaPlayer.h"
#include "player/PlayerTypes.h"
#include "unit/support/SimRoot.h"

namespace {

using namespace std::chrono_literals;
using testsupport::callLine;
using testsupport::eventually;
using testsupport::file;
using testsupport::makePlaylist;
using Lines = std::vector<std::string>;

constexpr long kPcmBytesPerSecond = 44100 * 2 * 2;  // what the simulated outputs record

// True when every one of wanted occurs in lines, in this order.
bool has(const Lines& lines, const Lines& wanted) {
    auto it = lines.begin();
    for (const auto& w : wanted)
        if ((it = std::find(it, lines.end(), w)) == lines.end()) return false;
    return true;
}
// True when pid names a process that still runs (a zombie no longer does).
bool processRuns(int pid) {
    if (pid <= 0 || ::kill(pid, 0) != 0) return false;
    std::string text = testsupport::readFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
}
bool waitState(CAlsaPlayer& p, playerState_e state) { return eventually([&] { return p.getPlayerState() == state; }); }

class AlsaTest : public testsupport::ThreadCheckedTest {
protected:
    void SetUp() override {
        ThreadCheckedTest::SetUp();
        CAlsaPlayer::setPollPeriod(200ms);
    }
    void TearDown() override {
        CAlsaPlayer::setPollPeriod(1000ms);
        ThreadCheckedTest::TearDown();
    }

    // Test tracks; a name a shell would split and expand proves the file reaches mpc as one raw
    // argument.
    std::string track(const char* name, int hz = 440, int seconds = 1) const {
        return tone(std::string("alsa-test/") + name, hz, seconds, {"-ac", "2", "-ar", "44100"});
    }
    std::string longTone() const { return track("long4s.flac", 330, 4); }
    static std::unique_ptr<CAlsaPlayer> player(const char* title = nullptr) {
        return std::make_unique<CAlsaPlayer>(playertype::kAlsa | playertype::kAlsaUsb, "alsa:usb_dac", "USB DAC",
                                             title ? title : "", title ? "music" : "", "1");
    }
    // The mpc calls of one player since the last look, without the status polls.
    Lines mpcCalls(const CAlsaPlayer& p) {
        Lines out;
        std::string prefix = mpc(p, {});
        prefix.back() = ',';
        for (const auto& line : callLog.fresh())
            if (line.rfind(prefix, 0) == 0 && line != mpc(p, {"status"})) out.push_back(line);
        return out;
    }
    std::string mpc(const CAlsaPlayer& p, Lines args) const {
        args.insert(args.begin(), {"-p", std::to_string(p.getPort())});
        return callLine("mpc", args);
    }
    // What the player's MPD says right now, or makes it do.
    ProcessResult runMpc(const CAlsaPlayer& p, const char* command) const {
        return runProcess({m_root + "/tmp/larkd/bin/mpc", "-p", std::to_string(p.getPort()), command});
    }
    long pcmBytes() const {
        std::error_code ec;
        auto size = std::filesystem::file_size(m_root + "/var/sim/audio/usb_dac.pcm", ec);
        return ec ? 0 : static_cast<long>(size);
    }
};

TEST_F(AlsaTest, QueuePlaysThroughOnceSkippingWhatCannotPlay) {
    const std::string missing = m_root + "/no/such/file.flac";  // MPD refuses it
    const std::string a = track("a440.flac"), b = track("02 Rain & $(echo pwned) 'x'.flac", 523);
    const std::string c = track("c659.flac", 659);
    makePlaylist("trip", {file(a), testsupport::object("mu_999") /* the library does not know it */, file(missing),
                          file(b), file(c)});
    auto p = player("trip");
    ASSERT_EQ(p->getPlaylistSize(), 5u);
    mpcCalls(*p);
    long before = pcmBytes();

    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E));
    ASSERT_TRUE(waitState(*p, STATE_STOP_E)) << "the queue did not end";

    // Three seconds of tone went to the USB output.
    EXPECT_GE(pcmBytes() - before, 25 * kPcmBytesPerSecond / 10);
    auto add = [&](const std::string& path) { return mpc(*p, {"add", "file://" + path}); };
    EXPECT_TRUE(has(mpcCalls(*p), {add(a), add(missing), add(b), add(c)}));
    EXPECT_EQ(runMpc(*p, "status").output.find("[playing]"), std::string::npos);
}

TEST_F(AlsaTest, SeekPauseAndResumeKeepThePosition) {
    makePlaylist("long", {file(longTone())});
    auto p = player("long");
    mpcCalls(*p);
    EXPECT_EQ(p->seek("00:00:02"), 0);
    EXPECT_TRUE(mpcCalls(*p).empty()) << "a seek while stopped is ignored";

    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E));
    ASSERT_EQ(p->seek("00:00:02"), 0);
    EXPECT_TRUE(has(mpcCalls(*p), {mpc(*p, {"seek", "00:00:02"})}));
    ASSERT_TRUE(eventually([&] { return p->getCurrTimeSecond() >= 2; }));
    EXPECT_EQ(p->getTotalTime(), "00:00:04");

    // pause() returns once MPD is paused.
    ASSERT_EQ(p->pause(), 0);
    EXPECT_EQ(p->getPlayerState(), STATE_PAUSE_E);
    EXPECT_NE(runMpc(*p, "status").output.find("[paused]"), std::string::npos);
    std::string at = p->getCurrTime();
    long bytes = pcmBytes();
    std::this_thread::sleep_for(600ms);
    EXPECT_LT(pcmBytes() - bytes, kPcmBytesPerSecond / 4) << "still producing sound while paused";
    EXPECT_EQ(p->getCurrTime(), at);

    // Resumed, not restarted: no second add, and the position goes on from where it was.
    mpcCalls(*p);
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E));
    EXPECT_GE(p->getCurrTimeSecond(), 2);
    Lines calls = mpcCalls(*p);
    EXPECT_TRUE(has(calls, {mpc(*p, {"play"})}));
    EXPECT_TRUE(std::none_of(calls.begin(), calls.end(), [](auto& l) { return l.find("\"add\"") != l.npos; }));

    // Paused behind the player's back: the player follows MPD.
    ASSERT_TRUE(runMpc(*p, "pause").ok());
    EXPECT_TRUE(waitState(*p, STATE_PAUSE_E));
}

TEST_F(AlsaTest, SlicePlaysOnlyItsPartOfTheFile) {
    // mu_105 is second 1 to 2 of a three-second file.
    makePlaylist("slice", {testsupport::object("mu_105")});
    auto p = player("slice");
    ASSERT_EQ(p->setVolume(80), 0);
    mpcCalls(*p);
    long before = pcmBytes();
    auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E));
    EXPECT_EQ(p->getTotalTime(), "00:00:01");  // the slice's length, not the file's
    EXPECT_LE(p->getCurrTimeSecond(), 1);      // counted from the slice's start
    ASSERT_EQ(p->seek("00:00:00"), 0);         // the slice's start is added for MPD
    ASSERT_TRUE(waitState(*p, STATE_STOP_E));

    EXPECT_LT(std::chrono::steady_clock::now() - started, 2800ms) << "played on past the slice";
    EXPECT_LT(pcmBytes() - before, 22 * kPcmBytesPerSecond / 10);
    EXPECT_GT(pcmBytes() - before, kPcmBytesPerSecond / 2);
    // Muted around the jump to the slice's start, then the volume is back.
    Lines calls = mpcCalls(*p);
    EXPECT_TRUE(has(calls, {mpc(*p, {"volume", "0"}), mpc(*p, {"play"}), mpc(*p, {"seek", "00:00:01"}),
                                mpc(*p, {"volume", "80"})}));
    EXPECT_EQ(std::count(calls.begin(), calls.end(), mpc(*p, {"seek", "00:00:01"})), 2);  // ours and seek()'s
    EXPECT_EQ(p->getVolume(), 80);
}

TEST_F(AlsaTest, VolumeAndMuteRoundTripAndAttributesReachTheOutput) {
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

    // Attributes go to the output, and the shared server reloads.
    mpcCalls(*p);
    EXPECT_EQ(p->setAttributes("SAMPLERATE=Auto,DSDPASS=enable"), 0);
    EXPECT_TRUE(has(callLog.fresh(), {mpc(*p, {"setoutputattr", "USB DAC", "1", "-1"}),
                                      callLine("mpc", {"-p", "8893", "reloadsettings"})}));
    EXPECT_EQ(p->setAttributes("VOLUME=3,DSDPASS"), -1) << "nothing it understands";
    EXPECT_TRUE(callLog.fresh().empty());
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
}

TEST_F(AlsaTest, DestroyingAPlayingPlayerEndsItsServerAndThread) {
    makePlaylist("long", {file(longTone())});
    auto p = player("long");
    const std::string port = std::to_string(p->getPort());
    const std::string instance = m_root + "/var/sim/mpd/" + port;
    int pid = std::atoi(testsupport::readFile(instance + "/pid").c_str());
    ASSERT_TRUE(processRuns(pid));
    ASSERT_EQ(p->play(), 0);
    ASSERT_TRUE(waitState(*p, STATE_PLAY_E));

    auto started = std::chrono::steady_clock::now();
    p.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 6s);
    EXPECT_FALSE(processRuns(pid));
    EXPECT_FALSE(testsupport::exists(instance + "/socket"));
    EXPECT_TRUE(has(callLog.fresh(), {callLine("mpd", {"--port", port, "--kill", m_root + "/tmp/larkd/morrat.conf"})}));
    // The thread count is checked by the fixture.
}

}  // namespace
