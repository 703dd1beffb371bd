// The media-agent queries against the simulated agent: what reaches the program, word for word,
// and what comes back.
#include <filesystem>

#include "ContentTestSupport.h"
#include "agent/MediaAgent.h"
#include "xml/XMLNode.h"

using namespace contenttest;

TEST_F(ContentTest, IdsPathsAndUrlsConvertWithOnlyTheArgumentsGiven) {
    std::string objectID;
    ASSERT_EQ(mediaagent::dbIDToUpnpObjectID("201", MEDIA_VIDEO_E, objectID), 0);
    EXPECT_EQ(objectID, "vi_201");
    EXPECT_EQ(newCalls(), agentCall({"-c", "getObjectID", "--dbID", "201", "--mediaType", "2"}));

    std::string path;
    ASSERT_EQ(mediaagent::upnpObjectToFilePath("vi_201", path), 0);
    EXPECT_EQ(path, at(kHoliday));
    EXPECT_EQ(newCalls(), agentCall({"-c", "getFilePath", "--objectID", "vi_201"}));

    // A path reaches the agent as one raw argument, whatever a shell would have made of it.
    const std::string odd = at("share/Public/Music/5 \"quoted\" it's $(id) & `x` *.mp3");
    std::filesystem::create_symlink(at(kLive), odd);
    std::pair<std::string, const char*> cases[] = {{at(kRain), "mu_102"}, {at(kPwned), "mu_104"}, {odd, "mu_103"}};
    for (const auto& [file, id] : cases) {
        objectID.clear();
        EXPECT_EQ(mediaagent::filePathToObjectID(file, objectID), 0) << file;
        EXPECT_EQ(objectID, id);
        EXPECT_EQ(newCalls(), agentCall({"-c", "getObjectID", "--filePath", file}));
    }

    // Content URLs carry only the options given; empty texts count as not given.
    std::string url;
    ASSERT_EQ(mediaagent::upnpObjectToUrl("vi_201", url), 0);
    EXPECT_EQ(url, "http://127.0.0.1:8200/media/vi_201.mp4");
    EXPECT_EQ(newCalls(), agentCall({"-c", "getContentUrl", "--objectID", "vi_201"}));
    ASSERT_EQ(mediaagent::upnpObjectToUrl("vi_201", url, "", "eth1"), 0);
    EXPECT_EQ(newCalls(), agentCall({"-c", "getContentUrl", "--objectID", "vi_201", "--interface", "eth1"}));
    ASSERT_EQ(mediaagent::filePathToUrl(at(kPwned), url, "Chromecast"), 0);
    EXPECT_EQ(url, "http://127.0.0.1:8200/media/mu_104.mp3");
    EXPECT_EQ(newCalls(), agentCall({"-c", "getContentUrl", "--filePath", at(kPwned), "--clientType", "Chromecast"}));

    int start = 0, duration = 0;
    ASSERT_EQ(mediaagent::dbIDToFilePath("105", MEDIA_AUDIO_E, path, start, duration), 0);
    EXPECT_EQ(std::pair(start, duration), std::pair(1, 1));  // second 1 to 2 of 01 Morning.mp3
}

TEST_F(ContentTest, UnknownIdsFailAndLeaveTheOutputs) {
    std::string out = "kept";
    int start = 7, duration = 8;
    EXPECT_EQ(mediaagent::dbIDToUpnpObjectID("201", MEDIA_AUDIO_E, out), -1);  // the media type is part of the key
    EXPECT_EQ(mediaagent::upnpObjectToFilePath("nope", out, start, duration), -1);
    EXPECT_EQ(mediaagent::dbIDToFilePath("999", MEDIA_AUDIO_E, out, start, duration), -1);
    EXPECT_EQ(mediaagent::filePathToObjectID(at("share/Public/Music/none.mp3"), out), -1);
    EXPECT_EQ(mediaagent::upnpObjectToUrl("nope", out, "DLNA"), -1);
    EXPECT_EQ(mediaagent::browseByDbID("999", MEDIA_AUDIO_E, out), -1);
    EXPECT_EQ(mediaagent::browseByFilePath(at("share/Public/none.mp4"), out), -1);
    EXPECT_EQ(out, "kept");
    EXPECT_EQ(std::pair(start, duration), std::pair(7, 8));
    // The browses stopped at the failed conversion.
    EXPECT_EQ(callLog.count("tessaly", {"browse"}), 0);
}

