#include "output/CDevicePlayer.h"

#include <cstdio>

#include "util/Log.h"

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
