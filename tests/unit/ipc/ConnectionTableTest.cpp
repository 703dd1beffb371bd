// The event loop's bookkeeping: deadlines per phase and which connection makes room.
#include <gtest/gtest.h>

#include "ipc/ConnectionTable.h"

using namespace std::chrono_literals;
using ipc::Clock;
using ipc::ConnectionTable;
using Phase = ipc::connection_s::Phase;

TEST(ConnectionTableTest, DeadlinesRunFromAcceptAndFromTheAnswerNotWhileServing) {
    ConnectionTable table(30s, 10s);
    const Clock::time_point t0{};
    const uint64_t a = table.add(3, t0).id;
    const uint64_t b = table.add(4, t0 + 5s).id;
    const uint64_t c = table.add(5, t0 + 6s).id;
    EXPECT_EQ(table.nextDeadline(), t0 + 30s);

    table.startServing(*table.find(a));  // no deadline of ours while a worker has it
    EXPECT_EQ(table.nextDeadline(), t0 + 35s);
    EXPECT_TRUE(table.expired(t0 + 60s).size() == 2);

    table.startAnswering(*table.find(a), t0 + 20s);
    EXPECT_EQ(table.nextDeadline(), t0 + 30s);
    EXPECT_EQ(table.expired(t0 + 30s), (std::vector<uint64_t>{a}));
    EXPECT_EQ(table.expired(t0 + 36s), (std::vector<uint64_t>{b, c, a}));

    EXPECT_EQ(table.countIn(Phase::Reading), 2u);
    EXPECT_EQ(table.countIn(Phase::Answering), 1u);
    table.remove(b);
    table.remove(a);
    EXPECT_EQ(table.nextDeadline(), t0 + 36s);
    EXPECT_EQ(table.size(), 1u);
    EXPECT_EQ(table.remove(a), nullptr);
}

TEST(ConnectionTableTest, TheOldestConnectionStillWaitingForItsRequestMakesRoom) {
    ConnectionTable table(30s, 30s);
    const Clock::time_point t0{};
    const uint64_t first = table.add(3, t0).id;
    const uint64_t second = table.add(4, t0 + 1s).id;
    table.add(5, t0 + 2s);
    table.startServing(*table.find(first));  // being served: never dropped for room
    EXPECT_EQ(table.oldestReading()->id, second);
    table.remove(second);
    EXPECT_EQ(table.oldestReading()->fd, 5);
    table.remove(table.oldestReading()->id);
    EXPECT_EQ(table.oldestReading(), nullptr);
    EXPECT_EQ(table.countIn(Phase::Serving), 1u);
}
