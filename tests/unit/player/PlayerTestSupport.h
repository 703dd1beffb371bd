// Shared by the player tests: a fresh playlist store under a temporary appliance root, and a
// back-end that records what the base class asks of the device.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "core/util/AppRoot.h"
#include "player/CPlayer.h"
#include "player/PlayerTypes.h"
#include "playlist/CSqlitePlaylist.h"

class RecordingPlayer : public CPlayer {
public:
    RecordingPlayer(uint32_t type, const char* title, const char* appType)
        : CPlayer(type, "uuid:render-1", "Living room", title, appType) {}

    int play() override {
        calls.push_back("play");
        setPlayerState(STATE_PLAY_E);
        return 0;
    }
    int stop(bool force) override {
        calls.push_back(force ? "stop(true)" : "stop(false)");
        setPlayerState(STATE_STOP_E);
        return 0;
    }
    int pause() override { return 0; }
    int next() override { return 0; }
    int previous() override { return 0; }
    int seek(const char*) override { return 0; }
    int setAudioAndSubtitle(const char*, int, int, const char*, const char*, const char*, const char*, const char*,
                            const char*, int) override { return 0; }
    int setVolume(int v) override {
        volume = v;
        return 0;
    }
    int getVolume() override { return volume; }

    using CPlayer::setPlayerState;
    using CPlayer::setSubtitleStyle;

    // The calls since the last look, then forgotten.
    std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }

    std::vector<std::string> calls;
    int volume = -1;
};

class PlayerTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/velmora-player-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
        std::filesystem::create_directories(m_root + "/share/Public");
        approot::set(m_root);
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        CPlayer::setAirplaySettleDelay(std::chrono::milliseconds(0));
    }
    void TearDown() override {
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        approot::set("");
        std::filesystem::remove_all(m_root);
    }

    // A playlist of "music" with the files /m/0.mp3 ... /m/<n-1>.mp3; returns its id.
    static int makePlaylist(const char* title, int n) {
        EXPECT_EQ(playlistStore().addPlaylist(title, MEDIA_AUDIO_E, "music", "alice", "jazz"), 0);
        for (int i = 0; i < n; ++i) appendEntry(title, i);
        return playlistStore().getPlaylistID(title, "music");
    }
    static void appendEntry(const char* title, int file) {
        std::string content = "/m/" + std::to_string(file) + ".mp3";
        EXPECT_EQ(playlistStore().addElmInPlaylist(title, MEDIA_AUDIO_E, CONTENT_FILE_E, "music", content.c_str(), -1),
                  0);
    }
    // The entries' uuids in playlist order.
    static std::vector<int64_t> storeUuids(int playlistID) {
        std::vector<playlistElm_s> page;
        playlistStore().getPlaylistElmsByPage(page, playlistID, 0, 0);
        std::vector<int64_t> out;
        for (const auto& e : page) out.push_back(static_cast<int64_t>(e.UUID));
        return out;
    }
    static std::vector<int64_t> queueUuids(const CPlayer& p) {
        std::vector<int64_t> out;
        for (const auto& item : p.getPlayQueue()) out.push_back(item.uuid);
        return out;
    }
    static std::vector<uint64_t> queueOrders(const CPlayer& p) {
        std::vector<uint64_t> out;
        for (const auto& item : p.getPlayQueue()) out.push_back(item.order);
        return out;
    }
    static std::vector<uint64_t> identity(size_t n) {
        std::vector<uint64_t> out(n);
        std::iota(out.begin(), out.end(), 0);
        return out;
    }

    // A DLNA player with the "music" playlist title loaded.
    static std::unique_ptr<RecordingPlayer> playerWith(const char* title, uint32_t type = playertype::kDlna) {
        return std::make_unique<RecordingPlayer>(type, title, "music");
    }

    std::string m_root;
};
