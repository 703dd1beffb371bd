// Player commands called as the dispatcher calls them, on a manager whose players are test
// back-ends, over a simulated appliance (for the media agent) and a real playlist store.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "client/VelmoraClient.h"
#include "core/CommandTable.h"
#include "core/StatusCache.h"
#include "core/util/AppRoot.h"
#include "core/util/Process.h"
#include "player/CPlayerManager.h"
#include "player/PlayerTypes.h"
#include "player/ThreadLock.h"
#include "playlist/CSqlitePlaylist.h"

// Records what the commands asked of the device.
class FakePlayer : public CPlayer {
public:
    FakePlayer(uint32_t type, const std::string& id, const std::string& name, const std::string& title,
               const std::string& appType)
        : CPlayer(type, id.c_str(), name.c_str(), title.empty() ? nullptr : title.c_str(),
                  appType.empty() ? nullptr : appType.c_str()) {}

    int play() override { return record("play"); }
    int stop(bool force) override { return record(force ? "stop(true)" : "stop(false)"); }
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

    int record(const std::string& call) {
        calls.push_back(call);
        return 0;
    }

    std::vector<std::string> calls;
    int volume = 30;
    std::atomic<bool> exists{true};
};

class TestManager : public CPlayerManager {
public:
    TestManager() : CPlayerManager(3600) {}
    // Lists a render as discovery would.
    void list(const std::string& id, uint32_t type = playertype::kDlna | playertype::kCapVideo | playertype::kCapAudio) {
        ThreadWriteLock lock(getRWLock());
        addRenderInCache(id.c_str(), ("name of " + id).c_str(), "10.0.0.7", type, "", 0, "", "");
    }
    FakePlayer* player(const std::string& id) {
        ThreadReadLock lock(getRWLock());
        return static_cast<FakePlayer*>(findCreatedPlayer_(id));
    }

protected:
    std::unique_ptr<CPlayer> createBackend_(const std::string& id, const renderCacheInfo_s& render,
                                            const std::string& title, const std::string& appType, int&) override {
        return std::make_unique<FakePlayer>(render.type, id, render.name, title, appType);
    }
};

class CommandTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/velmora-cmd-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        s_root = pattern;
        ProcessOptions opts;
        opts.timeoutMs = 120000;
        opts.capture = ProcessOptions::Capture::Both;
        ProcessResult r = runProcess({VELMORA_SOURCE_DIR "/sim/make-root", s_root}, opts);
        ASSERT_TRUE(r.ok()) << r.output;
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(s_root); }

    void SetUp() override {
        approot::set(s_root);
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        std::filesystem::remove_all(s_root + "/share/.modl");
        std::ofstream(s_root + "/var/sim/calls.log", std::ios::trunc);
        StatusCache::instance().clear();
        s_now = 1'000'000;
        StatusCache::instance().setClock([] { return s_now; });
        CPlayerManager::setSettleDelays(std::chrono::milliseconds(0), std::chrono::milliseconds(0));
        CPlayer::setAirplaySettleDelay(std::chrono::milliseconds(0));
        manager = std::make_unique<TestManager>();
    }
    void TearDown() override {
        manager.reset();
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        StatusCache::instance().setClock(nullptr);
        approot::set("");
    }

    // Runs a command through the table as the dispatcher does; the answer lands in `answer`.
    int run(const std::string& command, const vclient::Params& params = {}) {
        XMLNode request = XMLNode::parseString(vclient::buildRequest(command, params), "root");
        answer = XMLNode();
        commandHandler_t handler = findCommand(command.c_str());
        EXPECT_NE(handler, nullptr) << command;
        return handler ? handler(*manager, request, answer) : -7;
    }
    const char* field(const char* name) { return answer.getChildNode(name).getText(); }

    // Media-agent runs recorded since the test began.
    static int agentCalls(const std::string& command, const std::string& argument = "") {
        std::ifstream in(s_root + "/var/sim/calls.log");
        std::string line;
        int n = 0;
        while (std::getline(in, line))
            if (line.rfind("tessaly ", 0) == 0 && line.find("\"" + command + "\"") != std::string::npos &&
                (argument.empty() || line.find("\"" + argument + "\"") != std::string::npos))
                ++n;
        return n;
    }

    // A playlist of appType "music" with the given (media type, content type, content) entries.
    static void makePlaylist(const char* title, const std::vector<std::tuple<mediaType_e, contentType_e, std::string>>& entries) {
        ASSERT_EQ(playlistStore().addPlaylist(title, MEDIA_MIXED_E, "music", "alice", ""), 0);
        for (const auto& [media, content, text] : entries)
            ASSERT_EQ(playlistStore().addElmInPlaylist(title, media, content, "music", text.c_str(), -1), 0);
    }

    static inline std::string s_root;
    static inline time_t s_now = 0;
    std::unique_ptr<TestManager> manager;
    XMLNode answer;
};
