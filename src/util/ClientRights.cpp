#include "util/ClientRights.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

namespace {

// Linux keeps credentials per thread. The raw system calls change only the calling thread; the C
// library's setgroups()/setfsuid() wrappers would broadcast the change to every thread of the
// daemon. setfsuid() to a non-root id also drops the thread's file-related capabilities.
bool takeOnFileRights(const clientCredentials_s& who) {
    if (::syscall(SYS_setgroups, who.groups.size(), who.groups.data()) != 0) return false;
    ::syscall(SYS_setfsgid, who.gid);
    ::syscall(SYS_setfsuid, who.uid);
    // Both calls answer the previous id and cannot report failure: ask again to check.
    if (static_cast<gid_t>(::syscall(SYS_setfsgid, -1)) != who.gid ||
        static_cast<uid_t>(::syscall(SYS_setfsuid, -1)) != who.uid) {
        errno = EPERM;
        return false;
    }
    return true;
}

}  // namespace

int runWithRightsOf(const clientCredentials_s* who, const std::function<int()>& fn) {
    if (!who || ::geteuid() != 0) return fn();
    int result = -1;
    int err = 0;
    try {
        // The thread ends with fn, and the identity with it: nothing else ever runs under it.
        std::thread helper([&] {
            if (!takeOnFileRights(*who)) {
                err = errno;
                return;
            }
            result = fn();
            err = errno;
        });
        helper.join();
    } catch (const std::system_error& e) {
        err = e.code().value();
        result = -1;
    }
    errno = err;
    return result;
}

int openForReadingAs(const clientCredentials_s* who, const char* path) {
    return runWithRightsOf(who, [path] {
        // O_NONBLOCK: opening a FIFO with no writer would otherwise wait for one.
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (fd < 0) return -1;
        struct stat st;
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            errno = EINVAL;
            return -1;
        }
        return fd;
    });
}
