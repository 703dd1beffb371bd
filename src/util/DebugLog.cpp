#include "util/DebugLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include "util/Log.h"

namespace {

constexpr off_t kMaxLogSize = 10485760;

bool writeAll(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

int debug_write_log(const char* path, const char* text) {
    if (path == nullptr || *path == '\0') return -1;
    struct stat st;
    if (::stat(path, &st) == 0 && st.st_size > kMaxLogSize) {
        if (::unlink(path) != 0 && errno != ENOENT) LOG_ERR("remove %s failed", path);
    }

    time_t now = ::time(nullptr);
    struct tm utc;
    ::gmtime_r(&now, &utc);
    std::string line(16, '\0');
    int n = std::snprintf(line.data(), line.size(), "[%02d:%02d:%02d] ", utc.tm_hour, utc.tm_min, utc.tm_sec);
    line.resize(n > 0 ? static_cast<size_t>(n) : 0);
    line += text ? text : "";
    line += '\n';

    // One O_APPEND write per line keeps lines of concurrent writers whole.
    int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return -1;
    bool ok = writeAll(fd, line.data(), line.size());
    ::close(fd);
    return ok ? 0 : -1;
}

void memory_dump(const void* data, int length) {
    if (data == nullptr || length < 0) length = 0;
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::string out;
    out.reserve(16 + static_cast<size_t>(length) / 16 * 60 + 60);
    char tmp[16];
    std::snprintf(tmp, sizeof tmp, "Len:%d\n", length);
    out += tmp;
    for (int row = 0; row < length; row += 16) {
        std::snprintf(tmp, sizeof tmp, "[%04X]: ", row);
        out += tmp;
        std::string chars;
        for (int i = 0; i < 16; ++i) {
            if (row + i < length) {
                unsigned char c = bytes[row + i];
                std::snprintf(tmp, sizeof tmp, "%02X ", c);
                out += tmp;
                chars += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
            } else {
                out += "   ";  // keeps the characters of a short last row aligned
            }
        }
        out += ' ';
        out += chars;
        out += '\n';
    }
    writeAll(STDERR_FILENO, out.data(), out.size());
}
