// The permits of large answers: few at once, held until the answer is sent.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "command/LargeAnswers.h"
#include "unit/support/Files.h"

using namespace std::chrono_literals;

TEST(LargeAnswersTest, OnlyAFewAreBuiltAtOnceAndEachHoldsItsPermitUntilSent) {
    using namespace largeanswer;
    EXPECT_EQ(holdFor(100), nullptr) << "a small answer holds nothing";
    expect(kLargeBytes / 2);
    EXPECT_EQ(inUse(), 0);
    EXPECT_NE(holdFor(kLargeBytes + 1), nullptr) << "one that turned out large gives memory back when sent";

    // Answers being sent, each with the permit its handler took.
    std::vector<std::shared_ptr<void>> sending;
    for (int i = 0; i < kPermits; ++i) {
        std::thread([&] {
            expect(2 * kLargeBytes);
            sending.push_back(holdFor(2 * kLargeBytes));
        }).join();
    }
    EXPECT_EQ(inUse(), kPermits);

    std::atomic<bool> built{false};
    std::thread next([&] {
        expect(2 * kLargeBytes);
        built = true;
        holdFor(2 * kLargeBytes);  // dropped at once: as if sent
    });
    // It waits while every permit is out ...
    EXPECT_FALSE(testsupport::eventually([&] { return built.load(); }, 200ms));
    sending.pop_back();  // ... and goes on once one answer is out.
    EXPECT_TRUE(testsupport::eventually([&] { return built.load(); }, 10s));
    next.join();
    sending.clear();
    EXPECT_EQ(inUse(), 0);
}
