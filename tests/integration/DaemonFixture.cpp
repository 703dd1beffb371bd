#include "integration/DaemonFixture.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "core/Framing.h"

namespace itest {

SimRoot::SimRoot() {
    char tmpl[] = "/tmp/vtest-XXXXXX";
    if (!::mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    m_path = tmpl;
    ProcessOptions opts;
    opts.timeoutMs = 30000;
    opts.capture = ProcessOptions::Capture::Both;
    ProcessResult r = runProcess({VELMORA_SOURCE_DIR "/sim/make-root", m_path}, opts);
    if (!r.ok()) throw std::runtime_error("sim/make-root failed: " + r.output);
}

SimRoot::~SimRoot() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

Daemon::Daemon(const std::string& root) : m_root(root), m_logPath(root + "/var/daemon.log") {
    Subprocess::Options opts;
    opts.out = Subprocess::Stream::File;
    opts.outPath = m_logPath;
    opts.err = Subprocess::Stream::ToStdout;
    if (m_proc.start({VELMORA_BIN, "--root", root}, opts) != 0) throw std::runtime_error("cannot start Velmora");
}

Daemon::~Daemon() {
    if (m_proc.running()) stop();
}

bool Daemon::waitReady(int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string sock = vclient::socketPathForRoot(m_root);
    while (std::chrono::steady_clock::now() < deadline) {
        if (!running()) return false;
        vclient::Exchange ex = vclient::exchange(sock, vclient::buildRequest("echo", {}));
        if (ex.ok) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

int Daemon::stop(int timeoutMs) {
    if (!m_proc.running()) return WIFEXITED(m_proc.waitStatus()) ? WEXITSTATUS(m_proc.waitStatus()) : -1;
    ::kill(m_proc.pid(), SIGTERM);
    if (!m_proc.waitFor(timeoutMs)) {
        m_proc.kill();
        return -1;
    }
    int status = m_proc.waitStatus();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Daemon::running() { return !m_proc.tryWait(); }

std::string Daemon::log() const {
    std::ifstream in(m_logPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool Daemon::waitForLog(const std::string& text, int timeoutMs, size_t after) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (log().find(text, after) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

vclient::Answer Daemon::request(const std::string& command, const vclient::Params& params) {
    vclient::Exchange ex = raw(vclient::buildRequest(command, params));
    return vclient::parseAnswer(ex.answer);
}

vclient::Exchange Daemon::raw(const std::string& requestText) {
    return vclient::exchange(vclient::socketPathForRoot(m_root), requestText);
}

int runDaemonOnce(const std::string& root, std::string& output, int timeoutMs) {
    ProcessOptions opts;
    opts.timeoutMs = timeoutMs;
    opts.capture = ProcessOptions::Capture::Both;
    opts.outputCap = 1 << 20;
    ProcessResult r = runProcess({VELMORA_BIN, "--root", root}, opts);
    output = r.output;
    return r.timedOut ? -1 : r.exitStatus;
}

int connectTo(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    timeval tv{15, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::string readFramedAnswer(int fd) {
    char header[framing::kHeaderSize];
    size_t got = 0;
    while (got < sizeof header) {
        ssize_t n = ::read(fd, header + got, sizeof header - got);
        if (n <= 0) return {};
        got += static_cast<size_t>(n);
    }
    long long len = framing::parseHeader(header, sizeof header);
    if (len < 0) return {};
    std::string body(static_cast<size_t>(len), '\0');
    got = 0;
    while (got < body.size()) {
        ssize_t n = ::read(fd, body.data() + got, body.size() - got);
        if (n <= 0) return {};
        got += static_cast<size_t>(n);
    }
    [[maybe_unused]] ssize_t n = ::write(fd, "A", 1);
    return body;
}

}  // namespace itest
