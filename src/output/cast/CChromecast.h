// CChromecast: plays a player's queue on one Chromecast receiver through its ChromecastService.
// Each track is loaded as a URL of the appliance's media server with its title, artwork and
// subtitle; one status request a pass follows it. The receiver going idle after it played ends
// the track, unless it stopped long before the end (its own remote). A sender that loses the
// receiver is replaced and the track reloaded where it was, a few times in a row at most.
//
// Seek, volume and mute are handed to the worker, which sends them before its next status
// request: a command thread never waits on the sender (it may take its whole reply time-out),
// and status answers come from what the player last heard.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "output/CDevicePlayer.h"
#include "output/cast/ChromecastService.h"
#include "player/PlayerBackends.h"
#include "playlist/PlaylistTypes.h"

class CChromecast : public CDevicePlayer {
public:
    CChromecast(uint32_t type, const std::string& renderID, const std::string& deviceName,
                const std::string& playlistTitle, const std::string& appType, const std::string& ip, int port);
    ~CChromecast() override;

    // The back-end table's row.
    static std::unique_ptr<CPlayer> create(const std::string& renderID, const renderCacheInfo_s& render,
                                           const std::string& playlistTitle, const std::string& appType,
                                           int& result);

    PlayerTraits traits() const override;
    // hh:mm:ss within the current track, sent by the worker; 0 (nothing to do) while stopped.
    int seek(const char* hhmmss) override;
    // The external subtitle (a file on the appliance or a URL) goes with the next load.
    int setAudioAndSubtitle(const char* externalSubtitle, int audioTrack, int subtitleTrack, const char* position,
                            const char* sseek, const char* ssize, const char* scolor, const char* sencoding,
                            const char* realSubtitlePath, int autoSubtitle) override;
    // 0 - 100, sent by the worker (with the next load when no track is loaded).
    int setVolume(int volume) override;
    // The last volume set or heard from the receiver (0 while muted); -1 before either.
    int getVolume() override;
    int setMute(bool on) override;

    pid_t senderPid() { return m_service.senderPid(); }

    // The worker's pass (1 s on the appliance); tests shorten it.
    static void setTick(std::chrono::milliseconds tick);
    // Sender replacements in a row before the player gives up and stops.
    static constexpr int kMaxReloads = 3;

protected:
    std::chrono::milliseconds passPeriod() const override;
    Start startTrack(bool afterAdvance) override;
    Follow followTrack() override;
    void pauseDevice() override;
    bool resumeDevice() override;
    void stopDevice(bool force) override;
    bool whileParked(bool firstPass) override;
    void debugDetails(std::string& out) override;

private:
    // LOAD of the current entry (at > 0: then a seek there); false when the receiver did not
    // take it.
    bool load(float at);
    // Seek, volume and mute requested since the last pass, where the sender runs.
    void applyControls();
    // A status of the track from the receiver: Playing, Over, or an outside pause/stop.
    Follow judgeStatus(const Response& status);
    // The sender failed or lost the receiver: a new one reloads the track, or the player stops.
    Follow senderLost();
    std::string subtitleUrl(const playlistElm_s& elm);
    void heardVolume(const Response& status);
    ChromecastService& service();

    ChromecastService m_service;
    const int m_port;
    std::string m_serviceIp;  // the worker's: the address the service was last given

    // Set by command threads, taken by the worker (-1: nothing pending).
    std::atomic<int> m_pendingSeek{-1};
    std::atomic<int> m_pendingVolume{-1};
    std::atomic<int> m_pendingMute{-1};
    std::atomic<int> m_volume{-1};
    std::atomic<bool> m_muted{false};

    // The worker's own, per track (atomics where the dump reads them).
    bool m_photo = false;
    bool m_paused = false;
    int m_delayCount = 0;
    int m_idlePasses = 0;
    bool m_seenPlaying = false;
    float m_lastPosition = 0;
    float m_lastDuration = 0;
    std::atomic<int> m_unanswered{0};
    std::atomic<int> m_reloadsInRow{0};
};
