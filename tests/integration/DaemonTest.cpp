// The daemon as its clients see it: start-up, the request envelope, and hostile clients that
// must not keep the others out.
#include <gtest/gtest.h>

#include <filesystem>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>
#include <vector>

#include "integration/DaemonFixture.h"
#include "unit/support/Files.h"

using namespace itest;
using namespace std::chrono_literals;

namespace {

// A connected client socket to path (reads give up after 15 s), or -1.
int connectTo(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    timeval tv{15, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

using DaemonTest = DaemonTestBase;

TEST_F(DaemonTest, EveryAnswerCarriesTheVersionAndFailuresAnswerTheirCodesWithoutEndingTheDaemon) {
    EXPECT_EQ(daemon->raw("<root><command>echo</command></root>").answer,
              "<root>\n\t<status>ECHO</status>\n\t<version>XUMA 4.1.2</version>\n</root>\n");
    EXPECT_EQ(daemon->request("echo", {{"padding", std::string(20000, 'x')}}).status, "ECHO") << "larger than a read";
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
    EXPECT_EQ(daemon->field("SizeOfPlaylist", {{"appType", "music"}}, "size"), "0") << "nothing was stored";

    EXPECT_EQ(daemon->request("debugDump").code, -3);
    EXPECT_NE(daemon->log().find("PARAMTER NOT FOUNT"), std::string::npos);
    // Before any render has been listed there are no players to reach.
    for (const char* command : {"debugDump", "Play", "GetVolume", "GetMute", "GetPlayerStatus"})
        EXPECT_EQ(daemon->request(command, {{"dev", "uuid:nobody"}}).code, -4) << command;

    // Polled commands stay out of the log.
    ASSERT_TRUE(daemon->waitForLog("Command:Play  --dev:uuid:nobody(done)"));
    EXPECT_EQ(daemon->log().find("Command:GetVolume"), std::string::npos);
    EXPECT_EQ(daemon->log().find("Command:GetMute"), std::string::npos);
    EXPECT_EQ(daemon->request("echo").status, "ECHO");
}

TEST_F(DaemonTest, HundredsOfSilentAndDrippingClientsDoNotKeepOthersOut) {
    std::vector<int> clients;  // the first 300 stay silent, the other 150 drip
    for (int i = 0; i < 450; ++i) clients.push_back(connectTo(root.socketPath()));
    ::close(connectTo(root.socketPath()));  // vanishes: its answer is never read
    std::atomic<bool> stop{false};
    std::thread drip([&] {
        for (int round = 0; !stop; ++round) {
            for (size_t i = 300; i < clients.size(); ++i)
                ::send(clients[i], round ? "r" : "<", 1, MSG_NOSIGNAL | MSG_DONTWAIT);
            for (int i = 0; i < 10 && !stop; ++i) std::this_thread::sleep_for(20ms);
        }
    });

    // Each echo well inside the time the hostile connections are allowed to last.
    for (int i = 0; i < 10; ++i) {
        vclient::Exchange ex = vclient::exchange(root.socketPath(), "<root><command>echo</command></root>", 10);
        EXPECT_TRUE(ex.ok) << ex.error;
    }
    stop = true;
    drip.join();
    for (int fd : clients) {
        EXPECT_GE(fd, 0);
        ::close(fd);
    }
    EXPECT_TRUE(daemon->running());
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

TEST(DaemonStartTest, AMissingRootIsRefusedAndAStaleSocketFileMakesWayForAWorldWritableSocketRemovedAtStop) {
    std::string output;
    EXPECT_EQ(runDaemonOnce("/nonexistent/velmora-root", output), 1);
    EXPECT_NE(output.find("/nonexistent/velmora-root"), std::string::npos) << output;

    SimRoot root;
    { std::ofstream(root.socketPath()) << "left over by a crash"; }
    Daemon daemon(root.path());
    ASSERT_TRUE(daemon.waitReady()) << daemon.log();
    struct stat st;
    ASSERT_EQ(::stat(root.socketPath().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFSOCK | 0777u) << "a world-writable socket";
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_NE(::access(root.socketPath().c_str(), F_OK), 0);
}

TEST_F(DaemonTest, FatalSignalWritesTheStackDumpAndExitsZero) {
    ::kill(daemon->pid(), SIGUSR1);
    EXPECT_EQ(daemon->stop(), 0) << daemon->log();
    EXPECT_NE(daemon->log().find("sig:10"), std::string::npos) << daemon->log();
    EXPECT_FALSE(testsupport::readFile(root.path() + "/tmp/Velmora.dump").empty());
}

}  // namespace
