#include "player/CPlayerManager.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/util/Log.h"
#include "core/util/StackFrame.h"
#include "player/BackendFactory.h"
#include "player/ThreadLock.h"
#include "playlist/CSqlitePlaylist.h"
#include "core/util/AppRoot.h"
#include "core/util/Process.h"
#include "player/PlayerTypes.h"
#include "render/MpdAttr.h"

#include <thread>

CPlayerManager::CPlayerManager(int passSeconds) : CThread(THREAD_JOINABLE_E), m_passSeconds(passSeconds) {
    mutexInit(m_deletingMutex, MUTEX_NORMAL_E);
    pthread_rwlock_init(&m_rwLock, nullptr);
    pthread_mutex_init(&m_stopMutex, nullptr);
    monotonicCondInit(m_stopCond);
}

CPlayerManager::~CPlayerManager() {
    stopThread();
    // Players stop their own threads in their destructors; stop them before they go.
    for (auto& player : m_playerCollection) player->stop(true);
    m_playerCollection.clear();
    m_playerReclaimCacheVec.clear();
    pthread_cond_destroy(&m_stopCond);
    pthread_mutex_destroy(&m_stopMutex);
    pthread_rwlock_destroy(&m_rwLock);
    pthread_mutex_destroy(&m_deletingMutex);
}

void CPlayerManager::stopThread() {
    pthread_mutex_lock(&m_stopMutex);
    m_bStopThread = true;
    pthread_cond_broadcast(&m_stopCond);
    pthread_mutex_unlock(&m_stopMutex);
    join();
}

void CPlayerManager::process() {
    pthread_mutex_lock(&m_stopMutex);
    while (!m_bStopThread) {
        pthread_mutex_unlock(&m_stopMutex);
        housekeepingPass();
        pthread_mutex_lock(&m_stopMutex);

        timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += m_passSeconds;
        while (!m_bStopThread) {
            if (pthread_cond_timedwait(&m_stopCond, &m_stopMutex, &deadline) == ETIMEDOUT) break;
        }
    }
    pthread_mutex_unlock(&m_stopMutex);
}

void CPlayerManager::housekeepingPass() {
    ThreadWriteLock collectionLock(m_rwLock);
    // The index advances after a removal too, so the player that slides into this position
    // waits for the next pass.
    for (size_t i = 0; i < m_playerCollection.size(); ++i) {
        CPlayer* player = m_playerCollection[i].get();
        bool retire = false;
        {
            ThreadSingleLock playerLock(player->getLock());
            auto it = m_renderCache.find(player->getRenderID());
            if (it == m_renderCache.end()) {
                LOG_WARN("[remove] >>> player:%s not in the renderCache", player->getDeviceName().c_str());
                retire = true;
            } else if (it->second.found) {
                it->second.failures = 0;
            } else {
                it->second.failures += 1;
                LOG_WARN("[remove] >>> player:%s Cache hit fail, and it faile %d times.",
                         player->getDeviceName().c_str(), it->second.failures);
                retire = it->second.failures > 3;
            }
            if (retire) {
                player->monitor(false);
                player->stop(true);
            }
        }
        if (retire) retirePlayer_(i);
    }
}

void CPlayerManager::retirePlayer_(size_t index) {
    m_playerReclaimCacheVec.push_back(std::move(m_playerCollection[index]));
    m_playerCollection.erase(m_playerCollection.begin() + static_cast<std::ptrdiff_t>(index));
}

void CPlayerManager::addRenderInCache(const char* renderID, const char* name, const char* ip, uint32_t type,
                                      const char* encryption, int port, const std::string& card,
                                      const std::string& device) {
    if (!renderID) return;
    renderCacheInfo_s& record = m_renderCache[renderID];
    record.type = type;
    record.port = port;
    record.encrypted = (encryption && std::strcmp(encryption, "rsa") == 0) ? 1 : 0;
    record.name = name ? name : "";
    record.IP = ip ? ip : "";
    record.card = card;
    record.device = device;
    record.found = 1;
    record.failures = 0;
}

void CPlayerManager::clearRenderFoundFlags_() {
    for (auto& [id, record] : m_renderCache) record.found = 0;
}

int CPlayerManager::searchRenderInCache_(const std::string& renderID, renderCacheInfo_s& out) const {
    auto it = m_renderCache.find(renderID);
    if (it == m_renderCache.end()) return -1;
    out = it->second;
    return 0;
}

CPlayer* CPlayerManager::findCreatedPlayer_(const std::string& renderID) const {
    for (const auto& player : m_playerCollection)
        if (player->getRenderID() == renderID) return player.get();
    return nullptr;
}

