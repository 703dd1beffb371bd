// Playlists as front ends use them, through the socket of the real daemon.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "integration/DaemonFixture.h"
#include "unit/playlist/PlaylistTestSupport.h"
#include "unit/support/Files.h"

using namespace itest;
using Strings = std::vector<std::string>;

namespace {

// A title and contents that break naive quoting in SQL, shells and XML.
const std::string kHostileTitle = "Rock'n'Roll & <Blues> \"live\" $(touch /tmp/pwned) `id` ; ünïcødé";
const std::string kHostileContent = "/share/Public/Music/it's \"a\" <test> & $(rm -rf x).mp3";

class PlaylistTest : public DaemonTestBase {
protected:
    vclient::Answer req(const std::string& command, const vclient::Params& params = {}) {
        return daemon->request(command, params);
    }
    int code(const std::string& command, const vclient::Params& params = {}) { return req(command, params).code; }
    // Text of <name> in the index-th <element> of an answer ("" when absent).
    static std::string text(const vclient::Answer& a, const char* element, int index, const char* name) {
        const char* t = a.doc.getChildNode(element, index).getChildNode(name).getText();
        return t ? t : "";
    }
    vclient::Answer list(const std::string& title, const std::string& app = "music") {
        return req("ListContentOfPlaylist", {{"playlist", title}, {"appType", app}});
    }

