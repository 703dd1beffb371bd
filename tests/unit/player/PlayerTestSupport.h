// Shared by the player tests: a fresh playlist store under a temporary appliance root, and
// players whose back-end records what the base class asks of the device.
#pragma once

#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "playlist/CSqlitePlaylist.h"
#include "unit/support/Files.h"
#include "unit/support/Players.h"

using testsupport::FakePlayer;
using Calls = std::vector<std::string>;  // what a player asked of its device

class PlayerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(m_root.empty());
        testsupport::makeDirs(m_root + "/share/Public");
        approot::set(m_root);
        CGlobalsSingleton<CSqlitePlaylist>::reset();
    }
    void TearDown() override {
        CGlobalsSingleton<CSqlitePlaylist>::reset();
        approot::set("");
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
    static std::vector<int64_t> storeUuids(int playlistID) {  // in playlist order
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
    // Puts the player into `mode` the way a client would get there from NORMAL.
    static void enterMode(CPlayer& p, playMode_e mode) {
        if (mode == PLAYMODE_SHUFFLE_REPEAT_ONE_E) p.setPlayMode(PLAYMODE_SHUFFLE_E, 0, 0);
        p.setPlayMode(mode == PLAYMODE_SHUFFLE_REPEAT_ONE_E ? PLAYMODE_REPEAT_ONE_E : mode, 0, 0);
        ASSERT_EQ(p.getPlayMode(), mode);
    }
    static std::unique_ptr<FakePlayer> playerWith(const char* title) { return std::make_unique<FakePlayer>(title, "music"); }

    testsupport::TempDir m_tmp{"velmora-player"};
    std::string m_root = m_tmp.path();
};
