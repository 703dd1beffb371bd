// The connection threads: concurrency cap, thread reuse, idle shrinking and a shutdown that
// wakes threads blocked in accept() or on silent clients.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "ipc/ConnectionPool.h"
#include "unit/support/Files.h"

using namespace std::chrono_literals;

namespace {

using testsupport::eventually;

class Listener {
public:
    Listener() {
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", (dir / "s").c_str());
        EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        EXPECT_EQ(::listen(fd, 128), 0);
    }
    ~Listener() { ::close(fd); }
    int connect() const {
        int c = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::connect(c, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0);
        return c;
    }
    testsupport::TempDir dir{"vpool"};
    sockaddr_un addr{AF_UNIX, {}};
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// A handler that serves until its client closes, counting what runs at once.
struct Counting {
    std::atomic<int> running{0}, peak{0}, served{0};
    void operator()(int fd) {
        int now = ++running;
        int p = peak;
        while (now > p && !peak.compare_exchange_weak(p, now)) {}
        char c;
        while (::read(fd, &c, 1) > 0) {}
        --running;
        ++served;
    }
};

ConnectionPool makePool(Listener& l, Counting& h, size_t cap, std::chrono::milliseconds idle) {
    return ConnectionPool(
        l.fd, [&l] { return ::accept4(l.fd, nullptr, nullptr, SOCK_CLOEXEC); }, [&h](int fd) { h(fd); }, nullptr,
        cap, idle);
}

TEST(ConnectionPoolTest, NeverServesMoreThanTheCap) {
    Listener l;
    Counting h;
    ConnectionPool pool = makePool(l, h, 3, 5000ms);
    ASSERT_EQ(pool.start(), 0);

    std::vector<int> clients;
    for (int i = 0; i < 4; ++i) clients.push_back(l.connect());
    ASSERT_TRUE(eventually([&] { return h.running == 3; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(h.running.load(), 3);  // the fourth waits in the listen queue

    ::close(clients[0]);
    ASSERT_TRUE(eventually([&] { return h.served == 1 && h.running == 3; }));
    EXPECT_EQ(h.peak.load(), 3);
    for (size_t i = 1; i < clients.size(); ++i) ::close(clients[i]);
    ASSERT_TRUE(eventually([&] { return h.served == 4; }));
}

TEST(ConnectionPoolTest, SequentialConnectionsReuseOneThread) {
    Listener l;
    Counting h;
    ConnectionPool pool = makePool(l, h, 256, 5000ms);
    ASSERT_EQ(pool.start(), 0);
    for (int i = 0; i < 50; ++i) {
        ::close(l.connect());
        ASSERT_TRUE(eventually([&] { return h.served == i + 1; }));
    }
    // One thread serves while a second waits in accept().
    EXPECT_LE(pool.threadCount(), 2u);
}

TEST(ConnectionPoolTest, IdleThreadsEndButOneStays) {
    Listener l;
    Counting h;
    ConnectionPool pool = makePool(l, h, 256, 50ms);
    ASSERT_EQ(pool.start(), 0);
    std::vector<int> clients;
    for (int i = 0; i < 6; ++i) clients.push_back(l.connect());
    ASSERT_TRUE(eventually([&] { return h.running == 6; }));
    EXPECT_GE(pool.threadCount(), 7u);
    for (int c : clients) ::close(c);
    EXPECT_TRUE(eventually([&] { return pool.threadCount() == 1; }));

    // The one left still serves.
    ::close(l.connect());
    EXPECT_TRUE(eventually([&] { return h.served == 7; }));
}

TEST(ConnectionPoolTest, ShutdownWakesAcceptorsAndSilentClients) {
    Listener l;
    Counting h;
    ConnectionPool pool = makePool(l, h, 8, 60000ms);
    ASSERT_EQ(pool.start(), 0);
    std::vector<int> silent;
    for (int i = 0; i < 4; ++i) silent.push_back(l.connect());
    ASSERT_TRUE(eventually([&] { return h.running == 4; }));

    auto start = std::chrono::steady_clock::now();
    pool.shutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(pool.threadCount(), 0u);
    for (int c : silent) ::close(c);
}

}  // namespace
