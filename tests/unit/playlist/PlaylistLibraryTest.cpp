// The playlist library (titles per app type, the "ALL" rules) and the database file itself:
// where it lives, and what happens to a file of another schema version.
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "unit/playlist/PlaylistTestSupport.h"

using playlisttest::rawQuery;
using playlisttest::StoreTest;
namespace fs = std::filesystem;

namespace {

TEST_F(StoreTest, TitlesAndTheAllAppType) {
    // A title is unique within its app type (the playlist commands' test has the refusal); case matters.
    EXPECT_EQ(0, m_store->addPlaylist("Mix", MEDIA_AUDIO_E, "music", "alice", "t1"));
    EXPECT_EQ(0, m_store->addPlaylist("mix", MEDIA_AUDIO_E, "music", "", ""));
    EXPECT_EQ(0, m_store->addPlaylist("Mix", MEDIA_VIDEO_E, "video", nullptr, nullptr));
    int video = m_store->getPlaylistID("Mix", "video");
    std::string title = "unchanged";
    EXPECT_EQ(video, m_store->getPlaylistTitle(video, title, "music"));  // wrong app type: not filled
    EXPECT_EQ("unchanged", title);

    // "ALL" pages fill each playlist's app type.
    std::vector<playlistLibElm_s> page;
    EXPECT_EQ(0, m_store->getPlaylistLibElmsByPage(page, "ALL", 0, 0));
    ASSERT_EQ(3u, page.size());
    EXPECT_EQ("video", page[2].AppType);
    playlistLibElm_t elm;
    ASSERT_EQ(0, m_store->getPlaylistLibElmByID(m_store->getPlaylistID("Mix", "music"), elm));
    EXPECT_EQ("t1", elm.Tag);

    // Deleting takes the entries along, and only of that app type.
    ASSERT_EQ(0, add("Mix", "/a"));
    int music = m_store->getPlaylistID("Mix", "music");
    EXPECT_EQ(0, m_store->delPlaylist("Mix", "music"));
    EXPECT_EQ(0, m_store->getSizeOfPlaylist(music));
    EXPECT_EQ(video, m_store->getPlaylistID("Mix", "video"));
}

TEST_F(StoreTest, DatabaseLivesOnTheShareVolume) {
    EXPECT_EQ(dbPath(), m_store->getPath());
    EXPECT_TRUE(testsupport::exists(dbPath()));

    // The share as a link to a volume: the database goes beside the share's real directory.
    m_store.reset();
    fs::remove(m_tmp / "share/Public");
    testsupport::makeDirs(m_tmp / "vol1/Public");
    fs::create_directory_symlink(m_tmp / "vol1/Public", m_tmp / "share/Public");
    m_store = std::make_unique<CSqlitePlaylist>();
    std::string real = fs::canonical(m_tmp.path()).string();
    EXPECT_EQ(real + "/vol1/.modl/.@Ostrafel/playlist.db", m_store->getPath());
    EXPECT_EQ(0, m_store->addPlaylist("x", MEDIA_AUDIO_E, "music", "", ""));

    // Without the share: under <root>/share/.
    m_store.reset();
    fs::remove(m_tmp / "share/Public");
    m_store = std::make_unique<CSqlitePlaylist>();
    EXPECT_EQ(dbPath(), m_store->getPath());
    EXPECT_EQ(0, m_store->getSizeOfPlaylistLib("ALL"));
}

class VersionTest : public StoreTest {
protected:
    // Names of the files set aside in the database's directory.
    std::vector<std::string> backups() {
        std::vector<std::string> out;
        static const std::regex kBak(R"(playlist\.db\.[0-9]+\.bak)");
        for (const auto& entry : fs::directory_iterator(fs::path(dbPath()).parent_path()))
            if (std::regex_match(entry.path().filename().string(), kBak)) out.push_back(entry.path().string());
        return out;
    }
};

TEST_F(VersionTest, CurrentVersionIsKeptWithItsPlaylists) {
    makeList("keep", 1);
    m_store.reset();
    m_store = std::make_unique<CSqlitePlaylist>();
    EXPECT_EQ(contents(m_store->getPlaylistID("keep", "music")), std::vector<std::string>{"c0"});
    EXPECT_TRUE(backups().empty());
}

TEST_F(VersionTest, OtherOrMissingVersionIsSetAside) {
    for (const char* version : {"INSERT INTO Version_TBL VALUES('20120101');", ""}) {
        SCOPED_TRACE(version);
        // A database holding playlist "old" and the given version.
        m_store.reset();
        fs::remove(dbPath());
        ASSERT_EQ("", rawQuery(dbPath(),
                               "CREATE TABLE Version_TBL (Version);"
                               "CREATE TABLE PlaylistLib_TBL (PlaylistID integer PRIMARY KEY,PlaylistType integer, "
                               "AppType , PlaylistTitle, Owner, Tag);"
                               "CREATE TABLE Playlist_TBL (UUID integer PRIMARY KEY, PlaylistID, OrderNr, MediaType, "
                               "ContentType, Content, UPnPObjID);"
                               "INSERT INTO PlaylistLib_TBL VALUES(NULL, '0', 'music', 'old', '', '');" + std::string(version)));
        m_store = std::make_unique<CSqlitePlaylist>();
        EXPECT_EQ(0, m_store->getSizeOfPlaylistLib("ALL"));
        EXPECT_EQ(0, m_store->addPlaylist("old", MEDIA_AUDIO_E, "music", "", ""));  // a fresh library
        EXPECT_EQ(CSqlitePlaylist::kSchemaVersion, rawQuery(dbPath(), "SELECT Version FROM Version_TBL"));
        EXPECT_EQ("wal", rawQuery(dbPath(), "PRAGMA journal_mode"));
        auto baks = backups();
        ASSERT_EQ(1u, baks.size());
        EXPECT_EQ("old", rawQuery(baks[0], "SELECT PlaylistTitle FROM PlaylistLib_TBL"));
        EXPECT_EQ(*version ? "20120101" : "", rawQuery(baks[0], "SELECT Version FROM Version_TBL"));
        for (const std::string& bak : backups()) fs::remove(bak);
    }
}

TEST_F(VersionTest, FileThatIsNoDatabaseIsSetAsideIntact) {
    m_store.reset();
    const std::string junk = "this is not a database\n" + std::string(5000, 'x');
    ASSERT_TRUE(testsupport::writeFile(dbPath(), junk));
    m_store = std::make_unique<CSqlitePlaylist>();
    EXPECT_EQ(0, m_store->addPlaylist("new", MEDIA_AUDIO_E, "music", "", ""));
    auto baks = backups();
    ASSERT_EQ(1u, baks.size());
    EXPECT_EQ(junk, testsupport::readFile(baks[0]));

    // A second replacement within the same second must not overwrite the first copy.
    m_store.reset();
    ASSERT_TRUE(testsupport::writeFile(dbPath(), junk));
    m_store = std::make_unique<CSqlitePlaylist>();
    EXPECT_EQ(0, m_store->getSizeOfPlaylistLib("ALL"));
    size_t copies = 0;
    for (const auto& entry : fs::directory_iterator(fs::path(dbPath()).parent_path()))
        if (entry.path().extension() == ".bak" && testsupport::readFile(entry.path()) == junk) ++copies;
    EXPECT_EQ(2u, copies);
}

}  // namespace
