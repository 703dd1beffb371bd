#include "util/ResultCodes.h"
#include "player/CPlayerManager.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <thread>

#include "util/Log.h"
#include "util/StackFrame.h"
#include "player/PlayerTypes.h"
#include "thread/ThreadLock.h"

int CPlayerManager::answerForThrow(const char* renderID) noexcept {
    const char* id = renderID ? renderID : "";
    try {
        throw;
    } catch (const ThreadBusyException&) {
        LOG_WARN("%s: the player is busy", id);
    } catch (const std::exception& e) {
        LOG_ERR("%s: the player failed: %s", id, e.what());
    } catch (const char* text) {
        LOG_ERR("%s: the player failed: %s", id, text ? text : "");
    } catch (...) {
        LOG_ERR("%s: the player failed", id);
    }
    return result::kPlayerBusy;
}

CPlayerManager::CPlayerManager(std::shared_ptr<IPlayerBackends> backends, int passSeconds)
    : CThread(THREAD_JOINABLE_E), m_backends(std::move(backends)), m_passSeconds(passSeconds) {
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
    {
        ThreadSingleLock lock(m_stopMutex);
        m_bStopThread = true;
        pthread_cond_broadcast(&m_stopCond);
    }
    join();
}

void CPlayerManager::process() {
    ThreadSingleLock lock(m_stopMutex);
    while (!m_bStopThread) {
        {
            ScopeUnlock unlocked(lock);
            housekeepingPass();
        }
        timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += m_passSeconds;
        while (!m_bStopThread) {
            if (pthread_cond_timedwait(&m_stopCond, &lock.mutex(), &deadline) == ETIMEDOUT) break;
        }
    }
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
        if (retire) retirePlayerLocked(i);
    }
}

void CPlayerManager::retirePlayerLocked(size_t index) {
    m_playerReclaimCacheVec.push_back(std::move(m_playerCollection[index]));
    m_playerCollection.erase(m_playerCollection.begin() + static_cast<std::ptrdiff_t>(index));
}

void CPlayerManager::addRenderInCache(const char* renderID, const char* name, const char* ip, uint32_t type,
                                      const char* encryption, int port, const std::string& card,
                                      const std::string& device, const std::string& authMethod) {
    if (!renderID) return;
    renderCacheInfo_s& record = m_renderCache[renderID];
    record.type = type;
    record.port = port;
    record.encrypted = (encryption && std::strcmp(encryption, "rsa") == 0) ? 1 : 0;
    record.name = name ? name : "";
    record.IP = ip ? ip : "";
    record.card = card;
    record.device = device;
    record.authMethod = authMethod;
    record.found = 1;
    record.failures = 0;
}

void CPlayerManager::clearRenderFoundFlagsLocked() {
    for (auto& [id, record] : m_renderCache) record.found = 0;
}

int CPlayerManager::searchRenderInCacheLocked(const std::string& renderID, renderCacheInfo_s& out) const {
    auto it = m_renderCache.find(renderID);
    if (it == m_renderCache.end()) return -1;
    out = it->second;
    return 0;
}

CPlayer* CPlayerManager::findCreatedPlayerLocked(const std::string& renderID) const {
    for (const auto& player : m_playerCollection)
        if (player->getRenderID() == renderID) return player.get();
    return nullptr;
}

