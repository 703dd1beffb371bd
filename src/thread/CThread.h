// CThread: base of every long-running object with a thread of its own (the player manager,
// each back-end player, monitors). The owner starts the thread; a joinable thread must be
// stopped and joined by the most-derived class before its members go away.
#pragma once

#include <pthread.h>

#include <atomic>

enum threadType_e {
    THREAD_JOINABLE_E = 0,
    THREAD_DETACHED_E = 1,  // detached right after creation: only for objects that live as long as the process
};

enum mutextAttr_e {
    MUTEX_NORMAL_E = 0,
    MUTEX_ERRORCHECK_E = 1,
    MUTEX_RECURSIVE_E = 2,
};

class CThread {
public:
    explicit CThread(threadType_e type = THREAD_JOINABLE_E) : m_type(type) {}
    virtual ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Creates the thread running onStartup(), process(), onExit(). name (at most 15 characters
    // are kept) shows in top -H and in core dumps. Returns 0 or the pthread_create error.
    int start(const char* name);
    // Waits for a joinable thread to end; does nothing when not started, detached or called from inside.
    void join();
    bool isStarted() const { return m_bStarted.load(std::memory_order_acquire); }
    bool isInside() const;

    // 0 normal, 1 error-checking, 2 recursive. Returns 0, or the failing call's negative result.
    static int mutexInit(pthread_mutex_t& mutex, mutextAttr_e attr);
    // A condition variable whose timed waits count CLOCK_MONOTONIC (immune to clock changes).
    static void monotonicCondInit(pthread_cond_t& cond);

    // Start routine given to pthread_create; never lets an exception out.
    static void* _threadFunc(void* self);

protected:
    virtual void process() = 0;
    virtual void onStartup() {}
    virtual void onExit() {}

    pthread_t m_thread{};
    threadType_e m_type;

private:
    std::atomic<bool> m_bStarted{false};
    bool m_bJoined = false;
};
