// CPlayer: one player per output device. This is the part the manager relies on (identity,
// lock, the housekeeping calls); the play queue and the transport operations build on it.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>

#include "player/CThread.h"

class CPlayer : public CThread {
public:
    CPlayer(uint32_t type, std::string renderID, std::string deviceName);
    ~CPlayer() override;

    const std::string& getRenderID() const { return m_renderID; }
    const std::string& getDeviceName() const { return m_deviceName; }
    uint32_t getType() const { return m_type; }
    // The player's lock (normal mutex). Only the manager takes it: tried around every forwarded
    // call, waited for around playlist-wide edits and its housekeeping pass.
    pthread_mutex_t& getLock() { return m_lock; }

    // Caller holds the player's lock for both.
    void setIP(const std::string& ip) { m_ip = ip; }
    const std::string& getIP() const { return m_ip; }

    virtual void stop(bool /*force*/) {}
    virtual void monitor(bool /*on*/) {}
    virtual void debugDump(std::string& /*out*/) {}

protected:
    void process() override {}

    uint32_t m_type;
    std::string m_renderID;
    std::string m_deviceName;
    std::string m_ip;  // guarded by m_lock
    pthread_mutex_t m_lock;
};
