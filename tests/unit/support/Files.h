// Scratch directories, small files, the appliance root and waiting, for every unit binary.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "util/AppRoot.h"

namespace testsupport {

// A directory under /tmp, removed with everything in it when the object goes.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "velmora-test") {
        std::string tmpl = "/tmp/" + prefix + "-XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr) m_path = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!m_path.empty()) std::filesystem::remove_all(m_path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& rel) const { return m_path + "/" + rel; }

private:
    std::string m_path;
};

// O_CLOEXEC: a program spawned meanwhile by another thread cannot inherit it (ETXTBSY).
inline bool writeFile(const std::string& path, const std::string& text, mode_t mode = 0644) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return false;
    bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return ok && ::chmod(path.c_str(), mode) == 0;
}

inline std::string readFile(const std::string& path) {
    std::string out;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char buf[4096];
    for (ssize_t n; fd >= 0 && (n = ::read(fd, buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
    if (fd >= 0) ::close(fd);
    return out;
}

inline std::vector<std::string> readLines(const std::string& path) {
    std::istringstream in(readFile(path));
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

inline bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

inline void makeDirs(const std::string& path) {
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
}

// Points the appliance root elsewhere for the guard's lifetime.
class RootGuard {
public:
    explicit RootGuard(const std::string& root) : m_old(approot::get()) { approot::set(root); }
    ~RootGuard() { approot::set(m_old); }

private:
    std::string m_old;
};

// Polls pred until it holds (true) or limit has passed (false): generous, for loaded machines.
template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = std::chrono::seconds(10),
                std::chrono::milliseconds step = std::chrono::milliseconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(step);
    }
    return true;
}

}  // namespace testsupport
