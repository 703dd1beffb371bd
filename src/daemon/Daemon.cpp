#include "daemon/Daemon.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>

#include <sys/signalfd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>

#include "ipc/CUnixSocketIpc.h"
#include "ipc/ConnectionServer.h"
#include "ipc/Framing.h"
#include "command/RequestProcessor.h"
#include "util/AppRoot.h"
#include "util/DebugLog.h"
#include "util/Log.h"
#include "util/PathUtil.h"
#include "util/ProcProbe.h"
#include "util/StackFrame.h"
#include "output/BackendTable.h"
#include "player/CPlayerManager.h"
#include "playlist/CSqlitePlaylist.h"

std::string g_cmdLogPath;

namespace {

constexpr const char* kProcessName = "Velmora";
constexpr const char* kSocketPath = "/tmp/.@Velmora.xxx";
constexpr const char* kLockPath = "/tmp/.@Velmora.lock";
constexpr int kListenBacklog = 128;
// Connections held at once, within the descriptor limit less what players, helper programs and
// the database need.
constexpr size_t kMaxConnections = 8192;
constexpr size_t kMinConnections = 64;
constexpr rlim_t kReservedDescriptors = 512;
// Requests served at once; more wait for a worker.
constexpr size_t kMaxWorkers = 64;

// SIGTERM and SIGINT are blocked in every thread (the mask is set before the first thread
// starts and inherited) and read from this descriptor by the main thread, so a stop request is
// never delivered to, or delayed by, a thread that happens to be busy.
int g_stopSignalFd = -1;

int openStopSignalFd() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    if (pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr) != 0) return -1;
    return ::signalfd(-1, &stopSignals, SFD_CLOEXEC);
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

void setDisposition(int sig, void (*handler)(int), void (*action)(int, siginfo_t*, void*), int flags) {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    if (action) sa.sa_sigaction = action;
    else sa.sa_handler = handler;
    sa.sa_flags = flags;
    sigaction(sig, &sa, nullptr);
}

void installSignals() {
    for (int sig : {SIGSEGV, SIGBUS, SIGABRT, SIGILL, SIGUSR1})
        setDisposition(sig, nullptr, &CPlayerManager::sigactionHandler, SA_SIGINFO | SA_RESTART);
    for (int sig : {SIGPIPE, SIGHUP}) setDisposition(sig, SIG_IGN, nullptr, SA_RESETHAND);
}

// Raises the soft descriptor limit to the hard one; the connection limit that fits in it.
size_t connectionLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = limit.rlim_max == RLIM_INFINITY ? 1 << 20 : limit.rlim_max;
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
        else LOG_WARN("cannot raise the descriptor limit to %llu: %s", static_cast<unsigned long long>(raised.rlim_cur),
                      std::strerror(errno));
    }
    const rlim_t room = limit.rlim_cur > kReservedDescriptors ? limit.rlim_cur - kReservedDescriptors : 0;
    return std::clamp<size_t>(static_cast<size_t>(std::min<rlim_t>(room, kMaxConnections)), kMinConnections,
                              kMaxConnections);
}

void onAcceptError(int err) {
    LOG_SOCKET("ipc.Accept() ... fial");
    debug_write_log(g_cmdLogPath.c_str(), "Accept() [fail]");
    errno = err;
    errortMessage_("ipc.Accept()");
}

// Blocks until SIGTERM or SIGINT.
void waitForStopSignal() {
    signalfd_siginfo info;
    while (::read(g_stopSignalFd, &info, sizeof info) < 0 && errno == EINTR) {}
}

}  // namespace

