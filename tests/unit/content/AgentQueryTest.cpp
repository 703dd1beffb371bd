// The media-agent queries against the simulated agent: what reaches the program, word for word,
// and what comes back.
#include <unistd.h>

#include <filesystem>

#include "ContentTestSupport.h"
#include "xml/XMLNode.h"

using namespace contenttest;

TEST_F(ContentTest, ObjectIdsAndFilePathsConvertBothWays) {
    std::string objectID;
    ASSERT_EQ(CPlayer::dbIDToUpnpObjectID("201", MEDIA_VIDEO_E, objectID), 0);
    EXPECT_EQ(objectID, "vi_201");
    EXPECT_EQ(newCalls(), agentCall({"-c", "getObjectID", "--dbID", "201", "--mediaType", "2"}));

    std::string path;
    ASSERT_EQ(CPlayer::upnpObjectToFilePath("vi_201", path), 0);
    EXPECT_EQ(path, at(kHoliday));
    EXPECT_EQ(newCalls(), agentCall({"-c", "getFilePath", "--objectID", "vi_201"}));

    // A path reaches the agent as one raw argument, whatever a shell would have made of it.
    const std::string odd = at("share/Public/Music/5 \"quoted\" it's $(id) & `x` *.mp3");
    std::filesystem::create_symlink(at(kLive), odd);
    struct Case {
        std::string path;
        const char* id;
    } cases[] = {{at(kRain), "mu_102"}, {at(kLive), "mu_103"}, {at(kPwned), "mu_104"}, {odd, "mu_103"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        objectID.clear();
        EXPECT_EQ(CPlayer::filePathToObjectID(c.path, objectID), 0);
        EXPECT_EQ(objectID, c.id);
        EXPECT_EQ(newCalls(), agentCall({"-c", "getObjectID", "--filePath", c.path}));
    }
    std::filesystem::remove(odd);
}

TEST_F(ContentTest, UnknownIdsFailAndLeaveTheOutputs) {
    std::string out = "kept";
    int start = 7, duration = 8;
    EXPECT_EQ(CPlayer::dbIDToUpnpObjectID("999", MEDIA_AUDIO_E, out), -1);
    // The media type is part of the key.
    EXPECT_EQ(CPlayer::dbIDToUpnpObjectID("201", MEDIA_AUDIO_E, out), -1);
    EXPECT_EQ(CPlayer::upnpObjectToFilePath("nope", out), -1);
    EXPECT_EQ(CPlayer::upnpObjectToFilePath("nope", out, start, duration), -1);
    EXPECT_EQ(CPlayer::dbIDToFilePath("999", MEDIA_AUDIO_E, out, start, duration), -1);
    EXPECT_EQ(CPlayer::filePathToObjectID(at("share/Public/Music/none.mp3"), out), -1);
    EXPECT_EQ(CPlayer::upnpObjectToUrl("nope", out, "DLNA"), -1);
    EXPECT_EQ(CPlayer::filePathToUrl(at("share/Public/none.mp4"), out), -1);
    EXPECT_EQ(CPlayer::browseByDbID("999", MEDIA_AUDIO_E, out), -1);
    EXPECT_EQ(CPlayer::browseByFilePath(at("share/Public/none.mp4"), out), -1);
    EXPECT_EQ(out, "kept");
    EXPECT_EQ(start, 7);
    EXPECT_EQ(duration, 8);
    // The browses stopped at the failed conversion.
    for (const auto& line : newCalls()) EXPECT_EQ(line.find("\"browse\""), std::string::npos) << line;
}

TEST_F(ContentTest, SliceOfAFileReportsWhereItStartsAndLasts) {
    std::string path;
    int start = 0, duration = 0;
    ASSERT_EQ(CPlayer::upnpObjectToFilePath("mu_105", path, start, duration), 0);
    EXPECT_EQ(path, at(kMorning));
    EXPECT_EQ(start, 1);
    EXPECT_EQ(duration, 1);

    ASSERT_EQ(CPlayer::upnpObjectToFilePath("mu_101", path, start, duration), 0);
    EXPECT_EQ(path, at(kMorning));
    EXPECT_EQ(start, -1);
    EXPECT_EQ(duration, -1);

    path.clear();
    ASSERT_EQ(CPlayer::dbIDToFilePath("105", MEDIA_AUDIO_E, path, start, duration), 0);
    EXPECT_EQ(path, at(kMorning));
    EXPECT_EQ(start, 1);
    EXPECT_EQ(duration, 1);
}

TEST_F(ContentTest, ContentUrlsCarryOnlyTheOptionsGiven) {
    std::string url;
    ASSERT_EQ(CPlayer::upnpObjectToUrl("vi_201", url), 0);
    EXPECT_EQ(url, "http://127.0.0.1:8200/media/vi_201.mp4");
    EXPECT_EQ(newCalls(), agentCall({"-c", "getContentUrl", "--objectID", "vi_201"}));

    ASSERT_EQ(CPlayer::upnpObjectToUrl("vi_201", url, "DLNA", "eth0"), 0);
    EXPECT_EQ(newCalls(), agentCall({"-c", "getContentUrl", "--objectID", "vi_201", "--clientType", "DLNA",
                                     "--interface", "eth0"}));
    // Empty texts count as not given.
    ASSERT_EQ(CPlayer::upnpObjectToUrl("vi_201", url, "", "eth1"), 0);
    EXPECT_EQ(newCalls(), agentCall({"-c", "getContentUrl", "--objectID", "vi_201", "--interface", "eth1"}));

    url.clear();
    ASSERT_EQ(CPlayer::filePathToUrl(at(kPwned), url, "Chromecast"), 0);
    EXPECT_EQ(url, "http://127.0.0.1:8200/media/mu_104.mp3");
    EXPECT_EQ(newCalls(), agentCall({"-c", "getContentUrl", "--filePath", at(kPwned), "--clientType", "Chromecast"}));
}

TEST_F(ContentTest, BrowseSendsPagingOnlyWhenSet) {
    std::string didl;
    ASSERT_EQ(CPlayer::browseByUpnpObjectID("mu_103", didl), 0);
    EXPECT_EQ(newCalls(), agentCall({"-c", "browse", "--objectID", "mu_103", "--browseFlag", "BrowseMetadata"}));
    // The raw answer goes back to the caller, who reads the metadata from it.
    XMLNode item = XMLNode::parseString(didl, "root").getChildNodeByPath("Result/DIDL-Lite/item");
    ASSERT_FALSE(item.isEmpty()) << didl;
    EXPECT_STREQ(item.getAttribute("id"), "mu_103");
    EXPECT_STREQ(item.getChildNode("dc:title").getText(), "L'été <live>");

    ASSERT_EQ(CPlayer::browseByUpnpObjectID("mu_103", didl, "DLNA", 0, 10, "bond0"), 0);
    EXPECT_EQ(newCalls(), agentCall({"-c", "browse", "--objectID", "mu_103", "--browseFlag", "BrowseMetadata",
                                     "--clientType", "DLNA", "--startingIndex", "0", "--requestedCount", "10",
                                     "--interface", "bond0"}));
    ASSERT_EQ(CPlayer::browseByUpnpObjectID("mu_103", didl, nullptr, -1, 5), 0);
    EXPECT_EQ(newCalls(), agentCall({"-c", "browse", "--objectID", "mu_103", "--browseFlag", "BrowseMetadata",
                                     "--requestedCount", "5"}));
}

TEST_F(ContentTest, BrowseByLibraryIdOrPathConvertsFirst) {
    std::string didl;
    ASSERT_EQ(CPlayer::browseByDbID("301", MEDIA_PHOTO_E, didl, "DLNA"), 0);
    EXPECT_NE(didl.find("object.item.imageItem.photo"), std::string::npos) << didl;
    EXPECT_EQ(newCalls(), (std::vector<std::string>{
                              callLine("tessaly", {"-c", "getObjectID", "--dbID", "301", "--mediaType", "1"}),
                              callLine("tessaly", {"-c", "browse", "--objectID", "ph_301", "--browseFlag",
                                                   "BrowseMetadata", "--clientType", "DLNA"}),
                          }));

    ASSERT_EQ(CPlayer::browseByFilePath(at(kRain), didl, nullptr, 2, -1), 0);
    EXPECT_NE(didl.find("Rain &amp; Thunder"), std::string::npos) << didl;
    EXPECT_EQ(newCalls(), (std::vector<std::string>{
                              callLine("tessaly", {"-c", "getObjectID", "--filePath", at(kRain)}),
                              callLine("tessaly", {"-c", "browse", "--objectID", "mu_102", "--browseFlag",
                                                   "BrowseMetadata", "--startingIndex", "2"}),
                          }));
}

// An agent that prints whatever the test put in DIR/answer, for answers the simulated library
// never gives.
class CannedAgentTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/velmora-canned-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
        std::filesystem::create_directories(m_root + "/usr/bin");
        std::ofstream(m_root + "/usr/bin/tessaly") << "#!/usr/bin/python3 -S\nimport sys\n"
                                                      "sys.stdout.write(open(\""
                                                   << m_root << "/answer\").read())\n";
        std::filesystem::permissions(m_root + "/usr/bin/tessaly", std::filesystem::perms::owner_all);
        approot::set(m_root);
    }
    void TearDown() override {
        approot::set("");
        std::filesystem::remove_all(m_root);
    }
    void answer(const std::string& text) { std::ofstream(m_root + "/answer", std::ios::binary) << text; }

    std::string m_root;
};

