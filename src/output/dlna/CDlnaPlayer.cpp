#include "output/dlna/CDlnaPlayer.h"

#include <pthread.h>
#include <strings.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "util/Log.h"
#include "util/NetUtil.h"
#include "util/PathUtil.h"
#include "util/Process.h"
#include "util/Subtitle.h"
#include "agent/MediaAgent.h"

using namespace std::chrono_literals;
using mediaagent::Argv;

namespace {

// Counts, whatever the tick.
constexpr int kStalledPolls = 20;    // polls without progress before the track is given up
constexpr int kFailPolls = 10;       // "fail" position replies before the track is given up
constexpr int kGracePasses = 5;      // passes after a track change without outside-stop checks
                                     // (the pass of the change is the first)
constexpr int kHistoryPasses = 7;    // passes between play-history records
constexpr int kOutsideStopMargin = 15;  // seconds before the end a renderer stop counts as a stop
constexpr int kPlayChecks = 9;
constexpr int kStopTries = 4;
constexpr int kStopFirstTries = 10;
constexpr int kBusyAttempts = 5;
constexpr int kSeekPositionTries = 30;

constexpr const char* kGrey = "\033[0;37m";
constexpr const char* kCyan = "\033[0;36m";
constexpr const char* kRed = "\033[0;31m";

std::atomic<int> g_tickMs{1000};

std::chrono::milliseconds scaled(int permille) {
    return std::chrono::milliseconds(std::max(1, g_tickMs.load() * permille / 1000));
}

bool machineIsArm() {
    utsname names{};
    if (::uname(&names) != 0) return false;
    std::string machine = names.machine;
    return machine.find("arm") != std::string::npos || machine.find("Arm") != std::string::npos ||
           machine.find("ARM") != std::string::npos;
}

bool isAudioOrVideo(mediaType_e type) { return type == MEDIA_AUDIO_E || type == MEDIA_VIDEO_E; }

// Entries added in a batch carry "N/A" instead of their object id.
std::string objectIdOf(const playlistElm_s& elm) {
    if (elm.UPnPObjID.empty() || elm.UPnPObjID == "N/A") return elm.Content;
    return elm.UPnPObjID;
}

}  // namespace

// ---- tick ----------------------------------------------------------------------------------

void CDlnaPlayer::setTick(std::chrono::milliseconds tick) {
    g_tickMs.store(static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(tick.count(), 1, 3600 * 1000)));
}

std::chrono::milliseconds CDlnaPlayer::tick() { return std::chrono::milliseconds(g_tickMs.load()); }

// ---- construction --------------------------------------------------------------------------

CDlnaPlayer::CDlnaPlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                         const std::string& playlistTitle, const std::string& appType)
    : CDevicePlayer(type, renderID, deviceName, playlistTitle, appType) {
    m_currElm.MediaType = MEDIA_UNKNOW_E;
    m_currElm.ContentType = CONTENT_UNKNOW_E;
    m_bIsArm = machineIsArm();

    std::string reply;
    Argv isXbmc = mediaagent::command("isXBMC", renderID);
    LOG_AGENT("%s", formatCommandLine(isXbmc).c_str());
    if (mediaagent::query(isXbmc, 256, reply)) m_bIsXBMC = reply.find("xbmc") != std::string::npos;

    startWorker("dlna");
}

std::unique_ptr<CPlayer> CDlnaPlayer::create(const std::string& renderID, const renderCacheInfo_s& render,
                                             const std::string& playlistTitle, const std::string& appType, int&) {
    return std::make_unique<CDlnaPlayer>(render.type, renderID, render.name, playlistTitle, appType);
}

CDlnaPlayer::~CDlnaPlayer() {
    LOG_NOTE("~CDlnaPlayer %s ...", getDeviceName().c_str());
    endWorker(true);
}

// ---- caller side ---------------------------------------------------------------------------

int CDlnaPlayer::seek(const char* position) {
    if (!position || worker().flags().stop) return 0;
    // A renderer that has not started yet cannot be moved.
    int tries = 0;
    for (; tries < kSeekPositionTries; ++tries) {
        int current = getCurrTimeSecond();
        if (current != 0) break;
        LOG_TRACE("getCurrTimeSecond = %d", current);
        std::this_thread::sleep_for(scaled(500));
    }
    if (tries == kSeekPositionTries) return 0;

    m_bSeeking = true;
    std::string externalSubtitle;
    int needTranscode = isNeedTranscode(externalSubtitle);
    int result = 0;
    if (m_bIsArm && needTranscode && currentElm_().MediaType != MEDIA_AUDIO_E) {
        LOG_WARN("seek: transcoding on this processor; not sought");
    } else if (setAvTransport_(position, needTranscode, 0, -1,
                               externalSubtitle.empty() ? nullptr : externalSubtitle.c_str()) == 0) {
        sendPlay_();
        // A transcoded stream restarts its clock at the position: remember where it began.
        if (needTranscode) setSeekOffset(position);
        result = play();
    } else {
        result = -1;
    }
    m_bSeeking = false;
    return result;
}

