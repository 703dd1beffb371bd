// Stack dump for the fatal-signal handler.
#pragma once

// Appends a header line ("=== signal <sig> from pid <pid> at <UTC date time> (<epoch>) ===") and a
// backtrace of the calling thread to <root>/tmp/<dumpName> (an absolute dumpName is taken below the
// root as given). Async-signal-safe as far as the platform allows: no allocation, no stdio, only
// open/write/close and backtrace_symbols_fd. Call preload_stackframe() once at start-up.
void show_stackframe(const char* dumpName, int sig, int pid);

// The first backtrace() loads the unwinder, which allocates; doing that at start-up keeps the
// signal handler's call free of it.
void preload_stackframe();
