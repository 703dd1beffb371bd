// Playlists as front ends use them, through the socket of the real daemon.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "integration/DaemonFixture.h"

using namespace itest;
using namespace std::chrono_literals;

namespace {

// A title and contents that break naive quoting in SQL, shells and XML.
const std::string kHostileTitle = "Rock'n'Roll & <Blues> \"live\" $(touch /tmp/pwned) `id` ; ünïcødé";
const std::string kHostileContent = "/share/Public/Music/it's \"a\" <test> & $(rm -rf x).mp3";

class PlaylistTest : public ::testing::Test {
protected:
    void SetUp() override { start(); }
    void TearDown() override {
        if (daemon) {
            EXPECT_EQ(daemon->stop(), 0) << daemon->log();
        }
    }
    void start() {
        daemon = std::make_unique<Daemon>(root.path());
        ASSERT_TRUE(daemon->waitReady()) << daemon->log();
    }
    void restart() {
        ASSERT_EQ(daemon->stop(), 0) << daemon->log();
        start();
    }

    vclient::Answer req(const std::string& command, const vclient::Params& params = {}) {
        return daemon->request(command, params);
    }
    int code(const std::string& command, const vclient::Params& params = {}) { return req(command, params).code; }

    void createPlaylist(const std::string& title, const std::string& app = "music") {
        ASSERT_EQ(code("CreatePlaylist", {{"playlist", title}, {"playlistType", "audio"}, {"appType", app}}), 0);
    }
    void addContent(const std::string& title, const std::string& content, const std::string& order = "",
                    const std::string& contentType = "file", const std::string& media = "audio") {
        vclient::Params p{{"playlist", title}, {"contentType", contentType}, {"mediaType", media},
                          {"content", content}, {"appType", "music"}};
        if (!order.empty()) p.emplace_back("orderNum", order);
        ASSERT_EQ(code("AddContent", p), 0) << content;
    }
    // The contents of a playlist in order.
    std::vector<std::string> contents(const std::string& title, const std::string& app = "music") {
        vclient::Answer a = req("ListContentOfPlaylist", {{"playlist", title}, {"appType", app}});
        std::vector<std::string> out;
        for (int i = 0; i < a.doc.nChildNode("item"); ++i) {
            XMLNode item = a.doc.getChildNode("item", i);
            EXPECT_EQ(std::stoi(item.getChildNode("orderNum").getText()), i);
            out.push_back(item.getChildNode("content").getText());
        }
        return out;
    }
    std::string uuidAt(const std::string& title, int index) {
        vclient::Answer a = req("ListContentOfPlaylist", {{"playlist", title}, {"appType", "music"}});
        return a.doc.getChildNode("item", index).getChildNode("uuid").getText();
    }
    std::string writeFile(const std::string& name, const std::string& text) {
        std::string path = root.path() + "/tmp/" + name;
        std::ofstream(path) << text;
        return path;
    }
    std::string dbPath() const { return root.path() + "/share/.modl/.@Ostrafel/playlist.db"; }

