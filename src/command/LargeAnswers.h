// Large answers (a long playlist listed whole) are few in memory at once: one expected to pass
// 1 MiB takes one of a few permits before it is built and keeps it until it has been sent or
// given up. After a large answer the memory it used is handed back to the system.
#pragma once

#include <cstddef>
#include <memory>

namespace largeanswer {

inline constexpr size_t kLargeBytes = 1 << 20;
inline constexpr int kPermits = 4;

// For a handler about to build an answer of about `bytes`: when that is large, waits for a
// permit, kept by the request served on this thread (see holdFor).
void expect(size_t bytes);

// What the printed answer of the request served on this thread holds until it is sent: the permit
// it took, or for an answer of printedBytes that turned out large anyway, the hand-back of memory
// once it is sent; else null. Clears this thread's permit either way.
std::shared_ptr<void> holdFor(size_t printedBytes);

// Permits in use (for tests).
int inUse();

}  // namespace largeanswer
