#include "player/CPlayer.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

#include "util/Log.h"
#include "playlist/CSqlitePlaylist.h"

std::atomic<int> CPlayer::s_rememberedVolume{0};

namespace {

bool isShuffleMode(playMode_e mode) { return mode == PLAYMODE_SHUFFLE_E || mode == PLAYMODE_SHUFFLE_REPEAT_E; }

// One engine per thread: shuffles of two players never share or reseed each other's state.
std::mt19937& randomEngine() {
    thread_local std::mt19937 engine = [] {
        std::seed_seq seed{static_cast<uint64_t>(std::random_device{}()),
                           static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count())};
        return std::mt19937(seed);
    }();
    return engine;
}

// strtol's value bounded to int, so the multiplications below cannot overflow.
long long boundedPart(const char* text) {
    long value = std::strtol(text, nullptr, 10);
    return std::clamp<long long>(value, INT_MIN, INT_MAX);
}

int clampToInt(long long value) { return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX)); }

}  // namespace

CPlayer::CPlayer(uint32_t playerType, const char* renderID, const char* deviceName, const char* playlistTitle,
                 const char* appType)
    : m_type(playerType),
      m_renderID(renderID ? renderID : ""),
      m_deviceName(deviceName ? deviceName : "") {
    CThread::mutexInit(m_lock, MUTEX_NORMAL_E);
    if (playlistTitle && appType) {
        m_playlistTitle = playlistTitle;
        m_appType = appType;
        int id = playlistStore().getPlaylistID(m_playlistTitle, m_appType);
        if (id >= 1) {
            m_playlistID = id;
            loadPlaylist();
        }
    }
}

CPlayer::CPlayer(uint32_t playerType, std::string renderID, std::string deviceName)
    : m_type(playerType),
      m_renderID(std::move(renderID)),
      m_deviceName(std::move(deviceName)) {
    CThread::mutexInit(m_lock, MUTEX_NORMAL_E);
}

CPlayer::~CPlayer() {
    LOG_NOTE("Player destruct");
    pthread_mutex_destroy(&m_lock);
}

// ---- mute ----------------------------------------------------------------------------------

int CPlayer::setMute(bool on) {
    int volume = getVolume();
    if (volume > 0) s_rememberedVolume.store(volume);
    return setVolume(on ? 0 : s_rememberedVolume.load());
}

bool CPlayer::isMute() { return getVolume() <= 0; }

// ---- playlist and queue --------------------------------------------------------------------

std::string CPlayer::playlistTitleCopy() const {
    std::lock_guard lock(m_queueMutex);
    return m_playlistTitle;
}

std::string CPlayer::appTypeCopy() const {
    std::lock_guard lock(m_queueMutex);
    return m_appType;
}

std::string CPlayer::ownerCopy() const {
    std::lock_guard lock(m_queueMutex);
    return m_owner;
}

std::string CPlayer::tagCopy() const {
    std::lock_guard lock(m_queueMutex);
    return m_tag;
}

std::vector<playQueueItem_s> CPlayer::playQueueCopy() const {
    std::lock_guard lock(m_queueMutex);
    return m_playQueue;
}

int64_t CPlayer::getPlaylistID() const {
    std::lock_guard lock(m_queueMutex);
    return m_playlistID;
}

size_t CPlayer::getPlaylistSize() const {
    std::lock_guard lock(m_queueMutex);
    return m_playQueue.size();
}