int CDlnaPlayer::setAudioAndSubtitle(const char*, int, int, const char*, const char*, const char*, const char*,
                                     const char*, const char*, int) {
    LOG_WARN("[%s][%d]: >>> Need to implement DlnaPlayer::setAudioAndSubtitle <<<", "CDlnaPlayer.h", __LINE__);
    return 0;
}

// ---- volume --------------------------------------------------------------------------------

int CDlnaPlayer::setVolume(int volume) {
    volume = std::clamp(volume, 0, 100);
    Argv argv = mediaagent::command("setVolume", getRenderID());
    argv.insert(argv.end(), {"--vol", std::to_string(volume)});
    LOG_AGENT("%s", formatCommandLine(argv).c_str());
    std::string reply;
    if (!mediaagent::query(argv, mediaagent::kShortReply, reply)) return -1;
    return reply.find("Success") != std::string::npos ? 0 : -1;
}

int CDlnaPlayer::getVolume() {
    Argv argv = mediaagent::command("getVolume", getRenderID());
    std::string reply;
    if (!mediaagent::query(argv, mediaagent::kShortReply, reply)) return -1;
    std::string text = mediaagent::field(reply, "CurrentVolume");
    if (text.empty()) return -1;
    return std::atoi(text.c_str());
}

// ---- watch of a parked renderer -------------------------------------------------------------

void CDlnaPlayer::monitor(bool on) { m_bMonitorOn = on; }

bool CDlnaPlayer::whileParked(bool firstPass) {
    if (firstPass) {
        // What was seen before this park says nothing about the renderer now.
        m_watching = m_bMonitorOn;
        m_callbackLastState = STATE_UNKNOW;
    }
    if (!m_watching || !m_bMonitorOn) return false;
    playerState_e state = getRenderState_();
    playerState_e last = m_callbackLastState;
    m_callbackLastState = state;
    if (state == STATE_PLAY_E && last == STATE_PAUSE_E) {
        LOG_TRACE("%s: resumed on the renderer", getDeviceName().c_str());
        return true;
    }
    if (state == STATE_STOP_E) m_watching = false;  // nothing to resume until the next park
    return false;
}

// ---- renderer actions ----------------------------------------------------------------------

playlistElm_s CDlnaPlayer::currentElm_() const {
    std::lock_guard lock(m_elmMutex);
    return m_currElm;
}

void CDlnaPlayer::setCurrentElm_(const playlistElm_s& elm) {
    std::lock_guard lock(m_elmMutex);
    m_currElm = elm;
}

int CDlnaPlayer::sendPlay_() {
    Argv argv = mediaagent::command("Play", getRenderID());
    LOG_AGENT("%s", formatCommandLine(argv).c_str());
    mediaagent::fire(argv);
    Argv state = mediaagent::command("getTransportInfo", getRenderID());
    for (int i = 0; i < kPlayChecks; ++i) {
        if (!nap_(scaled(50))) return -1;
        std::string reply;
        if (!mediaagent::query(state, mediaagent::kShortReply, reply)) continue;
        std::string text = mediaagent::field(reply, "CurrentTransportState");
        if (!text.empty() && strcasecmp(text.c_str(), "TRANSITIONING") != 0) return 0;
    }
    LOG_WARN("%s: still TRANSITIONING after Play", getDeviceName().c_str());
    return -1;
}

int CDlnaPlayer::sendStop_() {
    Argv argv = mediaagent::command("Stop", getRenderID());
    for (int i = 0; i < kStopTries; ++i) {
        LOG_AGENT("%s", formatCommandLine(argv).c_str());
        mediaagent::fire(argv);
        if (isRanderStop_() != 0) return 0;
        if (!nap_(tick())) break;
    }
    return -1;
}

