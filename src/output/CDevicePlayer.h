// CDevicePlayer: the base of every back-end whose player runs a worker thread against a device.
// The transport (play, pause, stop, next, previous) is the shared worker's; a back-end derives
// from this class, implements the device steps and starts the worker at the end of its
// constructor and ends it first thing in its destructor (the steps must outlive the thread).
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "output/PlaybackWorker.h"
#include "player/CPlayer.h"
#include "playlist/PlaylistTypes.h"

class CDevicePlayer : public CPlayer, protected DeviceSteps {
public:
    // commandWait: how long a command thread waits for the worker (tests shorten it).
    CDevicePlayer(uint32_t type, const std::string& renderID, const std::string& deviceName,
                  const std::string& playlistTitle, const std::string& appType,
                  std::chrono::milliseconds commandWait = PlaybackWorker::kCommandWait);

    // -1 on an empty queue, or when a paused device will not resume; else 0.
    int play() override { return m_worker.play(); }
    int pause() override { return m_worker.pause(); }
    int stop(bool force) override { return m_worker.stop(force); }
    // The next/previous entry round the queue (a ring, whatever the play mode).
    int next() override { return m_worker.skip(+1); }
    int previous() override { return m_worker.skip(-1); }
    // The worker's flags, then the back-end's own lines (debugDetails).
    void debugDump(std::string& out) override;

    bool isParked() { return m_worker.isParked(); }

protected:
    // "family:device" names the thread (top -H, core dumps).
    void startWorker(const char* family);
    void endWorker(bool stopDevice) { m_worker.end(stopDevice); }
    virtual void debugDetails(std::string& /*out*/) {}
    PlaybackWorker& worker() { return m_worker; }

    // For back-ends that hand the device a URL of the appliance's media server.
    // The network interface that carries the device's address; empty when unknown.
    std::string netInterface();
    // The entry's URL for a client of clientType, served on that interface; empty on failure.
    std::string mediaUrl(const playlistElm_s& elm, const char* clientType);
    // The entry's file on the appliance; empty on failure.
    std::string contentFilePath(const playlistElm_s& elm);
    // One pass of a photo shown for the slide-show delay: shown counts the passes so far.
    Follow followSlide(int& shown);

private:
    PlaybackWorker m_worker;
};