    // The contents of a playlist in order, their order numbers checked on the way.
    Strings contents(const std::string& title, const std::string& app = "music") {
        vclient::Answer a = list(title, app);
        Strings out;
        for (int i = 0; i < a.doc.nChildNode("item"); ++i) {
            EXPECT_EQ(text(a, "item", i, "orderNum"), std::to_string(i));
            out.push_back(text(a, "item", i, "content"));
        }
        return out;
    }
    std::string writeFile(const std::string& name, const std::string& body) {
        testsupport::writeFile(root.path() + "/tmp/" + name, body);
        return root.path() + "/tmp/" + name;
    }

};

TEST_F(PlaylistTest, PlaylistsAndEntriesAreListedAndFailuresAnswerTheirCodes) {
    vclient::Answer created = req("CreatePlaylist", {{"playlist", "Party"}, {"playlistType", "video"},
                                                     {"appType", "music"}, {"owner", "alice"}});
    ASSERT_EQ(created.code, 0);
    EXPECT_STREQ(created.doc.getChildNode("type").getText(), "video");
    EXPECT_EQ(created.doc.getChildNode("tag").getText(), nullptr);  // empty: no text
    EXPECT_GE(std::stoi(created.doc.getChildNode("playlistID").getText()), 1);
    // The same title again in the same application is refused; another application may have it.
    EXPECT_EQ(code("CreatePlaylist", {{"playlist", "Party"}, {"playlistType", "audio"}, {"appType", "music"}}), -12);
    EXPECT_EQ(code("CreatePlaylist", {{"playlist", "Party"}, {"playlistType", "audio"}, {"appType", "photos"}}), 0);
    ASSERT_TRUE(daemon->makePlaylist("Mix", "music", "audio", {"obj-7", "a", "c"}, "file"));
    EXPECT_EQ(daemon->field("SizeOfPlaylist", {{"appType", "music"}}, "size"), "2");
    EXPECT_EQ(daemon->field("SizeOfPlaylist", {{"appType", "ALL"}}, "size"), "3");
    vclient::Answer page = req("ListPlaylist", {{"appType", "music"}, {"start", "1"}, {"count", "1"}});
    ASSERT_EQ(page.doc.nChildNode("playlist"), 1);
    EXPECT_EQ(text(page, "playlist", 0, "title"), "Mix");
    // start without count lists everything.
    EXPECT_EQ(req("ListPlaylist", {{"appType", "music"}, {"start", "1"}}).doc.nChildNode("playlist"), 2);

    EXPECT_EQ(daemon->field("SizeOfListContent", {{"playlist", "Mix"}, {"appType", "music"}}, "size"), "3");
    page = req("ListContentOfPlaylist", {{"playlist", "Mix"}, {"appType", "music"}, {"start", "1"}, {"count", "2"}});
    ASSERT_EQ(page.doc.nChildNode("item"), 2);
    EXPECT_EQ(text(page, "item", 0, "content"), "a");
    EXPECT_EQ(text(page, "item", 0, "upnpID"), "N/A");
    EXPECT_EQ(code("ListContentOfPlaylist", {{"playlist", "Mix"}, {"appType", "music"}, {"start", "3"}, {"count", "1"}}), -11);
    ASSERT_EQ(code("DelPlaylist", {{"playlist", "Mix"}, {"appType", "music"}}), 0);
    EXPECT_EQ(list("Mix").code, -10);

    EXPECT_EQ(code("CreatePlaylist", {{"playlist", "x"}, {"appType", "music"}}), -3);
    EXPECT_EQ(code("ListPlaylist"), -3);
    EXPECT_EQ(code("SizeOfListContent", {{"appType", "music"}}), -10);
    EXPECT_EQ(code("SizeOfListContent", {{"playlist", "none"}, {"appType", "music"}}), -14);
    EXPECT_EQ(code("ReOrderContent", {{"playlist", "none"}, {"origOrder", "0"}, {"newOrder", "1"}, {"appType", "music"}}), -14);
    EXPECT_EQ(code("DelContent", {{"playlist", "none"}, {"uuid", "1"}, {"appType", "music"}}), -12);
    EXPECT_EQ(code("AddContent", {{"playlist", "x"}}), -3);
    EXPECT_EQ(code("DupPlaylist", {{"playlist_src", "none"}, {"playlist_dest", "y"}, {"appType", "music"}}), -10);
    EXPECT_EQ(code("DelPlaylist", {{"playlist", "none"}, {"appType", "music"}}), 0);  // nothing to delete is fine
}

TEST_F(PlaylistTest, BatchFilesAddAtAPositionAndDeleteAndAnswerTheirCodes) {
    std::string file = writeFile("batch.xml",
        "<root><playlist playlistType=\"photo\">Album</playlist><appType>music</appType><owner>bob</owner>"
        "<item mediaType=\"photo\" contentType=\"file\">p1.jpg</item>"
        "<item mediaType=\"photo\" contentType=\"file\">p2 &amp; &lt;x&gt;.jpg</item>"
        "<item>bare</item></root>");
    ASSERT_EQ(code("BatchAddPlaylist", {{"filePath", file}}), 0);
    EXPECT_NE(::access(file.c_str(), F_OK), 0) << "the batch file is removed";
    EXPECT_EQ(contents("Album"), (Strings{"p1.jpg", "p2 & <x>.jpg", "bare"}));
    EXPECT_EQ(text(list("Album"), "item", 2, "mediaType"), "UNKNOW");
    EXPECT_EQ(text(list("Album"), "item", 2, "contentType"), "UNKNOW");
    vclient::Answer lib = req("ListPlaylist", {{"appType", "music"}});
    EXPECT_EQ(text(lib, "playlist", 0, "type"), "photo");
    EXPECT_EQ(text(lib, "playlist", 0, "owner"), "bob");

    file = writeFile("batch2.xml", "<root><playlist>Album</playlist><appType>music</appType>"
                                   "<item>n1</item><item>n2</item></root>");
    ASSERT_EQ(code("BatchAddPlaylist", {{"filePath", file}, {"start", "1"}}), 0);
    EXPECT_EQ(contents("Album"), (Strings{"p1.jpg", "n1", "n2", "p2 & <x>.jpg", "bare"}));

    // A batch delete removes the listed entries and leaves its file.
    file = writeFile("del.xml", "<root><playlist>Album</playlist><appType>music</appType><uuid>" +
                                    text(list("Album"), "item", 1, "uuid") + "</uuid><uuid>" +
                                    text(list("Album"), "item", 3, "uuid") + "</uuid></root>");
    ASSERT_EQ(code("BatchDelPlaylist", {{"filePath", file}}), 0);
    EXPECT_EQ(contents("Album"), (Strings{"p1.jpg", "n2", "bare"}));
    EXPECT_EQ(::access(file.c_str(), F_OK), 0);
    file = writeFile("del2.xml", "<root><playlist>nope</playlist><appType>music</appType></root>");
    EXPECT_EQ(code("BatchDelPlaylist", {{"filePath", file}}), -14);
    EXPECT_EQ(code("BatchDelPlaylist", {{"filePath", writeFile("del3.xml", "<root><appType>music</appType></root>")}}), -16);

    EXPECT_EQ(code("BatchAddPlaylist", {{"filePath", root.path() + "/tmp/missing.xml"}}), -15);
    EXPECT_EQ(code("BatchAddPlaylist", {{"filePath", writeFile("bad.xml", "<root><playlist>x</root>")}}), -16);
    file = writeFile("untitled.xml", "<root><appType>music</appType><item>x</item></root>");
    EXPECT_EQ(code("BatchAddPlaylist", {{"filePath", file}}), -12);
    EXPECT_EQ(::access(file.c_str(), F_OK), 0) << "a refused file is left in place";
}

TEST_F(PlaylistTest, ABatchFileTheClientCannotReadAnswersAsAMissingOne) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a client as another user";
    // The unprivileged client reaches the socket, and has a directory of its own.
    ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
    const std::string home = root.path() + "/home-nobody";
    ASSERT_EQ(::mkdir(home.c_str(), 0755), 0);
    ASSERT_EQ(::chown(home.c_str(), 65534, 65534), 0);
    const std::string batch = "<root><playlist>Mine</playlist><appType>music</appType><item>a.mp3</item></root>";
    ASSERT_TRUE(testsupport::writeFile(home + "/secret.xml", batch, 0600));  // root's own
    ASSERT_TRUE(testsupport::writeFile(home + "/bad.xml", "<root>", 0600));
    ASSERT_TRUE(testsupport::writeFile(home + "/mine.xml", batch, 0644));

