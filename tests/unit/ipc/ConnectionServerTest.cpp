// The event-driven connection server over a real Unix socket: requests in pieces, concurrency,
// whole-request deadlines, room for newcomers at the limit, answers nobody takes, shutdown.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "ipc/ConnectionServer.h"
#include "ipc/Framing.h"
#include "unit/support/Files.h"

using namespace std::chrono_literals;

namespace {

using testsupport::eventually;

// A gate the handler waits at until the test opens it.
struct Gate {
    std::atomic<int> waiting{0};
    std::atomic<bool> open{false};
    void pass() {
        ++waiting;
        eventually([&] { return open.load(); }, 30s, 1ms);
    }
    bool waitFor(int n) { return eventually([&] { return waiting >= n; }); }
    void release() { open = true; }
};

class ConnectionServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", (dir / "s").c_str());
        ASSERT_EQ(::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ASSERT_EQ(::listen(listenFd, 128), 0);
    }
    void TearDown() override {
        if (server) server->shutdown();
        ::close(listenFd);
    }

    // Answers "<answer>request</answer>", padded to answerSize when that is set, after the gate
    // when one is set; timeout is both the request's and the answer's.
    void start(std::chrono::milliseconds timeout = 30s, size_t maxConnections = 64) {
        ipc::serverOptions_s options;
        options.maxConnections = maxConnections;
        options.maxWorkers = 4;
        options.requestTimeout = options.answerTimeout = timeout;
        server = std::make_unique<ipc::ConnectionServer>(
            listenFd,
            [this](std::string& request, const ipc::Peer& peer) {
                peerUid = peer.credentials().uid;
                if (gate) gate->pass();
                ipc::answer_s answer;
                answer.bytes.assign(framing::kHeaderSize, '\0');
                answer.bytes += "<answer>" + request + "</answer>";
                if (answerSize) answer.bytes.resize(answerSize, ' ');
                framing::fillHeader(answer.bytes);
                answer.hold = std::shared_ptr<void>(nullptr, [this](void*) { ++holdsReleased; });
                return answer;
            },
            nullptr, options);
        ASSERT_EQ(server->start(), 0);
    }