TEST_F(ContentTest, BrowseSendsPagingOnlyWhenSetAndConvertsLibraryIdsFirst) {
    std::string didl;
    ASSERT_EQ(mediaagent::browseByUpnpObjectID("mu_103", didl), 0);
    EXPECT_EQ(newCalls(), agentCall({"-c", "browse", "--objectID", "mu_103", "--browseFlag", "BrowseMetadata"}));
    // The raw answer goes back to the caller, who reads the metadata from it.
    XMLNode item = XMLNode::parseString(didl, "root").getChildNode("Result").getChildNode("DIDL-Lite");
    EXPECT_STREQ(item.getChildNode("item").getChildNode("dc:title").getText(), "L'été <live>") << didl;

    ASSERT_EQ(mediaagent::browseByUpnpObjectID("mu_103", didl, "DLNA", 0, 10, "bond0"), 0);
    EXPECT_EQ(newCalls(), agentCall({"-c", "browse", "--objectID", "mu_103", "--browseFlag", "BrowseMetadata",
                                     "--clientType", "DLNA", "--startingIndex", "0", "--requestedCount", "10",
                                     "--interface", "bond0"}));

    // By library id: converted first.
    ASSERT_EQ(mediaagent::browseByDbID("301", MEDIA_PHOTO_E, didl, "DLNA"), 0);
    EXPECT_NE(didl.find("object.item.imageItem.photo"), std::string::npos) << didl;
    EXPECT_EQ(newCalls(), (Lines{callLine("tessaly", {"-c", "getObjectID", "--dbID", "301", "--mediaType", "1"}),
                                 callLine("tessaly", {"-c", "browse", "--objectID", "ph_301", "--browseFlag",
                                                      "BrowseMetadata", "--clientType", "DLNA"})}));
}

// An agent that prints whatever the test put in ROOT/answer, for answers the simulated library
// never gives.
class CannedAgentTest : public ::testing::Test {
protected:
    void SetUp() override {
        testsupport::makeDirs(m_root / "usr/bin");
        ASSERT_TRUE(testsupport::writeFile(m_root / "usr/bin/tessaly",
                                           "#!/bin/sh\nexec cat '" + (m_root / "answer") + "'\n", 0755));
    }
    void answer(const std::string& text) { ASSERT_TRUE(testsupport::writeFile(m_root / "answer", text)); }

    testsupport::TempDir m_root{"velmora-canned"};
    testsupport::RootGuard m_guard{m_root.path()};
};

TEST_F(CannedAgentTest, AnswersWithoutTheElementFail) {
    const std::string broken[] = {
        "<root><status>success</status></root>",             // no url
        "<root><status>success</status><url></url></root>",  // url without text
        "<other><url>http://x/</url></other>",                // not the agent's document
        "Segmentation fault\n",
        "",
        // Beyond 4096 bytes an answer may have been cut anywhere: not trusted, even when what
        // came first would parse.
        "<root><url>http://x/</url><filePath>/x</filePath><objectID>o</objectID></root>" + std::string(5000, '\n'),
    };
    for (const std::string& text : broken) {
        answer(text);
        std::string out = "kept";
        EXPECT_EQ(mediaagent::upnpObjectToUrl("x", out), -1) << text;
        EXPECT_EQ(mediaagent::filePathToUrl("/x", out), -1);
        EXPECT_EQ(mediaagent::upnpObjectToFilePath("x", out), -1);
        EXPECT_EQ(mediaagent::dbIDToUpnpObjectID("1", 0, out), -1);
        EXPECT_EQ(out, "kept");
    }
}

TEST_F(CannedAgentTest, BrowseFailsWithoutAnAnswer) {  // the raw answer itself is the library browse's
    answer("");
    std::string out = "kept";
    EXPECT_EQ(mediaagent::browseByUpnpObjectID("x", out), -1);
    ::unlink((m_root / "usr/bin/tessaly").c_str());
    EXPECT_EQ(mediaagent::browseByUpnpObjectID("x", out), -1);
    EXPECT_EQ(out, "kept");
}

TEST_F(CannedAgentTest, HalfASliceIsAWholeFile) {
    answer("<root><status>success</status><filePath>/m/a.flac</filePath><startTime>00:01:05</startTime>"
           "<duration>30</duration></root>");
    std::string path;
    int start = 0, duration = 0;
    ASSERT_EQ(mediaagent::upnpObjectToFilePath("x", path, start, duration), 0);
    EXPECT_EQ(path, "/m/a.flac");
    EXPECT_EQ(std::pair(start, duration), std::pair(65, 30));  // the agent may also give hh:mm:ss

    answer("<root><filePath>/m/a.flac</filePath><startTime>12</startTime><duration>soon</duration></root>");
    ASSERT_EQ(mediaagent::upnpObjectToFilePath("x", path, start, duration), 0);
    EXPECT_EQ(std::pair(start, duration), std::pair(-1, -1));
}
