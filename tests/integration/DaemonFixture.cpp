#include "integration/DaemonFixture.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

#include "unit/support/Files.h"

namespace itest {

using std::chrono::milliseconds;

SimRoot::SimRoot(const std::vector<std::string>& options) {
    ProcessOptions opts;
    opts.timeoutMs = 30000;
    opts.capture = ProcessOptions::Capture::Both;
    std::vector<std::string> argv{VELMORA_SOURCE_DIR "/sim/make-root", path()};
    argv.insert(argv.end(), options.begin(), options.end());
    ProcessResult r = runProcess(argv, opts);
    if (path().empty() || !r.ok()) throw std::runtime_error("sim/make-root failed: " + r.output);
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
    return testsupport::eventually([&] { return !running() || raw("<root><command>echo</command></root>").ok; },
                                   milliseconds(timeoutMs), milliseconds(20)) &&
           running();
}

int Daemon::stop(int timeoutMs) {
    if (m_proc.running()) {
        ::kill(m_proc.pid(), SIGTERM);
        if (!m_proc.waitFor(timeoutMs)) {
            m_proc.kill();
            return -1;
        }
    }
    int status = m_proc.waitStatus();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Daemon::running() { return !m_proc.tryWait(); }

std::string Daemon::log() const { return testsupport::readFile(m_logPath); }

bool Daemon::waitForLog(const std::string& text, int timeoutMs, size_t after) const {
    return testsupport::eventually([&] { return log().find(text, after) != std::string::npos; },
                                   milliseconds(timeoutMs), milliseconds(10));
}

vclient::Answer Daemon::request(const std::string& command, const vclient::Params& params) {
    return vclient::parseAnswer(raw(vclient::buildRequest(command, params)).answer);
}

vclient::Exchange Daemon::raw(const std::string& requestText) {
    return vclient::exchange(vclient::socketPathForRoot(m_root), requestText);
}

std::string Daemon::field(const std::string& command, const vclient::Params& params, const char* name) {
    return xmltoa(request(command, params).doc.getChildNode(name).getText());
}

bool Daemon::makePlaylist(const std::string& title, const std::string& app, const std::string& media,
                          const std::vector<std::string>& contents, const std::string& contentType) {
    bool ok = request("CreatePlaylist", {{"playlist", title}, {"playlistType", media}, {"appType", app}}).code == 0;
    for (const std::string& content : contents)
        ok = ok && request("AddContent", {{"playlist", title}, {"contentType", contentType}, {"mediaType", media},
                                          {"content", content}, {"appType", app}}).code == 0;
    return ok;
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

}  // namespace itest
