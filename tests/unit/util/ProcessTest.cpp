#include "util/Process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "UtilTestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
using testutil::TempDir;

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

std::vector<pid_t> readPids(const std::string& path) {
    std::istringstream in(testutil::readFile(path));
    std::vector<pid_t> pids;
    for (long p; in >> p;) pids.push_back(static_cast<pid_t>(p));
    return pids;
}

// Gone, or a zombie left to init (not ours to reap): either way nothing runs.
bool stopped(pid_t pid) {
    return testutil::eventually([pid] {
        std::string stat = testutil::readFile("/proc/" + std::to_string(pid) + "/stat");
        return stat.empty() || stat.compare(stat.rfind(')'), 3, ") Z") == 0;
    });
}

bool reaped(pid_t pid) { return !testutil::exists("/proc/" + std::to_string(pid)); }

// No child of this process is left, not even a zombie.
void expectNoChildren() {
    errno = 0;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(RunProcess, ATimeOutKillsTheWholeGroupPromptlyAndABackgroundJobNeverHoldsTheCaller) {
    TempDir dir;
    // The background sleep also holds the output pipe: the runner must not wait for it either.
    ASSERT_TRUE(testutil::writeFile(dir / "slow", "#!/bin/sh\necho $$ > \"$1\"\nsleep 30 &\necho $! >> \"$1\"\n"
                                                  "echo started\nsleep 30\n", 0755));
    ProcessOptions opt;
    opt.timeoutMs = 400;
    auto start = Clock::now();
    ProcessResult r = runProcess({dir / "slow", dir / "pids"}, opt);
    EXPECT_GE(msSince(start), 380);
    EXPECT_LT(msSince(start), 2000);
    EXPECT_TRUE(r.timedOut);
    EXPECT_FALSE(r.ok());
    EXPECT_EQ(r.output, "started\n");

    auto pids = readPids(dir / "pids");
    ASSERT_EQ(pids.size(), 2u);
    EXPECT_TRUE(reaped(pids[0]));
    EXPECT_TRUE(stopped(pids[1])) << "grandchild still running";
    expectNoChildren();

    // A child that exits leaving such a job behind does not hold the caller either.
    ASSERT_TRUE(testutil::writeFile(dir / "bg", "#!/bin/sh\nsleep 30 &\necho $! > \"$1\"\necho done\nexit 3\n", 0755));
    start = Clock::now();
    r = runProcess({dir / "bg", dir / "pid"});  // no time-out at all
    EXPECT_LT(msSince(start), 3000);
    EXPECT_EQ(r.exitStatus, 3);
    EXPECT_EQ(r.output, "done\n");
    for (pid_t p : readPids(dir / "pid")) ::kill(p, SIGKILL);
}

TEST(RunProcess, OutputBeyondTheCapIsDrainedAndDropped) {
    ProcessOptions opt;
    opt.outputCap = 1000;
    opt.timeoutMs = 10000;
    ProcessResult r = runProcess({"/usr/bin/head", "-c", "3000000", "/dev/zero"}, opt);
    EXPECT_TRUE(r.ok()) << "the writer must never block on a full pipe";
    EXPECT_TRUE(r.truncated);
    EXPECT_EQ(r.output.size(), 1000u);
    EXPECT_FALSE(runProcess({"/usr/bin/head", "-c", "8192", "/dev/zero"}).truncated);
}

TEST(RunProcess, ArgumentsArriveVerbatimAndNothingRunsThroughAShell) {
    TempDir dir;
    const std::vector<std::string> tricky = {"a b", "it's \"q\"", "$(touch " + (dir / "X") + ")",
                                             "`touch " + (dir / "Y") + "`", "; touch " + (dir / "Z"), "*", "$HOME",
                                             ""};
    std::vector<std::string> argv = {"printf", "[%s]\\n"};
    argv.insert(argv.end(), tricky.begin(), tricky.end());
    std::string expected;
    for (const auto& a : tricky) expected += "[" + a + "]\n";
    EXPECT_EQ(runProcess(argv).output, expected);
    for (const char* f : {"X", "Y", "Z"}) EXPECT_FALSE(testutil::exists(dir / f)) << f;
}

TEST(RunProcess, StatusSignalStartFailureAndDiscardedStreams) {
    EXPECT_EQ(runProcess({"/bin/sh", "-c", "exit 7"}).exitStatus, 7);
    ProcessResult killed = runProcess({"/bin/sh", "-c", "kill -TERM $$; sleep 5"});
    EXPECT_EQ(killed.termSignal, SIGTERM);
    EXPECT_FALSE(killed.ok());
    EXPECT_EQ(runProcess({"/velmora/missing"}).spawnErrno, ENOENT);
    EXPECT_EQ(runProcess({"velmora-no-such-program"}).spawnErrno, ENOENT);
    ProcessOptions quiet;
    quiet.capture = ProcessOptions::Capture::None;
    EXPECT_EQ(runProcess({"/bin/echo", "x"}, quiet).output, "");
    ProcessOptions noStderr;
    noStderr.discardStderr = true;
    testing::internal::CaptureStderr();
    ProcessResult r = runProcess({"/bin/sh", "-c", "echo noise >&2; echo out"}, noStderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("noise"), std::string::npos);
    EXPECT_EQ(r.output, "out\n");
    expectNoChildren();
}

TEST(RunProcess, ChildGetsOnlyItsStandardDescriptors) {
    // As if another thread had just opened a descriptor without close-on-exec.
    ASSERT_EQ(::dup2(STDERR_FILENO, 100), 100);
    ProcessResult r = runProcess({"/bin/ls", "/proc/self/fd"});
    ::close(100);
    std::set<std::string> fds;
    std::istringstream in(r.output);
    for (std::string fd; in >> fd;) fds.insert(fd);
    EXPECT_EQ(fds, (std::set<std::string>{"0", "1", "2", "3"})) << "3 is ls's own listing";
    EXPECT_EQ(runProcess({"/bin/readlink", "/proc/self/fd/0"}).output, "/dev/null\n");
}

TEST(RunProcess, ManyThreadsAtOnceEachGetTheirOwnOutput) {
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t, &good] {
            for (int i = 0; i < 10; ++i) {
                const std::string word = std::to_string(t) + "-" + std::to_string(i);
                good += runProcess({"/bin/echo", word}).output == word + "\n";
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(good.load(), 80);
    expectNoChildren();
}

TEST(Subprocess, TerminateEscalatesAndDestructorReaps) {
    TempDir dir;
    // Ignores SIGTERM, as does its child: only the SIGKILL after the grace period ends them.
    ASSERT_TRUE(testutil::writeFile(dir / "stubborn", "#!/bin/sh\ntrap '' TERM\nsleep 30 &\necho $! > \"$1\"\nwait\n",
                                    0755));
    Subprocess p;
    ASSERT_EQ(p.start({dir / "stubborn", dir / "pid"}), 0);
    const pid_t pid = p.pid();
    ASSERT_TRUE(testutil::eventually([&] { return !readPids(dir / "pid").empty(); }));
    EXPECT_FALSE(p.tryWait());
    auto start = Clock::now();
    p.terminate(300);
    EXPECT_GE(msSince(start), 250);
    EXPECT_TRUE(WIFSIGNALED(p.waitStatus()) && WTERMSIG(p.waitStatus()) == SIGKILL);
    EXPECT_TRUE(reaped(pid));
    for (pid_t g : readPids(dir / "pid")) EXPECT_TRUE(stopped(g));

    pid_t scoped;
    {
        Subprocess q;
        ASSERT_EQ(q.start({"/bin/sleep", "30"}), 0);
        scoped = q.pid();
    }
    EXPECT_TRUE(reaped(scoped));
    expectNoChildren();
}

TEST(Subprocess, LinesBothWaysWithTimeOutsPartialAndOverlongLinesAndAGoneChild) {
    using Read = Subprocess::Read;
    Subprocess::Options io;
    io.in = Subprocess::Stream::Pipe;
    io.out = Subprocess::Stream::Pipe;
    Subprocess cat;
    ASSERT_EQ(cat.start({"/bin/cat"}, io), 0);
    std::string line;
    ASSERT_TRUE(cat.writeLine("hello \"there\"", 5000));
    ASSERT_EQ(cat.readLine(line, 5000), Read::Line);
    EXPECT_EQ(line, "hello \"there\"");
    EXPECT_EQ(cat.readLine(line, 30), Read::TimedOut) << "a silent child";
    cat.closeStdin();
    EXPECT_EQ(cat.readLine(line, 5000), Read::Eof);
    EXPECT_TRUE(cat.waitFor(5000));
    EXPECT_FALSE(cat.writeLine("to nobody", 100)) << "and no SIGPIPE ends the test";

    // A partial last line, CR LF endings, and a line past the cap (cut; its rest dropped).
    Subprocess talker;
    ASSERT_EQ(talker.start({"/usr/bin/python3", "-c",
                            "import sys; sys.stdout.write('a\\r\\n' + 'x' * 70000 + '\\nb\\nlast')"},
                           io),
              0);
    std::vector<std::string> got;
    while (talker.readLine(line, 5000) == Read::Line) got.push_back(line);
    EXPECT_EQ(got, (std::vector<std::string>{"a", std::string(Subprocess::kMaxLine, 'x'), "b", "last"}));
    EXPECT_TRUE(talker.waitFor(5000));
    expectNoChildren();
}

}  // namespace