CPlayer* CPlayerManager::addPlayer_(int& result, const std::string& renderID, const std::string& playlistTitle,
                                    const std::string& appType) {
    if (renderID.empty()) return nullptr;

    for (auto it = m_playerReclaimCacheVec.begin(); it != m_playerReclaimCacheVec.end(); ++it) {
        if ((*it)->getRenderID() != renderID) continue;
        LOG_NOTE(">>>> get player(%s) from m_playerReclaimCacheVec", renderID.c_str());
        CPlayer* player = it->get();
        {
            ThreadSingleLock playerLock(player->getLock());
            player->setIP("");  // the revived player learns its address at the next listing
            if (!playlistTitle.empty() && !appType.empty()) player->setPlaylist(playlistTitle, appType);
        }
        m_playerCollection.push_back(std::move(*it));
        m_playerReclaimCacheVec.erase(it);
        result = 0;
        return player;
    }

    renderCacheInfo_s render;
    if (searchRenderInCache_(renderID, render) != 0) {
        LOG_WARN("Render %s doesn't exist", renderID.c_str());
        return nullptr;
    }

    std::unique_ptr<CPlayer> created;
    try {
        created = createBackend_(renderID, render, playlistTitle, appType, result);
    } catch (...) {
        LOG_ERR("Could not create player %s", renderID.c_str());
        return nullptr;
    }
    if (!created) return nullptr;

    CPlayer* player = created.get();
    {
        ThreadSingleLock playerLock(player->getLock());
        player->setIP(render.IP);
    }
    m_playerCollection.push_back(std::move(created));
    result = 0;
    return player;
}

std::unique_ptr<CPlayer> CPlayerManager::createBackend_(const std::string& renderID, const renderCacheInfo_s& render,
                                                        const std::string& playlistTitle, const std::string& appType,
                                                        int& result) {
    return createBackend(renderID, render, playlistTitle, appType, result);
}

size_t CPlayerManager::getNumOfPlayer() {
    ThreadReadLock collectionLock(m_rwLock);
    return m_playerCollection.size();
}

int CPlayerManager::getDebugInfo(const char* renderID, XMLNode& out) {
    if (!renderID) return -4;
    std::string text;
    {
        ThreadReadLock collectionLock(m_rwLock);
        CPlayer* player = findCreatedPlayer_(renderID);
        if (!player) return -4;
        player->debugDump(text);
    }
    out = XMLNode::createXMLTopNode("root");
    out.addChild("debug").addText(text.c_str());
    return 0;
}

namespace {
// Taken once by the first fatal signal; a second fault while dumping waits here for the exit.
std::atomic_flag g_fatalSignalTaken = ATOMIC_FLAG_INIT;
}

void CPlayerManager::sigactionHandler(int sig, siginfo_t* info, void*) {
    while (g_fatalSignalTaken.test_and_set()) ::pause();
    int pid = info ? static_cast<int>(info->si_pid) : 0;
    char text[64];
    // snprintf is not formally async-signal-safe but does not allocate for integers.
    std::snprintf(text, sizeof text, "sig:%d  pid:%d", sig, pid);
    vlog::writeSignalSafe(vlog::kSignal, __FILE__, __LINE__, __PRETTY_FUNCTION__, text);
    show_stackframe("Velmora.dump", sig, pid);
    _exit(0);
}

template <class Fn>
void CPlayerManager::forEachPlayerOfTitle_(const std::string& title, Fn fn) {
    for (const auto& player : m_playerCollection) {
        ThreadSingleLock playerLock(player->getLock());
        const char* playing = player->getPlaylistTitle();
        if (playing && title == playing) fn(*player);
    }
}

template <class Fn>
void CPlayerManager::forEachPlayerOfPlaylistID_(int64_t playlistID, Fn fn) {
    for (const auto& player : m_playerCollection) {
        ThreadSingleLock playerLock(player->getLock());
        if (player->getPlaylistID() == playlistID) fn(*player);
    }
}

void CPlayerManager::setDeleting(bool deleting, const char* title, const char* appType) {
    ThreadSingleLock lock(m_deletingMutex);
    if (deleting) {
        if (m_bDeleting) return;
        m_bDeleting = true;
        m_deletingTitle = title ? title : "";
        m_deletingAppType = appType ? appType : "";
    } else {
        m_bDeleting = false;
        m_deletingTitle.clear();
        m_deletingAppType.clear();
    }
}

bool CPlayerManager::isDeleting(const std::string& title, const std::string& appType) {
    ThreadSingleLock lock(m_deletingMutex);
    return m_bDeleting && m_deletingTitle == title && m_deletingAppType == appType;
}

