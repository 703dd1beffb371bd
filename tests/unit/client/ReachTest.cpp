// What a client makes of a daemon it cannot get an answer from: not running, or busy.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include "client/VelmoraClient.h"
#include "unit/support/Files.h"

namespace {

class ReachTest : public ::testing::Test {
protected:
    void SetUp() override { std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str()); }
    int listenOn(int backlog) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
        EXPECT_EQ(::listen(fd, backlog), 0);
        return fd;
    }
    vclient::Exchange echo() { return vclient::exchange(path, "<root><command>echo</command></root>", 1); }

    testsupport::TempDir dir{"vreach"};
    std::string path = dir / "s";
    sockaddr_un addr{AF_UNIX, {}};
};

TEST_F(ReachTest, NoSocketOrNobodyListeningIsNotRunning) {
    vclient::Exchange ex = echo();
    EXPECT_TRUE(ex.notRunning && !ex.busy && !ex.reached) << ex.error;

    ::close(listenOn(1));  // the file stays, nobody listens
    ex = echo();
    EXPECT_TRUE(ex.notRunning && !ex.busy) << ex.error;
}

TEST_F(ReachTest, AFullListenQueueOrNoAnswerIsBusy) {
    const int listener = listenOn(0);
    // Fill the listen queue with connections nobody accepts.
    std::vector<int> queued;
    for (int i = 0; i < 64; ++i) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        queued.push_back(fd);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) break;
    }
    vclient::Exchange ex = echo();
    EXPECT_TRUE(ex.busy && !ex.notRunning && !ex.ok) << ex.error;

    for (int fd : queued) ::close(fd);
    ::close(listener);

    // Connected, but never answered.
    ::unlink(path.c_str());
    const int silent = listenOn(8);
    ex = echo();
    EXPECT_TRUE(ex.busy && ex.reached && !ex.ok) << ex.error;
    ::close(silent);
}

}  // namespace
