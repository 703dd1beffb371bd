// Acting for a local client with the client's own file rights: a daemon running as root must not
// read or remove, on a user's behalf, a file that user could not read or remove itself.
#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

struct clientCredentials_s {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // supplementary groups
};

// Runs fn with the file rights of `who` and returns its result. As root, fn runs on a short-lived
// thread whose filesystem uid, gid and groups are those of `who`, so the kernel applies every rule
// it would apply to that user (modes, ACLs, search rights on each directory). Without root, or
// with `who` null (the daemon's own files), fn runs here with the daemon's rights. -1 with errno
// set when the identity could not be taken on.
int runWithRightsOf(const clientCredentials_s* who, const std::function<int()>& fn);

// Opens a regular file for reading with the rights of `who`: the descriptor (close-on-exec), or
// -1 with errno (EACCES, ENOENT, ..., EINVAL for anything but a regular file). Never waits on a
// FIFO or a device.
int openForReadingAs(const clientCredentials_s* who, const char* path);