void CPlayer::setPlaylist(const std::string& title, const std::string& appType) {
    playerState_e before = getPlayerState();
    stop(!traits().softStopOnLoad);

    int id = playlistStore().getPlaylistID(title, appType);
    int64_t playlistID = id >= 1 ? id : -1;
    LoadedPlaylist loaded;
    if (playlistID >= 1) loaded = readPlaylist(playlistID);
    {
        // The new playlist and its queue appear together: the worker never pairs one playlist's
        // id with another's queue.
        std::lock_guard lock(m_queueMutex);
        m_currTrackIndex.store(0);
        m_playlistTitle = title;
        m_appType = appType;
        m_playlistID = playlistID;
        if (playlistID < 1) return;
        m_owner = std::move(loaded.owner);
        m_tag = std::move(loaded.tag);
        m_playQueue = std::move(loaded.queue);
    }

    if (before == STATE_PLAY_E) {
        play();
        // Some devices need time to start before the manager's next request reaches them.
        std::chrono::milliseconds settle = traits().settleAfterReload;
        if (settle.count() > 0) std::this_thread::sleep_for(settle);
    }
}

CPlayer::LoadedPlaylist CPlayer::readPlaylist(int64_t playlistID) {
    CSqlitePlaylist& store = playlistStore();
    int id = static_cast<int>(playlistID);
    LoadedPlaylist loaded;

    playlistLibElm_t lib;
    if (store.getPlaylistLibElmByID(id, lib) != 0) lib = playlistLibElm_t();
    loaded.owner = lib.Owner;
    loaded.tag = lib.Tag;

    if (playlistID < 1) return loaded;
    std::vector<playlistElm_s> entries;
    if (store.getPlaylistElmsByPage(entries, id, 0, 0) != 0) return loaded;
    loaded.queue.reserve(entries.size());
    for (const auto& entry : entries)
        loaded.queue.push_back({static_cast<uint64_t>(entry.OrderNr), static_cast<int64_t>(entry.UUID)});
    return loaded;
}

void CPlayer::loadPlaylist() {
    // Read the store without the mutex: the store has its own lock, and a slow query must not
    // hold up the worker.
    LoadedPlaylist loaded = readPlaylist(getPlaylistID());
    std::lock_guard lock(m_queueMutex);
    m_owner = std::move(loaded.owner);
    m_tag = std::move(loaded.tag);
    m_playQueue = std::move(loaded.queue);
    // The mode stays, shuffled or not: a reloaded queue plays in playlist order.
}

void CPlayer::addItemToPlayQueue(playQueueItem_s& item) {
    std::lock_guard lock(m_queueMutex);
    m_playQueue.push_back(item);
}

void CPlayer::delItemFromPlayQueue(playQueueItem_s& item) {
    auto eraseItem = [&] {
        auto it = std::find_if(m_playQueue.begin(), m_playQueue.end(),
                               [&](const playQueueItem_s& queued) { return queued.uuid == item.uuid; });
        if (it == m_playQueue.end()) return;
        uint64_t order = it->order;
        m_playQueue.erase(it);
        for (auto& queued : m_playQueue)
            if (queued.order > order) --queued.order;
    };

    uint64_t index;
    {
        std::lock_guard lock(m_queueMutex);
        auto it = std::find_if(m_playQueue.begin(), m_playQueue.end(),
                               [&](const playQueueItem_s& queued) { return queued.uuid == item.uuid; });
        if (it == m_playQueue.end()) return;
        // Orders and the index agree in playlist order, which is where deletions come from.
        uint64_t order = it->order;
        index = m_currTrackIndex.load();
        if (order != index) {
            if (order < index) m_currTrackIndex.store(index - 1);
            eraseItem();
            return;
        }
    }

    // The playing entry goes: the device stops before the queue changes under it.
    stop(true);
    bool playAgain = false;
    {
        std::lock_guard lock(m_queueMutex);
        eraseItem();
        // The entry that followed the deleted one now has its index, whatever the worker did
        // while stopping.
        m_currTrackIndex.store(index);
        if (index < m_playQueue.size()) {
            playAgain = true;
        } else if (!m_playQueue.empty() && getPlayMode() == PLAYMODE_REPEAT_E && index == m_playQueue.size()) {
            m_currTrackIndex.store(0);
            playAgain = true;
        }
    }
    if (playAgain) play();
}

void CPlayer::reorderPlayQueue(unsigned long from, unsigned long to) {
    std::lock_guard lock(m_queueMutex);
    reorderLocked(from, to);
}

