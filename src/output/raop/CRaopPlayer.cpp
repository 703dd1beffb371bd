#include "output/raop/CRaopPlayer.h"

#include <unistd.h>

#include <algorithm>

#include "agent/MediaAgent.h"
#include "util/AppRoot.h"
#include "util/Log.h"
#include "util/Process.h"
#include "util/TimeText.h"

namespace {

constexpr int kSocketTries = 30;      // waits for the sender's socket, one pass each
constexpr int kSilentPasses = 10;     // "state" answers without playback before the track is over
constexpr int kDeadPasses = 3;        // passes with the sender gone before it is started again
constexpr int kProbeTimeoutMs = 20000;
constexpr const char* kGrey = "\033[0;37m";

std::atomic<int> g_tickMs{1000};

}  // namespace

void CRaopPlayer::setTick(std::chrono::milliseconds tick) {
    g_tickMs = static_cast<int>(std::max<std::chrono::milliseconds::rep>(1, tick.count()));
}

std::chrono::milliseconds CRaopPlayer::passPeriod() const { return std::chrono::milliseconds(g_tickMs.load()); }

CRaopPlayer::CRaopPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                         const std::string& playlistTitle, const std::string& appType, bool encrypted,
                         const std::string& ip, int port)
    : CDevicePlayer(type, renderID, deviceName, playlistTitle, appType), m_encrypted(encrypted), m_ip(ip), m_port(port) {
    setIP(ip);
    startWorker("raop");
}

CRaopPlayer::~CRaopPlayer() {
    VLOG_AT("\033[0;32m", "...");
    endWorker(true);
    m_child.close();
}

std::unique_ptr<CPlayer> CRaopPlayer::create(const std::string& renderID, const renderCacheInfo_s& render,
                                             const std::string& playlistTitle, const std::string& appType, int&) {
    return std::make_unique<CRaopPlayer>(render.type, renderID, render.name, playlistTitle, appType,
                                         render.encrypted != 0, render.IP, render.port);
}

PlayerTraits CRaopPlayer::traits() const {
    return {.typeText = "Raop", .softStopOnLoad = true, .softStopOnTrackChange = true};
}

// ---- the sender ----------------------------------------------------------------------------

int CRaopPlayer::connect() {
    return m_child.start(m_ip, m_port, m_encrypted, kSocketTries, [this] { return worker().nap(passPeriod()); });
}

bool CRaopPlayer::trackDuration(const std::string& path, std::string& hhmmss) {
    ProcessOptions options;
    options.capture = ProcessOptions::Capture::Stderr;
    options.timeoutMs = kProbeTimeoutMs;
    options.outputCap = 64 * 1024;
    ProcessResult r = runProcess({approot::path("/usr/local/medialibrary/bin/ffprobe"), "-i", path}, options);
    const size_t at = r.output.find("Duration:");
    if (r.spawnErrno != 0 || at == std::string::npos) {
        LOG_ERR("%s: no Duration from ffprobe", path.c_str());
        return false;
    }
    std::string text = r.output.substr(at + 10, 16);
    size_t end = text.find('.');
    if (end == std::string::npos) end = text.find(',');
    hhmmss = text.substr(0, end);
    return hhmmss_convert_to_sec(hhmmss.c_str()) > 0 || hhmmss == "00:00:00";
}

int CRaopPlayer::findValidTrackPath(playlistElm_s& elm, std::string& path) {
    const size_t attempts = getPlaylistSize();
    for (size_t tried = 1; tried <= attempts; ++tried) {
        path.clear();
        int start = -1;
        int length = -1;
        int rc = getPlaylistElmByIndex(elm, -1);
        if (rc == 0) {
            if (elm.ContentType == CONTENT_OBJECT_E) rc = mediaagent::upnpObjectToFilePath(elm.Content, path);
            else if (elm.ContentType == CONTENT_DBID_E)
                rc = mediaagent::dbIDToFilePath(elm.Content, elm.MediaType, path, start, length);
            else path = elm.Content;
        }
        if (rc == 0 && !path.empty() && ::access(path.c_str(), R_OK) == 0) return 0;
        LOG_WARN("%s: entry %u cannot be played", getDeviceName().c_str(), getCurrTrack());
        if (worker().commandPending() || !changeToNextTrack()) break;
    }
    return -1;
}