int CDlnaPlayer::sendPause_() {
    Argv argv = mediaagent::command("Pause", getRenderID());
    LOG_AGENT("%s", formatCommandLine(argv).c_str());
    std::string reply;
    if (!mediaagent::query(argv, mediaagent::kShortReply, reply)) return -1;
    if (strcasecmp(mediaagent::field(reply, "Status").c_str(), "Success") != 0) {
        LOG_WARN("%s: Pause refused: %s", getDeviceName().c_str(), reply.c_str());
        return -1;
    }
    return 0;
}

playerState_e CDlnaPlayer::getRenderState_() {
    std::string reply;
    if (!mediaagent::query(mediaagent::command("getTransportInfo", getRenderID()), mediaagent::kShortReply, reply))
        return STATE_UNKNOW;
    std::string state = mediaagent::field(reply, "CurrentTransportState");
    if (strcasecmp(state.c_str(), "PLAYING") == 0) return STATE_PLAY_E;
    if (strcasecmp(state.c_str(), "STOPPED") == 0) return STATE_STOP_E;
    if (strcasecmp(state.c_str(), "PAUSED_PLAYBACK") == 0) return STATE_PAUSE_E;
    return STATE_UNKNOW;
}

int CDlnaPlayer::isRanderStop_() {
    std::string reply;
    if (!mediaagent::query(mediaagent::command("getTransportInfo", getRenderID()), mediaagent::kShortReply, reply))
        return -1;
    std::string state = mediaagent::field(reply, "CurrentTransportState");
    if (state.empty()) return -2;
    return strcasecmp(state.c_str(), "STOPPED") == 0 || strcasecmp(state.c_str(), "NO_MEDIA_PRESENT") == 0 ? 1 : 0;
}

int CDlnaPlayer::setAvTransport_(const char* position, int stopFirst, int audioTrack, int subtitleTrack,
                                 const char* externalSubtitle) {
    if (stopFirst && !m_bIsXBMC && isRanderStop_() != 1) {
        Argv stopArgv = mediaagent::command("Stop", getRenderID());
        LOG_AGENT("%s", formatCommandLine(stopArgv).c_str());
        mediaagent::fire(stopArgv);
        int stopped = 0;
        for (int i = 0; i < kStopFirstTries; ++i) {
            stopped = isRanderStop_();
            if (stopped < 0) {
                LOG_ERR("isRanderStop_() ... fail ");
                return stopped;
            }
            if (stopped) break;
            mediaagent::fire(stopArgv);
            if (!nap_(tick())) return -1;
        }
        if (stopped != 1) {
            LOG_ERR("%s: the renderer does not stop", getDeviceName().c_str());
            return -1;
        }
    }

    playlistElm_s elm;
    if (getPlaylistElmByIndex(elm, -1) != 0) {
        LOG_ERR("%s: no current entry", getDeviceName().c_str());
        return -1;
    }
    setCurrentElm_(elm);
    if (sendAvTransport_(elm, position, audioTrack, subtitleTrack, externalSubtitle) != 0) return -1;
    setCurrTime(std::string("00:00:00"));
    if (elm.MediaType == MEDIA_PHOTO_E) setTotalTime(std::string("00:00:00"));
    return 0;
}

int CDlnaPlayer::sendAvTransport_(const playlistElm_t& elm, const char* position, int audioTrack, int subtitleTrack,
                                  const char* externalSubtitle) {
    Argv argv = mediaagent::command("setAvTransportUrl", getRenderID());
    bool built = true;
    switch (elm.ContentType) {
        case CONTENT_DBID_E: {
            if (elm.Content.empty()) {
                LOG_ERR("content is null");
                return -1;
            }
            std::string objectID;
            built = mediaagent::dbIDToUpnpObjectID(elm.Content, elm.MediaType, objectID) == 0;
            if (built) argv.insert(argv.end(), {"--objectID", objectID});
            break;
        }
        case CONTENT_OBJECT_E:
            built = !elm.Content.empty();
            if (built) argv.insert(argv.end(), {"--objectID", elm.Content});
            break;
        case CONTENT_FILE_E:
            if (!is_file_exist(elm.Content.c_str())) {
                LOG_ERR(" %s not exist", elm.Content.c_str());
                return -1;
            }
            argv.insert(argv.end(), {"--filePath", elm.Content});
            break;
        default: built = false; break;
    }
    if (!built) {
        LOG_ERR("command build fail");
        return -1;
    }
    if (position) argv.insert(argv.end(), {"--position", position});

    std::string netInterface;
    std::string ip = getIP();
    if (!ip.empty() && get_if_by_ip(ip.c_str(), netInterface) != 0) netInterface.clear();
    mediaagent::appendTransportOptions(argv, netInterface, audioTrack, subtitleTrack, externalSubtitle);
    LOG_AGENT(">>>cmd: %s", formatCommandLine(argv).c_str());

    for (int attempt = 1; attempt <= kBusyAttempts; ++attempt) {
        std::string reply;
        if (!mediaagent::query(argv, mediaagent::kShortReply, reply)) {
            LOG_ERR(">>> popen(%s) ... fail", formatCommandLine(argv).c_str());
            return -1;
        }
        std::string status = mediaagent::field(reply, "Status");
        if (strcasecmp(status.c_str(), "Success") == 0) return 0;
        if (strcasecmp(status.c_str(), "Busy") != 0) {
            LOG_ERR("%s: setAvTransportUrl refused: %s", getDeviceName().c_str(), reply.c_str());
            return -1;
        }
        LOG_WARN("%s: renderer busy (attempt %d of %d)", getDeviceName().c_str(), attempt, kBusyAttempts);
        if (attempt < kBusyAttempts && !nap_(tick())) return -1;
    }
    return -1;
}

