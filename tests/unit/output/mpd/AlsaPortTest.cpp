// Port selection for the private servers and the sound-device check, without any server.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "output/mpd/CAlsaPlayer.h"
#include "unit/support/Files.h"

namespace {

class PortSelection : public ::testing::Test {
protected:
    void SetUp() override { CAlsaPlayer::resetPortCounter(); }
    void TearDown() override {
        CAlsaPlayer::setPortProbe(nullptr);
        CAlsaPlayer::resetPortCounter();
    }
};

TEST_F(PortSelection, CounterWrapsSkipsBusyPortsAndFallsBackToTheFirstWhenAllAreBusy) {
    CAlsaPlayer::setPortProbe([](int) { return false; });
    EXPECT_EQ(CAlsaPlayer::choosePort(), 12351);
    int last = 0;
    for (int i = 2; i <= 300; ++i) last = CAlsaPlayer::choosePort();
    EXPECT_EQ(last, 12650);
    EXPECT_EQ(CAlsaPlayer::choosePort(), 12350);

    CAlsaPlayer::setPortProbe([](int port) { return port == 12351 || port == 12352; });
    EXPECT_EQ(CAlsaPlayer::choosePort(), 12353);
    EXPECT_EQ(CAlsaPlayer::choosePort(), 12354);  // the counter goes on from the port taken

    std::set<int> asked;
    CAlsaPlayer::setPortProbe([&](int port) { return asked.insert(port), true; });
    EXPECT_EQ(CAlsaPlayer::choosePort(), 12350);
    EXPECT_EQ(asked.size(), 300u);  // each candidate once, then no more
    EXPECT_EQ(*asked.begin(), 12350);
    EXPECT_EQ(*asked.rbegin(), 12650);
}

TEST(PortTable, OnlyLocalAddressesCount) {
    // 0x303F = 12351, 0x3040 = 12352.
    const char* tcp =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
        "   0: 0100007F:303F 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1 1\n"
        "   1: 0100007F:A1B2 0100007F:3040 01 00000000:00000000 00:00000000 00000000     0        0 2 1\n";
    EXPECT_TRUE(CAlsaPlayer::tcpTableHasLocalPort(tcp, 12351));
    EXPECT_FALSE(CAlsaPlayer::tcpTableHasLocalPort(tcp, 12352));  // only a remote end
    EXPECT_FALSE(CAlsaPlayer::tcpTableHasLocalPort(tcp, 0x303));  // no substring matches
    EXPECT_TRUE(CAlsaPlayer::tcpTableHasLocalPort(
        "  sl  local_address remote_address st\n   0: 00000000000000000000000000000000:3040 0000:0000 0A\n", 12352));
}

TEST(SoundDevice, FreeOnlyWhenTheStatusSaysClosed) {
    testsupport::TempDir root;
    testsupport::RootGuard guard(root.path());
    const char* statuses[][3] = {{"0", "3", "closed\n"}, {"1", "0", "state: RUNNING\n"}, {"2", "0", ""}};
    for (const auto& [card, device, text] : statuses) {
        std::string dir = root / "proc/asound/card" + card + "/pcm" + device + "p/sub0";
        testsupport::makeDirs(dir);
        ASSERT_TRUE(testsupport::writeFile(dir + "/status", text));
    }
    EXPECT_FALSE(CAlsaPlayer::isSndDevBusy("0", "3"));
    EXPECT_TRUE(CAlsaPlayer::isSndDevBusy("1", "0"));
    EXPECT_TRUE(CAlsaPlayer::isSndDevBusy("2", "0"));
    EXPECT_TRUE(CAlsaPlayer::isSndDevBusy("0", "7"));  // no such device
    EXPECT_TRUE(CAlsaPlayer::isSndDevBusy("9", "0"));  // no such card
    EXPECT_TRUE(CAlsaPlayer::isSndDevBusy("", ""));
}

}  // namespace
