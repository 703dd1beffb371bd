// CMyMonitor<T>: calls target->callback() every `period` seconds on a thread of its own.
// The owner can pause it (the loop then waits on the condition variable) and resume it;
// destruction wakes a paused loop and waits for the thread to finish.
#pragma once

#include <pthread.h>
#include <time.h>

#include <cerrno>

#include <string>

#include "util/Log.h"
#include "thread/CThread.h"

namespace myMonitor {

class CMyMonitorFunctor {
public:
    virtual ~CMyMonitorFunctor() = default;
    virtual void callback() {}
};

namespace detail {
inline const char* cstr(const std::string& s) { return s.c_str(); }
inline const char* cstr(const char* s) { return s ? s : ""; }
}  // namespace detail

template <class T>
class CMyMonitor : public CMyMonitorFunctor, public CThread {
public:
    // T must offer callback() and getDeviceName() (a std::string or a C string).
    CMyMonitor(T* target, int periodSec) : CThread(THREAD_JOINABLE_E), m_target(target), m_period(periodSec) {
        pthread_mutex_init(&m_mutex, nullptr);
        monotonicCondInit(m_cond);
    }

    ~CMyMonitor() override {
        shutdown();
        pthread_cond_destroy(&m_cond);
        pthread_mutex_destroy(&m_mutex);
    }

    // Stops calling back until resume(); the stop-request flag records that the owner asked.
    void pause() {
        pthread_mutex_lock(&m_mutex);
        m_bPause = true;
        m_bStopRequest = true;
        pthread_mutex_unlock(&m_mutex);
    }

    void resume() {
        pthread_mutex_lock(&m_mutex);
        m_bPause = false;
        m_bStopRequest = false;
        pthread_cond_broadcast(&m_cond);
        pthread_mutex_unlock(&m_mutex);
    }

    bool isPaused() const {
        pthread_mutex_lock(&m_mutex);
        bool paused = m_bPause;
        pthread_mutex_unlock(&m_mutex);
        return paused;
    }

    bool isStopRequested() const {
        pthread_mutex_lock(&m_mutex);
        bool requested = m_bStopRequest;
        pthread_mutex_unlock(&m_mutex);
        return requested;
    }

    // Ends the loop (also a paused one) and waits for the thread. Safe to call twice.
    void shutdown() {
        pthread_mutex_lock(&m_mutex);
        m_bExit = true;
        pthread_cond_broadcast(&m_cond);
        pthread_mutex_unlock(&m_mutex);
        join();
    }

protected:
    void process() override {
        pthread_mutex_lock(&m_mutex);
        while (!m_bExit) {
            if (m_bPause) {
                LOG_NOTE("[%s] >>> Monitor Lock!!!", detail::cstr(m_target->getDeviceName()));
                while (m_bPause && !m_bExit) pthread_cond_wait(&m_cond, &m_mutex);
                continue;
            }
            // The callback talks to devices: never while holding the monitor's mutex.
            pthread_mutex_unlock(&m_mutex);
            m_target->callback();
            pthread_mutex_lock(&m_mutex);
            waitPeriodLocked();
        }
        pthread_mutex_unlock(&m_mutex);
    }

private:
    // Sleeps one period, woken early by shutdown() or a pause change.
    void waitPeriodLocked() {
        timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += m_period;
        bool pausedAtStart = m_bPause;
        while (!m_bExit && m_bPause == pausedAtStart) {
            if (pthread_cond_timedwait(&m_cond, &m_mutex, &deadline) == ETIMEDOUT) break;
        }
    }

    T* m_target;
    // m_mutex guards m_bStopRequest, m_bExit and m_bPause; m_cond signals changes to them.
    bool m_bStopRequest = false;
    bool m_bExit = false;
    bool m_bPause = false;
    int m_period;
    mutable pthread_mutex_t m_mutex;
    pthread_cond_t m_cond;
};

}  // namespace myMonitor