int CDlnaPlayer::isNeedTranscode(std::string& externalSubtitle) {
    m_bNeedTranscode = false;
    playlistElm_s elm;
    if (getPlaylistElmByIndex(elm, -1) != 0) return 0;

    Argv argv = mediaagent::command("getContentUrlByMAC", getRenderID());
    switch (elm.ContentType) {
        case CONTENT_FILE_E:
            if (!is_file_exist(elm.Content.c_str())) {
                LOG_ERR(" %s not exist", elm.Content.c_str());
                return 0;
            }
            argv.insert(argv.end(), {"--filePath", elm.Content});
            break;
        case CONTENT_DBID_E:
            argv.insert(argv.end(), {"--dbID", elm.Content, "--mediaType", std::to_string(elm.MediaType)});
            break;
        case CONTENT_OBJECT_E: argv.insert(argv.end(), {"--objectID", objectIdOf(elm)}); break;
        default: return 0;
    }
    LOG_AGENT("%s", formatCommandLine(argv).c_str());
    std::string reply;
    if (!mediaagent::query(argv, mediaagent::kLongReply, reply)) return 0;
    std::string status = mediaagent::field(reply, "status");
    std::string url = mediaagent::field(reply, "url");
    if (strncasecmp(status.c_str(), "success", 7) != 0 || url.empty()) return 0;
    if (url.find("Transcode") != std::string::npos) {
        m_bNeedTranscode = true;
        return 1;
    }
    if (elm.MediaType != MEDIA_VIDEO_E) return 0;

    // A video whose subtitle the renderer must be handed along.
    std::string path;
    int start = -1;
    int duration = -1;
    int resolved = 0;
    if (elm.ContentType == CONTENT_DBID_E) resolved = mediaagent::dbIDToFilePath(elm.Content, elm.MediaType, path, start, duration);
    else if (elm.ContentType == CONTENT_OBJECT_E) resolved = mediaagent::upnpObjectToFilePath(objectIdOf(elm), path);
    else path = elm.Content;
    if (resolved != 0) return 1;
    std::string subtitle;
    if (is_default_subtitle_found(path, subtitle)) {
        externalSubtitle = mediaagent::urlEscape(subtitle);
        return 1;
    }
    return 0;
}

// ---- worker steps --------------------------------------------------------------------------

DeviceSteps::Start CDlnaPlayer::startTrack(bool afterAdvance) {
    m_delayCount = 0;
    m_trackSkipCnt = 0;
    m_priorCT = 0;
    m_grace = afterAdvance ? kGracePasses - 1 : 0;
    m_followed = false;
    resetTimes();

    int rc = setAvTransport_(nullptr, 1, 0, -1, nullptr);
    playlistElm_s elm = currentElm_();
    VLOG_AT(kGrey, ">>> playlistID     :%d", elm.PlaylistID);
    VLOG_AT(kGrey, ">>> mediaType      :%d", static_cast<int>(elm.MediaType));
    VLOG_AT(kGrey, ">>> contentType    :%d", static_cast<int>(elm.ContentType));
    VLOG_AT(kGrey, ">>> content        :%s", elm.Content.c_str());
    VLOG_AT(kGrey, "==================================================");
    if (rc != 0) return Start::Refused;

    if (isAudioOrVideo(elm.MediaType)) setTotalTime(elm);
    if (sendPlay_() == 0) setPlayerState(STATE_PLAY_E);
    return Start::Started;
}

