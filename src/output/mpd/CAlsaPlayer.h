// CAlsaPlayer: the player of one of the appliance's own sound outputs (HDMI, USB DAC, analog).
// It decodes nothing itself: each player runs a private MPD on a port of its own, restricted to
// the one output named like the player's device, and drives it with mpc. MPD's queue holds one
// file at a time; the worker feeds the play queue to it, polls its status once a period for
// position and end of track, and moves on by the play-queue rules of CPlayer.
//
// Threads: the transport is the shared worker's (CDevicePlayer); this class supplies the MPD
// steps it runs. Volume changes may come from command threads and the worker at once
// (m_volumeMutex).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "output/CDevicePlayer.h"
#include "player/PlayerBackends.h"
#include "playlist/PlaylistTypes.h"

// Runs one MPD/mpc command line with its output discarded, logging it first. 0 on success,
// otherwise the exit status, or -1 when it could not run, was killed or timed out.
int send_mpd_cmd(const std::vector<std::string>& argv);

class CAlsaPlayer : public CDevicePlayer {
public:
    // Starts the private MPD (and waits until it answers), selects the output named deviceName,
    // sets volume 100 and starts the worker, which parks at once. outputId is kept for callers.
    CAlsaPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                const std::string& playlistTitle, const std::string& appType, const std::string& outputId);
    // Ends and joins the worker (MPD is left as it is), then stops the private MPD.
    ~CAlsaPlayer() override;

    // The back-end table's row: a player for a listed local output, or null with -19 when
    // another program holds its sound device (our MPD would be refused it).
    static std::unique_ptr<CPlayer> create(const std::string& renderID, const renderCacheInfo_s& render,
                                           const std::string& playlistTitle, const std::string& appType,
                                           int& result);
    // Attributes for a local output without a player of its own: the shared MPD instance drives
    // every such output.
    static int setAttributesWithoutPlayer(const renderCacheInfo_s& render, const char* attributes);

    // hh:mm:ss within the current track (a slice's own start is added). Ignored while stopped.
    int seek(const char* hhmmss) override;
    int setAudioAndSubtitle(const char* externalSubtitle, int audioTrack, int subtitleTrack, const char* position,
                            const char* sseek, const char* ssize, const char* scolor, const char* sencoding,
                            const char* realSubtitlePath, int autoSubtitle) override;
    // 0..100; 0 counts as muted, so that un-muting gives volume 1. -1 for anything else.
    int setVolume(int volume) override;
    // MPD's volume, or -1 when it cannot be read.
    int getVolume() override;  // from what MPD last reported or accepted; asks MPD when unknown
    // "SAMPLERATE=...,DSDPASS=..." applied to the output, then the shared MPD reloads its
    // settings. -1 when nothing is recognised, else the status of the output command.
    int setAttributes(const char* attributes) override;
    // Mute remembers this player's volume (100 when unreadable); un-mute restores it.
    int setMute(bool on) override;
    // Type "ALSA", Subtype the kind of output.
    PlayerTraits traits() const override;

    // Seeks MPD to an absolute position in the file, slice start not added.
    int seekAbs(int seconds);
    int acquireOutput() { return 0; }
    // The current queue entry and its file; entries that do not resolve are skipped with
    // changeToNextTrack (at most once round the queue). startOffset/duration: the slice of the
    // file the track is (-1 or 0 when the whole file). 0, or -1 when nothing is left to play.
    int getNextObjectFilePath(playlistElm_s& elm, std::string& path, int& startOffset, int& duration);
    // Replaces MPD's queue with the one file. The add command's status.
    int addFileToMPD(const std::string& path);

    int getPort() const { return m_port; }
    const std::string& getOutputId() const { return m_outputId; }

    // True unless /proc/asound/card<card>/pcm<device>p/sub0/status (under the appliance root)
    // can be read and says "closed".
    static bool isSndDevBusy(const std::string& card, const std::string& device);

    // Port selection: a process-wide counter runs 12351..12650, then wraps to 12350; a port in
    // use is skipped, and after 300 busy candidates 12350 is taken regardless.
    static int choosePort();
    // Test seams: the in-use probe (null restores the /proc/net/tcp check), the counter's start
    // and the worker's status period (1 s on the appliance).
    static void setPortProbe(std::function<bool(int port)> probe);
    static void resetPortCounter();
    static void setPollPeriod(std::chrono::milliseconds period);
    // Whether a /proc/net/tcp or tcp6 table lists a local address with this port.
    static bool tcpTableHasLocalPort(std::string_view table, int port);
    // Both tables of this machine.
    static bool isTcpPortInUse(int port);

protected:
    // The worker's steps: one MPD status poll a pass.
    std::chrono::milliseconds passPeriod() const override;
    Start startTrack(bool afterAdvance) override;
    Follow followTrack() override;
    // next()/previous() of a stopped local output start it.
    bool skipWhileStoppedPlays() const override { return true; }
    void pauseDevice() override;
    bool resumeDevice() override;
    void stopDevice(bool force) override;
    void debugDetails(std::string& out) override;

private:
    std::vector<std::string> mpcArgv(std::initializer_list<std::string> args) const;
    int sendMpc(std::initializer_list<std::string> args);
    // "mpc -p N status", its output (empty when it did not run to its end); false when it could
    // not be started at all.
    bool readStatus(std::string& out);
    void startServer();
    void stopServer();
    // Runs the server program (mpd --port ...), logging the failure.
    void runServerCommand(const std::vector<std::string>& argv, const char* failure);
    int sendVolume_(int volume);

    const std::string m_outputId;
    // The slice of the file the current track is (-1: the whole file). The slice of a paused
    // track is kept: a resumed slice still reports and ends as one.
    std::atomic<int> m_startOffset{-1};
    std::atomic<int> m_duration{-1};
    int m_port = 0;  // fixed once constructed

    std::mutex m_volumeMutex;  // one volume change at a time (the worker mutes around a slice's seek)
    std::atomic<int> m_savedVolume{-1};  // -1: not muted
    // The volume MPD last reported or accepted (-1: not known yet). Front ends poll the volume
    // every second: answering from here spares a program run per poll, and the worker's status
    // polls keep it current while playing.
    std::atomic<int> m_knownVolume{-1};
};