    SimRoot root;
    std::unique_ptr<Daemon> daemon;
};

TEST_F(PlaylistTest, CreateListAndCountPlaylists) {
    vclient::Answer created = req("CreatePlaylist", {{"playlist", "Party"}, {"playlistType", "video"},
                                                     {"appType", "music"}, {"owner", "alice"}});
    ASSERT_EQ(created.code, 0);
    EXPECT_STREQ(created.doc.getChildNode("type").getText(), "video");
    EXPECT_EQ(created.doc.getChildNode("tag").getText(), nullptr);  // empty: no text
    EXPECT_GE(std::stoi(created.doc.getChildNode("playlistID").getText()), 1);

    // The same title again in the same application is refused; another application may have it.
    EXPECT_EQ(code("CreatePlaylist", {{"playlist", "Party"}, {"playlistType", "audio"}, {"appType", "music"}}), -12);
    createPlaylist("Party", "photos");
    createPlaylist("Quiet");
    createPlaylist("Odd type");

    EXPECT_STREQ(req("SizeOfPlaylist", {{"appType", "music"}}).doc.getChildNode("size").getText(), "3");
    EXPECT_STREQ(req("SizeOfPlaylist", {{"appType", "ALL"}}).doc.getChildNode("size").getText(), "4");

    vclient::Answer page = req("ListPlaylist", {{"appType", "music"}, {"start", "1"}, {"count", "1"}});
    ASSERT_EQ(page.doc.nChildNode("playlist"), 1);
    EXPECT_STREQ(page.doc.getChildNode("playlist").getChildNode("title").getText(), "Quiet");
    // start without count lists everything.
    EXPECT_EQ(req("ListPlaylist", {{"appType", "music"}, {"start", "2"}}).doc.nChildNode("playlist"), 3);
    EXPECT_EQ(req("ListPlaylist", {{"appType", "ALL"}}).doc.nChildNode("playlist"), 4);

    EXPECT_EQ(code("CreatePlaylist", {{"playlist", "x"}, {"appType", "music"}}), -3);
    EXPECT_EQ(code("ListPlaylist"), -3);
}

TEST_F(PlaylistTest, EntriesKeepTheirOrderThroughEdits) {
    createPlaylist("Mix");
    addContent("Mix", "a");
    addContent("Mix", "c");
    addContent("Mix", "b", "1");   // inserted in the middle
    addContent("Mix", "z", "99");  // beyond the end: appended
    addContent("Mix", "obj-7", "", "object");
    EXPECT_EQ(contents("Mix"), (std::vector<std::string>{"a", "b", "c", "z", "obj-7"}));

    vclient::Answer list = req("ListContentOfPlaylist", {{"playlist", "Mix"}, {"appType", "music"}});
    EXPECT_STREQ(list.doc.getChildNode("item", 4).getChildNode("upnpID").getText(), "obj-7");
    EXPECT_STREQ(list.doc.getChildNode("item", 0).getChildNode("upnpID").getText(), "N/A");

    ASSERT_EQ(code("ReOrderContent", {{"playlist", "Mix"}, {"origOrder", "4"}, {"newOrder", "0"}, {"appType", "music"}}), 0);
    EXPECT_EQ(contents("Mix"), (std::vector<std::string>{"obj-7", "a", "b", "c", "z"}));

    ASSERT_EQ(code("DelContent", {{"playlist", "Mix"}, {"uuid", uuidAt("Mix", 2)}, {"appType", "music"}}), 0);
    EXPECT_EQ(contents("Mix"), (std::vector<std::string>{"obj-7", "a", "c", "z"}));
    EXPECT_STREQ(req("SizeOfListContent", {{"playlist", "Mix"}, {"appType", "music"}}).doc.getChildNode("size").getText(), "4");

    vclient::Answer page = req("ListContentOfPlaylist", {{"playlist", "Mix"}, {"appType", "music"}, {"start", "1"}, {"count", "2"}});
    ASSERT_EQ(page.doc.nChildNode("item"), 2);
    EXPECT_STREQ(page.doc.getChildNode("item", 0).getChildNode("content").getText(), "a");
    EXPECT_EQ(code("ListContentOfPlaylist", {{"playlist", "Mix"}, {"appType", "music"}, {"start", "4"}, {"count", "1"}}), -11);

    ASSERT_EQ(code("DelPlaylist", {{"playlist", "Mix"}, {"appType", "music"}}), 0);
    EXPECT_EQ(code("ListContentOfPlaylist", {{"playlist", "Mix"}, {"appType", "music"}}), -10);
}

TEST_F(PlaylistTest, FailuresAnswerTheirCodes) {
    EXPECT_EQ(code("SizeOfListContent", {{"appType", "music"}}), -10);
    EXPECT_EQ(code("SizeOfListContent", {{"playlist", "none"}, {"appType", "music"}}), -14);
    EXPECT_EQ(code("ReOrderContent", {{"playlist", "none"}, {"origOrder", "0"}, {"newOrder", "1"}, {"appType", "music"}}), -14);
    EXPECT_EQ(code("AddContent", {{"playlist", "none"}, {"contentType", "file"}, {"mediaType", "audio"},
                                  {"content", "x"}, {"appType", "music"}}), -12);
    EXPECT_EQ(code("DelContent", {{"playlist", "none"}, {"uuid", "1"}, {"appType", "music"}}), -12);
    EXPECT_EQ(code("AddContent", {{"playlist", "x"}}), -3);
    EXPECT_EQ(code("DupPlaylist", {{"playlist_src", "none"}, {"playlist_dest", "y"}, {"appType", "music"}}), -10);
    // Deleting a playlist that does not exist succeeds.
    EXPECT_EQ(code("DelPlaylist", {{"playlist", "none"}, {"appType", "music"}}), 0);
}

TEST_F(PlaylistTest, HostileTextsAreStoredIntactAndSurviveARestart) {
    createPlaylist(kHostileTitle);
    addContent(kHostileTitle, kHostileContent);
    addContent(kHostileTitle, "plain.mp3");
    EXPECT_EQ(contents(kHostileTitle), (std::vector<std::string>{kHostileContent, "plain.mp3"}));
    EXPECT_NE(::access("/tmp/pwned", F_OK), 0);

    restart();
    EXPECT_EQ(contents(kHostileTitle), (std::vector<std::string>{kHostileContent, "plain.mp3"}));
    vclient::Answer list = req("ListPlaylist", {{"appType", "music"}});
    EXPECT_EQ(list.doc.getChildNode("playlist").getChildNode("title").getText(), kHostileTitle);
}

TEST_F(PlaylistTest, BatchAddCreatesFillsAndInsertsAtAPosition) {
    std::string file = writeFile("batch.xml",
        "<root><playlist playlistType=\"photo\">Album</playlist><appType>music</appType><owner>bob</owner>"
        "<item mediaType=\"photo\" contentType=\"file\">p1.jpg</item>"
        "<item mediaType=\"photo\" contentType=\"file\">p2 &amp; &lt;x&gt;.jpg</item>"
        "<item>bare</item></root>");
    ASSERT_EQ(code("BatchAddPlaylist", {{"filePath", file}}), 0);
    EXPECT_NE(::access(file.c_str(), F_OK), 0) << "the batch file is removed";
    EXPECT_EQ(contents("Album"), (std::vector<std::string>{"p1.jpg", "p2 & <x>.jpg", "bare"}));
    vclient::Answer list = req("ListContentOfPlaylist", {{"playlist", "Album"}, {"appType", "music"}});
    EXPECT_STREQ(list.doc.getChildNode("item", 2).getChildNode("mediaType").getText(), "UNKNOW");
    EXPECT_STREQ(list.doc.getChildNode("item", 2).getChildNode("contentType").getText(), "UNKNOW");
    vclient::Answer lib = req("ListPlaylist", {{"appType", "music"}});
    EXPECT_STREQ(lib.doc.getChildNode("playlist").getChildNode("type").getText(), "photo");
    EXPECT_STREQ(lib.doc.getChildNode("playlist").getChildNode("owner").getText(), "bob");

    file = writeFile("batch2.xml", "<root><playlist>Album</playlist><appType>music</appType>"
                                   "<item>n1</item><item>n2</item></root>");
    ASSERT_EQ(code("BatchAddPlaylist", {{"filePath", file}, {"start", "1"}}), 0);
    EXPECT_EQ(contents("Album"), (std::vector<std::string>{"p1.jpg", "n1", "n2", "p2 & <x>.jpg", "bare"}));
    file = writeFile("batch3.xml", "<root><playlist>Album</playlist><appType>music</appType><item>end</item></root>");
    ASSERT_EQ(code("BatchAddPlaylist", {{"filePath", file}, {"start", "5"}}), 0);  // at the end: appended
    EXPECT_EQ(contents("Album").back(), "end");

    EXPECT_EQ(code("BatchAddPlaylist", {{"filePath", root.path() + "/tmp/missing.xml"}}), -15);
    std::string bad = writeFile("bad.xml", "<root><playlist>x</root>");
    EXPECT_EQ(code("BatchAddPlaylist", {{"filePath", bad}}), -16);
    std::string untitled = writeFile("untitled.xml", "<root><appType>music</appType><item>x</item></root>");
    EXPECT_EQ(code("BatchAddPlaylist", {{"filePath", untitled}}), -12);
    EXPECT_EQ(::access(untitled.c_str(), F_OK), 0) << "a refused file is left in place";
}

TEST_F(PlaylistTest, BatchDeleteRemovesListedEntries) {
    createPlaylist("L");
    for (const char* c : {"a", "b", "c", "d"}) addContent("L", c);
    std::string file = writeFile("del.xml", "<root><playlist>L</playlist><appType>music</appType><uuid>" +
                                                uuidAt("L", 1) + "</uuid><uuid>" + uuidAt("L", 3) + "</uuid></root>");
    ASSERT_EQ(code("BatchDelPlaylist", {{"filePath", file}}), 0);
    EXPECT_EQ(contents("L"), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(::access(file.c_str(), F_OK), 0);  // kept

    std::string none = writeFile("del2.xml", "<root><playlist>nope</playlist><appType>music</appType></root>");
    EXPECT_EQ(code("BatchDelPlaylist", {{"filePath", none}}), -14);
    std::string untitled = writeFile("del3.xml", "<root><appType>music</appType></root>");
    EXPECT_EQ(code("BatchDelPlaylist", {{"filePath", untitled}}), -16);
}

TEST_F(PlaylistTest, DuplicateKeepsSpecialCharactersAndMarksVideosUnknown) {
    createPlaylist("Src");
    addContent("Src", kHostileContent);
    addContent("Src", "clip.mp4", "", "file", "video");
    addContent("Src", "obj-1", "", "object", "photo");
    ASSERT_EQ(code("DupPlaylist", {{"playlist_src", "Src"}, {"playlist_dest", "Copy & <more>"}, {"appType", "music"}}), 0);
    EXPECT_EQ(contents("Copy & <more>"), (std::vector<std::string>{kHostileContent, "clip.mp4", "obj-1"}));
    vclient::Answer list = req("ListContentOfPlaylist", {{"playlist", "Copy & <more>"}, {"appType", "music"}});
    EXPECT_STREQ(list.doc.getChildNode("item", 1).getChildNode("mediaType").getText(), "UNKNOW");
    EXPECT_STREQ(list.doc.getChildNode("item", 2).getChildNode("contentType").getText(), "object");

    // Duplicating again replaces the earlier copy instead of appending to it.
    ASSERT_EQ(code("DupPlaylist", {{"playlist_src", "Src"}, {"playlist_dest", "Copy & <more>"}, {"appType", "music"}}), 0);
    EXPECT_EQ(contents("Copy & <more>").size(), 3u);

    // Into another application.
    ASSERT_EQ(code("DupPlaylist", {{"playlist_src", "Src"}, {"playlist_dest", "Theirs"}, {"appType", "music"},
                                   {"destAppType", "video"}}), 0);
    EXPECT_EQ(contents("Theirs", "video").size(), 3u);

    // An empty source answers 0 and makes nothing.
    createPlaylist("Empty");
    EXPECT_EQ(code("DupPlaylist", {{"playlist_src", "Empty"}, {"playlist_dest", "E2"}, {"appType", "music"}}), 0);
    EXPECT_EQ(code("SizeOfListContent", {{"playlist", "E2"}, {"appType", "music"}}), -14);
    EXPECT_NE(::access((root.path() + "/tmp/.dupPlaylist.list").c_str(), F_OK), 0);
}

TEST_F(PlaylistTest, UpnpObjectIdComesFromTheMediaAgent) {
    vclient::Answer a = req("GetUpnpObjectID", {{"filePath", root.path() + "/share/Public/Music/02 Rain & Thunder.mp3"}});
    ASSERT_EQ(a.code, 0);
    EXPECT_STREQ(a.doc.getChildNode("objectID").getText(), "mu_102");

    // A file the media library does not know, a missing file (the agent is not asked), no path.
    EXPECT_EQ(code("GetUpnpObjectID", {{"filePath", writeFile("stranger.mp3", "x")}}), -13);
    EXPECT_EQ(code("GetUpnpObjectID", {{"filePath", root.path() + "/share/Public/none.mp3"}}), -13);
    std::ifstream in(root.path() + "/var/sim/calls.log");
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), {}).find("none.mp3"), std::string::npos);
    EXPECT_EQ(code("GetUpnpObjectID"), -3);
}

