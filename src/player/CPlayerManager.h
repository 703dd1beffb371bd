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
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "player/CPlayer.h"
#include "player/CThread.h"
#include "xml/XMLNode.h"

struct renderCacheInfo_s {
    uint32_t type = 0;
    int32_t port = 0;
    int32_t encrypted = 0;
    std::string name;
    std::string IP;
    std::string card;    // local outputs: the sound card isSndDevBusy checks
    std::string device;  // local outputs: the PCM device
    uint8_t found = 0;
    int32_t failures = 0;
};
typedef renderCacheInfo_s renderCacheInfo_t;

class CPlayerManager : public CThread {
public:
    // passSeconds: period of the housekeeping pass (10 s on the appliance).
    explicit CPlayerManager(int passSeconds = 10);
    ~CPlayerManager() override;

    // Ends the housekeeping thread and waits for it. Safe to call more than once.
    void stopThread();

    pthread_rwlock_t& getRWLock() { return m_rwLock; }

    // Render cache; discovery holds the write lock around a refresh.
    void addRenderInCache(const char* renderID, const char* name, const char* ip, uint32_t type,
                          const char* encryption, int port, const std::string& card, const std::string& device);
    void clearRenderFoundFlags_();
    int searchRenderInCache_(const std::string& renderID, renderCacheInfo_s& out) const;

    // Creates (or revives from the reclaim cache) the player of a cached render. Caller holds
    // the write lock. Returns the player or null; result tells why.
    CPlayer* addPlayer_(int& result, const std::string& renderID, const std::string& playlistTitle,
                        const std::string& appType);

    size_t getNumOfPlayer();
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
    // Appends the entry just added behind the queue's end (and moves it to position when that
    // is not negative). The caller holds the collection lock, the players' locks and the store's.
    void addLastItemInPlayQueueWithNoLock(int playlistID, int position);
    void addLastItemInPlayQueue(const char* title, int position);
    // Re-reads the queue of every player of the playlist after entries were added or removed.
    void updateAssociatePlayQueue(int playlistID);


    // Fatal-signal handler: writes the stack dump and ends the process.
    static void sigactionHandler(int sig, siginfo_t* info, void* context);

protected:
    void process() override;
    // Builds the back-end for a render record; null when its type has no back-end here.
    virtual std::unique_ptr<CPlayer> createBackend_(const std::string& renderID, const renderCacheInfo_s& render,
                                                    const std::string& playlistTitle, const std::string& appType);

    CPlayer* findCreatedPlayer_(const std::string& renderID) const;
    // Calls fn(player) for every player whose playlist title is title, holding its lock (waits).
    // Caller holds the collection lock.
    template <class Fn>
    void forEachPlayerOfTitle_(const std::string& title, Fn fn);
    template <class Fn>
    void forEachPlayerOfPlaylistID_(int64_t playlistID, Fn fn);
    void retirePlayer_(size_t index);

    std::vector<std::unique_ptr<CPlayer>> m_playerCollection;
    std::vector<std::unique_ptr<CPlayer>> m_playerReclaimCacheVec;
    std::map<std::string, renderCacheInfo_s> m_renderCache;
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
