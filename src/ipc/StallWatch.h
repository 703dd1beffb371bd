// StallWatch: keeps an eye on a thread that serves work itself instead of handing it on, and
// calls onStall when one piece of work has kept it longer than a limit, so that someone else can
// carry on with what that thread was doing.
//
// The event loop serves a request itself while nothing else is being served (a hand-off to a
// worker costs two thread wake-ups, more than most requests); this watch bounds what that can
// cost the other clients when a request turns out slow. It wakes now and then while work is being
// served this way, and sleeps for good after a second without any, so a steady load costs no
// wake-up per request and an idle daemon costs none at all.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace ipc {

class StallWatch {
public:
    using Clock = std::chrono::steady_clock;
    // Runs on the watch's thread, with the watch locked (it must not call begin or end): true
    // when someone else carries on, false when that could not be arranged (the work is then
    // left to finish where it is).
    using StallFn = std::function<bool()>;

    StallWatch(Clock::duration limit, StallFn onStall);
    ~StallWatch();
    StallWatch(const StallWatch&) = delete;
    StallWatch& operator=(const StallWatch&) = delete;

    // Starts the watch's thread. 0, or the error that kept it from starting.
    int start();
    // Ends and joins it. Idempotent.
    void stop();

    // The calling thread starts a piece of work; the ticket goes to end().
    uint64_t begin();
    // The work of `ticket` is done: true when it ended within the limit (or its stall could not
    // be handed on), false when onStall was run for it, i.e. someone else has carried on.
    bool end(uint64_t ticket);

private:
    void run();

    const Clock::duration m_limit;
    const StallFn m_onStall;
    std::thread m_thread;

    std::mutex m_mutex;  // guards the members below
    std::condition_variable m_wake;
    bool m_bStopping = false;
    bool m_bAsleep = false;      // waiting for work to be begun, with no time-out
    uint64_t m_lastTicket = 0;   // the last one handed out
    uint64_t m_busyTicket = 0;   // the work being served now, 0 for none
    Clock::time_point m_busySince;
    uint64_t m_handedOn = 0;     // the last ticket whose stall was handed on
    uint64_t m_leftAlone = 0;    // the last ticket whose stall could not be
};

}  // namespace ipc