TEST_F(CannedAgentTest, AnswersWithoutTheElementFail) {
    const char* broken[] = {
        "<root><status>success</status></root>",          // no url
        "<root><status>success</status><url></url></root>",  // url without text
        "<other><url>http://x/</url></other>",             // not the agent's document
        "Segmentation fault\n",
        "",
    };
    for (const char* text : broken) {
        SCOPED_TRACE(text);
        answer(text);
        std::string out = "kept";
        EXPECT_EQ(CPlayer::upnpObjectToUrl("x", out), -1);
        EXPECT_EQ(CPlayer::filePathToUrl("/x", out), -1);
        EXPECT_EQ(CPlayer::upnpObjectToFilePath("x", out), -1);
        EXPECT_EQ(CPlayer::dbIDToUpnpObjectID("1", 0, out), -1);
        EXPECT_EQ(out, "kept");
    }
    // Beyond 4096 bytes an answer may have been cut anywhere: not trusted, even when what came
    // first would parse.
    answer("<root><url>http://x/</url></root>" + std::string(5000, '\n'));
    std::string out = "kept";
    EXPECT_EQ(CPlayer::upnpObjectToUrl("x", out), -1);
    EXPECT_EQ(out, "kept");
}

TEST_F(CannedAgentTest, BrowseReturnsTheRawAnswerAndFailsWithoutOne) {
    answer("  <DIDL-Lite/> \n");
    std::string out;
    ASSERT_EQ(CPlayer::browseByUpnpObjectID("x", out), 0);
    EXPECT_EQ(out, "  <DIDL-Lite/> \n");
    answer("");
    out = "kept";
    EXPECT_EQ(CPlayer::browseByUpnpObjectID("x", out), -1);
    std::filesystem::remove(m_root + "/usr/bin/tessaly");
    EXPECT_EQ(CPlayer::browseByUpnpObjectID("x", out), -1);
    EXPECT_EQ(CPlayer::upnpObjectToUrl("x", out), -1);
    EXPECT_EQ(out, "kept");
}

TEST_F(CannedAgentTest, HalfASliceIsAWholeFile) {
    answer("<root><status>success</status><filePath>/m/a.flac</filePath><startTime>00:01:05</startTime>"
           "<duration>30</duration></root>");
    std::string path;
    int start = 0, duration = 0;
    ASSERT_EQ(CPlayer::upnpObjectToFilePath("x", path, start, duration), 0);
    EXPECT_EQ(path, "/m/a.flac");
    EXPECT_EQ(start, 65);  // the agent may also give hh:mm:ss
    EXPECT_EQ(duration, 30);

    answer("<root><filePath>/m/a.flac</filePath><startTime>12</startTime><duration>soon</duration></root>");
    ASSERT_EQ(CPlayer::upnpObjectToFilePath("x", path, start, duration), 0);
    EXPECT_EQ(start, -1);
    EXPECT_EQ(duration, -1);
}
