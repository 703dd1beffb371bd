#include "util/StackFrame.h"

#include <execinfo.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "util/AppRoot.h"

namespace {

// Fixed-buffer text building for use inside a signal handler.
struct Text {
    char buf[4096];
    size_t len = 0;
    bool overflow = false;
    void put(const char* s) {
        while (s && *s) {
            if (len + 1 >= sizeof buf) {
                overflow = true;
                return;
            }
            buf[len++] = *s++;
        }
    }
    void num(long long v, int width = 0) {
        char digits[24];
        int n = 0;
        bool neg = v < 0;
        unsigned long long u = neg ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
        do {
            digits[n++] = static_cast<char>('0' + u % 10);
            u /= 10;
        } while (u && n < 22);
        while (n < width && n < 22) digits[n++] = '0';
        if (neg) put("-");
        char out[24];
        for (int i = 0; i < n; ++i) out[i] = digits[n - 1 - i];
        out[n] = '\0';
        put(out);
    }
    const char* c_str() {
        buf[len] = '\0';
        return buf;
    }
};

void writeAll(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

// Civil date from days since 1970-01-01 (gmtime is not async-signal-safe).
void civilFromDays(long long z, long long& y, int& m, int& d) {
    z += 719468;
    long long era = (z >= 0 ? z : z - 146096) / 146097;
    long long doe = z - era * 146097;
    long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    long long mp = (5 * doy + 2) / 153;
    d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    y = yoe + era * 400 + (m <= 2);
}

}  // namespace

void preload_stackframe() {
    void* frames[4];
    (void)::backtrace(frames, 4);
}

void show_stackframe(const char* dumpName, int sig, int pid) {
    if (dumpName == nullptr || *dumpName == '\0') dumpName = "Velmora.dump";

    // Path: <root>/tmp/<name>; built in place because approot::path() allocates.
    Text path;
    path.put(approot::get().c_str());
    if (*dumpName != '/') path.put("/tmp/");
    path.put(dumpName);
    if (path.overflow) return;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return;

    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    long long secs = now.tv_sec;
    long long days = secs >= 0 ? secs / 86400 : (secs - 86399) / 86400;
    long long sod = secs - days * 86400;
    long long year;
    int month, day;
    civilFromDays(days, year, month, day);

    Text head;
    head.put("=== signal ");
    head.num(sig);
    head.put(" from pid ");
    head.num(pid);
    head.put(" in pid ");
    head.num(::getpid());
    head.put(" at ");
    head.num(year, 4);
    head.put("-");
    head.num(month, 2);
    head.put("-");
    head.num(day, 2);
    head.put(" ");
    head.num(sod / 3600, 2);
    head.put(":");
    head.num(sod % 3600 / 60, 2);
    head.put(":");
    head.num(sod % 60, 2);
    head.put(" UTC (");
    head.num(secs);
    head.put(") ===\n");
    writeAll(fd, head.buf, head.len);

    void* frames[64];
    int n = ::backtrace(frames, 64);
    ::backtrace_symbols_fd(frames, n, fd);
    writeAll(fd, "\n", 1);
    ::close(fd);
}
