#include "output/cast/CChromecast.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "agent/MediaAgent.h"
#include "player/PlayerTypes.h"
#include "util/Log.h"
#include "util/Subtitle.h"
#include "util/TimeText.h"

namespace {

constexpr int kUnansweredPasses = 10;   // failed status requests in a row before the player stops
constexpr int kNeverStartedPasses = 10; // passes after a load without playing: refused
constexpr int kOutsideStopMargin = 15;  // seconds before the end an idle receiver counts as stopped
constexpr const char* kClientType = "chromecast";
constexpr long kNotLaunched = 4;        // the sender's answer when no media application runs

std::atomic<int> g_tickMs{1000};

bool playingState(const std::string& state) { return state == "PLAYING" || state == "BUFFERING"; }

std::string baseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

void CChromecast::setTick(std::chrono::milliseconds tick) {
    g_tickMs = static_cast<int>(std::max<std::chrono::milliseconds::rep>(1, tick.count()));
}

CChromecast::CChromecast(uint32_t type, const std::string& renderID, const std::string& deviceName,
                         const std::string& playlistTitle, const std::string& appType, const std::string& ip, int port)
    : CDevicePlayer(type, renderID, deviceName, playlistTitle, appType),
      m_service(renderID, ip, port, deviceName),
      m_port(port),
      m_serviceIp(ip) {
    setIP(ip);
    startWorker("cast");
}

CChromecast::~CChromecast() {
    LOG_NOTE("~CChromecast %s ...", getDeviceName().c_str());
    endWorker(true);
    m_service.closeSender();
}

std::unique_ptr<CPlayer> CChromecast::create(const std::string& renderID, const renderCacheInfo_s& render,
                                             const std::string& playlistTitle, const std::string& appType, int&) {
    return std::make_unique<CChromecast>(render.type, renderID, render.name, playlistTitle, appType, render.IP,
                                         render.port > 0 ? render.port : ChromecastService::kDefaultPort);
}

PlayerTraits CChromecast::traits() const {
    // A new track replaces the last one on the receiver: the sender and its session stay.
    return {.typeText = "Chromecast", .softStopOnLoad = true, .softStopOnTrackChange = true};
}

std::chrono::milliseconds CChromecast::passPeriod() const { return std::chrono::milliseconds(g_tickMs.load()); }

ChromecastService& CChromecast::service() {
    // A player taken back after its receiver was listed anew may have a new address.
    const std::string ip = getIP();
    if (!ip.empty() && ip != m_serviceIp) {
        m_service.update(getRenderID(), ip, m_port, getDeviceName());
        m_serviceIp = ip;
    }
    return m_service;
}

// ---- caller side: recorded for the worker --------------------------------------------------

int CChromecast::seek(const char* hhmmss) {
    if (!hhmmss || getPlayerState() == STATE_STOP_E) return 0;
    m_pendingSeek = std::max(0, hhmmss_convert_to_sec(hhmmss));
    return 0;
}

int CChromecast::setAudioAndSubtitle(const char* externalSubtitle, int, int, const char*, const char*, const char*,
                                     const char*, const char*, const char*, int) {
    if (externalSubtitle && *externalSubtitle) setExternalSubtitle(externalSubtitle);
    else resetExternalSubtitle();
    return 0;
}

int CChromecast::setVolume(int volume) {
    volume = std::clamp(volume, 0, 100);
    m_volume = volume;
    m_pendingVolume = volume;
    return 0;
}

int CChromecast::getVolume() { return m_muted ? 0 : m_volume.load(); }

int CChromecast::setMute(bool on) {
    m_muted = on;
    m_pendingMute = on ? 1 : 0;
    return 0;
}

// ---- worker steps --------------------------------------------------------------------------

void CChromecast::applyControls() {
    ChromecastService& s = service();
    if (!s.inited()) return;  // kept for the next load
    Response r;
    if (const int v = m_pendingVolume.exchange(-1); v >= 0 && s.setVolume(r, static_cast<float>(v) / 100.0f) != 0)
        LOG_WARN("%s: volume %d not set", getDeviceName().c_str(), v);
    if (const int m = m_pendingMute.exchange(-1); m >= 0 && s.setMute(r, m == 1) != 0)
        LOG_WARN("%s: mute %d not set", getDeviceName().c_str(), m);
    if (const int at = m_pendingSeek.exchange(-1); at >= 0) {
        if (m_photo) return;
        if (s.seek(r, static_cast<float>(at)) == 0 && r.m_response == 0) {
            m_lastPosition = static_cast<float>(at);
            setCurrTime(at);
        } else {
            LOG_WARN("%s: seek to %d s refused", getDeviceName().c_str(), at);
        }
    }
}

void CChromecast::heardVolume(const Response& status) {
    if (m_pendingVolume.load() >= 0 || m_pendingMute.load() >= 0) return;  // ours is on its way
    m_volume = static_cast<int>(std::lround(std::clamp(status.m_volume, 0.0f, 1.0f) * 100.0f));
    m_muted = status.m_muted;
}

std::string CChromecast::subtitleUrl(const playlistElm_s& elm) {
    std::string subtitle;
    getExternalSubtitle(subtitle);
    if (subtitle.empty() && elm.MediaType == MEDIA_VIDEO_E) {
        // None chosen: the one the library would play by itself, beside the video.
        const std::string path = contentFilePath(elm);
        if (path.empty() || !is_default_subtitle_found(path, subtitle)) return {};
    }
    if (subtitle.empty() || subtitle.compare(0, 4, "http") == 0) return subtitle;
    std::string url;
    const std::string iface = netInterface();
    if (mediaagent::filePathToUrl(subtitle, url, kClientType, iface.empty() ? nullptr : iface.c_str()) != 0) {
        LOG_WARN("%s: no URL for the subtitle %s", getDeviceName().c_str(), subtitle.c_str());
        return {};
    }
    return url;
}

bool CChromecast::load(float at) {
    playlistElm_s elm;
    if (getPlaylistElmByIndex(elm, -1) != 0) {
        LOG_ERR("%s: no current entry", getDeviceName().c_str());
        return false;
    }
    m_photo = elm.MediaType == MEDIA_PHOTO_E;
    const std::string url = mediaUrl(elm, kClientType);
    if (url.empty()) {
        LOG_ERR("%s: no URL for %s", getDeviceName().c_str(), elm.Content.c_str());
        return false;
    }
    std::string answer;
    int browsed = -1;
    switch (elm.ContentType) {
        case CONTENT_FILE_E: browsed = mediaagent::browseByFilePath(elm.Content, answer, kClientType); break;
        case CONTENT_DBID_E: browsed = mediaagent::browseByDbID(elm.Content, elm.MediaType, answer, kClientType); break;
        case CONTENT_OBJECT_E: browsed = mediaagent::browseByUpnpObjectID(elm.Content, answer, kClientType); break;
        default: break;
    }
    mediaagent::ItemMetadata meta;
    if (browsed == 0) meta = mediaagent::itemMetadata(answer);
    if (meta.title.empty()) meta.title = baseName(elm.Content);
    const std::string subtitle = m_photo ? std::string() : subtitleUrl(elm);

    LOG_TRACE("%s: load %s", getDeviceName().c_str(), url.c_str());
    Response r;
    int rc = service().setContentUrl(r, url, meta.title, meta.albumArtUrl, subtitle);
    if (rc == 0 && r.m_response == kNotLaunched) {
        // Another sender closed the media application on the receiver: a new sender launches it.
        LOG_WARN("%s: the receiver's application has gone; launching it again", getDeviceName().c_str());
        m_service.closeSender();
        r = Response();
        rc = service().setContentUrl(r, url, meta.title, meta.albumArtUrl, subtitle);
    }
    if (rc != 0 || r.m_response != 0) {
        LOG_WARN("%s: the receiver did not take %s (%d, %ld: %s)", getDeviceName().c_str(), url.c_str(), rc,
                 r.m_response, r.m_errMsg.c_str());
        return false;
    }
    if (!m_photo) setTotalTime(elm);
    // The load carries no position: a reload goes back to where the track was.
    if (at > 0 && !m_photo) m_pendingSeek = static_cast<int>(at);
    applyControls();
    return true;
}

DeviceSteps::Start CChromecast::startTrack(bool) {
    m_delayCount = 0;
    m_unanswered = 0;
    m_reloadsInRow = 0;
    m_idlePasses = 0;
    m_seenPlaying = false;
    m_paused = false;
    m_lastPosition = 0;
    m_lastDuration = 0;
    m_pendingSeek = -1;
    resetTimes();
    if (!load(0)) return Start::Refused;
    setPlayerState(STATE_PLAY_E);
    return Start::Started;
}

DeviceSteps::Follow CChromecast::senderLost() {
    m_service.closeSender();
    if (++m_reloadsInRow > kMaxReloads) {
        LOG_WARN("%s: the receiver is lost after %d new senders. [Play] ---> [STOP]", getDeviceName().c_str(),
                 kMaxReloads);
        return Follow::StoppedOutside;
    }
    LOG_WARN("%s: the sender lost the receiver; loading again at %d s (%d of %d)", getDeviceName().c_str(),
             static_cast<int>(m_lastPosition), m_reloadsInRow.load(), kMaxReloads);
    m_idlePasses = 0;
    m_seenPlaying = false;
    load(m_lastPosition);  // a failed load is seen as a lost sender again at the next pass
    return Follow::Playing;
}

DeviceSteps::Follow CChromecast::judgeStatus(const Response& status) {
    if (playingState(status.m_state)) {
        m_seenPlaying = true;
        m_idlePasses = 0;
        if (status.m_state == "PLAYING") m_reloadsInRow = 0;
        m_lastPosition = status.m_position;
        if (status.m_duration > 0) {
            m_lastDuration = status.m_duration;
            setTotalTime(sec_to_hhmmss(static_cast<int>(status.m_duration)));
        }
        setCurrTime(static_cast<int>(status.m_position));
        setPlayerState(STATE_PLAY_E);
        return Follow::Playing;
    }
    if (status.m_state == "PAUSED") {
        LOG_WARN("%s: paused on the receiver", getDeviceName().c_str());
        return Follow::PausedOutside;
    }
    if (status.m_state != "IDLE") return Follow::Playing;
    if (!m_seenPlaying) {
        // Loaded but never started: a refusal, once it has had its chance.
        if (++m_idlePasses >= kNeverStartedPasses) {
            LOG_WARN("%s: the track never started", getDeviceName().c_str());
            return Follow::Refused;
        }
        return Follow::Playing;
    }
    // Idle again: the receiver says why when it can; else near the end the track ran out and
    // earlier someone stopped it.
    if (status.m_idleReason == "FINISHED" || status.m_idleReason == "ERROR") return Follow::Over;
    if (status.m_idleReason.empty() && m_lastDuration - m_lastPosition <= kOutsideStopMargin) return Follow::Over;
    LOG_WARN("%s: stopped on the receiver at %d of %d s", getDeviceName().c_str(), static_cast<int>(m_lastPosition),
             static_cast<int>(m_lastDuration));
    return Follow::StoppedOutside;
}

DeviceSteps::Follow CChromecast::followTrack() {
    applyControls();
    if (m_photo) return m_service.inited() ? followSlide(m_delayCount) : senderLost();
    Response r;
    const int rc = m_service.getPosInfo(r);
    // No answer in time, none that makes sense, or the receiver gone: a new sender.
    if (rc != 0 || r.m_response == -1) return senderLost();
    if (r.m_response != 0) {
        if (++m_unanswered >= kUnansweredPasses) {
            LOG_WARN("%s: no status for %d passes. [Play] ---> [STOP]", getDeviceName().c_str(), m_unanswered.load());
            return Follow::StoppedOutside;
        }
        return Follow::Playing;
    }
    m_unanswered = 0;
    heardVolume(r);
    return judgeStatus(r);
}

void CChromecast::pauseDevice() {
    m_paused = true;
    Response r;
    if (!m_photo && m_service.inited() && m_service.pause(r) != 0) LOG_WARN("%s: pause failed", getDeviceName().c_str());
}

bool CChromecast::resumeDevice() {
    m_paused = false;
    if (m_photo) return true;
    Response r;
    return m_service.inited() && m_service.play(r) == 0 && r.m_response == 0;
}

void CChromecast::stopDevice(bool force) {
    m_paused = false;
    if (!m_service.inited()) return;
    Response r;
    if (m_service.stop(r) != 0) LOG_WARN("%s: stop failed", getDeviceName().c_str());
    if (!force) return;
    // A full stop leaves the receiver to its owner: the session closes and the sender ends.
    m_service._close(r);
    m_service.closeSender();
}

bool CChromecast::whileParked(bool) {
    applyControls();
    if (!m_paused || m_photo || !m_service.inited()) return false;
    // Paused here: the receiver's own remote may resume it.
    Response r;
    if (m_service.getPosInfo(r) != 0 || r.m_response != 0) return false;
    heardVolume(r);
    if (r.m_state != "PLAYING") return false;
    m_paused = false;
    return true;
}

void CChromecast::debugDetails(std::string& out) {
    char text[200];
    std::snprintf(text, sizeof text, "sender             :%d\nunanswered         :%d\nreloads            :%d\n",
                  static_cast<int>(m_service.senderPid()), m_unanswered.load(), m_reloadsInRow.load());
    out += text;
}
