// The one way the daemon runs other programs: from an argument vector, never through a shell.
// Children run in a process group of their own so that a time-out or a stop can take down
// everything they started; each caller reaps the children it starts (no SIGCHLD reaper exists,
// so SIGCHLD must not be set to SIG_IGN, which would make the kernel discard exit statuses).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

struct ProcessOptions {
    int timeoutMs = -1;  // <0: none
    size_t outputCap = 8192;
    // Which stream is captured. Stdout: stderr stays the daemon's. Stderr: stdout is discarded.
    // Both: stderr joins stdout ("2>&1"). None: both discarded ("&> /dev/null").
    enum class Capture { Stdout, Stderr, Both, None } capture = Capture::Stdout;
    // With Capture::Stdout: stderr goes to /dev/null instead of the daemon's ("2> /dev/null").
    bool discardStderr = false;
    std::string stdinPath;   // empty: /dev/null
    // Non-empty: stdout is appended to this file (created 0644) instead of captured; with
    // Capture::Both stderr goes there too, as ">> file 2>&1" would.
    std::string stdoutFile;
};

struct ProcessResult {
    int exitStatus = -1;  // WEXITSTATUS when the child exited normally
    int termSignal = 0;   // signal that ended the child, if any
    bool timedOut = false;
    bool truncated = false;  // output beyond the cap was read and dropped
    int spawnErrno = 0;      // non-zero: the program could not be started
    std::string output;
    bool ok() const { return spawnErrno == 0 && !timedOut && termSignal == 0 && exitStatus == 0; }
};

// Runs argv[0] (searched in PATH only when it contains no '/') and collects its output.
// On time-out the child's whole process group is killed with SIGKILL and reaped. Once the child
// itself has exited, remaining output is drained until end of file, the deadline, or a short
// quiet spell: a background grandchild that keeps the pipe open cannot hold the caller.
// Safe to call from many threads at once.
ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// Text form of a command for log lines only (never executed): arguments that are empty or
// contain blanks or shell-special characters are shown in double quotes.
std::string formatCommandLine(const std::vector<std::string>& argv);


// Runs argv and puts its standard output (up to the first NUL) in `answer`; false, logged,
// when it could not run, timed out, or said more than `cap` bytes. quietStderr: "2> /dev/null".
bool captureOutput(const std::vector<std::string>& argv, size_t cap, int timeoutMs, std::string& answer,
                   bool quietStderr = false);

// A long-lived child (players, sender bridges). Not thread-safe: one owner drives it.
// The destructor stops and reaps a child that is still running.
class Subprocess {
public:
    enum class Stream {
        Inherit,   // the daemon's own descriptor
        Null,      // /dev/null
        Pipe,      // a pipe whose other end this object holds
        File,      // stdin: read from path; stdout: appended to path
        ToStdout,  // stderr only: wherever stdout goes
    };
    struct Options {
        Stream in = Stream::Null;
        Stream out = Stream::Null;
        Stream err = Stream::Inherit;
        std::string inPath;
        std::string outPath;
    };
    static constexpr int kDefaultGraceMs = 2000;

    Subprocess() = default;
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;
    Subprocess(Subprocess&& other) noexcept;
    Subprocess& operator=(Subprocess&& other) noexcept;

    // 0, or the errno that kept the program from starting. A running child is stopped first.
    int start(const std::vector<std::string>& argv, const Options& options);
    int start(const std::vector<std::string>& argv) { return start(argv, Options{}); }

    pid_t pid() const { return m_pid; }
    bool running() const { return m_pid > 0 && !m_reaped; }
    // Descriptors of the pipes requested in Options (-1 otherwise); they stay owned here.
    int stdinFd() const { return m_in; }
    int stdoutFd() const { return m_out; }
    int stderrFd() const { return m_err; }
    void closeStdin();

    // Line exchange with a child started with piped stdin and stdout (a sender bridge).
    enum class Read { Line, TimedOut, Eof };
    // One line of stdout (without its "\n"; a "\r" before it is dropped too), waiting up to
    // timeoutMs. A line longer than kMaxLine is cut there, and its rest dropped. Eof: the
    // child closed stdout (a partial last line is given first, as a Line).
    Read readLine(std::string& line, int timeoutMs);
    // Writes text and "\n" whole to stdin, waiting up to timeoutMs; false when the child does
    // not take it in time or has gone (no SIGPIPE reaches the daemon).
    bool writeLine(const std::string& text, int timeoutMs);
    static constexpr size_t kMaxLine = 64 * 1024;

    // Reaps the child if it has exited; true once it is gone (also when it never started).
    bool tryWait();
    // Waits up to timeoutMs (<0: for ever) for the child to exit and reaps it; true when reaped.
    bool waitFor(int timeoutMs);
    // Raw wait status of the reaped child (for WIFEXITED and friends); -1 before that.
    int waitStatus() const { return m_status; }

    // SIGTERM to the group, up to graceMs for the child to end, then SIGKILL to the group; reaped.
    void terminate(int graceMs = kDefaultGraceMs);
    // SIGKILL to the group, then reaped.
    void kill();

    // For the runner: true when the child has exited but is kept unreaped, so that its process
    // group id cannot be reused yet and the group can still be signalled safely.
    bool exitedUnreaped(int timeoutMs);
    void signalGroup(int sig);

private:
    void closePipes();
    void reset();
    bool reapBlocking();

    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_status = -1;
    int m_in = -1;
    int m_out = -1;
    int m_err = -1;
    int m_pidfd = -1;
    std::string m_pending;  // stdout read past the last line given out
    bool m_dropping = false;  // the rest of an over-long line is being skipped
};