namespace {

// Where the track numbered c lands when the entry at `from` moves to `to` and the entries in
// between shift by one towards `from`.
uint64_t shiftedTrack(uint64_t c, unsigned long from, unsigned long to) {
    if (c == from) return to;
    if (from < to && c > from && c <= to) return c - 1;
    if (from > to && c >= to && c < from) return c + 1;
    return c;
}

}  // namespace

void CPlayer::reorderPlayQueueKeepingCurrent(unsigned long from, unsigned long to) {
    std::lock_guard lock(m_queueMutex);
    uint64_t current = currTrackLocked();
    reorderLocked(from, to);
    if (to >= m_playQueue.size()) return;
    uint64_t shifted = shiftedTrack(current, from, to);
    playMode_e mode = getPlayMode();
    if (mode == PLAYMODE_NORMAL_E || mode == PLAYMODE_REPEAT_E || mode == PLAYMODE_REPEAT_ONE_E) {
        m_currTrackIndex.store(shifted);
        return;
    }
    for (size_t p = 0; p < m_playQueue.size(); ++p) {
        if (m_playQueue[p].order == shifted) {
            m_currTrackIndex.store(p);
            return;
        }
    }
    LOG_ERR("setCurrTrackIdByOrder failed");
}

bool CPlayer::stepCurrTrackIndex(int delta) {
    std::lock_guard lock(m_queueMutex);
    size_t size = m_playQueue.size();
    if (size == 0) return false;
    uint64_t index = m_currTrackIndex.load();
    if (index >= size) index = size - 1;
    long long next = (static_cast<long long>(index) + delta) % static_cast<long long>(size);
    if (next < 0) next += static_cast<long long>(size);
    m_currTrackIndex.store(static_cast<uint64_t>(next));
    return true;
}

void CPlayer::reorderLocked(unsigned long from, unsigned long to) {
    size_t size = m_playQueue.size();
    if (size == 0 || from == to || to >= size) return;

    playMode_e mode = getPlayMode();
    if (mode == PLAYMODE_NORMAL_E || mode == PLAYMODE_REPEAT_E || mode == PLAYMODE_REPEAT_ONE_E) {
        if (from >= size) return;
        playQueueItem_s moved = m_playQueue[from];
        m_playQueue.erase(m_playQueue.begin() + static_cast<std::ptrdiff_t>(from));
        m_playQueue.insert(m_playQueue.begin() + static_cast<std::ptrdiff_t>(to), moved);
        renumberQueueLocked();
        return;
    }

    // Shuffled: the two tracks trade places; the caller re-finds the current index.
    auto byOrder = [&](unsigned long order) {
        return std::find_if(m_playQueue.begin(), m_playQueue.end(),
                            [order](const playQueueItem_s& queued) { return queued.order == order; });
    };
    auto a = byOrder(from);
    auto b = byOrder(to);
    if (a == m_playQueue.end() || b == m_playQueue.end()) return;
    std::iter_swap(a, b);
}

int CPlayer::clearPlayQueue(bool withPlaylist) {
    stop(true);
    {
        std::lock_guard lock(m_queueMutex);
        m_playQueue.clear();
        if (withPlaylist) {
            m_playlistTitle.clear();
            m_playlistID = -1;
        }
    }
    // Fails on the empty queue; its -1 is the documented result.
    return setCurrTrack(0);
}

