// Shared helpers of the util tests: scratch directories, small files, the appliance root, and a
// fake configuration reader.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/util/AppRoot.h"

namespace testutil {

class TempDir {
public:
    TempDir() {
        std::string tmpl = "/tmp/velmora-util-XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr) m_path = tmpl;
    }
    ~TempDir() {
        auto rm = [](const char* p, const struct stat*, int, FTW*) { return ::remove(p); };
        if (!m_path.empty()) ::nftw(m_path.c_str(), rm, 16, FTW_DEPTH | FTW_PHYS);
    }
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

inline int countLines(const std::string& path) {
    std::string text = readFile(path);
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

inline bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

inline void makeDirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i)
        if (i == path.size() || path[i] == '/') ::mkdir(path.substr(0, i).c_str(), 0755);
}

class RootGuard {
public:
    explicit RootGuard(const std::string& root) : m_old(approot::get()) { approot::set(root); }
    ~RootGuard() { approot::set(m_old); }

private:
    std::string m_old;
};

// Stand-in for <root>/sbin/yarrow: "[-f FILE] [-d DEFAULT] SECTION KEY" prints the value of the
// line "SECTION/KEY=value" of FILE, else DEFAULT, and appends its arguments to yarrow.calls.
inline bool installFakeReader(const std::string& root) {
    makeDirs(root + "/sbin");
    return writeFile(root + "/sbin/yarrow", R"(#!/bin/sh
echo "$*" >> "$0.calls"
conf= def=
while [ $# -gt 2 ]; do
  case "$1" in -f) conf=$2; shift 2;; -d) def=$2; shift 2;; *) break;; esac
done
v=$(grep -F "$1/$2=" "$conf" 2>/dev/null | head -n 1)
if [ -n "$v" ]; then echo "${v#*=}"; elif [ -n "$def" ]; then echo "$def"; fi
)",
                     0755);
}

}  // namespace testutil
