// CPlayer: the base of every player, one per output device. It owns what all devices share: the
// identity, the loaded playlist and the play queue built from it, the play mode with its shuffle
// order, the current track, the time texts, the audio/subtitle choice and the player's lock. The
// back-ends (one per kind of device) override the transport operations and drive the device
// from a worker thread of their own.
//
// Locking: the manager holds the player's lock (getLock()) around every call it makes. A
// back-end's thread must not take that lock (the manager holds it while stop() and pause() wait
// for that thread), yet it advances the track and reads the queue and the playlist. So the base
// guards the queue and the playlist fields with m_queueMutex, taken inside its own methods only,
// and never held across a transport call, a playlist-store query or a helper program; the state,
// mode and index are atomics, and the texts the back-end's thread writes sit behind m_liveMutex.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "thread/CThread.h"
#include "player/PlayerTraits.h"
#include "player/PlayerTypesQueue.h"
#include "playlist/PlaylistTypes.h"

class XMLNode;

class CPlayer {
public:
    // Loads the playlist named by playlistTitle and appType when both are given.
    CPlayer(uint32_t playerType, const char* renderID, const char* deviceName, const char* playlistTitle,
            const char* appType);
    // A player without a playlist.
    CPlayer(uint32_t playerType, std::string renderID, std::string deviceName);
    virtual ~CPlayer();
    CPlayer(const CPlayer&) = delete;
    CPlayer& operator=(const CPlayer&) = delete;

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
    // What sets this kind of player apart (stops, settling, status texts).
    virtual PlayerTraits traits() const { return {}; }
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
    // The device's address: the manager sets it (a revived player gets the listing's new one)
    // while the back-end's thread reads it.
    void setIP(const std::string& ip);
    void setIP(const char* ip) { setIP(std::string(ip ? ip : "")); }
    std::string getIP() const;

    // Playlist and queue. The reference accessors are for the manager, holding the player's lock:
    // only it rewrites these fields (and always under that lock), so what it reads stays put.
    // A back-end's thread, without that lock, uses the copies below.
    const char* getPlaylistTitle() const { return m_playlistTitle.empty() ? nullptr : m_playlistTitle.c_str(); }
    const std::string& getAppType() const { return m_appType; }
    const std::string& getOwner() const { return m_owner; }
    const std::string& getTag() const { return m_tag; }
    const std::vector<playQueueItem_s>& getPlayQueue() const { return m_playQueue; }
    // Copies, safe from any thread.
    std::string playlistTitleCopy() const;
    std::string appTypeCopy() const;
    std::string ownerCopy() const;
    std::string tagCopy() const;
    std::vector<playQueueItem_s> playQueueCopy() const;
    int64_t getPlaylistID() const;
    size_t getPlaylistSize() const;
    playMode_e getPlayMode() const { return m_playMode.load(); }
    playerState_e getPlayerState() const { return m_playerState.load(); }

    // Stops the device, loads the playlist (a fresh queue, current track 0) and plays again when
    // it was playing. An unknown playlist leaves the old queue and the device stopped.
    void setPlaylist(const std::string& title, const std::string& appType);
    // Rebuilds the queue from the store in playlist order; the current index is kept.
    void loadPlaylist();
    void addItemToPlayQueue(playQueueItem_s& item);
    void delItemFromPlayQueue(playQueueItem_s& item);
    void reorderPlayQueue(unsigned long from, unsigned long to);
    // Reorders and keeps the track that was playing current, in one step (a worker advancing
    // meanwhile cannot be lost or misplaced). Used when the playlist itself was reordered.
    void reorderPlayQueueKeepingCurrent(unsigned long from, unsigned long to);
    // Stops and empties the queue (and forgets the playlist when withPlaylist). Returns -1.
    int clearPlayQueue(bool withPlaylist);
    // from/to bound the part of the queue a shuffle touches; 0, 0 is the whole queue.
    void setPlayMode(playMode_e mode, unsigned long from, unsigned long to);