CPlayer* CPlayerManager::addPlayerLocked(int& result, const std::string& renderID, const std::string& playlistTitle,
                                    const std::string& appType) {
    if (renderID.empty()) return nullptr;

    for (auto it = m_playerReclaimCacheVec.begin(); it != m_playerReclaimCacheVec.end(); ++it) {
        if ((*it)->getRenderID() != renderID) continue;
        LOG_NOTE(">>>> get player(%s) from m_playerReclaimCacheVec", renderID.c_str());
        CPlayer* player = it->get();
        {
            ThreadSingleLock playerLock(player->getLock());
            // The address the listing has now: it may have changed while the player was away.
            renderCacheInfo_s render;
            player->setIP(searchRenderInCacheLocked(renderID, render) == 0 ? render.IP : std::string());
            player->monitor(true);  // watching stopped when it was retired
            if (!playlistTitle.empty() && !appType.empty()) player->setPlaylist(playlistTitle, appType);
        }
        m_playerCollection.push_back(std::move(*it));
        m_playerReclaimCacheVec.erase(it);
        result = 0;
        return player;
    }

    renderCacheInfo_s render;
    if (searchRenderInCacheLocked(renderID, render) != 0) {
        LOG_WARN("Render %s doesn't exist", renderID.c_str());
        return nullptr;
    }

    std::unique_ptr<CPlayer> created;
    try {
        created = createBackend(renderID, render, playlistTitle, appType, result);
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

std::unique_ptr<CPlayer> CPlayerManager::createBackend(const std::string& renderID, const renderCacheInfo_s& render,
                                                        const std::string& playlistTitle, const std::string& appType,
                                                        int& result) {
    if (!m_backends) {
        LOG_WARN("Unkonw Type %s", renderID.c_str());
        return nullptr;
    }
    return m_backends->create(renderID, render, playlistTitle, appType, result);
}

size_t CPlayerManager::getNumOfPlayer() {
    ThreadReadLock collectionLock(m_rwLock);
    return m_playerCollection.size();
}

int CPlayerManager::getDebugInfo(const char* renderID, XMLNode& out) {
    if (!renderID) return result::kNoSuchPlayer;
    std::string text;
    {
        ThreadReadLock collectionLock(m_rwLock);
        CPlayer* player = findCreatedPlayerLocked(renderID);
        if (!player) return result::kNoSuchPlayer;
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

void CPlayerManager::stopLocalHdmiPlayersLocked(CPlayer* except) {
    for (const auto& player : m_playerCollection) {
        if (!player->traits().exclusive) continue;
        if (player.get() == except) {
            player->stop(true);  // its lock is held by the caller
            continue;
        }
        // Try only: two requests for two such players must not wait for each other.
        ThreadTryLock playerLock(player->getLock());
        if (!playerLock.held()) {
            LOG_WARN("local HDMI player %s is busy; not stopped", player->getRenderID().c_str());
            continue;
        }
        player->stop(true);
    }
}

int CPlayerManager::setPlaylist(const char* renderID, const char* playlistTitle, const char* appType) {
    if (!renderID) return result::kNoSuchPlayer;
    bool created = false;
    int code = result::kNoSuchPlayer;
    try {
        {
            ThreadReadLock collectionLock(m_rwLock);
            if (CPlayer* player = findCreatedPlayerLocked(renderID)) {
                ThreadSingleTryLock playerLock(player->getLock());
                if (player->traits().exclusive) {
                    stopLocalHdmiPlayersLocked(player);
                    settle(g_settleAfterHdmiStopMs);
                }
                if (playlistTitle && appType) player->setPlaylist(playlistTitle, appType);
                return 0;
            }
        }
        // No player yet: creating one changes the collection, so under the write lock.
        ThreadWriteLock collectionLock(m_rwLock);
        if (findCreatedPlayerLocked(renderID)) return result::kPlayerBusy;  // another request created it meanwhile
        if (std::strncmp(renderID, "TAVRIN", 6) == 0) {
            stopLocalHdmiPlayersLocked(nullptr);
            settle(g_settleAfterHdmiStopMs);
        }
        if (!addPlayerLocked(code, renderID, playlistTitle ? playlistTitle : "", appType ? appType : "")) {
            LOG_ERR("addPlayer() ... fail");
            return code;
        }
        created = true;
    } catch (...) {
        return answerForThrow(renderID);
    }
    if (created) settle(g_settleAfterCreateMs);
    return code;
}

void CPlayerManager::removePlayerLocked(const std::string& renderID) {
    for (size_t i = 0; i < m_playerCollection.size(); ++i) {
        if (m_playerCollection[i]->getRenderID() != renderID) continue;
        m_playerCollection[i]->stop(true);
        retirePlayerLocked(i);
        return;
    }
}

void CPlayerManager::invalidPlayerCollectionLocked() {
    std::vector<std::string> gone;
    for (const auto& player : m_playerCollection)
        if (!player->isPlayerExist()) gone.push_back(player->getRenderID());
    for (const std::string& id : gone) {
        LOG_REMOVE("Remove %s ", id.c_str());
        removePlayerLocked(id);
    }
}

void CPlayerManager::invalidPlayerCollection() {
    // Only when nobody else uses the collection: the listing must not wait behind a busy player.
    ThreadTryWriteLock collectionLock(m_rwLock);
    if (!collectionLock.held()) return;
    try {
        invalidPlayerCollectionLocked();
    } catch (...) {
        LOG_REMOVE("invalidPlayerCollection ... err");
    }
}
