#include "command/LargeAnswers.h"

#include <malloc.h>

#include <condition_variable>
#include <mutex>

namespace largeanswer {
namespace {

std::mutex g_mutex;  // guards g_inUse
std::condition_variable g_freed;
int g_inUse = 0;
thread_local std::shared_ptr<void> t_permit;
char g_token;  // what a hold points at: a hold is never null, only its release matters

// The allocator keeps freed memory for reuse; after a large answer that would leave the daemon
// holding its peak for good.
void handBackMemory() { ::malloc_trim(0); }

}  // namespace

void expect(size_t bytes) {
    if (bytes <= kLargeBytes || t_permit) return;
    {
        std::unique_lock lock(g_mutex);
        g_freed.wait(lock, [] { return g_inUse < kPermits; });
        ++g_inUse;
    }
    t_permit = std::shared_ptr<void>(&g_token, [](void*) {
        bool last;
        {
            std::lock_guard lock(g_mutex);
            last = --g_inUse == 0;
        }
        g_freed.notify_one();
        if (last) handBackMemory();
    });
}

std::shared_ptr<void> holdFor(size_t printedBytes) {
    std::shared_ptr<void> hold = std::move(t_permit);
    t_permit = nullptr;
    if (!hold && printedBytes > kLargeBytes) hold = std::shared_ptr<void>(&g_token, [](void*) { handBackMemory(); });
    return hold;
}

int inUse() {
    std::lock_guard lock(g_mutex);
    return g_inUse;
}

}  // namespace largeanswer