void CPlayer::setPlayMode(playMode_e mode, unsigned long from, unsigned long to) {
    int value = static_cast<int>(mode);
    if (value < PLAYMODE_NORMAL_E || value > PLAYMODE_SHUFFLE_REPEAT_ONE_E) {
        LOG_WARN("play mode %d ignored", value);
        return;
    }
    // The mode changes with the orders, so that getCurrTrack never reads one without the other.
    std::lock_guard lock(m_queueMutex);
    playMode_e current = getPlayMode();

    if (isShuffleMode(mode)) {
        // Already shuffled, or coming from REPEAT_ONE: the queue keeps its order.
        if (!isShuffleMode(current) && current != PLAYMODE_REPEAT_ONE_E) shuffleLocked(from, to);
    } else if (mode == PLAYMODE_NORMAL_E || mode == PLAYMODE_REPEAT_E) {
        if (isShuffleMode(current) || current == PLAYMODE_SHUFFLE_REPEAT_ONE_E) {
            uint64_t index = m_currTrackIndex.load();
            if (isShuffleMode(current))
                index = index < m_playQueue.size() ? m_playQueue[index].order : index;  // the track being played
            else
                index = static_cast<uint32_t>(index);
            renumberQueueLocked();
            m_currTrackIndex.store(index);
        }
    }

    if (isShuffleMode(current) && mode == PLAYMODE_REPEAT_ONE_E)
        m_playMode.store(PLAYMODE_SHUFFLE_REPEAT_ONE_E);
    else
        m_playMode.store(mode);
}

void CPlayer::shuffleLocked(unsigned long from, unsigned long to) {
    size_t size = m_playQueue.size();
    if (size == 0) return;
    size_t end = std::min<size_t>(to == 0 ? size : to, size);
    uint64_t current = m_currTrackIndex.load();
    std::uniform_int_distribution<size_t> pick(0, size - 1);
    auto& engine = randomEngine();
    // Only the orders move, and never the current item's: the playing track stays where it is.
    for (size_t i = from; i < end; ++i) {
        size_t j = pick(engine);
        if (j != i && j != current && i != current) std::swap(m_playQueue[i].order, m_playQueue[j].order);
    }
}

void CPlayer::renumberQueueLocked() {
    for (size_t i = 0; i < m_playQueue.size(); ++i) m_playQueue[i].order = i;
}

// ---- tracks --------------------------------------------------------------------------------

unsigned int CPlayer::currTrackLocked() const {
    uint64_t index = m_currTrackIndex.load();
    if (isShuffleMode(getPlayMode()) && index < m_playQueue.size())
        return static_cast<unsigned int>(m_playQueue[index].order);
    return static_cast<unsigned int>(index);
}

unsigned int CPlayer::getCurrTrack() const {
    std::lock_guard lock(m_queueMutex);
    return currTrackLocked();
}

void CPlayer::setCurrTrackIndex(uint64_t index) {
    std::lock_guard lock(m_queueMutex);
    m_currTrackIndex.store(index);
}

int CPlayer::setCurrTrack(unsigned int n) {
    {
        std::lock_guard lock(m_queueMutex);
        if (n >= m_playQueue.size()) return -1;
    }
    stop(!traits().softStopOnTrackChange);

    bool empty;
    {
        std::lock_guard lock(m_queueMutex);
        if (isShuffleMode(getPlayMode())) {
            for (size_t p = 0; p < m_playQueue.size(); ++p) {
                if (m_playQueue[p].order == n) {
                    m_currTrackIndex.store(p);
                    break;
                }
            }
        } else {
            m_currTrackIndex.store(n);
        }
        empty = m_playQueue.empty();
    }
    if (!empty) play();
    return 0;
}

int CPlayer::setCurrTrackIdByOrder(unsigned int n) {
    std::lock_guard lock(m_queueMutex);
    for (size_t p = 0; p < m_playQueue.size(); ++p) {
        if (m_playQueue[p].order == n) {
            m_currTrackIndex.store(p);
            return 0;
        }
    }
    return -1;
}

