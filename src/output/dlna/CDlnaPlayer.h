// CDlnaPlayer: plays a player's queue on one UPnP/DLNA media renderer. It speaks no UPnP itself:
// every renderer action goes through the media agent (/usr/bin/tessaly), whose replies are small
// XML documents. The worker (process()) starts each track, follows the renderer's position once
// a tick, decides when a track has ended and moves through the queue. A monitor thread watches
// the renderer while the worker is parked and resumes playback when somebody presses play on
// the renderer itself.
//
// Threads: the transport is the shared worker's (CDevicePlayer); this class supplies the
// renderer steps it runs, and watches a parked renderer for a resume pressed on the renderer
// itself. seek() talks to the renderer from the command thread while the worker follows the
// track; m_bSeeking keeps the worker's end-of-track rules off meanwhile.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "output/CDevicePlayer.h"
#include "player/PlayerBackends.h"
#include "playlist/PlaylistTypes.h"

class CDlnaPlayer : public CDevicePlayer {
public:
    // Asks the renderer whether it is an XBMC one and starts the worker (which stops the
    // renderer and parks); returns once the worker has parked.
    CDlnaPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                const std::string& playlistTitle, const std::string& appType);
    // Stops the renderer if it has a track, then ends and joins the worker.
    ~CDlnaPlayer() override;

    // The back-end table's row.
    static std::unique_ptr<CPlayer> create(const std::string& renderID, const renderCacheInfo_s& render,
                                           const std::string& playlistTitle, const std::string& appType,
                                           int& result);

    // hh:mm:ss: the current entry is handed to the renderer again with that start position
    // (after a stop when the agent transcodes it). 0 when stopped or never started, -1 when the
    // renderer refuses.
    int seek(const char* position) override;
    int setAudioAndSubtitle(const char* externalSubtitle, int audioTrack, int subtitleTrack, const char* position,
                            const char* sseek, const char* ssize, const char* scolor, const char* sencoding,
                            const char* realSubtitlePath, int autoSubtitle) override;
    // Clamped to 0..100. 0, or -1 when the renderer did not accept it.
    int setVolume(int volume) override;
    // The renderer's volume, -1 when it cannot be had.
    int getVolume() override;
    PlayerTraits traits() const override { return {.typeText = "DLNA"}; }
    // Off stops the watch of a parked renderer (the manager switches it off before retiring
    // the player); on lets it watch again from the next time the worker parks.
    void monitor(bool on) override;

    bool isXBMC() const { return m_bIsXBMC; }
    bool isArm() const { return m_bIsArm; }
    bool isMonitoring() const { return m_bMonitorOn.load(); }

    // The worker's poll period, and everything timed from it: the watch of a parked renderer,
    // the waits between renderer retries and the seek's wait for a position (1 s on the
    // appliance). The counts (20 stalled polls, 5 grace passes, ...) stay counts.
    static void setTick(std::chrono::milliseconds tick);
    static std::chrono::milliseconds tick();

protected:
    // The worker's steps.
    Start startTrack(bool afterAdvance) override;
    Follow followTrack() override;
    void pauseDevice() override;
    bool resumeDevice() override;
    // Records the play history, then stops the renderer.
    void stopDevice(bool force) override;
    bool whileParked(bool firstPass) override;
    std::chrono::milliseconds passPeriod() const override { return tick(); }

private:
    // Renderer actions.
    int sendPlay_();
    int sendStop_();
    int sendPause_();
    int setAvTransport_(const char* position, int stopFirst, int audioTrack, int subtitleTrack,
                        const char* externalSubtitle);
    int sendAvTransport_(const playlistElm_t& elm, const char* position, int audioTrack, int subtitleTrack,
                         const char* externalSubtitle);
    playerState_e getRenderState_();
    // 1 stopped (or nothing loaded), 0 another state, negative when no reply could be had.
    int isRanderStop_();
    int isNeedTranscode(std::string& externalSubtitle);

    // Parts of the worker's steps.
    Follow followPhoto_();
    Follow followPosition_();
    Follow detectOutsideStop_();
    // Sleeps d; the worker gives it up for a command (false).
    bool nap_(std::chrono::milliseconds d) { return worker().nap(d); }

    playlistElm_s currentElm_() const;
    void setCurrentElm_(const playlistElm_s& elm);

    bool m_bIsXBMC = false;  // fixed once constructed
    bool m_bIsArm = false;
    std::atomic<bool> m_bNeedTranscode{false};
    std::atomic<bool> m_bSeeking{false};

    // The worker's own, per track: passes of a photo, polls without progress, the last
    // position seen, passes left without outside-stop checks; and across tracks the passes
    // since the last play-history record.
    int m_delayCount = 0;
    std::atomic<int> m_trackSkipCnt{0};  // atomic for the logs of seek
    int m_priorCT = 0;
    int m_grace = 0;
    bool m_followed = false;  // the track had a pass already
    int m_history = 0;

    // The entry being played. The worker and seek() both replace it.
    mutable std::mutex m_elmMutex;
    playlistElm_s m_currElm;

    // The watch of a parked renderer: switched by monitor(); m_watching and the state seen
    // last are the worker's own (one per player: a value shared by all players would let one
    // renderer's pause make another player resume).
    std::atomic<bool> m_bMonitorOn{true};
    bool m_watching = false;
    playerState_e m_callbackLastState = STATE_UNKNOW;
};