// A batch interrupted by SIGKILL leaves all or nothing of itself, and everything else intact.
TEST_F(PlaylistTest, KilledDuringABatchKeepsAllOrNothing) {
    createPlaylist("Keep");
    for (const char* c : {"k1", "k2", "k3"}) addContent("Keep", c);

    std::string items;
    for (int i = 0; i < 20000; ++i) items += "<item mediaType=\"audio\" contentType=\"file\">/m/" + std::to_string(i) + ".mp3</item>";
    const std::string batch = "<root><playlist>Big</playlist><appType>music</appType>" + items + "</root>";

    for (int delayMs : {0, 10, 25, 60}) {
        std::string file = writeFile("big.xml", batch);
        size_t logged = daemon->log().size();
        std::thread sender([&] { daemon->request("BatchAddPlaylist", {{"filePath", file}}); });
        ASSERT_TRUE(daemon->waitForLog("Command:BatchAddPlaylist", 5000, logged));
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        ::kill(daemon->pid(), SIGKILL);
        sender.join();
        daemon->stop();
        start();

        vclient::Answer size = req("SizeOfListContent", {{"playlist", "Big"}, {"appType", "music"}});
        int n = size.code == 0 ? std::stoi(size.doc.getChildNode("size").getText()) : 0;
        EXPECT_TRUE(n % 20000 == 0) << "partial batch of " << n << " after " << delayMs << " ms";
        EXPECT_EQ(contents("Keep"), (std::vector<std::string>{"k1", "k2", "k3"}));
    }
    ASSERT_EQ(daemon->stop(), 0);
    daemon.reset();

    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(dbPath().c_str(), &db), SQLITE_OK);
    sqlite3_stmt* st = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &st, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(st), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)), "ok");
    sqlite3_finalize(st);
    sqlite3_close(db);
}

}  // namespace