bool CRaopPlayer::handOver(const std::string& path) {
    if (!m_child.send("file " + path)) {
        LOG_ERR("setAvTransport_() ... err");
        return false;
    }
    m_position = 0;
    m_silentPasses = 0;
    worker().nap(passPeriod());  // the sender opens the file before it plays
    return true;
}

// ---- worker steps --------------------------------------------------------------------------

DeviceSteps::Start CRaopPlayer::startTrack(bool) {
    if (!m_child.connected() && connect() != 0) return Start::Unresolvable;
    playlistElm_s elm;
    std::string path;
    if (findValidTrackPath(elm, path) != 0) return Start::Unresolvable;
    VLOG_AT(kGrey, "playlistID     :%d", elm.PlaylistID);
    VLOG_AT(kGrey, "mediaType      :%d", static_cast<int>(elm.MediaType));
    VLOG_AT(kGrey, "contentType    :%d", static_cast<int>(elm.ContentType));
    VLOG_AT(kGrey, "content        :%s", elm.Content.c_str());
    VLOG_AT(kGrey, "contentPaht    :%s", path.c_str());

    std::string total;
    if (!trackDuration(path, total) || !handOver(path)) return Start::Refused;
    m_path = path;
    m_deadPasses = 0;
    setTotalTime(total);
    setCurrTime(0);
    setPlayerState(STATE_PLAY_E);
    return Start::Started;
}

DeviceSteps::Follow CRaopPlayer::followTrack() {
    // The sender gone: started again after a few passes, and the track from its beginning.
    if (m_child.dead()) {
        if (++m_deadPasses <= kDeadPasses) return Follow::Playing;
        m_deadPasses = 0;
        m_child.close();
        LOG_WARN("%s: the sender died; starting it again", getDeviceName().c_str());
        if (connect() != 0 || !handOver(m_path)) return Follow::StoppedOutside;
        setCurrTime(0);
        return Follow::Playing;
    }
    const int total = getTotalTimeSecond();
    const int position = m_position.load();
    if (total <= position) return Follow::Over;
    setCurrTime(position);
    if (m_child.playing(passPeriod())) {
        m_silentPasses = 0;
    } else if (++m_silentPasses > kSilentPasses) {
        return Follow::Over;
    }
    m_position = position + 1;  // the pass to come
    return Follow::Playing;
}

bool CRaopPlayer::playsOnAfterTrack(bool more, playMode_e mode) const {
    // With another track to come, the non-repeating modes stop here; the others (and the end of
    // the queue, which replays its last entry) go on.
    return !(more && (mode == PLAYMODE_NORMAL_E || mode == PLAYMODE_SHUFFLE_E));
}

void CRaopPlayer::pauseDevice() { m_child.send("pause"); }

bool CRaopPlayer::resumeDevice() { return m_child.send("play"); }

void CRaopPlayer::stopDevice(bool force) {
    m_position = 0;
    if (force) m_child.close();
}

// ---- caller side ---------------------------------------------------------------------------

int CRaopPlayer::setVolume(int volume) {
    volume = std::clamp(volume, 0, 100);
    if (!m_child.send("volume " + std::to_string(volume))) return -1;
    m_volume = volume;
    return 0;
}

int CRaopPlayer::seek(const char* hhmmss) {
    if (!hhmmss) return 0;
    const int seconds = time_convert_to_second(hhmmss);
    const bool sent = m_child.send("seek " + std::to_string(seconds));
    setSeekOffset(hhmmss);
    m_position = seconds;
    return sent ? 0 : -1;
}

int CRaopPlayer::setAudioAndSubtitle(const char*, int, int, const char*, const char*, const char*, const char*,
                                     const char*, const char*, int) {
    LOG_WARN("[%s][%d]: >>> Need to implement RaopPlayer::setAudioAndSubtitle <<<", "CRaopPlayer.h", __LINE__);
    return 0;
}
