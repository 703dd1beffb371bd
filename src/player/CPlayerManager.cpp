#include "player/CPlayerManager.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/util/Log.h"
#include "core/util/StackFrame.h"
#include "player/ThreadLock.h"
#include "playlist/CSqlitePlaylist.h"

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
        created = createBackend_(renderID, render, playlistTitle, appType);
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

std::unique_ptr<CPlayer> CPlayerManager::createBackend_(const std::string& renderID, const renderCacheInfo_s&,
                                                        const std::string&, const std::string&) {
    LOG_WARN("Unkonw Type %s", renderID.c_str());
    return nullptr;
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
    while (g_fatalSignalTaken.test_and_set()) pause();
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

// Appends the entry at the queue's end position to the queue, moving it to position.
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
        int index = static_cast<int>(player->getPlaylistSize());
        if (playlistStore().getPlaylistElmByIndex_NOLOCK(entry, playlistID, index) == 0)
            appendNewEntry(*player, entry, position);
    }
}

void CPlayerManager::addLastItemInPlayQueue(const char* title, int position) {
    if (!title) return;
    ThreadReadLock collectionLock(m_rwLock);
    forEachPlayerOfTitle_(title, [&](CPlayer& player) {
        playlistElm_s entry;
        int index = static_cast<int>(player.getPlaylistSize());
        if (playlistStore().getPlaylistElmByIndex(entry, static_cast<int>(player.getPlaylistID()), index) == 0)
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