int CPlayer::setCurrTrackByContent(const char* content) {
    int id;
    {
        std::lock_guard lock(m_queueMutex);
        if (m_playlistTitle.empty() || !content) return -1;
        id = static_cast<int>(m_playlistID);
    }
    CSqlitePlaylist& store = playlistStore();
    // Long playlists are not scanned past this many entries.
    int size = store.getSizeOfPlaylist(id);
    size_t bound = size < 0 || size > 4000 ? 4000 : static_cast<size_t>(size);
    if (bound == 0) return -1;

    for (size_t i = 0; i < bound; ++i) {
        playlistElm_t elm;
        if (store.getPlaylistElmByIndex(elm, id, static_cast<int>(i)) != 0 || elm.Content != content) continue;
        size_t found = SIZE_MAX;
        {
            std::lock_guard lock(m_queueMutex);
            if (m_playQueue.empty()) return -1;
            // From the first match on, the scan is bounded by the queue instead.
            bound = m_playQueue.size();
            for (size_t p = 0; p < m_playQueue.size(); ++p) {
                if (m_playQueue[p].uuid == static_cast<int64_t>(elm.UUID)) {
                    found = p;
                    break;
                }
            }
        }
        if (found == SIZE_MAX) continue;
        stop(true);
        // After the stop, so that an advance the worker made meanwhile does not overrule it.
        setCurrTrackIndex(found);
        play();
        return 0;
    }
    return -1;
}

bool CPlayer::changeToNextTrack() {
    size_t size;
    uint64_t index;
    bool more = true;
    {
        std::lock_guard lock(m_queueMutex);
        size = m_playQueue.size();
        if (size == 0) return false;
        index = m_currTrackIndex.load() + 1;
        uint64_t next = index;
        switch (getPlayMode()) {
            case PLAYMODE_REPEAT_E:
            case PLAYMODE_SHUFFLE_REPEAT_E:
                if (index >= size) next = 0;
                break;
            case PLAYMODE_REPEAT_ONE_E:
            case PLAYMODE_SHUFFLE_REPEAT_ONE_E: next = index - 1; break;
            default:
                if (index >= size) {
                    next = size - 1;
                    more = false;
                }
                break;
        }
        m_currTrackIndex.store(next);
    }
    LOG_WARN("playQueue Size:%lu     currentTrack:%lu", static_cast<unsigned long>(size),
             static_cast<unsigned long>(index));

    std::lock_guard lock(m_liveMutex);
    m_currTime = "00:00:00";
    m_totalTime = "00:00:00";
    m_audioTrack = 0;
    m_subtitleTrack = -1;
    m_externalSubtitle.clear();
    return more;
}

int CPlayer::getPlaylistElmByIndex(playlistElm_s& elm, int index) {
    int id;
    {
        std::lock_guard lock(m_queueMutex);
        if (index == -1) index = static_cast<int>(currTrackLocked());
        id = static_cast<int>(m_playlistID);
    }
    return playlistStore().getPlaylistElmByIndex(elm, id, index);
}

int CPlayer::getPlaylistElmByOrder(playlistElm_s& elm, int order) {
    int id;
    {
        std::lock_guard lock(m_queueMutex);
        if (order == -1) order = static_cast<int>(currTrackLocked());
        id = static_cast<int>(m_playlistID);
    }
    return playlistStore().getPlaylistElmByOrder(elm, id, order);
}

void CPlayer::getStatus(playerStatus_s& status) {
    const PlayerTraits kind = traits();
    status.deviceType = kind.typeText;
    status.deviceSubtype = kind.subtypeText;
    int64_t playlistID;
    unsigned int currTrack;
    {
        std::lock_guard lock(m_queueMutex);
        currTrack = currTrackLocked();
        playlistID = m_playlistID;
        status.currTrack = currTrack;
        status.totalTracks = static_cast<uint32_t>(m_playQueue.size());
        status.playlistTitle = m_playlistTitle;
        status.appType = m_appType;
        status.owner = m_owner;
        status.tag = m_tag;
    }
    status.playerType = m_type;
    status.playMode = getPlayMode();
    status.playerState = getPlayerState();
    status.deviceName = m_deviceName;
    status.currTime = getCurrTime();

    // No playlist, no entry: the store is not asked.
    playlistElm_t elm;  // unknown media and content types until read
    if (playlistID < 1 ||
        playlistStore().getPlaylistElmByIndex(elm, static_cast<int>(playlistID), static_cast<int>(currTrack)) != 0)
        elm = playlistElm_t();
    status.trackType = trackTypeText(elm.MediaType);
    status.trackContentType = trackContentTypeText(elm.ContentType);
    status.trackContent = elm.Content;

    std::lock_guard lock(m_liveMutex);
    status.totalTime = m_totalTime;
    status.externalSubtitle = m_externalSubtitle;
    status.currentAudioTrack = m_audioTrack;
    status.currentSubtitleTrack = m_subtitleTrack;
    status.autoPlugSubtitle = m_autoPlugSubtitle;
    status.ssize = m_ssize;
    status.scolor = m_scolor;
    status.sseek = m_sseek;
    status.sencoding = m_sencoding;
}

