// CRaopPlayer: plays a player's queue on one AirPlay speaker (RAOP) through the appliance's
// sender, raop_play, one child per player: it hands the child one file at a time, learns the
// file's length from ffprobe, counts the position itself (one second a pass) and asks the
// child whether it still plays. In NORMAL and SHUFFLE mode it stops after each finished track
// that another would follow: that is how these speakers have always behaved here.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "output/CDevicePlayer.h"
#include "output/raop/RaopChild.h"
#include "player/PlayerBackends.h"
#include "playlist/PlaylistTypes.h"

class CRaopPlayer : public CDevicePlayer {
public:
    CRaopPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                const std::string& playlistTitle, const std::string& appType, bool encrypted, const std::string& ip,
                int port);
    ~CRaopPlayer() override;

    // The back-end table's row.
    static std::unique_ptr<CPlayer> create(const std::string& renderID, const renderCacheInfo_s& render,
                                           const std::string& playlistTitle, const std::string& appType,
                                           int& result);

    PlayerTraits traits() const override;
    // Clamped to 0..100 and sent; -1 when the sender did not take it.
    int setVolume(int volume) override;
    int getVolume() override { return m_volume.load(); }
    // "seek S"; the position counts on from there. -1 when the sender did not take it.
    int seek(const char* hhmmss) override;
    int setAudioAndSubtitle(const char* externalSubtitle, int audioTrack, int subtitleTrack, const char* position,
                            const char* sseek, const char* ssize, const char* scolor, const char* sencoding,
                            const char* realSubtitlePath, int autoSubtitle) override;

    pid_t childPid() { return m_child.pid(); }

    // The length of a media file from ffprobe's report ("Duration: hh:mm:ss.xx" on its standard
    // error, read in memory); false when it gives none.
    static bool trackDuration(const std::string& path, std::string& hhmmss);
    // The pass (1 s on the appliance) and every wait timed from it; tests shorten it.
    static void setTick(std::chrono::milliseconds tick);

protected:
    std::chrono::milliseconds passPeriod() const override;
    Start startTrack(bool afterAdvance) override;
    Follow followTrack() override;
    bool playsOnAfterTrack(bool more, playMode_e mode) const override;
    bool skipWhileStoppedPlays() const override { return true; }
    void pauseDevice() override;
    bool resumeDevice() override;
    // A full stop also ends the sender; a soft one keeps it for the next track.
    void stopDevice(bool force) override;

private:
    int connect();
    // The first playable entry from the current one on (at most once round the queue).
    int findValidTrackPath(playlistElm_s& elm, std::string& path);
    bool handOver(const std::string& path);

    RaopChild m_child;
    const bool m_encrypted;
    const std::string m_ip;
    const int m_port;
    std::atomic<int> m_volume{85};
    std::atomic<int> m_position{0};  // seconds; the worker counts, seek() sets
    // The worker's own.
    std::string m_path;
    int m_silentPasses = 0;  // "state" answers without NO_PAUSE in a row
    int m_deadPasses = 0;    // passes with the sender gone
};
