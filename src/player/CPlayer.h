// CPlayer: the base of every player, one per output device. It owns what all devices share: the
// identity, the loaded playlist and the play queue built from it, the play mode with its shuffle
// order, the current track, the time texts, the audio/subtitle choice and the player's lock. The
// back-ends (one per kind of device) override the transport operations and run process() as the
// player's thread.
//
// Locking: the base takes no lock for the queue, the playlist fields and the mode; the manager
// holds the player's lock (getLock()) around every call it makes. A back-end's thread reports
// state, times and the current index without that lock, so the state, mode and index are atomics
// and the texts that thread writes sit behind m_liveMutex.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "player/CThread.h"
#include "player/PlayerTypesQueue.h"
#include "playlist/PlaylistTypes.h"

class XMLNode;

class CPlayer : public CThread {
public:
    // Loads the playlist named by playlistTitle and appType when both are given.
    CPlayer(uint32_t playerType, const char* renderID, const char* deviceName, const char* playlistTitle,
            const char* appType);
    // A player without a playlist.
    CPlayer(uint32_t playerType, std::string renderID, std::string deviceName);
    ~CPlayer() override;

    // Transport, implemented by each back-end. Results: 0 or a negative code.
    virtual int play() = 0;
    virtual int stop(bool force) = 0;
    virtual int pause() = 0;
    virtual int next() = 0;
    virtual int previous() = 0;
    virtual int seek(const char* hhmmss) = 0;
    virtual int setAudioAndSubtitle(const char* externalSubtitle, int audioTrack, int subtitleTrack,
                                    const char* position, const char* sseek, const char* ssize, const char* scolor,
                                    const char* sencoding, const char* realSubtitlePath, int autoSubtitle) = 0;
    virtual int setVolume(int /*volume*/) { return -1; }
    virtual int getVolume() { return -1; }
    virtual bool isPlayerExist() { return true; }
    virtual bool isPlayerExist(const XMLNode& /*listing*/) { return true; }
    virtual int setAttributes(const char* /*attributes*/) { return -1; }
    virtual void monitor(bool /*on*/) {}
    virtual void debugDump(std::string& /*out*/) {}
    // Muting sets the volume to 0; unmuting restores the volume remembered by the last mute of
    // any player (one value for the whole process).
    virtual int setMute(bool on);
    bool isMute();

    // Identity.
    const std::string& getRenderID() const { return m_renderID; }
    const std::string& getDeviceName() const { return m_deviceName; }
    uint32_t getPlayerType() const { return m_type; }
    uint32_t getType() const { return m_type; }
    // The player's lock (normal mutex). Only the manager takes it: tried around every forwarded
    // call, waited for around playlist-wide edits and its housekeeping pass.
    pthread_mutex_t& getLock() { return m_lock; }
    void setIP(const std::string& ip) { m_ip = ip; }
    void setIP(const char* ip) { m_ip = ip ? ip : ""; }
    const std::string& getIP() const { return m_ip; }

    // Playlist and queue.
    const char* getPlaylistTitle() const { return m_playlistTitle.empty() ? nullptr : m_playlistTitle.c_str(); }
    const std::string& getAppType() const { return m_appType; }
    const std::string& getOwner() const { return m_owner; }
    const std::string& getTag() const { return m_tag; }
    int64_t getPlaylistID() const { return m_playlistID; }
    size_t getPlaylistSize() const { return m_playQueue.size(); }
    const std::vector<playQueueItem_s>& getPlayQueue() const { return m_playQueue; }
    playMode_e getPlayMode() const { return m_playMode.load(); }
    playerState_e getPlayerState() const { return m_playerState.load(); }

    // Stops the device, loads the playlist (a fresh queue, current track 0) and plays again when
    // it was playing. An unknown playlist leaves the old queue and the device stopped.
    void setPlaylist(const std::string& title, const std::string& appType);
    // Rebuilds the queue from the store in playlist order; the current index is kept.
    void loadPlaylist_();
    void addItemToPlayQueue(playQueueItem_s& item);
    void delItemFromPlayQueue(playQueueItem_s& item);
    void reorderPlayQueue(unsigned long from, unsigned long to);
    // Stops and empties the queue (and forgets the playlist when withPlaylist). Returns -1.
    int clearPlayQueue(bool withPlaylist);
    // from/to bound the part of the queue a shuffle touches; 0, 0 is the whole queue.
    void setPlayMode(playMode_e mode, unsigned long from, unsigned long to);