void CPlayerManager::delPlaylist(const char* title, const char* appType) {
    if (!title || !appType) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitle_(title, [&](CPlayer& player) {
        if (player.getAppType() == appType) player.clearPlayQueue(true);
    });
}

void CPlayerManager::delItemFromPlayQueue(const char* title, uint64_t uuid) {
    if (!title) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitle_(title, [&](CPlayer& player) {
        playQueueItem_s item{0, static_cast<int64_t>(uuid)};
        player.delItemFromPlayQueue(item);
    });
}

namespace {

// Where the track numbered c lands when the entry at `from` moves to `to` and the entries in
// between shift by one towards `from`.
uint64_t shiftedTrack(uint64_t c, size_t from, size_t to) {
    if (c == from) return to;
    if (from < to && c > from && c <= to) return c - 1;
    if (from > to && c >= to && c < from) return c + 1;
    return c;
}

bool isShuffleQueue(playMode_e mode) {
    return mode == PLAYMODE_SHUFFLE_E || mode == PLAYMODE_SHUFFLE_REPEAT_E || mode == PLAYMODE_SHUFFLE_REPEAT_ONE_E;
}

}  // namespace

void CPlayerManager::reorderPlayQueue(const std::string& title, size_t from, size_t to) {
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitle_(title, [&](CPlayer& player) {
        uint64_t current = player.getCurrTrack();
        player.reorderPlayQueue(from, to);
        if (to >= player.getPlaylistSize()) return;
        uint64_t shifted = shiftedTrack(current, from, to);
        if (!isShuffleQueue(player.getPlayMode())) {
            player.setCurrTrackIndex_(shifted);
        } else if (player.setCurrTrackIdByOrder(static_cast<unsigned int>(shifted)) != 0) {
            LOG_ERR("setCurrTrackIdByOrder failed");
        }
    });
}

void CPlayerManager::updatePlayModeByPlaylist(const char* title, const char* appType) {
    if (!title || !appType) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitle_(title, [&](CPlayer& player) {
        if (player.getAppType() != appType || player.getPlayMode() != PLAYMODE_SHUFFLE_E) return;
        player.setPlayMode(PLAYMODE_NORMAL_E, 0, 0);
        player.setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
    });
}

namespace {

// Where the entry just added sits in the playlist: at the requested position when that lies
// inside the queue (it was inserted there), else behind the queue's end (appended).
int newEntryIndex(const CPlayer& player, int position) {
    size_t n = player.getPlaylistSize();
    return (position >= 0 && static_cast<size_t>(position) < n) ? position : static_cast<int>(n);
}

// Appends the new entry to the queue, then moves it to position.
void appendNewEntry(CPlayer& player, const playlistElm_s& entry, int position) {
    size_t n = player.getPlaylistSize();
    playQueueItem_s item{n, static_cast<int64_t>(entry.UUID)};
    player.addItemToPlayQueue(item);
    if (position >= 0) player.reorderPlayQueue(n, static_cast<unsigned long>(position));
}

}  // namespace

void CPlayerManager::addLastItemInPlayQueueWithNoLock(int playlistID, int position) {
    for (const auto& player : m_playerCollection) {
        if (player->getPlaylistID() != playlistID) continue;
        playlistElm_s entry;
        if (playlistStore().getPlaylistElmByIndex_NOLOCK(entry, playlistID, newEntryIndex(*player, position)) == 0)
            appendNewEntry(*player, entry, position);
    }
}

void CPlayerManager::addLastItemInPlayQueue(const char* title, int position) {
    if (!title) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitle_(title, [&](CPlayer& player) {
        playlistElm_s entry;
        int id = static_cast<int>(player.getPlaylistID());
        if (playlistStore().getPlaylistElmByIndex(entry, id, newEntryIndex(player, position)) == 0)
            appendNewEntry(player, entry, position);
    });
}

void CPlayerManager::updateAssociatePlayQueue(int playlistID) {
    ThreadReadLock collectionLock(m_rwLock);
    bool stop = false;
    forEachPlayerOfPlaylistID_(playlistID, [&](CPlayer& player) {
        if (stop) return;
        size_t queued = player.getPlaylistSize();
        int stored = playlistStore().getSizeOfPlaylist(playlistID);
        if (stored < 0) {
            stop = true;
            return;
        }
        int start = static_cast<int>(queued);
        int count = stored - start;
        if (queued > static_cast<size_t>(stored)) {  // entries were removed: read them all again
            player.clearPlayQueue(false);
            start = 0;
            count = stored;
        }
        if (count <= 0) return;
        std::vector<playlistElm_s> entries;
        if (playlistStore().getPlaylistElmsByPage(entries, playlistID, start, count) != 0) return;
        for (size_t k = 0; k < entries.size(); ++k) {
            playQueueItem_s item{static_cast<uint64_t>(start) + k, static_cast<int64_t>(entries[k].UUID)};
            player.addItemToPlayQueue(item);
        }
    });
}

