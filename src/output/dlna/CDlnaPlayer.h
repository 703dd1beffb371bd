// CDlnaPlayer: plays a player's queue on one UPnP/DLNA media renderer. It speaks no UPnP itself:
// every renderer action goes through the media agent (/usr/bin/tessaly), whose replies are small
// XML documents. The worker (process()) starts each track, follows the renderer's position once
// a tick, decides when a track has ended and moves through the queue. A monitor thread watches
// the renderer while the worker is parked and resumes playback when somebody presses play on
// the renderer itself.
//
// Threads: the manager calls the transport operations holding the player's lock; the worker
// and the monitor never take that lock. The worker parks on m_waitCond; stop() and pause() wait
// (bounded) on m_parkedCond until it has. The flags are atomics; the ones a wake-up depends on
// are written under m_waitMutex so that no wake-up is lost.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "thread/CMyMonitor.h"
#include "player/CPlayer.h"
#include "player/PlayerBackends.h"
#include "playlist/PlaylistTypes.h"

class CDlnaPlayer : public CPlayer, public myMonitor::CMyMonitorFunctor {
public:
    // Asks the renderer whether it is an XBMC one, starts the worker (which stops the renderer
    // and parks) and the monitor (waiting), and returns once the worker has parked.
    CDlnaPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                const std::string& playlistTitle, const std::string& appType);
    // Parks the worker (stopping the renderer if it plays), then ends and joins both threads.
    ~CDlnaPlayer() override;

    // The back-end table's row.
    static std::unique_ptr<CPlayer> create(const std::string& renderID, const renderCacheInfo_s& render,
                                           const std::string& playlistTitle, const std::string& appType,
                                           int& result);

    // -1 on an empty queue or when a paused renderer will not resume; else 0.
    int play() override;
    int stop(bool force) override;
    int pause() override;
    // The next/previous entry round the queue (a ring, whatever the play mode); 0 while stopped.
    int next() override;
    int previous() override;
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
    // Off stops the monitor from watching (the manager switches it off before retiring the
    // player); on lets it watch again from the next time the worker parks.
    void monitor(bool on) override;
    void debugDump(std::string& out) override;

    // The monitor's call, once a tick while the worker is parked.
    void callback() override;

    bool isXBMC() const { return m_bIsXBMC; }
    bool isArm() const { return m_bIsArm; }
    bool isMonitoring() const { return m_bMonitorOn.load(); }
    bool isParked() const { return m_bStuckOnWaitLock.load(); }

    // The worker's poll period, and everything timed from it: the monitor's period, the waits
    // between renderer retries and the seek's wait for a position (1 s on the appliance). The
    // counts (20 stalled polls, 5 grace passes, ...) stay counts. Read when a player is made
    // (the monitor's period) and at each wait.
    static void setTick(std::chrono::milliseconds tick);
    static std::chrono::milliseconds tick();

protected:
    void process() override;

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

    // Worker stages.
    void parkedBranch_();
    void startTrack_(int& priorCT, unsigned long& failCnt);
    void followTrack_(int& history, int& priorCT);
    void followPhoto_();
    void followPosition_(int& priorCT);
    void changeTrack_(unsigned long& failCnt, int& priorCT);
    void detectOutsideStop_();
    void trace_(const char* mark, int stage, int changTrackCnt = -1);
    void resetTimes_();

    // Sleeps `d` or until the worker is told to stop or exit (or, with kick, a track request
    // comes); false when cut short.
    bool nap_(std::chrono::milliseconds d, bool kick = false);
    // Caller side: waits (bounded) until the worker has parked; lock holds m_waitMutex.
    bool waitParked_(std::unique_lock<std::mutex>& lock, const char* who);
    void wakeWorker_();
    int step_(int delta, const char* who);

    playlistElm_s currentElm_() const;
    void setCurrentElm_(const playlistElm_s& elm);

    std::atomic<bool> m_bStop{true};
    std::atomic<bool> m_bExit{false};
    std::atomic<bool> m_bStuckOnWaitLock{false};
    std::atomic<bool> m_bIsPlaying{false};
    std::atomic<bool> m_bChangeToNext{false};
    bool m_bIsXBMC = false;  // fixed once constructed
    bool m_bIsArm = false;
    std::atomic<bool> m_bNeedTranscode{false};
    std::atomic<bool> m_bSeeking{false};
    int m_delayCount = 0;                 // the worker's own
    bool m_inParkWork = false;            // the worker's own: pausing or stopping the renderer
    std::atomic<int> m_trackSkipCnt{0};   // the worker's own; atomic for debugDump
    std::atomic<int> m_flowStage{0};

    // The entry being played. The worker and seek() both replace it.
    mutable std::mutex m_elmMutex;
    playlistElm_s m_currElm;

    // Guards m_wakeForStop, m_kick and the requests, and orders the flag writes above.
    std::mutex m_waitMutex;
    std::condition_variable m_waitCond;    // the worker parks and naps here
    std::condition_variable m_parkedCond;  // stop()/pause()/the constructor wait here
    bool m_wakeForStop = false;            // stop() of a paused player: the worker must stop the renderer
    bool m_kick = false;                   // cut the worker's nap short
    uint64_t m_trackRequest = 0;           // bumped by next()/previous()
    uint64_t m_playingRequest = 0;         // the worker's copy when its track started
    uint64_t m_parkRequest = 0;            // bumped by stop()/pause()

    // The monitor. Its template counts whole seconds; a sub-second test tick runs it with
    // period 0 and callback() paces itself on m_paceCond instead.
    std::unique_ptr<myMonitor::CMyMonitor<CDlnaPlayer>> m_monitor;
    int m_monitorPeriodSec = 1;
    std::atomic<bool> m_bMonitorOn{true};
    std::mutex m_paceMutex;
    std::condition_variable m_paceCond;
    bool m_bPaceExit = false;  // guarded by m_paceMutex
    // The renderer state the callback saw last. One per player: a value shared by all players
    // would let one renderer's pause make another player resume when that one reports PLAYING.
    std::atomic<playerState_e> m_callbackLastState{STATE_UNKNOW};
};
