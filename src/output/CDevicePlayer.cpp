#include "output/CDevicePlayer.h"

#include <cstdio>

#include "agent/MediaAgent.h"
#include "util/Log.h"
#include "util/NetUtil.h"
#include "util/TimeText.h"

CDevicePlayer::CDevicePlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                             const std::string& playlistTitle, const std::string& appType,
                             std::chrono::milliseconds commandWait)
    : CPlayer(type, renderID.c_str(), deviceName.c_str(), playlistTitle.c_str(), appType.c_str()),
      m_worker(*this, *this, commandWait) {}

void CDevicePlayer::startWorker(const char* family) { m_worker.start(std::string(family) + ":" + getDeviceName()); }

void CDevicePlayer::debugDump(std::string& out) {
    const PlaybackWorker::Flags f = m_worker.flags();
    char text[256];
    std::snprintf(text, sizeof text,
                  "\nFlowStage          :%d\n"
                  "m_bStop            :%d\n"
                  "m_bExit            :%d\n"
                  "m_bStuckOnWaitLock :%d\n"
                  "m_bIsPlaying       :%d\n"
                  "m_bChangeToNext    :%d\n",
                  f.stage, f.stop, f.exit, f.parked, f.trackStarted, f.changeToNext);
    std::string dump = text;
    debugDetails(dump);
    out += dump;
    LOG_TRACE("------------------------------------------------%s", dump.c_str());
}

std::string CDevicePlayer::netInterface() {
    std::string iface;
    const std::string ip = getIP();
    if (ip.empty() || get_if_by_ip(ip.c_str(), iface) != 0) iface.clear();
    return iface;
}

std::string CDevicePlayer::mediaUrl(const playlistElm_s& elm, const char* clientType) {
    const std::string iface = netInterface();
    const char* ifaceArg = iface.empty() ? nullptr : iface.c_str();
    std::string url;
    std::string objectID = elm.Content;
    int rc = -1;
    switch (elm.ContentType) {
        case CONTENT_FILE_E: rc = mediaagent::filePathToUrl(elm.Content, url, clientType, ifaceArg); break;
        case CONTENT_DBID_E:
            if (mediaagent::dbIDToUpnpObjectID(elm.Content, elm.MediaType, objectID) != 0) break;
            [[fallthrough]];
        case CONTENT_OBJECT_E: rc = mediaagent::upnpObjectToUrl(objectID, url, clientType, ifaceArg); break;
        default: break;
    }
    if (rc != 0) url.clear();
    return url;
}

std::string CDevicePlayer::contentFilePath(const playlistElm_s& elm) {
    std::string path;
    int start = -1;
    int length = -1;
    int rc = -1;
    switch (elm.ContentType) {
        case CONTENT_FILE_E: path = elm.Content, rc = 0; break;
        case CONTENT_DBID_E: rc = mediaagent::dbIDToFilePath(elm.Content, elm.MediaType, path, start, length); break;
        case CONTENT_OBJECT_E: rc = mediaagent::upnpObjectToFilePath(elm.Content, path); break;
        default: break;
    }
    if (rc != 0) path.clear();
    return path;
}

DeviceSteps::Follow CDevicePlayer::followSlide(int& shown) {
    const int delay = getSlideShowDelay();
    setCurrTime(shown);
    setTotalTime(sec_to_hhmmss(delay));
    if (++shown > delay) return Follow::Over;
    return Follow::Playing;
}
