// Players follow the edits of the playlist they play.
#include <fstream>

#include "unit/command/CommandTestSupport.h"

namespace {

class PlaylistFollowTest : public CommandTest {
protected:
    void SetUp() override {
        CommandTest::SetUp();
        makePlaylist("Mix", {file("a"), file("b"), file("c"), file("d")});
        tv = playerOn("uuid:tv", "Mix");
    }

    std::vector<playlistElm_s> entries() {
        std::vector<playlistElm_s> out;
        playlistStore().getPlaylistElmsByPage(out, static_cast<int>(tv->getPlaylistID()), 0, 0);
        return out;
    }
    // The queue as the contents it plays, in queue order.
    std::vector<std::string> queue() {
        std::vector<std::string> out;
        for (const playQueueItem_s& item : tv->getPlayQueue())
            for (const playlistElm_s& e : entries())
                if (static_cast<int64_t>(e.UUID) == item.uuid) out.push_back(e.Content);
        return out;
    }
    std::string uuidOf(int index) { return std::to_string(entries().at(static_cast<size_t>(index)).UUID); }
    std::string current() { return queue().at(tv->getCurrTrackIndex()); }

    FakePlayer* tv = nullptr;
};

TEST_F(PlaylistFollowTest, AddedEntriesJoinTheQueueWhereTheyWereInserted) {
    ASSERT_EQ(run("AddContent", {{"playlist", "Mix"}, {"contentType", "file"}, {"mediaType", "audio"},
                                 {"content", "e"}, {"appType", "music"}}), 0);
    ASSERT_EQ(run("AddContent", {{"playlist", "Mix"}, {"contentType", "file"}, {"mediaType", "audio"},
                                 {"content", "x"}, {"appType", "music"}, {"orderNum", "1"}}), 0);
    EXPECT_EQ(queue(), (std::vector<std::string>{"a", "x", "b", "c", "d", "e"}));

    std::string file = at("tmp/follow.xml");
    std::ofstream(file) << "<root><playlist>Mix</playlist><appType>music</appType><item>y</item><item>z</item></root>";
    ASSERT_EQ(run("BatchAddPlaylist", {{"filePath", file}}), 0);
    EXPECT_EQ(queue(), (std::vector<std::string>{"a", "x", "b", "c", "d", "e", "y", "z"}));
}

TEST_F(PlaylistFollowTest, ReorderKeepsThePlayingTrackCurrent) {
    ASSERT_EQ(tv->setCurrTrack(2), 0);  // "c"
    ASSERT_EQ(run("ReOrderContent", {{"playlist", "Mix"}, {"origOrder", "0"}, {"newOrder", "3"}, {"appType", "music"}}), 0);
    EXPECT_EQ(queue(), (std::vector<std::string>{"b", "c", "d", "a"}));
    EXPECT_EQ(current(), "c");
    ASSERT_EQ(run("ReOrderContent", {{"playlist", "Mix"}, {"origOrder", "1"}, {"newOrder", "0"}, {"appType", "music"}}), 0);
    EXPECT_EQ(queue(), (std::vector<std::string>{"c", "b", "d", "a"}));
    EXPECT_EQ(current(), "c");
}

TEST_F(PlaylistFollowTest, DeletedEntriesLeaveTheQueue) {
    ASSERT_EQ(tv->setCurrTrack(2), 0);  // "c"
    ASSERT_EQ(run("DelContent", {{"playlist", "Mix"}, {"uuid", uuidOf(0)}, {"appType", "music"}}), 0);
    EXPECT_EQ(queue(), (std::vector<std::string>{"b", "c", "d"}));
    EXPECT_EQ(current(), "c");

    // Entries removed by a batch: the queue is read again.
    std::string file = at("tmp/del.xml");
    std::ofstream(file) << "<root><playlist>Mix</playlist><appType>music</appType><uuid>" << uuidOf(2) << "</uuid></root>";
    ASSERT_EQ(run("BatchDelPlaylist", {{"filePath", file}}), 0);
    ASSERT_EQ(run("AddContent", {{"playlist", "Mix"}, {"contentType", "file"}, {"mediaType", "audio"},
                                 {"content", "n"}, {"appType", "music"}}), 0);
    std::ofstream(file) << "<root><playlist>Mix</playlist><appType>music</appType></root>";
    ASSERT_EQ(run("BatchAddPlaylist", {{"filePath", file}}), 0);  // nothing added: a plain refresh
    EXPECT_EQ(queue(), (std::vector<std::string>{"b", "c", "n"}));

    ASSERT_EQ(run("DelPlaylist", {{"playlist", "Mix"}, {"appType", "music"}}), 0);
    EXPECT_EQ(tv->getPlaylistSize(), 0u);
    EXPECT_EQ(tv->getPlaylistID(), -1);
    EXPECT_EQ(tv->getPlaylistTitle(), nullptr);
}

}  // namespace