    // Tracks. A track number is a playlist order number; the index is a queue position.
    unsigned int getCurrTrack() const;
    uint64_t getCurrTrackIndex() const { return m_currTrackIndex.load(); }
    // Moves the index only; the device is not told.
    void setCurrTrackIndex(uint64_t index);
    // Moves the current index by delta round the queue (a ring, whatever the play mode) in one
    // step; false on an empty queue.
    bool stepCurrTrackIndex(int delta);
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

    // What the media library's tools say (CPlayerContent.cpp); the media agent's questions
    // are agent/MediaAgent.h's. Each returns 0, or -1 with a log line.
    // The numeric user id of an appliance user (/usr/bin/id -u).
    static int getUserId(const std::string& owner, std::string& uid);
    // "Share/dir/file.srt" (a leading '/' allowed) -> the file's absolute path inside that share,
    // from the administrator's share list (/sbin/pimbrel -sv -a admin: "NAME<TAB>PATH" lines).
    // -1 for an unknown share or a path that climbs out of it with "..".
    static int convertFullSubtitle(const std::string& sharePath, std::string& fullPath);
    // The file's absolute path with every link resolved; -1 when it does not resolve or is not a
    // regular file.
    static int getRealFilePath(const char* path, std::string& realPath);

    // Records the current track's position in the owner's play history (ebonry savePlayHistory).
    // A file or object entry sends: PATH -p POSITION -m 1 -s TOTAL -o UID; a library-id entry:
    // -p POSITION -m 1 -e DBID -a MEDIATYPE -x UID (seconds; UID of the playlist's owner).
    // Nothing is sent, and 0 returned, while the position is 0.
    int savePlayHistory();
    // Asks the agent for the entry's external subtitle files and keeps the first one the server
    // marks automatic as the auto-plug subtitle (its path; subtitle encoding UTF-8). The previous
    // choice is cleared first; -1 when there is none, or for a file entry (no object id).
    int findAutoPlugSubtitle(const playlistElm_s& entry);

    // A random number in [0, 2 * 10^9), never negative.
    static int get_random();
    // A fresh transaction id for the device protocol.
    int gen_tid();
    static void intToString(int value, std::string& out);


    // Written by the back-end's worker as the device goes.
    void setPlayerState(playerState_e state) { m_playerState.store(state); }
    // Zeroes the time texts and the start offset and forgets the track's audio and subtitle
    // choice: what a stopped player shows.
    void resetTimes();

protected:
    void setSubtitleStyle(const std::string& ssize, const std::string& scolor, const std::string& sseek,
                          const std::string& sencoding);
    std::string getConvertedSubtitlePath() const;
    void setConvertedSubtitlePath(const std::string& path);

private:
    // What loading a playlist reads from the store, gathered without m_queueMutex and then
    // published under it in one go.
    struct LoadedPlaylist {
        std::string owner;
        std::string tag;
        std::vector<playQueueItem_s> queue;
    };
    static LoadedPlaylist readPlaylist(int64_t playlistID);
    // The callers below hold m_queueMutex.
    void shuffleLocked(unsigned long from, unsigned long to);
    void renumberQueueLocked();
    unsigned int currTrackLocked() const;
    void reorderLocked(unsigned long from, unsigned long to);

    const uint32_t m_type;
    std::atomic<playMode_e> m_playMode{PLAYMODE_NORMAL_E};  // written under m_queueMutex
    std::atomic<playerState_e> m_playerState{STATE_STOP_E};
    std::atomic<int> m_slideShowDelay{5};
    std::string m_renderID;
    std::string m_deviceName;
    std::string m_ip;  // guarded by m_liveMutex
    int32_t m_tid = 0;

    // Guards the playlist and the queue below: the manager rewrites them while a back-end's
    // thread advances and reads them. Held for a copy or an edit, never across a virtual call,
    // a store query or a helper program (stop() waits for a thread that may be waiting here).
    mutable std::mutex m_queueMutex;
    int64_t m_playlistID = -1;
    std::string m_playlistTitle;
    std::string m_appType;
    std::string m_owner;
    std::string m_tag;
    std::vector<playQueueItem_s> m_playQueue;
    // Read without the mutex; written only under it, so that an advance and an edit that
    // shifts the index never interleave.
    std::atomic<uint64_t> m_currTrackIndex{0};

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
};