    // A connected client; reads give up after 10 s.
    int connect() const {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval tv{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
        return fd;
    }
    static void send(int fd, const std::string& text) {
        ASSERT_EQ(::send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }
    // The answer's text, "" when the connection ended first.
    static std::string answer(int fd) {
        char header[framing::kHeaderSize];
        if (::recv(fd, header, sizeof header, MSG_WAITALL) != sizeof header) return "";
        std::string body(static_cast<size_t>(std::max(0LL, framing::parseHeader(header, sizeof header))), '\0');
        return ::recv(fd, body.data(), body.size(), MSG_WAITALL) == static_cast<ssize_t>(body.size()) ? body : "";
    }
    // Whether the server closed the connection (waits up to the read time-out).
    static bool closedByServer(int fd) {
        char c;
        const ssize_t n = ::read(fd, &c, 1);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }

    testsupport::TempDir dir{"vserver"};
    sockaddr_un addr{AF_UNIX, {}};
    int listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::unique_ptr<ipc::ConnectionServer> server;
    std::unique_ptr<Gate> gate;
    size_t answerSize = 0;
    std::atomic<uid_t> peerUid{~0u};
    std::atomic<int> holdsReleased{0};
};

TEST_F(ConnectionServerTest, RequestsInPiecesAreServedSideBySideWithTheirClient) {
    gate = std::make_unique<Gate>();
    start();
    const int a = connect();
    const int b = connect();
    send(a, "<root><comm");
    send(b, "<root/>");
    ASSERT_TRUE(gate->waitFor(1));
    send(a, "and>x</command></root>");
    ASSERT_TRUE(gate->waitFor(2)) << "both requests are on workers at once";
    gate->release();
    EXPECT_EQ(answer(a), "<answer><root><command>x</command></root></answer>");
    EXPECT_EQ(answer(b), "<answer><root/></answer>");
    EXPECT_EQ(peerUid.load(), ::geteuid());

    // A client that half-closes gets an answer to what it sent.
    const int c = connect();
    send(c, "<root>");
    ::shutdown(c, SHUT_WR);
    EXPECT_EQ(answer(c), "<answer><root></answer>");
    for (int fd : {a, b, c}) {
        ::send(fd, "ACK", 3, MSG_NOSIGNAL);
        EXPECT_TRUE(closedByServer(fd));
        ::close(fd);
    }
    EXPECT_TRUE(eventually([&] { return server->connectionCount() == 0; }, 10s));
}

TEST_F(ConnectionServerTest, TheRequestDeadlineRunsFromAcceptNotFromEachRead) {
    start(300ms);
    const int silent = connect();
    const int dripping = connect();
    std::atomic<bool> stop{false};
    // Far more often than the time-out: a per-read time-out would never end it.
    std::thread drip([&] {
        for (int i = 0; !stop && i < 500; ++i) {
            if (::send(dripping, i == 0 ? "<" : "r", 1, MSG_NOSIGNAL) != 1) break;
            std::this_thread::sleep_for(20ms);
        }
    });
    EXPECT_TRUE(closedByServer(silent));
    EXPECT_TRUE(closedByServer(dripping));
    stop = true;
    drip.join();

    const int client = connect();
    send(client, "<root/>");
    EXPECT_EQ(answer(client), "<answer><root/></answer>");
    for (int fd : {silent, dripping, client}) ::close(fd);
}

TEST_F(ConnectionServerTest, AtTheLimitTheLongestWaitingConnectionMakesRoom) {
    gate = std::make_unique<Gate>();
    start(30s, 4);
    const int served = connect();  // being served: never dropped for room
    send(served, "<root/>");
    ASSERT_TRUE(gate->waitFor(1));
    int waiting[3];
    for (size_t i = 0; i < 3; ++i) {
        waiting[i] = connect();
        ASSERT_TRUE(eventually([&] { return server->connectionCount() == i + 2; }, 10s));
    }
    gate->release();

    const int newcomer = connect();
    send(newcomer, "<new/>");
    EXPECT_TRUE(closedByServer(waiting[0]));
    EXPECT_EQ(answer(newcomer), "<answer><new/></answer>");
    EXPECT_EQ(answer(served), "<answer><root/></answer>");
    send(waiting[1], "<root/>");
    EXPECT_EQ(answer(waiting[1]), "<answer><root/></answer>");
    for (int fd : {waiting[0], waiting[1], waiting[2], newcomer, served}) ::close(fd);
}

TEST_F(ConnectionServerTest, AnAnswerNobodyTakesIsDroppedAtItsDeadlineAndReleased) {
    answerSize = 8 << 20;  // far more than the socket buffers hold
    start(300ms);
    const int client = connect();
    send(client, "<root/>");
    EXPECT_TRUE(eventually([&] { return holdsReleased == 1 && server->connectionCount() == 0; }, 10s));
    ::close(client);
}

TEST_F(ConnectionServerTest, ShutdownFinishesRequestsInFlightAndDropsTheRest) {
    gate = std::make_unique<Gate>();
    start();
    const int inFlight = connect();
    send(inFlight, "<root/>");
    ASSERT_TRUE(gate->waitFor(1));
    const int silent = connect();
    ASSERT_TRUE(eventually([&] { return server->connectionCount() == 2; }, 10s));

    std::thread stopper([&] { server->shutdown(); });
    EXPECT_TRUE(closedByServer(silent));
    gate->release();
    EXPECT_EQ(answer(inFlight), "<answer><root/></answer>");
    stopper.join();
    EXPECT_TRUE(closedByServer(inFlight)) << "not held for its acknowledgement";
    for (int fd : {inFlight, silent}) ::close(fd);
}

}  // namespace