DeviceSteps::Follow CDlnaPlayer::followTrack() {
    // From the second pass of a track on (and not for a while after a track change, nor while
    // a seek has the renderer stopped on purpose): was it stopped or paused on the renderer?
    if (m_grace > 0) {
        --m_grace;
    } else if (m_followed && !m_bSeeking) {
        Follow outside = detectOutsideStop_();
        if (outside != Follow::Playing) return outside;
    }
    m_followed = true;
    if (++m_history >= kHistoryPasses) {
        m_history = 0;
        savePlayHistory();
    }
    playlistElm_s elm = currentElm_();
    if (elm.MediaType == MEDIA_PHOTO_E) return followPhoto_();
    if (!isAudioOrVideo(elm.MediaType)) {
        VLOG_AT(kRed, "[Unknow Type]:%s", elm.Content.c_str());
        return Follow::Playing;
    }
    return followPosition_();
}

DeviceSteps::Follow CDlnaPlayer::followPhoto_() {
    VLOG_AT(kCyan, "[%lu][%s][DelayCount: %d]", static_cast<unsigned long>(pthread_self()), getRenderID().c_str(),
            m_delayCount);
    return followSlide(m_delayCount);  // the count starts again with the next track
}

DeviceSteps::Follow CDlnaPlayer::followPosition_() {
    std::string reply;
    bool ran = mediaagent::query(mediaagent::command("getPositionInfo", getRenderID()), mediaagent::kShortReply, reply);
    std::string relTime = mediaagent::field(reply, "RelTime");
    if (!relTime.empty()) {
        relTime = relTime.substr(0, relTime.find('.'));
        setCurrTime(relTime);
        int ct = getCurrTimeSecond();
        int total = getTotalTimeSecond();
        LOG_TRACK("ct = %d, priorCT = %d", ct, m_priorCT);
        if (ct != m_priorCT && ct >= 1) {
            m_trackSkipCnt = 0;
            m_priorCT = ct;
        } else {
            ++m_trackSkipCnt;
        }
        LOG_TRACK(">>[RealTime]      :%d    %s", ct, relTime.c_str());
        LOG_TRACK(">>[TrackDuration] :%d    %s", total, getTotalTime().c_str());
        LOG_TRACK(">>[m_trackSkipCnt]:%d", m_trackSkipCnt.load());
        LOG_TRACK("==================================================");
        if (m_bSeeking) return Follow::Playing;  // the position jumps while a seek lands
        if (m_trackSkipCnt >= kStalledPolls) {
            LOG_WARN("1 [Change Track] with m_trackSkipCnt");
            m_trackSkipCnt = 0;
            return Follow::Over;
        }
        if (total > 0 && ct >= total - 1) {
            // Without a known length the track ends by the rule above, not on its first poll.
            LOG_WARN("2 [Change Track] current:%d, total:%d", ct, total);
            return Follow::Over;
        }
        return Follow::Playing;
    }
    // No position: a reply that says "fail", or none at all, counts towards giving the track up.
    std::string status = mediaagent::field(reply, "Status");
    if (!ran || strcasecmp(status.c_str(), "fail") == 0) {
        if (++m_trackSkipCnt >= kFailPolls) return Follow::Over;
    }
    return Follow::Playing;
}

DeviceSteps::Follow CDlnaPlayer::detectOutsideStop_() {
    playerState_e state = getRenderState_();
    if (state == STATE_PLAY_E) {
        setPlayerState(STATE_PLAY_E);
        return Follow::Playing;
    }
    int total = getTotalTimeSecond();
    int current = getCurrTimeSecond();
    // Near the end a renderer stops by itself; the position rules end the track then.
    if (total - current <= kOutsideStopMargin || current == 0) return Follow::Playing;
    if (state == STATE_STOP_E) {
        LOG_WARN("%s: stopped on the renderer at %d of %d s", getDeviceName().c_str(), current, total);
        return Follow::StoppedOutside;
    }
    if (state == STATE_PAUSE_E) {
        LOG_WARN("%s: paused on the renderer at %d of %d s", getDeviceName().c_str(), current, total);
        return Follow::PausedOutside;
    }
    return Follow::Playing;
}

void CDlnaPlayer::pauseDevice() {
    // A photo has nothing to pause: the renderer keeps showing it.
    if (currentElm_().MediaType != MEDIA_PHOTO_E) sendPause_();
}

bool CDlnaPlayer::resumeDevice() { return sendPlay_() == 0; }

void CDlnaPlayer::stopDevice(bool) {
    if (savePlayHistory() != 0) LOG_ERR("savePlayHistory failed");
    sendStop_();
}
