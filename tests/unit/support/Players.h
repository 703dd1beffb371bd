// A player back-end that records what is asked of the device, and a manager whose players are
// such back-ends.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "player/CPlayer.h"
#include "player/CPlayerManager.h"
#include "player/PlayerTypes.h"
#include "thread/ThreadLock.h"

namespace testsupport {

// One text per call ("play", "stop(true)", "seek 00:01:30", ...); play and stop move the
// state as a device would.
class FakePlayer : public CPlayer {
public:
    FakePlayer(uint32_t type, const std::string& id, const std::string& name, const std::string& title = "",
               const std::string& appType = "")
        : CPlayer(type, id.c_str(), name.c_str(), title.empty() ? nullptr : title.c_str(),
                  appType.empty() ? nullptr : appType.c_str()) {}
    // A DLNA render's player on the playlist title of appType.
    explicit FakePlayer(const std::string& title = "", const std::string& appType = "", uint32_t type = playertype::kDlna)
        : FakePlayer(type, "uuid:render-1", "Living room", title, appType) {}

    int play() override {
        setPlayerState(STATE_PLAY_E);
        return record("play");
    }
    int stop(bool force) override {
        setPlayerState(STATE_STOP_E);
        return record(force ? "stop(true)" : "stop(false)");
    }
    int pause() override { return record("pause"); }
    int next() override { return record("next"); }
    int previous() override { return record("previous"); }
    int seek(const char* position) override { return record(std::string("seek ") + position); }
    int setAudioAndSubtitle(const char* ext, int aid, int sid, const char* pos, const char* sseek, const char*,
                            const char*, const char*, const char*, int autoSub) override {
        std::ostringstream s;
        s << "subtitle ext=" << (ext ? ext : "-") << " aid=" << aid << " sid=" << sid << " pos=" << (pos ? pos : "-")
          << " sseek=" << (sseek ? sseek : "-") << " auto=" << autoSub;
        return record(s.str());
    }
    int setVolume(int v) override {
        volume = v;
        return record("volume " + std::to_string(v));
    }
    int getVolume() override { return volume; }
    int setAttributes(const char* attrs) override { return record(std::string("attrs ") + attrs); }
    bool isPlayerExist() override { return exists; }
    void monitor(bool on) override { record(on ? "monitor(on)" : "monitor(off)"); }
    PlayerTraits traits() const override { return fakeTraits; }

    int record(const std::string& call) {
        calls.push_back(call);
        return 0;
    }
    // The calls since the last look, then forgotten.
    std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }

    using CPlayer::setPlayerState;

    std::vector<std::string> calls;
    PlayerTraits fakeTraits{.typeText = "FAKE"};
    int volume = 30;  // -1: a device that cannot tell its volume
    std::atomic<bool> exists{true};
};

class FakeManager : public CPlayerManager {
public:
    FakeManager() : CPlayerManager(nullptr, 3600) {}
    // Lists a render as discovery would.
    void list(const std::string& id, uint32_t type = playertype::kDlna | playertype::kCapVideo | playertype::kCapAudio) {
        ThreadWriteLock lock(getRWLock());
        addRenderInCache(id.c_str(), ("name of " + id).c_str(), "10.0.0.7", type, "", 0, "", "");
    }
    // A listing that holds exactly these renders: the others missed it.
    void listOnly(const std::vector<std::string>& ids) {
        {
            ThreadWriteLock lock(getRWLock());
            clearRenderFoundFlagsLocked();
        }
        for (const auto& id : ids) list(id);
    }
    // The player of a listed render, made on first use; nullptr for a render never listed.
    FakePlayer* add(const std::string& id) {
        ThreadWriteLock lock(getRWLock());
        int result = -4;
        return static_cast<FakePlayer*>(addPlayerLocked(result, id, "", ""));
    }
    FakePlayer* player(const std::string& id) {
        ThreadReadLock lock(getRWLock());
        return static_cast<FakePlayer*>(findCreatedPlayerLocked(id));
    }

protected:
    std::unique_ptr<CPlayer> createBackend(const std::string& id, const renderCacheInfo_s& render,
                                            const std::string& title, const std::string& appType, int&) override {
        return std::make_unique<FakePlayer>(render.type, id, render.name, title, appType);
    }
};

}  // namespace testsupport
