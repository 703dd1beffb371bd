#include "util/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>
#include <utility>

#include "util/Log.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Once the child itself has exited, a grandchild may still hold the output pipe; these bound
// how long the runner keeps draining it.
constexpr int kQuietAfterExitMs = 200;
constexpr int kDrainAfterExitMs = 1000;

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

// Pipe ends must not land on 0..2: the file actions dup2 them onto those numbers, and a pipe end
// that already sits there would be overwritten before it is copied.
int makePipe(int fds[2]) {
    if (::pipe2(fds, O_CLOEXEC) != 0) return errno;
    for (int i = 0; i < 2; ++i) {
        if (fds[i] > 2) continue;
        int moved = ::fcntl(fds[i], F_DUPFD_CLOEXEC, 3);
        int err = errno;
        ::close(fds[i]);
        fds[i] = moved;
        if (moved < 0) {
            closeFd(fds[0]);
            closeFd(fds[1]);
            return err;
        }
    }
    return 0;
}

int openPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
    // Always close-on-exec; absent on old kernels, where the waits fall back to short sleeps.
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

int msUntil(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return 0;
    return left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

struct SpawnResources {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    bool haveActions = false;
    bool haveAttr = false;
    ~SpawnResources() {
        if (haveActions) posix_spawn_file_actions_destroy(&actions);
        if (haveAttr) posix_spawnattr_destroy(&attr);
    }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Subprocess

Subprocess::~Subprocess() {
    if (running()) terminate(kDefaultGraceMs);
    reset();
}

Subprocess::Subprocess(Subprocess&& other) noexcept { *this = std::move(other); }

Subprocess& Subprocess::operator=(Subprocess&& other) noexcept {
    if (this == &other) return *this;
    if (running()) terminate(kDefaultGraceMs);
    reset();
    m_pid = std::exchange(other.m_pid, -1);
    m_reaped = std::exchange(other.m_reaped, false);
    m_status = std::exchange(other.m_status, -1);
    m_in = std::exchange(other.m_in, -1);
    m_out = std::exchange(other.m_out, -1);
    m_err = std::exchange(other.m_err, -1);
    m_pidfd = std::exchange(other.m_pidfd, -1);
    m_pending = std::exchange(other.m_pending, {});
    m_dropping = std::exchange(other.m_dropping, false);
    return *this;
}

void Subprocess::closePipes() {
    closeFd(m_in);
    closeFd(m_out);
    closeFd(m_err);
}

void Subprocess::reset() {
    closePipes();
    closeFd(m_pidfd);
    m_pid = -1;
    m_reaped = false;
    m_status = -1;
    m_pending.clear();  // unread output belongs to the child that has gone
    m_dropping = false;
}

void Subprocess::closeStdin() { closeFd(m_in); }

Subprocess::Read Subprocess::readLine(std::string& line, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(0, timeoutMs));
    for (;;) {
        const size_t nl = m_pending.find('\n');
        if (nl != std::string::npos) {
            line.assign(m_pending, 0, nl);
            m_pending.erase(0, nl + 1);
            const bool dropped = std::exchange(m_dropping, false);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (!dropped) return Read::Line;
            continue;  // the tail of an over-long line already given out
        }
        if (m_pending.size() >= kMaxLine) {
            line.assign(m_pending, 0, kMaxLine);
            m_pending.clear();
            if (!std::exchange(m_dropping, true)) return Read::Line;
        }
        if (m_out < 0) return Read::Eof;
        const int left = static_cast<int>(std::max<long long>(
            0, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count()));
        pollfd p{m_out, POLLIN, 0};
        const int n = ::poll(&p, 1, left);
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) return Read::TimedOut;
        char buf[4096];
        const ssize_t got = n < 0 ? -1 : ::read(m_out, buf, sizeof buf);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got <= 0) {
            closeFd(m_out);
            if (!m_pending.empty() && !m_dropping) {
                line = std::move(m_pending);
                m_pending.clear();
                return Read::Line;
            }
            m_pending.clear();
            return Read::Eof;
        }
        m_pending.append(buf, static_cast<size_t>(got));
    }
}

