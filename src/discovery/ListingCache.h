// One listing source's last result (a program's output, a configuration value), refreshed at
// most once per period. The caller that finds it stale refreshes it without holding the lock;
// callers arriving meanwhile wait for that one refresh and share its result, so a burst of
// listings runs each program once.
#pragma once

#include <condition_variable>
#include <ctime>
#include <mutex>
#include <optional>

namespace discovery {

template <class T>
class ListingCache {
public:
    // The stored value, refreshed first through fetch() (std::optional<T>; nullopt: failed,
    // the previous value stays) when `now` is more than `period` seconds past the last refresh.
    template <class Fetch>
    T get(time_t now, time_t period, Fetch&& fetch) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [this] { return !m_bRefreshing; });
        if (m_lastRefresh && now - *m_lastRefresh <= period) return m_value;
        m_bRefreshing = true;
        // Even a failed or throwing fetch ends the refresh, or the waiters would wait forever.
        struct refreshEnd_s {
            ListingCache& cache;
            std::unique_lock<std::mutex>& lock;
            ~refreshEnd_s() {
                if (!lock.owns_lock()) lock.lock();
                cache.m_bRefreshing = false;
                cache.m_cond.notify_all();
            }
        } end{*this, lock};
        lock.unlock();
        std::optional<T> fresh = fetch();
        lock.lock();
        m_lastRefresh = now;
        if (fresh) m_value = std::move(*fresh);
        return m_value;
    }

    void reset() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [this] { return !m_bRefreshing; });
        m_lastRefresh.reset();
        m_value = T();
    }

private:
    std::mutex m_mutex;  // guards the members below
    std::condition_variable m_cond;  // signalled when a refresh ends
    bool m_bRefreshing = false;
    std::optional<time_t> m_lastRefresh;
    T m_value{};
};

}  // namespace discovery