void errortMessage_(const char* operation) {
    static const struct {
        int err;
        const char* name;
    } kNames[] = {
        {EINTR, "EINTR"},         {EBADF, "EBADF"},           {EAGAIN, "EAGAIN"},
        {EFAULT, "EFAULT"},       {EINVAL, "EINVAL"},         {EMFILE, "EMFILE"},
        {ENONET, "ENONET"},       {EPROTO, "EPROTO"},         {ENOTSOCK, "ENOTSOCK"},
        {ENOPROTOOPT, "ENOPROTOOPT"}, {EOPNOTSUPP, "EOPNOTSUPP"}, {ENETDOWN, "ENETDOWN"},
        {ENETUNREACH, "ENETUNREACH"}, {ECONNABORTED, "ECONNABORTED"}, {ENOBUFS, "ENOBUFS"},
        {EHOSTDOWN, "EHOSTDOWN"}, {EHOSTUNREACH, "EHOSTUNREACH"},
    };
    int err = errno;
    for (const auto& entry : kNames) {
        if (entry.err != err) continue;
        // The EPROTO line is the one written without a line break.
        if (err == EPROTO) LOG_ERR("%s..... %s", operation, entry.name);
        else LOG_ERR("%s..... %s\n", operation, entry.name);
        return;
    }
    LOG_ERR("%s..... %d", operation, err);
}

namespace {

// Large blocks (answer texts, a listing's rows) are mapped on their own and unmapped when freed,
// rather than carved from the heaps, where the pieces left between smaller blocks would keep
// the daemon at its peak. A fixed threshold also stops the allocator from raising it after the
// first large block, which would send every later one to the heaps.
void keepLargeBlocksOutOfTheHeaps() {
    ::mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    ::mallopt(M_ARENA_MAX, 4);
}

}  // namespace

int runDaemon() {
    keepLargeBlocksOutOfTheHeaps();
    // One daemon per root: an exclusive lock on a file beside the socket, held for the
    // process's life, taken before the socket is touched (a copy of the binary under another
    // name is refused as well).
    std::error_code mkdirError;
    std::filesystem::create_directories(approot::path("/tmp"), mkdirError);
    const int lockFd = ::open(approot::path(kLockPath).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (is_process_already_exist(kProcessName) || (lockFd >= 0 && ::flock(lockFd, LOCK_EX | LOCK_NB) != 0)) {
        LOG_ERR("process already exist!!");
        if (lockFd >= 0) ::close(lockFd);
        return 0;
    }

    g_cmdLogPath = makeCommandLogPath();
    preload_stackframe();

    std::string socketPath = approot::path(kSocketPath);
    if (socketPath.size() >= sizeof(sockaddr_un::sun_path)) {
        LOG_ERR("socket path %s is too long for a Unix socket", socketPath.c_str());
        return 1;
    }
    g_stopSignalFd = openStopSignalFd();  // before any thread starts
    if (g_stopSignalFd < 0) {
        LOG_ERR("signalfd() ... fail: %s", std::strerror(errno));
        return 1;
    }

    try {
        std::error_code ec;
        std::filesystem::create_directories(approot::path("/tmp"), ec);
        CUnixSocketIpc ipc(socketPath.c_str(), true);
        playlistStore();  // open (or create) the playlist database now, not on the first request
        // The players (their workers read the playlist store) go before the store does.
        {
            CPlayerManager playerManager(std::make_shared<BackendTable>());
            installSignals();
            playerManager.start("manager");

            if (ipc.Listen(kListenBacklog) != 0) {
                LOG_SOCKET("ipc.Listen() ... fial");
                debug_write_log(g_cmdLogPath.c_str(), "Listen() [fail]");
                throw "ipc.Listen";
            }

            {
                ipc::serverOptions_s options;
                options.maxConnections = connectionLimit();
                options.maxWorkers = kMaxWorkers;
                options.requestTimeout = options.answerTimeout = std::chrono::seconds(framing::kIoTimeoutSec);
                ipc::ConnectionServer server(
                    ipc.getSockFd(),
                    [&](std::string& request, const ipc::Peer& peer) {
                        return answerRequest(playerManager, request, peer);
                    },
                    onAcceptError, options);
                if (int rc = server.start(); rc != 0) {
                    LOG_ERR("cannot start serving connections: %s", std::strerror(rc));
                    throw "connection server";
                }
                waitForStopSignal();
                LOG_NOTE("stopping: finishing the requests in flight");
                server.shutdown();
            }
            playerManager.stopThread();
        }
        CGlobalsSingleton<CSqlitePlaylist>::reset();
    } catch (const char* what) {
        LOG_ERR("exception: %s", what);
    }
    ::close(g_stopSignalFd);
    if (lockFd >= 0) ::close(lockFd);
    return 0;
}
