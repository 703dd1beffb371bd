// Runs the real daemon on a fresh simulated appliance and talks to it over its socket.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "client/VelmoraClient.h"
#include "unit/support/Files.h"
#include "util/Process.h"

namespace itest {

// A fresh simulated appliance in a temporary directory, removed at the end.
class SimRoot {
public:
    // options: make-root's own (--cast-receiver ...).
    explicit SimRoot(const std::vector<std::string>& options = {});
    const std::string& path() const { return m_dir.path(); }
    std::string socketPath() const { return vclient::socketPathForRoot(path()); }

private:
    testsupport::TempDir m_dir{"vtest"};
};

// The Velmora binary started with --root; stopped with SIGTERM when destroyed.
class Daemon {
public:
    explicit Daemon(const std::string& root);
    ~Daemon();

    // Waits until the daemon answers echo (true) or gives up after timeoutMs.
    bool waitReady(int timeoutMs = 10000);
    // SIGTERM and reap; the exit status, or -1 if it had to be killed.
    int stop(int timeoutMs = 10000);
    bool running();
    pid_t pid() const { return m_proc.pid(); }
    // Everything the daemon wrote to stderr so far.
    std::string log() const;
    // Waits until the log holds text (lines written after the answer come a moment later).
    // Only text written after the first `after` bytes of the log counts.
    bool waitForLog(const std::string& text, int timeoutMs = 5000, size_t after = 0) const;

    vclient::Answer request(const std::string& command, const vclient::Params& params = {});
    vclient::Exchange raw(const std::string& requestText);
    // The text of one element of the answer ("" when absent).
    std::string field(const std::string& command, const vclient::Params& params, const char* name);
    // Makes a playlist of app holding contents (of the media and content type) through the
    // daemon; false when a request failed.
    bool makePlaylist(const std::string& title, const std::string& app, const std::string& media,
                      const std::vector<std::string>& contents, const std::string& contentType = "object");

private:
    std::string m_root;
    std::string m_logPath;
    Subprocess m_proc;
};

// A daemon started on a fresh appliance for each test; it must stop cleanly at the end.
class DaemonTestBase : public ::testing::Test {
protected:
    void SetUp() override { start(); }
    void TearDown() override {
        if (!daemon) return;
        EXPECT_EQ(daemon->stop(), 0) << daemon->log();
    }
    void start() {
        daemon = std::make_unique<Daemon>(root.path());
        ASSERT_TRUE(daemon->waitReady()) << daemon->log();
    }

    SimRoot root;
    std::unique_ptr<Daemon> daemon;
};

// Runs the daemon binary to completion (for start-up refusals); its output in `output`.
int runDaemonOnce(const std::string& root, std::string& output, int timeoutMs = 10000);

}  // namespace itest
