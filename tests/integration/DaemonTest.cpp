// The daemon as its clients see it: start-up and the request envelope. (What the socket server
// guarantees against silent, dripping and vanishing clients is the connection server's test.)
#include <gtest/gtest.h>

#include <filesystem>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;

namespace {

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        daemon = std::make_unique<Daemon>(root.path());
        ASSERT_TRUE(daemon->waitReady()) << daemon->log();
    }
    void TearDown() override {
        if (daemon) {
            EXPECT_EQ(daemon->stop(), 0) << daemon->log();
        }
    }

    SimRoot root;
    std::unique_ptr<Daemon> daemon;
};

TEST_F(DaemonTest, EchoAnswersWithThePackageVersionEvenToARequestLargerThanOneRead) {
    EXPECT_EQ(daemon->raw("<root><command>echo</command></root>").answer,
              "<root>\n\t<status>ECHO</status>\n\t<version>XUMA 4.1.2</version>\n</root>\n");
    EXPECT_EQ(daemon->request("echo", {{"padding", std::string(20000, 'x')}}).status, "ECHO");
}

TEST_F(DaemonTest, BadRequestsAnswerTheirCodes) {
    struct Case {
        const char* text;
        int code;
        const char* logLine;
    } cases[] = {
        {"<root><command>NoSuchCommand</command></root>", -7, "COMMAND 'NoSuchCommand' not found"},
        {"<root><paramList><dev>x</dev></paramList></root>", -7, "NO COMMAND FIELD"},
        {"<root><command></command></root>", -7, "NO COMMAND FIELD"},
        {"just some text", -2, "WRONG PACKAGE FORMAT"},
        {"<other><command>echo</command></other>", -2, "WRONG PACKAGE FORMAT"},
        {"<root><command>echo</root>", -2, "WRONG PACKAGE FORMAT"},
        {"<root><command>&bogus;</command></root>", -2, "WRONG PACKAGE FORMAT"},
        // Names are case-sensitive.
        {"<root><command>ECHO</command></root>", -7, "COMMAND 'ECHO' not found"},
        // Text that is not UTF-8 of XML characters is refused before any handler could store it.
        {"<root><command>CreatePlaylist</command><paramList><playlist>bad\xff\xfe\xc0\x80name</playlist>"
         "<playlistType>audio</playlistType><appType>music</appType></paramList></root>",
         -2, "request is not UTF-8 text of XML characters"},
    };
    for (const Case& c : cases) {
        vclient::Answer a = vclient::parseAnswer(daemon->raw(c.text).answer);
        EXPECT_EQ(a.code, c.code) << c.text;
        EXPECT_STREQ(a.doc.getChildNode("version").getText(), "XUMA 4.1.2") << c.text;
        EXPECT_NE(daemon->log().find(c.logLine), std::string::npos) << c.logLine;
    }
    vclient::Answer lists = daemon->request("SizeOfPlaylist", {{"appType", "music"}});
    EXPECT_STREQ(lists.doc.getChildNode("size").getText(), "0") << "nothing was stored";
    EXPECT_TRUE(daemon->running());
}

TEST_F(DaemonTest, FailingCommandsNeverEndTheDaemonAndPolledOnesStayOutOfTheLog) {
    EXPECT_EQ(daemon->request("debugDump").code, -3);
    EXPECT_NE(daemon->log().find("PARAMTER NOT FOUNT"), std::string::npos);
    // Before any render has been listed there are no players to reach.
    for (const char* command : {"debugDump", "Play", "GetVolume", "GetMute", "GetPlayerStatus"})
        EXPECT_EQ(daemon->request(command, {{"dev", "uuid:nobody"}}).code, -4) << command;

    ASSERT_TRUE(daemon->waitForLog("Command:Play  --dev:uuid:nobody(done)"));
    EXPECT_EQ(daemon->log().find("Command:GetVolume"), std::string::npos);
    EXPECT_EQ(daemon->log().find("Command:GetMute"), std::string::npos);
    EXPECT_EQ(daemon->request("echo").status, "ECHO");
}

TEST(DaemonStartTest, ADaemonUnderAnotherNameStillCountsAsTheRootsOne) {
    SimRoot root;
    const std::string copy = root.path() + "/tmp/renamed-daemon";
    std::filesystem::copy_file(VELMORA_BIN, copy, std::filesystem::copy_options::overwrite_existing);
    Subprocess renamed;
    ASSERT_EQ(renamed.start({copy, "--root", root.path()}), 0);
    auto echo = [&] {
        vclient::Exchange ex = vclient::exchange(root.socketPath(), vclient::buildRequest("echo", {}));
        return ex.ok && vclient::parseAnswer(ex.answer).isEcho;
    };
    ASSERT_TRUE(testsupport::eventually(echo));
    // The usual binary on the same root is the second daemon: it leaves, and the socket stays.
    std::string output;
    EXPECT_EQ(runDaemonOnce(root.path(), output), 0);
    EXPECT_NE(output.find("process already exist!!"), std::string::npos) << output;
    EXPECT_TRUE(echo());
    renamed.terminate();
}

TEST(DaemonStartTest, StaleSocketFileIsReplacedByAWorldWritableSocketRemovedAtStop) {
    SimRoot root;
    { std::ofstream(root.socketPath()) << "left over by a crash"; }
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();
    struct stat st;
    ASSERT_EQ(::stat(root.socketPath().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0777u);
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_NE(::access(root.socketPath().c_str(), F_OK), 0);
}

TEST(DaemonStartTest, MissingRootIsRefused) {
    std::string output;
    EXPECT_EQ(runDaemonOnce("/nonexistent/velmora-root", output), 1);
    EXPECT_NE(output.find("/nonexistent/velmora-root"), std::string::npos);
}

TEST(DaemonStartTest, FatalSignalWritesTheStackDumpAndExitsZero) {
    SimRoot root;
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();
    ::kill(daemon.pid(), SIGUSR1);
    EXPECT_EQ(daemon.stop(), 0) << daemon.log();
    EXPECT_NE(daemon.log().find("sig:10"), std::string::npos) << daemon.log();
    EXPECT_FALSE(testsupport::readFile(root.path() + "/tmp/Velmora.dump").empty());
}

}  // namespace