    // velmoractl run as an unprivileged user.
    auto batchAdd = [&](const std::string& file) {
        ProcessOptions opts;
        opts.capture = ProcessOptions::Capture::Both;
        return runProcess({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", VELMORACTL_BIN,
                           "--root", root.path(), "BatchAddPlaylist", "filePath=" + file}, opts);
    };
    // A well-formed file and a malformed one answer alike: nothing is learnt about either.
    for (const char* name : {"/secret.xml", "/bad.xml", "/missing.xml"}) {
        const ProcessResult r = batchAdd(home + name);
        EXPECT_EQ(r.exitStatus, 1) << r.output;
        EXPECT_NE(r.output.find("status -15"), std::string::npos) << name << ": " << r.output;
    }
    EXPECT_EQ(::access((home + "/secret.xml").c_str(), F_OK), 0);
    EXPECT_TRUE(contents("Mine").empty());

    const ProcessResult mine = batchAdd(home + "/mine.xml");
    ASSERT_EQ(mine.exitStatus, 0) << mine.output;
    EXPECT_EQ(contents("Mine"), (Strings{"a.mp3"}));
    EXPECT_NE(::access((home + "/mine.xml").c_str(), F_OK), 0) << "removed as its owner may";
}

TEST_F(PlaylistTest, HostileTextsSurviveDuplicationAndARestartAndVideosAreMarkedUnknown) {
    ASSERT_TRUE(daemon->makePlaylist(kHostileTitle, "music", "audio", {kHostileContent}, "file"));
    ASSERT_EQ(code("AddContent", {{"playlist", kHostileTitle}, {"contentType", "file"}, {"mediaType", "video"},
                                  {"content", "clip.mp4"}, {"appType", "music"}}), 0);
    ASSERT_EQ(code("AddContent", {{"playlist", kHostileTitle}, {"contentType", "object"}, {"mediaType", "photo"},
                                  {"content", "obj-1"}, {"appType", "music"}}), 0);
    const vclient::Params dup{{"playlist_src", kHostileTitle}, {"playlist_dest", "Copy & <more>"}, {"appType", "music"}};
    ASSERT_EQ(code("DupPlaylist", dup), 0);
    EXPECT_EQ(contents("Copy & <more>"), (Strings{kHostileContent, "clip.mp4", "obj-1"}));
    EXPECT_EQ(text(list("Copy & <more>"), "item", 1, "mediaType"), "UNKNOW");
    EXPECT_EQ(text(list("Copy & <more>"), "item", 2, "contentType"), "object");
    // Duplicating again replaces the earlier copy instead of appending to it.
    ASSERT_EQ(code("DupPlaylist", dup), 0);
    EXPECT_EQ(contents("Copy & <more>").size(), 3u);
    EXPECT_NE(::access("/tmp/pwned", F_OK), 0);

    ASSERT_EQ(code("DupPlaylist", {{"playlist_src", kHostileTitle}, {"playlist_dest", "Theirs"}, {"appType", "music"},
                                   {"destAppType", "video"}}), 0);  // into another application
    EXPECT_EQ(contents("Theirs", "video").size(), 3u);

    // An empty source answers 0 and makes nothing.
    ASSERT_TRUE(daemon->makePlaylist("Empty", "music", "audio", {}));
    EXPECT_EQ(code("DupPlaylist", {{"playlist_src", "Empty"}, {"playlist_dest", "E2"}, {"appType", "music"}}), 0);
    EXPECT_EQ(code("SizeOfListContent", {{"playlist", "E2"}, {"appType", "music"}}), -14);
    EXPECT_NE(::access((root.path() + "/tmp/.dupPlaylist.list").c_str(), F_OK), 0);

    ASSERT_EQ(daemon->stop(), 0) << daemon->log();
    // A title an older daemon stored without checking: bytes that are not UTF-8.
    const std::string db = root.path() + "/share/.modl/.@Ostrafel/playlist.db";
    playlisttest::rawQuery(db, "INSERT INTO PlaylistLib_TBL (PlaylistType, AppType, PlaylistTitle, Owner, Tag) "
                               "SELECT PlaylistType, AppType, CAST(X'626164FFFEC0806E616D65' AS TEXT), Owner, Tag "
                               "FROM PlaylistLib_TBL WHERE PlaylistTitle = 'Empty'");
    start();
    EXPECT_EQ(contents(kHostileTitle), (Strings{kHostileContent, "clip.mp4", "obj-1"}));
    // It still lists, as well-formed UTF-8 with the bad bytes replaced, and so do the others.
    const vclient::Exchange all = daemon->raw(vclient::buildRequest("ListPlaylist", {{"appType", "music"}}));
    ASSERT_TRUE(all.ok) << all.error;
    EXPECT_EQ(all.answer.find('\xff'), std::string::npos);
    EXPECT_NE(all.answer.find("bad\xEF\xBF\xBD"), std::string::npos) << all.answer;
    const vclient::Answer parsed = vclient::parseAnswer(all.answer);
    EXPECT_EQ(parsed.code, 0);
    EXPECT_EQ(text(parsed, "playlist", 0, "title"), kHostileTitle);
}