    // Tracks. A track number is a playlist order number; the index is a queue position.
    unsigned int getCurrTrack() const;
    uint64_t getCurrTrackIndex() const { return m_currTrackIndex.load(); }
    // Moves the index only; the device is not told.
    void setCurrTrackIndex_(uint64_t index) { m_currTrackIndex.store(index); }
    int setCurrTrack(unsigned int n);
    int setCurrTrackIdByOrder(unsigned int n);
    int setCurrTrackByContent(const char* content);
    // Advances to the track to play next; false when the queue is done.
    bool changeToNextTrack();

    // One entry of the loaded playlist; -1 names the current track. The store's result.
    int getPlaylistElmByIndex(playlistElm_s& elm, int index);
    int getPlaylistElmByOrder(playlistElm_s& elm, int order);

    void getStatus(playerStatus_s& status);

    // Slide shows: seconds per photo.
    int getSlideShowDelay() const { return m_slideShowDelay.load(); }
    void setSlideShowDelay(int seconds) { m_slideShowDelay.store(seconds); }

    // Time texts (hh:mm:ss). "h:m:s" -> seconds; a text with a single ':' counts its hours only.
    static int hhmmssToSecond(const char* text);
    static void secondToHHMMSS(int seconds, std::string& out);
    int getCurrTimeSecond() const;  // seek offset included
    int getCurrTimeSecondWithOutSeek() const;
    std::string getCurrTime() const;
    std::string getTotalTime() const;
    int getTotalTimeSecond() const;
    void setCurrTime(const std::string& hhmmss);
    void setCurrTime(int seconds);
    void setTotalTime(const std::string& hhmmss);
    void setTotalTime(const playlistElm_s& elm);
    std::string getSeekOffset() const;
    void setSeekOffset(const std::string& hhmmss);

    // Audio track and subtitles.
    void setAudioTrack(int track);
    int getAudioTrack() const;
    void setSubtitleTrack(int track);
    int getSubtitleTrack() const;
    void setExternalSubtitle(const char* subtitle);
    void getExternalSubtitle(std::string& out) const;
    void resetExternalSubtitle();
    void resetAudioAndSubtitle();  // no external subtitle, audio track 0, subtitle track -1
    std::string getAutoPlugSubtitle() const;
    void setAutoPlugSubtitle(const std::string& subtitle);
    void clearAutoPlugSubtitle();
    std::string getSsize() const;
    std::string getScolor() const;
    std::string getSseek() const;
    std::string getSencoding() const;

    // A random number in [0, 2 * 10^9), never negative.
    static int get_random();
    // A fresh transaction id for the device protocol.
    int gen_tid();
    static void intToString(int value, std::string& out);

    // setPlaylist lets an AirPlay device settle this long after restarting it (1 s); tests set 0.
    static void setAirplaySettleDelay(std::chrono::milliseconds delay);

protected:
    void process() override {}

    void setPlayerState(playerState_e state) { m_playerState.store(state); }
    void setSubtitleStyle(const std::string& ssize, const std::string& scolor, const std::string& sseek,
                          const std::string& sencoding);
    std::string getConvertedSubtitlePath() const;
    void setConvertedSubtitlePath(const std::string& path);

private:
    void shuffle_(unsigned long from, unsigned long to);
    void renumberQueue_();

    int64_t m_playlistID = -1;
    const uint32_t m_type;
    std::atomic<playMode_e> m_playMode{PLAYMODE_NORMAL_E};
    std::atomic<playerState_e> m_playerState{STATE_STOP_E};
    std::atomic<int> m_slideShowDelay{5};
    std::string m_appType;
    std::string m_renderID;
    std::string m_deviceName;
    std::string m_playlistTitle;
    std::string m_owner;
    std::string m_tag;
    std::string m_ip;
    std::vector<playQueueItem_s> m_playQueue;
    std::atomic<uint64_t> m_currTrackIndex{0};
    int32_t m_tid = 0;

    // Guards the texts and numbers below, which the back-end thread rewrites as playback goes on.
    mutable std::mutex m_liveMutex;
    std::string m_currTime{"00:00:00"};  // position reported by the device, without m_seekOffset
    std::string m_totalTime{"00:00:00"};
    std::string m_seekOffset{"00:00:00"};  // where the current playback started
    std::string m_autoPlugSubtitle;
    std::string m_externalSubtitle;
    std::string m_convertedSubtitlePath;
    int32_t m_audioTrack = 0;
    int32_t m_subtitleTrack = -1;
    std::string m_sseek;
    std::string m_ssize;
    std::string m_scolor;
    std::string m_sencoding;

    pthread_mutex_t m_lock;

    // The volume the last mute replaced, shared by every player.
    static std::atomic<int> s_rememberedVolume;
    static std::atomic<int> s_airplaySettleMs;
};