// ---- time texts ----------------------------------------------------------------------------

int CPlayer::hhmmssToSecond(const char* text) {
    if (!text) return 0;
    char buffer[32] = {};
    std::strncpy(buffer, text, 31);
    char* colon = std::strchr(buffer, ':');
    if (!colon) return 0;
    long long seconds = boundedPart(buffer) * 3600;
    char* minutes = colon + 1;
    colon = std::strchr(minutes, ':');
    // With a single ':' only the hours count.
    if (!colon) return clampToInt(seconds);
    seconds += boundedPart(minutes) * 60 + boundedPart(colon + 1);
    return clampToInt(seconds);
}

void CPlayer::secondToHHMMSS(int seconds, std::string& out) {
    char buffer[48];
    std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d", seconds / 3600, (seconds % 3600) / 60, seconds % 3600 % 60);
    out = buffer;
}

int CPlayer::getCurrTimeSecond() const {
    std::lock_guard lock(m_liveMutex);
    return clampToInt(static_cast<long long>(hhmmssToSecond(m_currTime.c_str())) +
                      hhmmssToSecond(m_seekOffset.c_str()));
}

int CPlayer::getCurrTimeSecondWithOutSeek() const {
    std::lock_guard lock(m_liveMutex);
    return hhmmssToSecond(m_currTime.c_str());
}

std::string CPlayer::getCurrTime() const {
    std::string out;
    secondToHHMMSS(getCurrTimeSecond(), out);
    return out;
}

std::string CPlayer::getTotalTime() const {
    std::lock_guard lock(m_liveMutex);
    return m_totalTime;
}

int CPlayer::getTotalTimeSecond() const {
    std::lock_guard lock(m_liveMutex);
    return hhmmssToSecond(m_totalTime.c_str());
}

void CPlayer::setCurrTime(const std::string& hhmmss) {
    std::lock_guard lock(m_liveMutex);
    m_currTime = hhmmss;
}

void CPlayer::setCurrTime(int seconds) {
    std::string text;
    secondToHHMMSS(seconds, text);
    std::lock_guard lock(m_liveMutex);
    m_currTime = std::move(text);
}

void CPlayer::setTotalTime(const std::string& hhmmss) {
    std::lock_guard lock(m_liveMutex);
    m_totalTime = hhmmss;
}

std::string CPlayer::getSeekOffset() const {
    std::lock_guard lock(m_liveMutex);
    return m_seekOffset;
}

void CPlayer::setSeekOffset(const std::string& hhmmss) {
    std::lock_guard lock(m_liveMutex);
    m_seekOffset = hhmmss;
}

// ---- audio track and subtitles -------------------------------------------------------------

void CPlayer::setAudioTrack(int track) {
    std::lock_guard lock(m_liveMutex);
    m_audioTrack = track;
}

int CPlayer::getAudioTrack() const {
    std::lock_guard lock(m_liveMutex);
    return m_audioTrack;
}

void CPlayer::setSubtitleTrack(int track) {
    std::lock_guard lock(m_liveMutex);
    m_subtitleTrack = track;
}