TEST_F(PlaylistTest, UpnpObjectIdComesFromTheMediaAgent) {
    vclient::Answer a = req("GetUpnpObjectID", {{"filePath", root.path() + "/share/Public/Music/02 Rain & Thunder.mp3"}});
    ASSERT_EQ(a.code, 0);
    EXPECT_STREQ(a.doc.getChildNode("objectID").getText(), "mu_102");
    // A file the media library does not know, a missing file (the agent is not asked), no path.
    EXPECT_EQ(code("GetUpnpObjectID", {{"filePath", writeFile("stranger.mp3", "x")}}), -13);
    EXPECT_EQ(code("GetUpnpObjectID", {{"filePath", root.path() + "/share/Public/none.mp3"}}), -13);
    EXPECT_EQ(testsupport::readFile(root.path() + "/var/sim/calls.log").find("none.mp3"), std::string::npos);
    EXPECT_EQ(code("GetUpnpObjectID"), -3);
}

// A batch interrupted by SIGKILL leaves all or nothing of itself, and everything else intact.
TEST_F(PlaylistTest, KilledDuringABatchKeepsAllOrNothing) {
    ASSERT_TRUE(daemon->makePlaylist("Keep", "music", "audio", {"k1", "k2", "k3"}, "file"));
    std::string batch = "<root><playlist>Big</playlist><appType>music</appType>";
    for (int i = 0; i < 20000; ++i) batch += "<item mediaType=\"audio\" contentType=\"file\">/m/" + std::to_string(i) + ".mp3</item>";
    batch += "</root>";

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

        // No playlist at all, or whole batches: never an empty or partial one.
        vclient::Answer size = req("SizeOfListContent", {{"playlist", "Big"}, {"appType", "music"}});
        int n = size.code == 0 ? std::stoi(size.doc.getChildNode("size").getText()) : 0;
        EXPECT_TRUE(size.code != 0 || (n > 0 && n % 20000 == 0))
            << "a playlist of " << n << " entries after " << delayMs << " ms";
        EXPECT_EQ(contents("Keep"), (Strings{"k1", "k2", "k3"}));
    }
    ASSERT_EQ(daemon->stop(), 0);
    daemon.reset();

    EXPECT_EQ(playlisttest::rawQuery(root.path() + "/share/.modl/.@Ostrafel/playlist.db", "PRAGMA integrity_check"),
              "ok");
}

}  // namespace
