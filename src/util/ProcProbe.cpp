#include "util/ProcProbe.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "util/AppRoot.h"

namespace {

// Reads at most `cap` bytes of a /proc file; false when it cannot be opened (process gone).
bool readSmall(const std::string& path, std::string& out, size_t cap) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.assign(cap, '\0');
    size_t used = 0;
    while (used < cap) {
        ssize_t n = ::read(fd, out.data() + used, cap - used);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        used += static_cast<size_t>(n);
    }
    ::close(fd);
    out.resize(used);
    return true;
}

bool isZombie(const std::string& pidDir) {
    std::string status;
    if (!readSmall(pidDir + "/status", status, 4096)) return true;  // gone meanwhile
    size_t pos = status.find("\nState:");
    if (pos == std::string::npos && status.compare(0, 6, "State:") != 0) return false;
    std::string_view line(status);
    line.remove_prefix(pos == std::string::npos ? 0 : pos + 1);
    line = line.substr(0, line.find('\n'));
    return line.find("zombie") != std::string_view::npos || line.find("dead") != std::string_view::npos;
}

// The --root value from a NUL-separated command line; empty when there is none.
std::string rootArgument(const std::string& cmdline) {
    std::string_view rest(cmdline);
    bool nextIsRoot = false;
    while (!rest.empty()) {
        size_t end = rest.find('\0');
        std::string_view arg = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (nextIsRoot) return std::string(arg);
        if (arg == "--root") nextIsRoot = true;
        else if (arg.substr(0, 7) == "--root=") return std::string(arg.substr(7));
    }
    return {};
}

// Comparable form of a root: resolved when it exists, trailing slashes dropped, "/" as empty.
// A relative root is taken from the owning process's working directory.
std::string normaliseRoot(std::string root, const std::string& cwdLink) {
    if (root.empty()) return root;
    if (root[0] != '/' && !cwdLink.empty()) root = cwdLink + "/" + root;
    char buf[PATH_MAX];
    if (::realpath(root.c_str(), buf) != nullptr) root = buf;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    if (root == "/") root.clear();
    return root;
}

}  // namespace

int is_process_already_exist(const char* name) {
    if (name == nullptr || *name == '\0') return 0;
    const std::string ourRoot = normaliseRoot(approot::get(), {});

    std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
    if (!proc) return 0;
    int live = 0;
    while (dirent* e = ::readdir(proc.get())) {
        const char* id = e->d_name;
        if (*id < '1' || *id > '9' || std::strspn(id, "0123456789") != std::strlen(id)) continue;
        const std::string dir = std::string("/proc/") + id;

        std::string comm;
        if (!readSmall(dir + "/comm", comm, 256)) continue;
        if (comm.find(name) == std::string::npos) continue;
        if (isZombie(dir)) continue;

        std::string cmdline;
        if (!readSmall(dir + "/cmdline", cmdline, 64 * 1024)) continue;
        if (normaliseRoot(rootArgument(cmdline), dir + "/cwd") != ourRoot) continue;
        if (++live > 1) return 1;
    }
    return 0;
}