namespace {
std::atomic<int> g_settleAfterCreateMs{3000};
std::atomic<int> g_settleAfterHdmiStopMs{1000};

void settle(const std::atomic<int>& ms) {
    int value = ms.load();
    if (value > 0) std::this_thread::sleep_for(std::chrono::milliseconds(value));
}
}  // namespace

void CPlayerManager::setSettleDelays(std::chrono::milliseconds afterCreate, std::chrono::milliseconds afterHdmiStop) {
    g_settleAfterCreateMs = static_cast<int>(afterCreate.count());
    g_settleAfterHdmiStopMs = static_cast<int>(afterHdmiStop.count());
}

template <class Fn>
int CPlayerManager::forward_(const char* renderID, Fn fn) {
    if (!renderID) return -4;
    try {
        ThreadReadLock collectionLock(m_rwLock);
        CPlayer* player = findCreatedPlayer_(renderID);
        if (!player) return -4;
        ThreadSingleTryLock playerLock(player->getLock());
        return fn(*player);
    } catch (...) {
        // A busy player (the try-lock throws) or a failing back-end.
        return -19;
    }
}

int CPlayerManager::play(const char* renderID, unsigned int) {
    return forward_(renderID, [](CPlayer& p) { return p.play(); });
}
int CPlayerManager::pause(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.pause(); });
}
int CPlayerManager::stop(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.stop(true); });
}
int CPlayerManager::next(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.next(); });
}
int CPlayerManager::previous(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.previous(); });
}
int CPlayerManager::seek(const char* renderID, const char* hhmmss) {
    return forward_(renderID, [&](CPlayer& p) { return p.seek(hhmmss); });
}
int CPlayerManager::setAudioAndSubtitle(const char* renderID, const char* externalSubtitle, int audioTrack,
                                        int subtitleTrack, const char* position, const char* sseek, const char* ssize,
                                        const char* scolor, const char* sencoding, const char* realSubtitlePath,
                                        int autoSubtitle) {
    return forward_(renderID, [&](CPlayer& p) {
        return p.setAudioAndSubtitle(externalSubtitle, audioTrack, subtitleTrack, position, sseek, ssize, scolor,
                                     sencoding, realSubtitlePath, autoSubtitle);
    });
}
int CPlayerManager::setTrack(const char* renderID, unsigned int track) {
    return forward_(renderID, [&](CPlayer& p) { return p.setCurrTrack(track); });
}
int CPlayerManager::setTrackByContent(const char* renderID, const char* content) {
    return forward_(renderID, [&](CPlayer& p) { return p.setCurrTrackByContent(content); });
}
int CPlayerManager::setSlideShowDelay(const char* renderID, int seconds) {
    return forward_(renderID, [&](CPlayer& p) {
        p.setSlideShowDelay(seconds);
        return 0;
    });
}
int CPlayerManager::getVolume(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.getVolume(); });
}
int CPlayerManager::setVolume(const char* renderID, int volume) {
    return forward_(renderID, [&](CPlayer& p) { return p.setVolume(volume); });
}
int CPlayerManager::isMute(const char* renderID) {
    return forward_(renderID, [](CPlayer& p) { return p.isMute() ? 1 : 0; });
}
int CPlayerManager::setMute(const char* renderID, bool on) {
    return forward_(renderID, [&](CPlayer& p) { return p.setMute(on); });
}
int CPlayerManager::setPlayMode(const char* renderID, playMode_e mode) {
    return forward_(renderID, [&](CPlayer& p) {
        p.setPlayMode(mode, 0, 0);
        return 0;
    });
}
int CPlayerManager::getPlayerStatus(const char* renderID, playerStatus_s& status) {
    return forward_(renderID, [&](CPlayer& p) {
        p.getStatus(status);
        return 0;
    });
}

void CPlayerManager::stopLocalHdmiPlayers_(CPlayer* except) {
    for (const auto& player : m_playerCollection) {
        if (!(player->getPlayerType() & playertype::kLocalHdmi)) continue;
        if (player.get() == except) {
            player->stop(true);  // its lock is held by the caller
            continue;
        }
        // Try only: two requests for two such players must not wait for each other.
        if (pthread_mutex_trylock(&player->getLock()) != 0) {
            LOG_WARN("local HDMI player %s is busy; not stopped", player->getRenderID().c_str());
            continue;
        }
        player->stop(true);
        pthread_mutex_unlock(&player->getLock());
    }
}

