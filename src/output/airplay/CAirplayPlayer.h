// CAirplayPlayer: plays a player's queue on one AirPlay video and photo receiver. Each track is
// handed over as a URL the receiver fetches from the appliance's media server (POST /play),
// followed by one status request a pass (GET /scrub: position and duration); photos are
// uploaded (PUT /photo) and shown for the slide-show delay. A receiver that wants a password
// (it answers 401 or 403, or was listed with an authentication method) is driven through the
// platform's AirPlay script instead, for the rest of the player's life.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "output/CDevicePlayer.h"
#include "output/airplay/AirPlayService.h"
#include "player/PlayerBackends.h"
#include "playlist/PlaylistTypes.h"

class CAirplayPlayer : public CDevicePlayer {
public:
    CAirplayPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                   const std::string& playlistTitle, const std::string& appType, const std::string& ip, int port,
                   const std::string& authMethod);
    ~CAirplayPlayer() override;

    // The back-end table's row.
    static std::unique_ptr<CPlayer> create(const std::string& renderID, const renderCacheInfo_s& render,
                                           const std::string& playlistTitle, const std::string& appType,
                                           int& result);

    PlayerTraits traits() const override;
    bool usesScript() const { return m_useScript.load(); }
    // hh:mm:ss within the current track; 0 while stopped, -1 when the receiver refuses.
    int seek(const char* hhmmss) override;
    // Subtitles go with the track where the script drives the receiver: nothing to set here.
    int setAudioAndSubtitle(const char* externalSubtitle, int audioTrack, int subtitleTrack, const char* position,
                            const char* sseek, const char* ssize, const char* scolor, const char* sencoding,
                            const char* realSubtitlePath, int autoSubtitle) override;

    // The worker's pass (1 s on the appliance) and the settling time after a reload (1 s);
    // tests shorten them.
    static void setTick(std::chrono::milliseconds tick);
    static void setSettleDelay(std::chrono::milliseconds delay);

protected:
    // The worker's steps: one status request a pass.
    std::chrono::milliseconds passPeriod() const override;
    Start startTrack(bool afterAdvance) override;
    Follow followTrack() override;
    void stopDevice(bool force) override;
    void pauseDevice() override;  // a photo stays as it is
    bool resumeDevice() override;
    void debugDetails(std::string& out) override;

private:
    // One transport request (pause, play, stop): through the script, or over HTTP; true when
    // the receiver took it.
    bool transport(int scriptOp, int (AirPlayService::*request)(Response&));
    // One status from the receiver; false when it did not answer.
    bool poll(float& position, float& duration);
    // Notes a receiver that asks for a password: from then on the script drives it.
    void judge(const Response& response);
    // The service, with the address the player was last given (a revived player gets a new one).
    AirPlayService& service();

    std::mutex m_serviceMutex;  // guards the service's address update against seek()
    AirPlayService m_service;
    std::string m_serviceIp;   // guarded by m_serviceMutex
    const int m_port;
    std::atomic<bool> m_useScript{false};

    // The worker's own, per track.
    bool m_photo = false;
    int m_delayCount = 0;
    std::atomic<int> m_unanswered{0};  // passes in a row without an answer (atomic for the dump)
    int m_idlePasses = 0;   // passes since /play without a position
    bool m_seenPlaying = false;
    float m_lastPosition = 0;
    float m_lastDuration = 0;
};
