// Playlist entries: order numbers kept dense by insertion, deletion, moves and batch insertion,
// paging limits, and values that must reach the file exactly as given.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>

#include "unit/playlist/PlaylistTestSupport.h"

using playlisttest::StoreTest;

namespace {

using Contents = std::vector<std::string>;

TEST_F(StoreTest, InsertPlacesEntriesByRequestedOrder) {
    // The first entry starts the list whatever position was asked for.
    int first = makeList("first", 0);
    ASSERT_EQ(0, add("first", "only", 5));
    EXPECT_EQ(0, entries(first).at(0).OrderNr);

    int mid = makeList("mid", 5);
    ASSERT_EQ(0, add("mid", "new", 2));
    EXPECT_EQ(contents(mid), (Contents{"c0", "c1", "new", "c2", "c3", "c4"}));
    EXPECT_TRUE(dense(mid));

    // One past the end, -1 and anything further all append.
    int tail = makeList("tail", 5);
    for (int request : {5, -1, 9}) ASSERT_EQ(0, add("tail", "at" + std::to_string(request), request));
    EXPECT_EQ(contents(tail), (Contents{"c0", "c1", "c2", "c3", "c4", "at5", "at-1", "at9"}));
    EXPECT_TRUE(dense(tail));

    EXPECT_EQ(-12, add("missing", "x", 0));
    EXPECT_EQ(-12, m_store->addElmInPlaylist("mid", MEDIA_AUDIO_E, CONTENT_FILE_E, "video", "x", 0));
    // A refused edit leaves no transaction open behind it: the next edit reaches the file.
    ASSERT_EQ(0, add("mid", "after"));
    EXPECT_EQ("7", playlisttest::rawQuery(dbPath(), "SELECT COUNT(*) FROM Playlist_TBL WHERE PlaylistID=" +
                                                        std::to_string(mid)));
}

TEST_F(StoreTest, DeleteClosesTheGap) {
    int id = makeList("list", 5);
    int other = makeList("other", 1);
    uint64_t second = entries(id).at(1).UUID;
    ASSERT_EQ(0, m_store->delElmInPlaylist("list", "music", second));
    // An unknown uuid, or the entry of another playlist, changes nothing.
    EXPECT_EQ(0, m_store->delElmInPlaylist("list", "music", second));
    EXPECT_EQ(0, m_store->delElmInPlaylist("list", "music", entries(other).at(0).UUID));
    EXPECT_EQ(contents(id), (Contents{"c0", "c2", "c3", "c4"}));
    EXPECT_TRUE(dense(id));
    EXPECT_EQ(1, m_store->getSizeOfPlaylist(other));
    EXPECT_EQ(-12, m_store->delElmInPlaylist("missing", "music", second));
}

TEST_F(StoreTest, MoveShiftsTheEntriesBetween) {
    int id = makeList("list", 5);
    // Down, up, there and back, and from a position that holds nothing: nothing moves (a shift
    // alone would open a gap).
    for (auto [from, to, expected] : {std::tuple(1, 3, Contents{"c0", "c2", "c3", "c1", "c4"}),
                                      std::tuple(3, 1, Contents{"c0", "c1", "c2", "c3", "c4"}),
                                      std::tuple(0, 4, Contents{"c1", "c2", "c3", "c4", "c0"}),
                                      std::tuple(4, 0, Contents{"c0", "c1", "c2", "c3", "c4"}),
                                      std::tuple(7, 1, Contents{"c0", "c1", "c2", "c3", "c4"}),
                                      std::tuple(2, 2, Contents{"c0", "c1", "c2", "c3", "c4"})}) {
        EXPECT_EQ(0, m_store->reorderPlaylistElm(id, from, to));
        EXPECT_EQ(contents(id), expected) << from << " -> " << to;
        EXPECT_TRUE(dense(id));
    }
}

TEST_F(StoreTest, EntryPagingAndSingleReads) {
    int id = makeList("list", 4);
    std::vector<playlistElm_s> page;
    EXPECT_EQ(0, m_store->getPlaylistElmsByPage(page, id, 1, 2));
    ASSERT_EQ(2u, page.size());
    EXPECT_EQ("c1", page[0].Content);
    EXPECT_EQ(id, page[0].PlaylistID);
    EXPECT_EQ(0, m_store->getPlaylistElmsByPage(page, id, 3, 10));  // appends
    EXPECT_EQ(3u, page.size());
    EXPECT_EQ(-12, m_store->getPlaylistElmsByPage(page, id, 4, 1));
    int empty = makeList("empty", 0);
    page.clear();
    EXPECT_EQ(0, m_store->getPlaylistElmsByPage(page, empty, 3, 1));
    EXPECT_TRUE(page.empty());

    playlistElm_t elm;
    EXPECT_EQ(0, m_store->getPlaylistElmByIndex(elm, id, 3));
    EXPECT_EQ("c3", elm.Content);
    EXPECT_EQ(-12, m_store->getPlaylistElmByIndex(elm, id, 4));
    EXPECT_EQ(0, elm.PlaylistID);
    EXPECT_EQ(0, m_store->getPlaylistElmByOrder(elm, id, 2));
    EXPECT_EQ("c2", elm.Content);
    EXPECT_EQ(-1, m_store->getPlaylistElmByOrder(elm, id, 9));
}

TEST_F(StoreTest, ObjectIdIsKeptOnlyForObjectsAddedSingly) {
    int id = makeList("list", 0);
    const std::string longId(300, 'o');
    const std::string multibyte = std::string(254, 'm') + "\xC3\xA9";  // a 2-byte letter across byte 255
    for (const std::string& object : {std::string("obj:1"), std::string(), longId, multibyte})
        ASSERT_EQ(0, add("list", object, -1, CONTENT_OBJECT_E));
    ASSERT_EQ(0, add("list", "/a.mp3"));
    ASSERT_EQ(0, m_store->transBegin());
    ASSERT_EQ(0, m_store->transAddElmInPlaylist(id, MEDIA_AUDIO_E, CONTENT_OBJECT_E, "obj:2", 5));
    ASSERT_EQ(0, m_store->transEnd());

    std::vector<std::string> ids;
    for (const auto& e : entries(id)) ids.push_back(e.UPnPObjID);
    EXPECT_EQ(ids, (Contents{"obj:1", "N/A", longId.substr(0, 255), std::string(254, 'm'), "N/A", "N/A"}));
    EXPECT_EQ(longId, entries(id).at(2).Content);
}

TEST_F(StoreTest, BatchInsertionAtAPosition) {
    int id = makeList("list", 5);
    // Room for three at 2, then the batch fills it.
    ASSERT_EQ(0, m_store->adjustPlayOrder(id, 2, 3));
    ASSERT_EQ(0, m_store->transBegin());
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(0, m_store->transAddElmInPlaylist(id, MEDIA_PHOTO_E, CONTENT_DBID_E,
                                                    ("b" + std::to_string(i)).c_str(), 2 + i));
    ASSERT_EQ(0, m_store->transEnd());
    EXPECT_EQ(contents(id), (Contents{"c0", "c1", "b0", "b1", "b2", "c2", "c3", "c4"}));
    EXPECT_TRUE(dense(id));

    // At the end is allowed and moves nothing; beyond it is refused.
    EXPECT_EQ(0, m_store->adjustPlayOrder(id, 8, 1));
    EXPECT_EQ(-1, m_store->adjustPlayOrder(id, 9, 1));
    EXPECT_TRUE(dense(id));
}

TEST_F(StoreTest, ABatchLeftUnfinishedLeavesNoTrace) {
    {
        PlaylistBatch batch(*m_store);
        ASSERT_EQ(0, m_store->transAddPlaylist("fresh", MEDIA_AUDIO_E, "music", "o", "t"));
        const int id = m_store->transPlaylistID("fresh", "music");
        ASSERT_GE(id, 1);
        ASSERT_EQ(0, m_store->transAddElmInPlaylist(id, MEDIA_AUDIO_E, CONTENT_FILE_E, "/a.mp3", 0));
        EXPECT_EQ(1, m_store->transSizeOfPlaylist(id));
    }  // no end(): rolled back
    EXPECT_EQ(-1, m_store->getPlaylistID("fresh", "music"));
    {
        PlaylistBatch batch(*m_store);
        ASSERT_EQ(0, m_store->transAddPlaylist("fresh", MEDIA_AUDIO_E, "music", "o", "t"));
        EXPECT_EQ(0, batch.end());
    }
    EXPECT_GE(m_store->getPlaylistID("fresh", "music"), 1);
}

TEST_F(StoreTest, BatchHoldsOtherThreadsOffUntilCommitted) {
    int id = makeList("list", 1);
    ASSERT_EQ(0, m_store->transBegin());
    std::atomic<int> seen{-100};
    std::thread reader([&] { seen = m_store->getSizeOfPlaylist(id); });
    ASSERT_EQ(0, m_store->transAddElmInPlaylist(id, MEDIA_AUDIO_E, CONTENT_FILE_E, "b", 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(-100, seen.load());  // still waiting for the lock
    ASSERT_EQ(0, m_store->transEnd());
    reader.join();
    EXPECT_EQ(2, seen.load());
}

TEST_F(StoreTest, ConcurrentEditsKeepOrdersDense) {
    int id = makeList("shared", 0);
    constexpr int kThreads = 4;
    constexpr int kPerThread = 40;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                int where = (i % 3 == 0) ? -1 : (i % 3 == 1 ? 0 : i / 2);
                failures += add("shared", "t" + std::to_string(t) + "-" + std::to_string(i), where) != 0;
                std::vector<playlistElm_s> page;
                if (m_store->getPlaylistElmsByPage(page, id, 0, 10) != 0 || page.empty()) ++failures;
                if (i % 5 == 4 && m_store->reorderPlaylistElm(id, 0, static_cast<int>(page.size()) - 1) != 0)
                    ++failures;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(kThreads * kPerThread, m_store->getSizeOfPlaylist(id));
    EXPECT_TRUE(dense(id));
    auto all = contents(id);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all.end(), std::adjacent_find(all.begin(), all.end()));
}

}  // namespace
