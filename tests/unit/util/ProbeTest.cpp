#include <gtest/gtest.h>
#include <unistd.h>

#include <list>

#include "UtilTestSupport.h"
#include "util/NetUtil.h"
#include "util/ProcProbe.h"
#include "util/Process.h"

namespace {

class InstanceProbe : public testing::Test {
protected:
    void SetUp() override {
        // A script's process name is its file name: one no other process has. It waits on a
        // builtin, so no forked copy of it ever shows up under the same name.
        ASSERT_TRUE(testutil::writeFile(m_dir / m_name, "#!/bin/sh\nread line\n", 0755));
        ASSERT_TRUE(testutil::writeFile(m_dir / (m_name + "x"), "#!/bin/sh\nexit 0\n", 0755));
        testutil::makeDirs(m_dir / "rootA");
    }
    // Returns once /proc shows what `ready` looks for (exec returns before the command line is set).
    void launch(const std::vector<std::string>& argv, const std::string& file, const std::string& ready) {
        Subprocess& p = m_children.emplace_back();
        Subprocess::Options o;
        o.in = Subprocess::Stream::Pipe;  // read blocks until the pipe closes
        ASSERT_EQ(p.start(argv, o), 0);
        const std::string proc = "/proc/" + std::to_string(p.pid()) + "/" + file;
        ASSERT_TRUE(testutil::eventually([&] { return testutil::readFile(proc).find(ready) != std::string::npos; }))
            << proc << " never showed " << ready;
    }

    testutil::TempDir m_dir;
    std::string m_name = "vlp" + std::to_string(::getpid() % 100000);
    std::list<Subprocess> m_children;  // stopped and reaped at the end of each test
};

TEST_F(InstanceProbe, CountsLiveProcessesOnTheSameRoot) {
    testutil::RootGuard root(m_dir / "rootA");
    EXPECT_EQ(is_process_already_exist("velmora-nothing-has-this-name"), 0);
    launch({m_dir / m_name, "--root", m_dir / "rootA"}, "cmdline", "--root");
    EXPECT_EQ(is_process_already_exist(m_name.c_str()), 0) << "one alone is the caller itself";

    launch({m_dir / m_name, "--root=" + m_dir.path() + "/rootA/../rootA/"}, "cmdline", "--root");
    EXPECT_NE(is_process_already_exist(m_name.c_str()), 0);
    EXPECT_NE(is_process_already_exist(m_name.substr(0, 4).c_str()), 0) << "names match by substring";
    testutil::RootGuard other(m_dir / "rootB");
    EXPECT_EQ(is_process_already_exist(m_name.c_str()), 0) << "another root's daemons do not count";
}

TEST_F(InstanceProbe, ZombiesDoNotCount) {
    testutil::RootGuard none("");
    // They exit at once but stay unreaped until the Subprocess objects go.
    for (int i = 0; i < 2; ++i) ASSERT_NO_FATAL_FAILURE(launch({m_dir / (m_name + "x")}, "stat", ") Z"));
    EXPECT_EQ(is_process_already_exist(m_name.c_str()), 0);
}

TEST(InterfaceByAddress, MatchesUnderTheNetmask) {
    std::string name;
    ASSERT_EQ(get_if_by_ip("127.45.6.7", name), 0) << "any address of the loopback network";
    EXPECT_EQ(name, "lo");
    EXPECT_EQ(get_if_by_ip("not an address", name), 1);
}

}  // namespace