bool Subprocess::writeLine(const std::string& text, int timeoutMs) {
    if (m_in < 0) return false;
    // Never block past the deadline on a full pipe.
    const int flags = ::fcntl(m_in, F_GETFL);
    if (flags >= 0 && !(flags & O_NONBLOCK)) ::fcntl(m_in, F_SETFL, flags | O_NONBLOCK);
    // A child that has gone raises SIGPIPE on this thread: held and taken back, never delivered.
    sigset_t pipeSignal;
    sigset_t old;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &old);
    struct Restore {
        const sigset_t& pipe;
        const sigset_t& old;
        bool raised = false;
        ~Restore() {
            if (raised) {
                timespec zero{};
                sigtimedwait(&pipe, nullptr, &zero);
            }
            pthread_sigmask(SIG_SETMASK, &old, nullptr);
        }
    } restore{pipeSignal, old};
    const std::string data = text + "\n";
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(0, timeoutMs));
    size_t done = 0;
    while (done < data.size()) {
        const int left = static_cast<int>(std::max<long long>(
            0, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count()));
        pollfd p{m_in, POLLOUT, 0};
        const int n = ::poll(&p, 1, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        const ssize_t put = ::write(m_in, data.data() + done, data.size() - done);
        if (put < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (put < 0 && errno == EPIPE) restore.raised = true;
        if (put <= 0) return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

int Subprocess::start(const std::vector<std::string>& argv, const Options& options) {
    if (running()) terminate(kDefaultGraceMs);
    reset();
    if (argv.empty() || argv[0].empty()) return EINVAL;
    if (options.out == Stream::ToStdout || options.in == Stream::ToStdout || options.err == Stream::File)
        return EINVAL;

    int inPipe[2] = {-1, -1};
    int outPipe[2] = {-1, -1};
    int errPipe[2] = {-1, -1};
    auto closeAll = [&] {
        for (int* p : {inPipe, outPipe, errPipe}) {
            closeFd(p[0]);
            closeFd(p[1]);
        }
    };

    int err = 0;
    if (options.in == Stream::Pipe) err = makePipe(inPipe);
    if (!err && options.out == Stream::Pipe) err = makePipe(outPipe);
    if (!err && options.err == Stream::Pipe) err = makePipe(errPipe);
    if (err) {
        closeAll();
        return err;
    }

    SpawnResources res;
    if ((err = posix_spawn_file_actions_init(&res.actions)) != 0) {
        closeAll();
        return err;
    }
    res.haveActions = true;
    if ((err = posix_spawnattr_init(&res.attr)) != 0) {
        closeAll();
        return err;
    }
    res.haveAttr = true;

    auto* fa = &res.actions;
    switch (options.in) {
        case Stream::Null: err = posix_spawn_file_actions_addopen(fa, 0, "/dev/null", O_RDONLY, 0); break;
        case Stream::File: err = posix_spawn_file_actions_addopen(fa, 0, options.inPath.c_str(), O_RDONLY, 0); break;
        case Stream::Pipe: err = posix_spawn_file_actions_adddup2(fa, inPipe[0], 0); break;
        default: break;
    }
    if (!err) {
        switch (options.out) {
            case Stream::Null: err = posix_spawn_file_actions_addopen(fa, 1, "/dev/null", O_WRONLY, 0); break;
            case Stream::File:
                err = posix_spawn_file_actions_addopen(fa, 1, options.outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                                       0644);
                break;
            case Stream::Pipe: err = posix_spawn_file_actions_adddup2(fa, outPipe[1], 1); break;
            default: break;
        }
    }
    if (!err) {
        switch (options.err) {
            case Stream::Null: err = posix_spawn_file_actions_addopen(fa, 2, "/dev/null", O_WRONLY, 0); break;
            case Stream::Pipe: err = posix_spawn_file_actions_adddup2(fa, errPipe[1], 2); break;
            case Stream::ToStdout: err = posix_spawn_file_actions_adddup2(fa, 1, 2); break;
            default: break;
        }
    }
    // Our own descriptors are close-on-exec, but a library may open one without it while another
    // thread spawns; closing everything above stderr in the child keeps them all out.
    if (!err) err = posix_spawn_file_actions_addclosefrom_np(fa, 3);

    // Own process group (so the whole tree can be signalled), clean signal mask, and default
    // dispositions: the daemon ignores SIGPIPE and SIGHUP, and exec would pass that on.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    sigdelset(&all, SIGKILL);
    sigdelset(&all, SIGSTOP);
    if (!err) err = posix_spawnattr_setflags(&res.attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                                            POSIX_SPAWN_SETSIGDEF);
    if (!err) err = posix_spawnattr_setpgroup(&res.attr, 0);
    if (!err) err = posix_spawnattr_setsigmask(&res.attr, &none);
    if (!err) err = posix_spawnattr_setsigdefault(&res.attr, &all);
    if (err) {
        closeAll();
        return err;
    }

    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    pid_t pid = -1;
    const bool searchPath = argv[0].find('/') == std::string::npos;
    err = searchPath ? posix_spawnp(&pid, args[0], fa, &res.attr, args.data(), environ)
                     : posix_spawn(&pid, args[0], fa, &res.attr, args.data(), environ);
    // The child's ends are no longer needed here whatever happened.
    closeFd(inPipe[0]);
    closeFd(outPipe[1]);
    closeFd(errPipe[1]);
    if (err) {
        closeAll();
        return err;
    }

    m_pid = pid;
    m_in = inPipe[1];
    m_out = outPipe[0];
    m_err = errPipe[0];
    m_pidfd = openPidfd(pid);
    return 0;
}

bool Subprocess::reapBlocking() {
    if (m_pid <= 0 || m_reaped) return true;
    int status = 0;
    pid_t r;
    do {
        r = ::waitpid(m_pid, &status, 0);
    } while (r < 0 && errno == EINTR);
    m_status = r == m_pid ? status : -1;  // ECHILD: someone discarded it (SIGCHLD ignored)
    m_reaped = true;
    closeFd(m_pidfd);
    return true;
}

bool Subprocess::exitedUnreaped(int timeoutMs) {
    if (m_pid <= 0 || m_reaped) return true;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    int sleepMs = 1;
    for (;;) {
        siginfo_t info;
        std::memset(&info, 0, sizeof info);
        int r = ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            // Not our child any more (SIGCHLD ignored): nothing left to wait for.
            m_reaped = true;
            m_status = -1;
            closeFd(m_pidfd);
            return true;
        }
        if (info.si_pid == m_pid) return true;
        int wait = timeoutMs < 0 ? -1 : msUntil(deadline);
        if (timeoutMs >= 0 && wait == 0) return false;
        if (m_pidfd >= 0) {
            pollfd p{m_pidfd, POLLIN, 0};
            ::poll(&p, 1, wait);
        } else {
            int step = wait < 0 ? sleepMs : std::min(sleepMs, wait);
            std::this_thread::sleep_for(std::chrono::milliseconds(step));
            sleepMs = std::min(sleepMs * 2, 20);
        }
    }
}

bool Subprocess::tryWait() {
    if (m_pid <= 0 || m_reaped) return true;
    if (!exitedUnreaped(0)) return false;
    return reapBlocking();
}

bool Subprocess::waitFor(int timeoutMs) {
    if (m_pid <= 0 || m_reaped) return true;
    if (!exitedUnreaped(timeoutMs)) return false;
    return reapBlocking();
}

void Subprocess::signalGroup(int sig) {
    if (m_pid <= 0 || m_reaped) return;
    // The unreaped leader keeps its pid (and so the group id) from being reused. A child that
    // moved itself to another group is still reached directly.
    if (::kill(-m_pid, sig) != 0) ::kill(m_pid, sig);
}

void Subprocess::terminate(int graceMs) {
    if (!running()) {
        closePipes();
        return;
    }
    // Closed pipes turn a child blocked on them into one that fails fast instead of waiting.
    closePipes();
    signalGroup(SIGTERM);
    exitedUnreaped(graceMs < 0 ? 0 : graceMs);
    // Also takes down group members that outlived or ignored the SIGTERM.
    signalGroup(SIGKILL);
    reapBlocking();
}

void Subprocess::kill() {
    closePipes();
    signalGroup(SIGKILL);
    reapBlocking();
}

// ---------------------------------------------------------------------------------------------
// runProcess

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
    ProcessResult result;
    if (argv.empty() || argv[0].empty()) {
        result.spawnErrno = EINVAL;
        return result;
    }

    using Stream = Subprocess::Stream;
    using Capture = ProcessOptions::Capture;
    Subprocess::Options so;
    if (!options.stdinPath.empty()) {
        so.in = Stream::File;
        so.inPath = options.stdinPath;
    }
    const bool toFile = !options.stdoutFile.empty();
    so.outPath = options.stdoutFile;
    switch (options.capture) {
        case Capture::Stdout:
            so.out = toFile ? Stream::File : Stream::Pipe;
            so.err = options.discardStderr ? Stream::Null : Stream::Inherit;
            break;
        case Capture::Stderr:
            so.out = toFile ? Stream::File : Stream::Null;
            so.err = Stream::Pipe;
            break;
        case Capture::Both:
            so.out = toFile ? Stream::File : Stream::Pipe;
            so.err = Stream::ToStdout;
            break;
        case Capture::None:
            so.out = toFile ? Stream::File : Stream::Null;
            so.err = Stream::Null;
            break;
    }

    Subprocess child;
    if (int err = child.start(argv, so); err != 0) {
        result.spawnErrno = err;
        return result;
    }

    const bool hasDeadline = options.timeoutMs >= 0;
    const auto deadline = Clock::now() + std::chrono::milliseconds(hasDeadline ? options.timeoutMs : 0);
    int fd = child.stdoutFd() >= 0 ? child.stdoutFd() : child.stderrFd();
    bool exited = false;
    Clock::time_point exitSeen{};
    Clock::time_point lastData{};

    char buf[16384];
    while (fd >= 0) {
        int wait = hasDeadline ? msUntil(deadline) : -1;
        if (hasDeadline && wait == 0) break;
        if (exited) {
            auto now = Clock::now();
            if (now - exitSeen >= std::chrono::milliseconds(kDrainAfterExitMs) ||
                now - lastData >= std::chrono::milliseconds(kQuietAfterExitMs))
                break;
            int quiet = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                             lastData + std::chrono::milliseconds(kQuietAfterExitMs) - now)
                                             .count()) +
                        1;
            wait = wait < 0 ? quiet : std::min(wait, quiet);
        } else if (wait < 0 || wait > 50) {
            // The exit check below runs after each wake-up; a child that exits while a grandchild
            // keeps the pipe open is noticed within this interval.
            wait = 50;
        }

        pollfd p{fd, POLLIN, 0};
        int n = ::poll(&p, 1, wait);
        if (n < 0 && errno != EINTR) break;
        if (n > 0) {
            ssize_t got = ::read(fd, buf, sizeof buf);
            if (got < 0 && errno != EINTR && errno != EAGAIN) break;
            if (got == 0) break;  // end of output
            if (got > 0) {
                lastData = Clock::now();
                size_t take = 0;
                if (result.output.size() < options.outputCap)
                    take = std::min(static_cast<size_t>(got), options.outputCap - result.output.size());
                result.output.append(buf, take);
                if (take < static_cast<size_t>(got)) result.truncated = true;  // drained and dropped
            }
        }
        if (!exited && child.exitedUnreaped(0)) {
            exited = true;
            exitSeen = Clock::now();
            lastData = exitSeen;  // the quiet spell counts from the exit
        }
    }

    if (!exited) exited = child.exitedUnreaped(hasDeadline ? msUntil(deadline) : -1);
    if (!exited) {
        result.timedOut = true;
        child.kill();
    } else {
        child.waitFor(-1);
    }

    const int status = child.waitStatus();
    if (status != -1) {
        if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
        else if (WIFSIGNALED(status)) result.termSignal = WTERMSIG(status);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------

std::string formatCommandLine(const std::vector<std::string>& argv) {
    auto plain = [](const std::string& a) {
        if (a.empty()) return false;
        for (unsigned char c : a) {
            if (c >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) continue;
            if (std::strchr("_-./:=@%+,", c) != nullptr && c != '\0') continue;
            return false;
        }
        return true;
    };
    std::string out;
    for (size_t i = 0; i < argv.size(); ++i) {
        if (i) out += ' ';
        const std::string& a = argv[i];
        if (plain(a)) {
            out += a;
            continue;
        }
        out += '"';
        for (char c : a) {
            if (c == '"' || c == '\\' || c == '$' || c == '`') out += '\\';
            out += c;
        }
        out += '"';
    }
    return out;
}

bool captureOutput(const std::vector<std::string>& argv, size_t cap, int timeoutMs, std::string& answer,
                   bool quietStderr) {
    ProcessOptions options;
    options.timeoutMs = timeoutMs;
    options.outputCap = cap;
    options.discardStderr = quietStderr;
    ProcessResult r = runProcess(argv, options);
    if (r.spawnErrno != 0) {
        LOG_ERR("Execute %s failed: %s", formatCommandLine(argv).c_str(), std::strerror(r.spawnErrno));
        return false;
    }
    if (r.timedOut) {
        LOG_ERR("%s timed out", formatCommandLine(argv).c_str());
        return false;
    }
    if (r.truncated) {
        LOG_ERR("%s: answer longer than %zu bytes", formatCommandLine(argv).c_str(), cap);
        return false;
    }
    answer.assign(r.output.c_str());
    return true;
}
