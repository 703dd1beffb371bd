#include "ipc/StallWatch.h"

#include <pthread.h>

#include <system_error>

namespace ipc {
namespace {

// After this long without any work begun, the watch sleeps until some is.
constexpr auto kQuiet = std::chrono::seconds(1);

}  // namespace

StallWatch::StallWatch(Clock::duration limit, StallFn onStall) : m_limit(limit), m_onStall(std::move(onStall)) {}

StallWatch::~StallWatch() { stop(); }

int StallWatch::start() {
    try {
        m_thread = std::thread(&StallWatch::run, this);
    } catch (const std::system_error& e) {
        return e.code().value();
    }
    return 0;
}

void StallWatch::stop() {
    if (!m_thread.joinable()) return;
    {
        std::lock_guard lock(m_mutex);
        m_bStopping = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

uint64_t StallWatch::begin() {
    std::lock_guard lock(m_mutex);
    m_busyTicket = ++m_lastTicket;
    m_busySince = Clock::now();
    // Only a watch asleep for good needs waking: one on a timed wait comes round on its own.
    if (m_bAsleep) m_wake.notify_one();
    return m_busyTicket;
}

bool StallWatch::end(uint64_t ticket) {
    std::lock_guard lock(m_mutex);
    if (m_busyTicket == ticket) m_busyTicket = 0;
    return m_handedOn != ticket;
}

void StallWatch::run() {
    pthread_setname_np(pthread_self(), "ipc-watch");
    std::unique_lock lock(m_mutex);
    uint64_t seen = m_lastTicket;
    Clock::time_point quietSince = Clock::now();
    while (!m_bStopping) {
        const Clock::time_point now = Clock::now();
        if (m_busyTicket != 0 && m_busyTicket != m_leftAlone) {
            const Clock::time_point due = m_busySince + m_limit;
            if (now < due) {
                m_wake.wait_until(lock, due);
            } else if (m_onStall()) {
                m_handedOn = m_busyTicket;
                m_busyTicket = 0;
            } else {
                m_leftAlone = m_busyTicket;
            }
            continue;
        }
        if (m_lastTicket != seen) {
            seen = m_lastTicket;
            quietSince = now;
        }
        if (now - quietSince < kQuiet) {
            // Work begun during this wait is looked at within one limit of its start.
            m_wake.wait_for(lock, m_limit);
            continue;
        }
        m_bAsleep = true;
        m_wake.wait(lock, [&] { return m_bStopping || m_lastTicket != seen; });
        m_bAsleep = false;
    }
}

}  // namespace ipc
