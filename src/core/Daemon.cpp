#include "core/Daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "core/CUnixSocketIpc.h"
#include "core/ConnectionPool.h"
#include "core/Framing.h"
#include "core/RequestProcessor.h"
#include "core/util/AppRoot.h"
#include "core/util/DebugLog.h"
#include "core/util/Log.h"
#include "core/util/PathUtil.h"
#include "core/util/ProcProbe.h"
#include "core/util/StackFrame.h"
#include "player/CPlayerManager.h"

std::string g_cmdLogPath;

namespace {

constexpr const char* kProcessName = "Velmora";
constexpr const char* kSocketPath = "/tmp/.@Velmora.xxx";
constexpr int kListenBacklog = 128;
constexpr size_t kMaxConnections = 256;
constexpr auto kIdleThreadTimeout = std::chrono::seconds(30);

// Written by the SIGTERM/SIGINT handler, read by the accept loop.
int g_stopPipe[2] = {-1, -1};

void onStopSignal(int sig) {
    int saved = errno;
    char byte = static_cast<char>(sig);
    [[maybe_unused]] ssize_t n = ::write(g_stopPipe[1], &byte, 1);
    errno = saved;
}

std::string makeCommandLogPath() {
    std::string real;
    if (get_real_path(approot::path("/share/Public").c_str(), real) != 0) {
        // Without the share the log still needs a writable home: the root's own /tmp.
        real = approot::path("/tmp/Public");
    }
    size_t at = real.find("Public");
    if (at != std::string::npos) real.resize(at);
    real += ".log/";
    std::error_code ec;
    std::filesystem::create_directories(real, ec);
    return real + ".center_cmd.log";
}

void installSignals() {
    struct sigaction fatal;
    std::memset(&fatal, 0, sizeof fatal);
    sigemptyset(&fatal.sa_mask);
    fatal.sa_sigaction = &CPlayerManager::sigactionHandler;
    fatal.sa_flags = SA_SIGINFO | SA_RESTART;
    for (int sig : {SIGSEGV, SIGBUS, SIGABRT, SIGILL, SIGUSR1}) sigaction(sig, &fatal, nullptr);

    struct sigaction ignore;
    std::memset(&ignore, 0, sizeof ignore);
    sigemptyset(&ignore.sa_mask);
    ignore.sa_handler = SIG_IGN;
    ignore.sa_flags = SA_RESETHAND;
    sigaction(SIGPIPE, &ignore, nullptr);
    sigaction(SIGHUP, &ignore, nullptr);

    struct sigaction stop;
    std::memset(&stop, 0, sizeof stop);
    sigemptyset(&stop.sa_mask);
    stop.sa_handler = &onStopSignal;
    stop.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &stop, nullptr);
    sigaction(SIGINT, &stop, nullptr);
}

bool isResourceShortage(int err) { return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM; }

void prepareConnection(int fd) {
    timeval tv{framing::kIoTimeoutSec, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

// Reports a failed accept; out of descriptors or memory, it also pauses the thread briefly so
// that connections in flight can finish instead of spinning on the same failure.
void onAcceptError(int err) {
    LOG_SOCKET("ipc.Accept() ... fial");
    debug_write_log(g_cmdLogPath.c_str(), "Accept() [fail]");
    errno = err;
    errortMessage_("ipc.Accept()");
    if (isResourceShortage(err)) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// Blocks until SIGTERM or SIGINT.
void waitForStopSignal() {
    pollfd pfd{g_stopPipe[0], POLLIN, 0};
    while (::poll(&pfd, 1, -1) < 0 && errno == EINTR) {}
}

}  // namespace

void errortMessage_(const char* operation) {
    const char* name = nullptr;
    switch (errno) {
        case EINTR: name = "EINTR"; break;
        case EBADF: name = "EBADF"; break;
        case EAGAIN: name = "EAGAIN"; break;
        case EFAULT: name = "EFAULT"; break;
        case EINVAL: name = "EINVAL"; break;
        case EMFILE: name = "EMFILE"; break;
        case ENONET: name = "ENONET"; break;
        case EPROTO: LOG_ERR("%s..... EPROTO", operation); return;
        case ENOTSOCK: name = "ENOTSOCK"; break;
        case ENOPROTOOPT: name = "ENOPROTOOPT"; break;
        case EOPNOTSUPP: name = "EOPNOTSUPP"; break;
        case ENETDOWN: name = "ENETDOWN"; break;
        case ENETUNREACH: name = "ENETUNREACH"; break;
        case ECONNABORTED: name = "ECONNABORTED"; break;
        case ENOBUFS: name = "ENOBUFS"; break;
        case EHOSTDOWN: name = "EHOSTDOWN"; break;
        case EHOSTUNREACH: name = "EHOSTUNREACH"; break;
        default: LOG_ERR("%s..... %d", operation, errno); return;
    }
    LOG_ERR("%s..... %s\n", operation, name);
}

int runDaemon() {
    if (is_process_already_exist(kProcessName)) {
        LOG_ERR("process already exist!!");
        return 0;
    }

    g_cmdLogPath = makeCommandLogPath();
    preload_stackframe();

    std::string socketPath = approot::path(kSocketPath);
    if (socketPath.size() >= sizeof(sockaddr_un::sun_path)) {
        LOG_ERR("socket path %s is too long for a Unix socket", socketPath.c_str());
        return 1;
    }
    if (::pipe2(g_stopPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        LOG_ERR("pipe2() ... fail: %s", std::strerror(errno));
        return 1;
    }

    try {
        std::error_code ec;
        std::filesystem::create_directories(approot::path("/tmp"), ec);
        CUnixSocketIpc ipc(socketPath.c_str(), true);
        CPlayerManager playerManager;
        installSignals();
        playerManager.start("manager");

        if (ipc.Listen(kListenBacklog) != 0) {
            LOG_SOCKET("ipc.Listen() ... fial");
            debug_write_log(g_cmdLogPath.c_str(), "Listen() [fail]");
            throw "ipc.Listen";
        }

        {
            ConnectionPool pool(
                ipc.getSockFd(), [&] { return ipc.Accept(); },
                [&](int fd) {
                    prepareConnection(fd);
                    processArg_s arg{fd, &ipc, &playerManager};
                    serveConnection(arg);
                },
                onAcceptError, kMaxConnections, kIdleThreadTimeout);
            if (int rc = pool.start(); rc != 0) throw "connection threads";
            waitForStopSignal();
            LOG_NOTE("stopping: finishing the connections in flight");
            pool.shutdown();
        }
        playerManager.stopThread();
    } catch (const char* what) {
        LOG_ERR("exception: %s", what);
    }
    ::close(g_stopPipe[0]);
    ::close(g_stopPipe[1]);
    return 0;
}