int CPlayer::getSubtitleTrack() const {
    std::lock_guard lock(m_liveMutex);
    return m_subtitleTrack;
}

void CPlayer::setExternalSubtitle(const char* subtitle) {
    std::lock_guard lock(m_liveMutex);
    m_externalSubtitle = subtitle ? subtitle : "";
}

void CPlayer::getExternalSubtitle(std::string& out) const {
    std::lock_guard lock(m_liveMutex);
    out = m_externalSubtitle;
}

void CPlayer::setIP(const std::string& ip) {
    std::lock_guard lock(m_liveMutex);
    m_ip = ip;
}

std::string CPlayer::getIP() const {
    std::lock_guard lock(m_liveMutex);
    return m_ip;
}

void CPlayer::resetExternalSubtitle() {
    std::lock_guard lock(m_liveMutex);
    m_externalSubtitle.clear();
}

void CPlayer::resetTimes() {
    std::lock_guard lock(m_liveMutex);
    m_currTime = "00:00:00";
    m_totalTime = "00:00:00";
    m_seekOffset = "00:00:00";
    m_externalSubtitle.clear();
    m_audioTrack = 0;
    m_subtitleTrack = -1;
}

void CPlayer::resetAudioAndSubtitle() {
    std::lock_guard lock(m_liveMutex);
    m_externalSubtitle.clear();
    m_audioTrack = 0;
    m_subtitleTrack = -1;
}

std::string CPlayer::getAutoPlugSubtitle() const {
    std::lock_guard lock(m_liveMutex);
    return m_autoPlugSubtitle;
}

void CPlayer::setAutoPlugSubtitle(const std::string& subtitle) {
    std::lock_guard lock(m_liveMutex);
    m_autoPlugSubtitle = subtitle;
}

void CPlayer::clearAutoPlugSubtitle() {
    std::lock_guard lock(m_liveMutex);
    m_autoPlugSubtitle.clear();
}

std::string CPlayer::getSsize() const {
    std::lock_guard lock(m_liveMutex);
    return m_ssize;
}

std::string CPlayer::getScolor() const {
    std::lock_guard lock(m_liveMutex);
    return m_scolor;
}

std::string CPlayer::getSseek() const {
    std::lock_guard lock(m_liveMutex);
    return m_sseek;
}

std::string CPlayer::getSencoding() const {
    std::lock_guard lock(m_liveMutex);
    return m_sencoding;
}

void CPlayer::setSubtitleStyle(const std::string& ssize, const std::string& scolor, const std::string& sseek,
                               const std::string& sencoding) {
    std::lock_guard lock(m_liveMutex);
    m_ssize = ssize;
    m_scolor = scolor;
    m_sseek = sseek;
    m_sencoding = sencoding;
}

std::string CPlayer::getConvertedSubtitlePath() const {
    std::lock_guard lock(m_liveMutex);
    return m_convertedSubtitlePath;
}

void CPlayer::setConvertedSubtitlePath(const std::string& path) {
    std::lock_guard lock(m_liveMutex);
    m_convertedSubtitlePath = path;
}

// ---- misc ----------------------------------------------------------------------------------

int CPlayer::get_random() {
    // Three draws in rand()'s range folded into [0, 2 * 10^9): never negative as a 32-bit id.
    std::uniform_int_distribution<int> draw(0, RAND_MAX);
    auto& engine = randomEngine();
    unsigned int r1 = static_cast<unsigned int>(draw(engine));
    int r2 = draw(engine);
    int r3 = draw(engine);
    constexpr unsigned int kBillion = 1000000000u;
    return static_cast<int>((r1 % kBillion + static_cast<unsigned int>(r2) % kBillion) % kBillion +
                            static_cast<unsigned int>(r3) % kBillion);
}

int CPlayer::gen_tid() {
    m_tid = get_random();
    return m_tid;
}

void CPlayer::intToString(int value, std::string& out) { out = std::to_string(value); }
