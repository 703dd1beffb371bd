#include "player/CPlayer.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

#include "core/util/Log.h"
#include "player/PlayerTypes.h"
#include "playlist/CSqlitePlaylist.h"

std::atomic<int> CPlayer::s_rememberedVolume{0};
std::atomic<int> CPlayer::s_airplaySettleMs{1000};

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
    : CThread(THREAD_JOINABLE_E),
      m_type(playerType),
      m_renderID(renderID ? renderID : ""),
      m_deviceName(deviceName ? deviceName : "") {
    mutexInit(m_lock, MUTEX_NORMAL_E);
    if (playlistTitle && appType) {
        m_playlistTitle = playlistTitle;
        m_appType = appType;
        int id = playlistStore().getPlaylistID(m_playlistTitle, m_appType);
        if (id >= 1) {
            m_playlistID = id;
            loadPlaylist_();
        }
    }
}

CPlayer::CPlayer(uint32_t playerType, std::string renderID, std::string deviceName)
    : CThread(THREAD_JOINABLE_E),
      m_type(playerType),
      m_renderID(std::move(renderID)),
      m_deviceName(std::move(deviceName)) {
    mutexInit(m_lock, MUTEX_NORMAL_E);
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

void CPlayer::setPlaylist(const std::string& title, const std::string& appType) {
    playerState_e before = getPlayerState();
    // RAOP receivers get the soft stop, every other device the full one.
    stop((m_type & playertype::kRaop) == 0);

    m_currTrackIndex.store(0);
    m_playlistTitle = title;
    m_appType = appType;
    int id = playlistStore().getPlaylistID(title, appType);
    m_playlistID = id >= 1 ? id : -1;
    if (m_playlistID < 1) return;
    loadPlaylist_();

    if (before == STATE_PLAY_E) {
        play();
        // Give an AirPlay device time to start before the manager's next request reaches it.
        int settleMs = s_airplaySettleMs.load();
        if ((m_type & playertype::kAirplay) && settleMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(settleMs));
    }
}

void CPlayer::loadPlaylist_() {
    playMode_e mode = getPlayMode();
    CSqlitePlaylist& store = playlistStore();
    int id = static_cast<int>(m_playlistID);

    playlistLibElm_t lib;
    if (store.getPlaylistLibElmByID(id, lib) != 0) lib = playlistLibElm_t();
    m_owner = lib.Owner;
    m_tag = lib.Tag;

    m_playQueue.clear();
    if (m_playlistID < 1) return;
    std::vector<playlistElm_s> entries;
    if (store.getPlaylistElmsByPage(entries, id, 0, 0) != 0) return;
    m_playQueue.reserve(entries.size());
    for (const auto& entry : entries)
        m_playQueue.push_back({static_cast<uint64_t>(entry.OrderNr), static_cast<int64_t>(entry.UUID)});
    // Already in a shuffle mode, so this does not shuffle: a reloaded queue plays in playlist order.
    if (isShuffleMode(mode)) setPlayMode(mode, 0, 0);
}

void CPlayer::addItemToPlayQueue(playQueueItem_s& item) { m_playQueue.push_back(item); }

void CPlayer::delItemFromPlayQueue(playQueueItem_s& item) {
    auto it = std::find_if(m_playQueue.begin(), m_playQueue.end(),
                           [&](const playQueueItem_s& queued) { return queued.uuid == item.uuid; });
    if (it == m_playQueue.end()) return;

    // Orders and the index agree in playlist order, which is where deletions come from.
    uint64_t order = it->order;
    uint64_t index = m_currTrackIndex.load();
    bool deletingCurrent = order == index;
    if (deletingCurrent)
        stop(true);
    else if (order < index)
        m_currTrackIndex.store(--index);

    m_playQueue.erase(it);
    for (auto& queued : m_playQueue)
        if (queued.order > order) --queued.order;

    if (!deletingCurrent) return;
    if (index < m_playQueue.size()) {
        play();
    } else if (!m_playQueue.empty() && getPlayMode() == PLAYMODE_REPEAT_E && index == m_playQueue.size()) {
        m_currTrackIndex.store(0);
        play();
    }
}

void CPlayer::reorderPlayQueue(unsigned long from, unsigned long to) {
    size_t size = m_playQueue.size();
    if (size == 0 || from == to || to >= size) return;

    playMode_e mode = getPlayMode();
    if (mode == PLAYMODE_NORMAL_E || mode == PLAYMODE_REPEAT_E || mode == PLAYMODE_REPEAT_ONE_E) {
        if (from >= size) return;
        playQueueItem_s moved = m_playQueue[from];
        m_playQueue.erase(m_playQueue.begin() + static_cast<std::ptrdiff_t>(from));
        m_playQueue.insert(m_playQueue.begin() + static_cast<std::ptrdiff_t>(to), moved);
        renumberQueue_();
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
    m_playQueue.clear();
    if (withPlaylist) {
        m_playlistTitle.clear();
        m_playlistID = -1;
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
    playMode_e current = getPlayMode();

    if (isShuffleMode(mode)) {
        // Already shuffled, or coming from REPEAT_ONE: the queue keeps its order.
        if (!isShuffleMode(current) && current != PLAYMODE_REPEAT_ONE_E) shuffle_(from, to);
    } else if (mode == PLAYMODE_NORMAL_E || mode == PLAYMODE_REPEAT_E) {
        if (isShuffleMode(current) || current == PLAYMODE_SHUFFLE_REPEAT_ONE_E) {
            uint64_t index = m_currTrackIndex.load();
            if (isShuffleMode(current))
                index = index < m_playQueue.size() ? m_playQueue[index].order : index;  // the track being played
            else
                index = static_cast<uint32_t>(index);
            renumberQueue_();
            m_currTrackIndex.store(index);
        }
    }

    if (isShuffleMode(current) && mode == PLAYMODE_REPEAT_ONE_E)
        m_playMode.store(PLAYMODE_SHUFFLE_REPEAT_ONE_E);
    else
        m_playMode.store(mode);
}

void CPlayer::shuffle_(unsigned long from, unsigned long to) {
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

void CPlayer::renumberQueue_() {
    for (size_t i = 0; i < m_playQueue.size(); ++i) m_playQueue[i].order = i;
}

// ---- tracks --------------------------------------------------------------------------------

unsigned int CPlayer::getCurrTrack() const {
    uint64_t index = m_currTrackIndex.load();
    if (isShuffleMode(getPlayMode()) && index < m_playQueue.size())
        return static_cast<unsigned int>(m_playQueue[index].order);
    return static_cast<unsigned int>(index);
}

int CPlayer::setCurrTrack(unsigned int n) {
    if (n >= m_playQueue.size()) return -1;
    // RAOP, Chromecast and the local HDMI player get the soft stop when switching tracks.
    bool soft = (m_type & (playertype::kRaop | playertype::kChromecast | playertype::kLocalHdmi)) != 0;
    stop(!soft);

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
    if (!m_playQueue.empty()) play();
    return 0;
}

int CPlayer::setCurrTrackIdByOrder(unsigned int n) {
    for (size_t p = 0; p < m_playQueue.size(); ++p) {
        if (m_playQueue[p].order == n) {
            m_currTrackIndex.store(p);
            return 0;
        }
    }
    return -1;
}

int CPlayer::setCurrTrackByContent(const char* content) {
    if (m_playlistTitle.empty() || !content) return -1;
    CSqlitePlaylist& store = playlistStore();
    int id = static_cast<int>(m_playlistID);
    // Long playlists are not scanned past this many entries.
    int size = store.getSizeOfPlaylist(id);
    size_t bound = size < 0 || size > 4000 ? 4000 : static_cast<size_t>(size);
    if (bound == 0) return -1;

    for (size_t i = 0; i < bound; ++i) {
        playlistElm_t elm;
        if (store.getPlaylistElmByIndex(elm, id, static_cast<int>(i)) != 0 || elm.Content != content) continue;
        if (m_playQueue.empty()) return -1;
        // From the first match on, the scan is bounded by the queue instead.
        bound = m_playQueue.size();
        for (size_t p = 0; p < m_playQueue.size(); ++p) {
            if (m_playQueue[p].uuid != static_cast<int64_t>(elm.UUID)) continue;
            m_currTrackIndex.store(p);
            stop(true);
            play();
            return 0;
        }
    }
    return -1;
}

bool CPlayer::changeToNextTrack() {
    size_t size = m_playQueue.size();
    if (size == 0) return false;
    uint64_t index = m_currTrackIndex.load() + 1;
    m_currTrackIndex.store(index);
    LOG_WARN("playQueue Size:%lu     currentTrack:%lu", static_cast<unsigned long>(size),
             static_cast<unsigned long>(index));

    {
        std::lock_guard lock(m_liveMutex);
        m_currTime = "00:00:00";
        m_totalTime = "00:00:00";
        m_audioTrack = 0;
        m_subtitleTrack = -1;
        m_externalSubtitle.clear();
    }

    switch (getPlayMode()) {
        case PLAYMODE_REPEAT_E:
        case PLAYMODE_SHUFFLE_REPEAT_E:
            if (index >= size) m_currTrackIndex.store(0);
            return true;
        case PLAYMODE_REPEAT_ONE_E:
        case PLAYMODE_SHUFFLE_REPEAT_ONE_E:
            m_currTrackIndex.store(index - 1);
            return true;
        default:
            if (index >= size) {
                m_currTrackIndex.store(size - 1);
                return false;
            }
            return true;
    }
}

int CPlayer::getPlaylistElmByIndex(playlistElm_s& elm, int index) {
    if (index == -1) index = static_cast<int>(getCurrTrack());
    return playlistStore().getPlaylistElmByIndex(elm, static_cast<int>(m_playlistID), index);
}

int CPlayer::getPlaylistElmByOrder(playlistElm_s& elm, int order) {
    if (order == -1) order = static_cast<int>(getCurrTrack());
    return playlistStore().getPlaylistElmByOrder(elm, static_cast<int>(m_playlistID), order);
}

void CPlayer::getStatus(playerStatus_s& status) {
    status.currTrack = getCurrTrack();
    status.totalTracks = static_cast<uint32_t>(getPlaylistSize());
    status.playerType = m_type;
    status.playMode = getPlayMode();
    status.playerState = getPlayerState();
    status.deviceName = m_deviceName;
    status.playlistTitle = m_playlistTitle;
    status.appType = m_appType;
    status.currTime = getCurrTime();
    status.owner = m_owner;
    status.tag = m_tag;

    // No playlist, no entry: the store is not asked.
    playlistElm_t elm;  // unknown media and content types until read
    if (m_playlistID < 1 || getPlaylistElmByIndex(elm, -1) != 0) elm = playlistElm_t();
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

void CPlayer::resetExternalSubtitle() {
    std::lock_guard lock(m_liveMutex);
    m_externalSubtitle.clear();
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

void CPlayer::setAirplaySettleDelay(std::chrono::milliseconds delay) {
    s_airplaySettleMs.store(static_cast<int>(delay.count()));
}