int CPlayerManager::setPlaylist(const char* renderID, const char* playlistTitle, const char* appType) {
    if (!renderID) return -4;
    bool created = false;
    int result = -4;
    try {
        {
            ThreadReadLock collectionLock(m_rwLock);
            if (CPlayer* player = findCreatedPlayer_(renderID)) {
                ThreadSingleTryLock playerLock(player->getLock());
                if (player->getPlayerType() & playertype::kLocalHdmi) {
                    stopLocalHdmiPlayers_(player);
                    settle(g_settleAfterHdmiStopMs);
                }
                if (playlistTitle && appType) player->setPlaylist(playlistTitle, appType);
                return 0;
            }
        }
        // No player yet: creating one changes the collection, so under the write lock.
        ThreadWriteLock collectionLock(m_rwLock);
        if (findCreatedPlayer_(renderID)) return -19;  // another request created it meanwhile
        if (std::strncmp(renderID, "TAVRIN", 6) == 0) {
            stopLocalHdmiPlayers_(nullptr);
            settle(g_settleAfterHdmiStopMs);
        }
        if (!addPlayer_(result, renderID, playlistTitle ? playlistTitle : "", appType ? appType : "")) {
            LOG_ERR("addPlayer() ... fail");
            return result;
        }
        created = true;
    } catch (...) {
        return -19;
    }
    if (created) settle(g_settleAfterCreateMs);
    return result;
}

int CPlayerManager::setPlayerAttributes(const char* renderID, const char* attributes) {
    if (!renderID) return -1;
    try {
        ThreadReadLock collectionLock(m_rwLock);
        if (CPlayer* player = findCreatedPlayer_(renderID)) {
            ThreadSingleTryLock playerLock(player->getLock());
            return player->setAttributes(attributes);
        }
        renderCacheInfo_s render;
        if (searchRenderInCache_(renderID, render) != 0) return -1;
        int sampleRate = -2, dsd = -2;
        ParseMpdAttr(attributes, &sampleRate, &dsd);
        if (sampleRate == -2 && dsd == -2) return 0;
        // The shared MPD instance drives every local output that has no player of its own.
        ProcessOptions opts;
        opts.timeoutMs = 10000;
        opts.capture = ProcessOptions::Capture::None;
        runProcess({approot::path("/tmp/larkd/bin/mpc"), "-p", "8893", "setoutputattr", render.name,
                    std::to_string(dsd), std::to_string(sampleRate)},
                   opts);
        return 0;
    } catch (...) {
        return -19;
    }
}

void CPlayerManager::removePlayer_(const std::string& renderID) {
    for (size_t i = 0; i < m_playerCollection.size(); ++i) {
        if (m_playerCollection[i]->getRenderID() != renderID) continue;
        m_playerCollection[i]->stop(true);
        retirePlayer_(i);
        return;
    }
}

void CPlayerManager::invalidPlayerCollection_() {
    std::vector<std::string> gone;
    for (const auto& player : m_playerCollection)
        if (!player->isPlayerExist()) gone.push_back(player->getRenderID());
    for (const std::string& id : gone) {
        LOG_REMOVE("Remove %s ", id.c_str());
        removePlayer_(id);
    }
}

void CPlayerManager::invalidPlayerCollection() {
    // Only when nobody else uses the collection: the listing must not wait behind a busy player.
    if (pthread_rwlock_trywrlock(&m_rwLock) != 0) return;
    try {
        invalidPlayerCollection_();
    } catch (...) {
        LOG_REMOVE("invalidPlayerCollection ... err");
    }
    pthread_rwlock_unlock(&m_rwLock);
}

bool CPlayerManager::getPlayerRenderID(unsigned int index, std::string& out) {
    ThreadReadLock collectionLock(m_rwLock);
    if (index >= m_playerCollection.size()) return false;
    out = m_playerCollection[index]->getRenderID();
    return true;
}

bool CPlayerManager::getPlayerDeviceName(unsigned int index, std::string& out) {
    ThreadReadLock collectionLock(m_rwLock);
    if (index >= m_playerCollection.size()) return false;
    out = m_playerCollection[index]->getDeviceName();
    return true;
}

uint32_t CPlayerManager::getPlayerType(const char* renderID) {
    if (!renderID) return 0;
    ThreadReadLock collectionLock(m_rwLock);
    CPlayer* player = findCreatedPlayer_(renderID);
    return player ? player->getPlayerType() : 0;
}
