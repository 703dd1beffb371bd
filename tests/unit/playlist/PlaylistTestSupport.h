// Shared helpers of the playlist-store tests: a scratch appliance root with its public share,
// a store on it, and direct SQLite access to check what reached the file.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include "playlist/CSqlitePlaylist.h"
#include "unit/support/Files.h"

namespace playlisttest {

// Runs sql on its own connection to path; the text of column 0 of the last row ("" if none,
// "<error>" when the statement fails).
inline std::string rawQuery(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::string out;
    auto keep = [](void* to, int, char** values, char**) {
        *static_cast<std::string*>(to) = values[0] ? values[0] : "";
        return 0;
    };
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK || sqlite3_exec(db, sql.c_str(), keep, &out, nullptr) != SQLITE_OK)
        out = "<error>";
    sqlite3_close(db);
    return out;
}

class StoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(m_tmp.path().empty());
        testsupport::makeDirs(m_tmp / "share/Public");
        m_store = std::make_unique<CSqlitePlaylist>();
    }
    void TearDown() override { m_store.reset(); }

    std::string dbPath() const { return m_tmp / "share/.modl/.@Ostrafel/playlist.db"; }

    // A playlist of app type "music" holding c0..c<n-1> at orders 0..n-1.
    int makeList(const char* title, int n) {
        EXPECT_EQ(0, m_store->addPlaylist(title, MEDIA_AUDIO_E, "music", "admin", ""));
        for (int i = 0; i < n; ++i) add(title, "c" + std::to_string(i));
        return m_store->getPlaylistID(title, "music");
    }
    int add(const char* title, const std::string& content, int order = -1, contentType_e type = CONTENT_FILE_E) {
        return m_store->addElmInPlaylist(title, MEDIA_AUDIO_E, type, "music", content.c_str(), order);
    }

    std::vector<playlistElm_s> entries(int id) {
        std::vector<playlistElm_s> page;
        EXPECT_EQ(0, m_store->getPlaylistElmsByPage(page, id, 0, 0));
        return page;
    }
    std::vector<std::string> contents(int id) {
        std::vector<std::string> out;
        for (const auto& e : entries(id)) out.push_back(e.Content);
        return out;
    }
    // True when the playlist's OrderNr values are exactly 0..n-1 in page order.
    bool dense(int id) {
        auto page = entries(id);
        for (size_t i = 0; i < page.size(); ++i)
            if (page[i].OrderNr != static_cast<int>(i)) return false;
        return true;
    }

    testsupport::TempDir m_tmp{"velmora-store"};
    testsupport::RootGuard m_guard{m_tmp.path()};
    std::unique_ptr<CSqlitePlaylist> m_store;
};

}  // namespace playlisttest
