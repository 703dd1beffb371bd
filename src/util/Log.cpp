#include "util/Log.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace vlog {
namespace {

std::atomic<bool> g_quiet{false};

const char* baseName(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

void writeAll(const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(STDERR_FILENO, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;  // nowhere left to report a failing stderr
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

}  // namespace

void setQuiet(bool quiet) { g_quiet.store(quiet, std::memory_order_relaxed); }

namespace {
std::atomic<bool> g_warningsOnly{false};
}  // namespace

void setWarningsOnly(bool on) { g_warningsOnly.store(on, std::memory_order_relaxed); }

bool wanted(const char* colour) {
    if (g_quiet.load(std::memory_order_relaxed)) return false;
    if (!g_warningsOnly.load(std::memory_order_relaxed)) return true;
    if (!colour) return false;
    for (const char* kept : {kError, kWarn, kSocket, kSignal})
        if (std::strcmp(colour, kept) == 0) return true;
    return false;
}

void vwrite(const char* colour, const char* file, int line, const char* func, const char* fmt, va_list ap) {
    if (!wanted(colour)) return;

    // Most events fit the stack buffer; a long request text falls back to the heap.
    char stackBuf[2048];
    std::string heapBuf;
    char* buf = stackBuf;
    size_t cap = sizeof stackBuf;

    for (int attempt = 0; attempt < 2; ++attempt) {
        size_t used = 0;
        auto room = [&] { return used < cap ? cap - used : 0; };
        auto advance = [&](int n) { if (n > 0) used += static_cast<size_t>(n); };

        advance(std::snprintf(buf, cap, "%s[File:%s][Line:%d][Func:%s]: ", colour ? colour : "", baseName(file), line,
                              func));
        va_list copy;
        va_copy(copy, ap);
        advance(std::vsnprintf(buf + std::min(used, cap), room(), fmt, copy));
        va_end(copy);
        advance(std::snprintf(buf + std::min(used, cap), room(), "%s\n", colour ? kReset : ""));

        if (used < cap) {
            writeAll(buf, used);
            return;
        }
        heapBuf.assign(used + 1, '\0');
        buf = heapBuf.data();
        cap = heapBuf.size();
    }
}

void write(const char* colour, const char* file, int line, const char* func, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vwrite(colour, file, line, func, fmt, ap);
    va_end(ap);
}

void writeSignalSafe(const char* colour, const char* file, int line, const char* func, const char* text) {
    if (g_quiet.load(std::memory_order_relaxed)) return;
    char buf[1024];
    size_t used = 0;
    auto put = [&](const char* s) {
        while (s && *s && used + 1 < sizeof buf) buf[used++] = *s++;
    };
    char num[16];
    int n = 0;
    char digits[16];
    unsigned v = line < 0 ? 0u : static_cast<unsigned>(line);
    do { digits[n++] = static_cast<char>('0' + v % 10); v /= 10; } while (v && n < 15);
    for (int i = 0; i < n; ++i) num[i] = digits[n - 1 - i];
    num[n] = '\0';
    put(colour);
    put("[File:"); put(baseName(file)); put("][Line:"); put(num); put("][Func:"); put(func); put("]: ");
    put(text);
    if (colour) put(kReset);
    put("\n");
    writeAll(buf, used);
}

}  // namespace vlog
