#include "agent/MediaAgent.h"
#include "output/airplay/CAirplayPlayer.h"

#include <algorithm>
#include <cstdio>

#include "output/airplay/CSorvane.h"
#include "player/PlayerTypes.h"
#include "util/Log.h"
#include "util/NetUtil.h"
#include "util/TimeText.h"

using CSorvane::CSorvaneOpInterface;

namespace {

constexpr int kUnansweredPasses = 10;   // passes without an answer before the player stops
constexpr int kNeverStartedPasses = 10; // passes after /play without a position: refused
constexpr int kOutsideStopMargin = 15;  // seconds before the end an idle receiver counts as stopped
constexpr const char* kClientType = "airplay";

std::atomic<int> g_tickMs{1000};
std::atomic<int> g_settleMs{1000};

bool refusedStatus(long status) { return status == 401 || status == 403; }

}  // namespace

void CAirplayPlayer::setTick(std::chrono::milliseconds tick) {
    g_tickMs = static_cast<int>(std::max<std::chrono::milliseconds::rep>(1, tick.count()));
}

void CAirplayPlayer::setSettleDelay(std::chrono::milliseconds delay) { g_settleMs = static_cast<int>(delay.count()); }

CAirplayPlayer::CAirplayPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                               const std::string& playlistTitle, const std::string& appType, const std::string& ip,
                               int port, const std::string& authMethod)
    : CDevicePlayer(type, renderID, deviceName, playlistTitle, appType),
      m_service(renderID, ip, port, deviceName, {}, authMethod),
      m_serviceIp(ip),
      m_port(port) {
    setIP(ip);
    // A receiver listed with an authentication method needs the password only the script has.
    if (!authMethod.empty()) m_useScript = true;
    startWorker("airplay");
}

CAirplayPlayer::~CAirplayPlayer() {
    LOG_NOTE("~CAirplayPlayer %s ...", getDeviceName().c_str());
    endWorker(true);
}

std::unique_ptr<CPlayer> CAirplayPlayer::create(const std::string& renderID, const renderCacheInfo_s& render,
                                                const std::string& playlistTitle, const std::string& appType, int&) {
    return std::make_unique<CAirplayPlayer>(render.type, renderID, render.name, playlistTitle, appType, render.IP,
                                            render.port > 0 ? render.port : 7000, render.authMethod);
}

PlayerTraits CAirplayPlayer::traits() const {
    return {.typeText = "AirPlay", .settleAfterReload = std::chrono::milliseconds(g_settleMs.load())};
}

std::chrono::milliseconds CAirplayPlayer::passPeriod() const { return std::chrono::milliseconds(g_tickMs.load()); }

AirPlayService& CAirplayPlayer::service() {
    std::lock_guard lock(m_serviceMutex);
    const std::string ip = getIP();
    if (!ip.empty() && ip != m_serviceIp) {
        m_service.update(getRenderID(), ip, m_port, getDeviceName());
        m_serviceIp = ip;
    }
    return m_service;
}

void CAirplayPlayer::judge(const Response& response) {
    if (!refusedStatus(response.m_response) || m_useScript.exchange(true)) return;
    LOG_WARN("%s: the receiver asks for a password (%ld); driven through the script from now on",
             getDeviceName().c_str(), response.m_response);
}

// ---- worker steps --------------------------------------------------------------------------

DeviceSteps::Start CAirplayPlayer::startTrack(bool) {
    m_delayCount = 0;
    m_unanswered = 0;
    m_idlePasses = 0;
    m_seenPlaying = false;
    m_lastPosition = 0;
    m_lastDuration = 0;
    resetTimes();

    playlistElm_s elm;
    if (getPlaylistElmByIndex(elm, -1) != 0) {
        LOG_ERR("%s: no current entry", getDeviceName().c_str());
        return Start::Refused;
    }
    m_photo = elm.MediaType == MEDIA_PHOTO_E;
    const std::string device = getRenderID();
    if (m_photo) {
        const std::string path = contentFilePath(elm);
        if (path.empty()) return Start::Refused;
        Response r;
        int rc = m_useScript ? -1 : service().playPhoto(r, path);
        judge(r);
        if (m_useScript) rc = CSorvaneOpInterface::sendCommand(CSorvaneOpInterface::kPhoto, device, path.c_str(),
                                                                nullptr, nullptr);
        else if (rc == 0 && r.m_response >= 300) rc = -1;
        if (rc != 0) return Start::Refused;
        setPlayerState(STATE_PLAY_E);
        return Start::Started;
    }

    const std::string url = mediaUrl(elm, kClientType);
    if (url.empty()) {
        LOG_ERR("%s: no URL for %s", getDeviceName().c_str(), elm.Content.c_str());
        return Start::Refused;
    }
    LOG_TRACE("%s: play %s", getDeviceName().c_str(), url.c_str());
    int rc = -1;
    if (!m_useScript) {
        Response r;
        rc = service().setContentUrl(r, url);
        judge(r);
        if (rc == 0 && r.m_response >= 300) rc = -1;
    }
    if (m_useScript) {
        std::string subtitle;
        getExternalSubtitle(subtitle);
        rc = CSorvaneOpInterface::sendCommand(CSorvaneOpInterface::kPlay, device, url.c_str(), nullptr,
                                              subtitle.empty() ? nullptr : subtitle.c_str());
    }
    if (rc != 0) return Start::Refused;
    setTotalTime(elm);
    setPlayerState(STATE_PLAY_E);
    return Start::Started;
}

