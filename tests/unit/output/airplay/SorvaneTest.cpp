// The AirPlay script interface on the simulated appliance: the argument vector of every
// operation, with paths and URLs intact, and the rule that only a status of exactly "0" succeeds.
#include <gtest/gtest.h>

#include "output/airplay/CSorvane.h"
#include "unit/support/SimRoot.h"

namespace {

using Op = CSorvane::CSorvaneOpInterface;
using testsupport::callLine;

class SorvaneTest : public testsupport::SimRootTest {
protected:
    std::string php(std::vector<std::string> args) {
        args.insert(args.begin(), m_root + "/usr/local/medialibrary/bin/Sorvane/sorvane.php");
        return callLine("php", args);
    }
};

TEST_F(SorvaneTest, EachOperationRunsTheScriptWithItsArgumentsAndOnlyStatusZeroSucceeds) {
    const std::string dev = "uuid:it's \"tv\"";
    const std::string photo = "/share/Public/Photo/a b's.jpg";
    ASSERT_EQ(Op::sendCommand(Op::kPlay, dev, "http://h/v.mp4?len=30", nullptr, "/share/Public/Video/sub 'x'.srt"), 0);
    ASSERT_EQ(Op::sendCommand(Op::kScrub, dev, "12", nullptr, nullptr), 0);
    int curr = -1, total = -1;
    ASSERT_EQ(Op::getPosInfo(dev, curr, total), 0);
    EXPECT_EQ(total, 30);
    EXPECT_GE(curr, 12);
    for (int op : {1, 2, 3, 6}) ASSERT_EQ(Op::sendCommand(op, dev, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(Op::sendCommand(Op::kPhoto, dev, photo.c_str(), nullptr, nullptr), 0);
    ASSERT_EQ(Op::sendCommand(Op::kPlay, dev, "u", "info", nullptr), 0);

    EXPECT_EQ(callLog.fresh(),
              (std::vector<std::string>{
                  php({"-c=play", "-d=" + dev, "-u=http://h/v.mp4?len=30", "-x", "-t=/share/Public/Video/sub 'x'.srt"}),
                  php({"-c=scrub", "-d=" + dev, "-t=12", "-x"}),
                  php({"-c=status", "-d=" + dev, "-x"}),
                  php({"-c=stop", "-d=" + dev, "-x"}),
                  php({"-c=pause", "-d=" + dev, "-x"}),
                  php({"-c=resume", "-d=" + dev, "-x"}),
                  php({"-c=stop_only", "-d=" + dev, "-x"}),
                  php({"-c=photo", "-d=" + dev, "-u=" + photo, "-x"}),
                  php({"-c=play", "-d=" + dev, "-u=u", "-x", "-i=info"}),
              }));

    // Only a status of exactly "0" succeeds, and nothing runs without an operation.
    EXPECT_EQ(Op::sendCommand(Op::kPhoto, "d", nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(Op::sendCommand(99, "d", "x", nullptr, nullptr), -1);
    EXPECT_TRUE(callLog.fresh().empty());

    for (const char* status : {"00", "01", "1", ""}) {
        ASSERT_TRUE(testsupport::writeFile(at("var/sim/sorvane.json"),
                                           std::string(R"({"status": ")") + status + "\"}"));
        EXPECT_EQ(Op::sendCommand(Op::kStop, "d", nullptr, nullptr, nullptr), -1) << "[" << status << "]";
    }
}

}  // namespace
