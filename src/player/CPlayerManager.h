// CPlayerManager: owns every player, the render cache filled by discovery and the reclaim
// cache of retired players. Command handlers name a render id; the manager finds the player,
// locks it and forwards the call. Its own thread retires players whose device went away.
//
// Locks, in this order: m_rwLock (collection, reclaim cache, render cache), then a player's
// lock, then anything inside the player (then the playlist store's lock).
#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "player/CPlayer.h"
#include "player/PlayerBackends.h"
#include "thread/CThread.h"
#include "xml/XMLNode.h"


class CPlayerManager : public CThread {
public:
    // backends: who builds the players (none: every render is of an unknown type); passSeconds:
    // period of the housekeeping pass (10 s on the appliance).
    explicit CPlayerManager(std::shared_ptr<IPlayerBackends> backends = nullptr, int passSeconds = 10);
    ~CPlayerManager() override;

    // Ends the housekeeping thread and waits for it. Safe to call more than once.
    void stopThread();

    pthread_rwlock_t& getRWLock() { return m_rwLock; }

    // Render cache; discovery holds the write lock around a refresh.
    void addRenderInCache(const char* renderID, const char* name, const char* ip, uint32_t type,
                          const char* encryption, int port, const std::string& card, const std::string& device,
                          const std::string& authMethod = "");
    void clearRenderFoundFlagsLocked();
    int searchRenderInCacheLocked(const std::string& renderID, renderCacheInfo_s& out) const;

    // Creates (or revives from the reclaim cache) the player of a cached render. Caller holds
    // the write lock. Returns the player or null; result tells why.
    CPlayer* addPlayerLocked(int& result, const std::string& renderID, const std::string& playlistTitle,
                        const std::string& appType);

    // Forwarding: each finds the player of renderID under the collection read lock and calls it
    // under a try of its lock. Result: the player's, -4 without such a player, -19 when the
    // player is busy (a command never waits behind a busy back-end). The polled reads
    // (getVolume, isMute, getPlayerStatus) read without the player's lock and are never busy.
    int play(const char* renderID, unsigned int track);
    int pause(const char* renderID);
    int stop(const char* renderID);
    int next(const char* renderID);
    int previous(const char* renderID);
    int seek(const char* renderID, const char* hhmmss);
    int setAudioAndSubtitle(const char* renderID, const char* externalSubtitle, int audioTrack, int subtitleTrack,
                            const char* position, const char* sseek, const char* ssize, const char* scolor,
                            const char* sencoding, const char* realSubtitlePath, int autoSubtitle);
    int setTrack(const char* renderID, unsigned int track);
    int setTrackByContent(const char* renderID, const char* content);
    int setSlideShowDelay(const char* renderID, int seconds);
    int getVolume(const char* renderID);
    int setVolume(const char* renderID, int volume);
    int isMute(const char* renderID);
    int setMute(const char* renderID, bool on);
    int setPlayMode(const char* renderID, playMode_e mode);
    int getPlayerStatus(const char* renderID, playerStatus_s& status);

    // Sets a playlist on the player of renderID, creating the player for a listed render first.
    // 0, -4 (no such render or no back-end for it) or -19 (busy).
    int setPlaylist(const char* renderID, const char* playlistTitle, const char* appType);
    // Output attributes ("SAMPLERATE=...,DSDPASS=..."): on the player, or straight to the local
    // output of a listed render without one. -1 when the render is not listed.
    int setPlayerAttributes(const char* renderID, const char* attributes);
    // Retires players whose device reports itself gone. Returns at once when the collection is busy.
    void invalidPlayerCollection();

    size_t getNumOfPlayer();
    // Copies of the identity of the player at index; false past the end.
    bool getPlayerRenderID(unsigned int index, std::string& out);
    bool getPlayerDeviceName(unsigned int index, std::string& out);
    uint32_t getPlayerType(const char* renderID);

    // Pauses after creating a player (its back-end settles) and after stopping the local HDMI
    // players; tests shorten them.
    static void setSettleDelays(std::chrono::milliseconds afterCreate, std::chrono::milliseconds afterHdmiStop);
    // Fills out with <root><debug>text</debug></root>. 0, or -4 without such a player.
    int getDebugInfo(const char* renderID, XMLNode& out);

    // One housekeeping pass: retires players whose render was not listed four passes running.
    void housekeepingPass();

    // Playlist-wide operations: bring the queues of every player of a playlist up to date after
    // the playlist changed. Each waits for the players' locks (unlike the forwarding calls).
    // Marks a playlist as being deleted; while marked, a second mark does nothing.
    void setDeleting(bool deleting, const char* title, const char* appType);
    bool isDeleting(const std::string& title, const std::string& appType);
    void delPlaylist(const char* title, const char* appType);
    void delItemFromPlayQueue(const char* title, uint64_t uuid);
    void reorderPlayQueue(const std::string& title, size_t from, size_t to);
    void updatePlayModeByPlaylist(const char* title, const char* appType);
    // Appends the entry just added to the playlist to the queue of each player of title (at
    // position when that is not negative).
    void addLastItemInPlayQueue(const char* title, int position);
    // Re-reads the queue of every player of the playlist after entries were added or removed.
    void updateAssociatePlayQueue(int playlistID);


    // Fatal-signal handler: writes the stack dump and ends the process.
    static void sigactionHandler(int sig, siginfo_t* info, void* context);

protected:
    void process() override;
    // Builds the back-end for a render record by its type bits; null (result set when the
    // reason has a code, such as -19 for a busy sound device) when it cannot.
    virtual std::unique_ptr<CPlayer> createBackend(const std::string& renderID, const renderCacheInfo_s& render,
                                                    const std::string& playlistTitle, const std::string& appType,
                                                    int& result);

    // Inside a catch: logs with the device what a forwarded call threw (a busy player's
    // try-lock or a failing back-end) and answers -19.
    static int answerForThrow(const char* renderID) noexcept;
    CPlayer* findCreatedPlayerLocked(const std::string& renderID) const;
    // Runs fn(player) for the player of renderID under the read lock and the player's try-lock.
    template <class Fn>
    int forward_(const char* renderID, Fn fn);
    // The same without the player's lock, for the polled reads.
    template <class Fn>
    int read_(const char* renderID, Fn fn);
    void removePlayerLocked(const std::string& renderID);
    void invalidPlayerCollectionLocked();
    void stopLocalHdmiPlayersLocked(CPlayer* except);
    // Calls fn(player) for every player whose playlist title is title, holding its lock (waits).
    // Caller holds the collection lock.
    template <class Fn>
    void forEachPlayerOfTitleLocked(const std::string& title, Fn fn);
    template <class Fn>
    void forEachPlayerOfPlaylistIDLocked(int64_t playlistID, Fn fn);
    void retirePlayerLocked(size_t index);

    std::vector<std::unique_ptr<CPlayer>> m_playerCollection;
    std::vector<std::unique_ptr<CPlayer>> m_playerReclaimCacheVec;
    std::map<std::string, renderCacheInfo_s> m_renderCache;
    const std::shared_ptr<IPlayerBackends> m_backends;
    pthread_rwlock_t m_rwLock;

    // Set while a playlist is being deleted, with its title and app type; guarded by
    // m_deletingMutex.
    pthread_mutex_t m_deletingMutex;
    bool m_bDeleting = false;
    std::string m_deletingTitle;
    std::string m_deletingAppType;

private:
    // m_stopMutex guards m_bStopThread; m_stopCond wakes the housekeeping sleep.
    pthread_mutex_t m_stopMutex;
    pthread_cond_t m_stopCond;
    bool m_bStopThread = false;
    int m_passSeconds;
};