bool CAirplayPlayer::poll(float& position, float& duration) {
    position = 0;
    duration = 0;
    if (!m_useScript) {
        Response r;
        if (service().getPosInfo(r) != 0) return false;
        judge(r);
        // An idle receiver answers the status with an error (405): nothing plays.
        if (r.m_response >= 200 && r.m_response < 300) {
            position = r.m_position;
            duration = r.m_duration;
        }
        if (!m_useScript) return true;
    }
    int current = 0;
    int total = 0;
    if (CSorvaneOpInterface::getPosInfo(getRenderID(), current, total) != 0) return false;
    position = static_cast<float>(current);
    duration = static_cast<float>(total);
    return true;
}

DeviceSteps::Follow CAirplayPlayer::followTrack() {
    if (m_photo) return followSlide(m_delayCount);
    float position = 0;
    float duration = 0;
    if (!poll(position, duration)) {
        if (++m_unanswered >= kUnansweredPasses) {
            LOG_WARN("%s: no answer for %d passes. [Play] ---> [STOP]", getDeviceName().c_str(), m_unanswered.load());
            return Follow::StoppedOutside;
        }
        return Follow::Playing;
    }
    m_unanswered = 0;
    if (duration > 0) {
        m_seenPlaying = true;
        m_lastPosition = position;
        m_lastDuration = duration;
        setTotalTime(sec_to_hhmmss(static_cast<int>(duration)));
        setCurrTime(static_cast<int>(position));
        setPlayerState(STATE_PLAY_E);
        return position >= duration - 1 ? Follow::Over : Follow::Playing;
    }
    if (!m_seenPlaying) {
        // Accepted but never started: a refusal, once it has had its chance.
        if (++m_idlePasses >= kNeverStartedPasses) {
            LOG_WARN("%s: the track never started", getDeviceName().c_str());
            return Follow::Refused;
        }
        return Follow::Playing;
    }
    // Idle again: near the end the track ran out, earlier someone stopped the receiver.
    if (m_lastDuration - m_lastPosition <= kOutsideStopMargin) return Follow::Over;
    LOG_WARN("%s: stopped on the receiver at %d of %d s", getDeviceName().c_str(), static_cast<int>(m_lastPosition),
             static_cast<int>(m_lastDuration));
    return Follow::StoppedOutside;
}

bool CAirplayPlayer::transport(int scriptOp, int (AirPlayService::*request)(Response&)) {
    if (m_useScript)
        return CSorvaneOpInterface::sendCommand(scriptOp, getRenderID(), nullptr, nullptr, nullptr) == 0;
    Response r;
    const int rc = (service().*request)(r);
    judge(r);
    return rc == 0 && r.m_response < 300;
}

void CAirplayPlayer::pauseDevice() {
    if (!m_photo) transport(CSorvaneOpInterface::kPause, &AirPlayService::pause);  // a photo stays on the screen
}

bool CAirplayPlayer::resumeDevice() {
    return m_photo || transport(CSorvaneOpInterface::kResume, &AirPlayService::play);
}

void CAirplayPlayer::stopDevice(bool) { transport(CSorvaneOpInterface::kStop, &AirPlayService::stop); }

// ---- caller side ---------------------------------------------------------------------------

int CAirplayPlayer::seek(const char* hhmmss) {
    if (!hhmmss || worker().flags().stop) return 0;
    const int seconds = hhmmss_convert_to_sec(hhmmss);
    if (m_useScript)
        return CSorvaneOpInterface::sendCommand(CSorvaneOpInterface::kScrub, getRenderID(),
                                                std::to_string(seconds).c_str(), nullptr, nullptr);
    Response r;
    const int rc = service().seek(r, static_cast<float>(seconds));
    judge(r);
    return rc == 0 && r.m_response < 300 ? 0 : -1;
}

int CAirplayPlayer::setAudioAndSubtitle(const char*, int, int, const char*, const char*, const char*, const char*,
                                        const char*, const char*, int) {
    return 0;
}

void CAirplayPlayer::debugDetails(std::string& out) {
    char text[160];
    std::snprintf(text, sizeof text, "script             :%d\nunanswered         :%d\n", m_useScript.load() ? 1 : 0,
                  m_unanswered.load());
    out += text;
}
