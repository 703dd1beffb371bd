// Scope guards over POSIX mutexes and read-write locks. Each releases what its constructor
// took, in the same scope; none checks the lock call's result, so no path may depend on a
// failed lock. Lock order across the daemon: the manager's collection lock, then a player's
// lock, then anything inside the player.
#pragma once

#include <pthread.h>

#include <exception>

// Thrown by ThreadSingleTryLock when the mutex is held; the manager turns it into -19.
class ThreadBusyException : public std::exception {
public:
    const char* what() const noexcept override { return "lock busy"; }
};

class ThreadSingleLock {
public:
    explicit ThreadSingleLock(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    ~ThreadSingleLock() { pthread_mutex_unlock(&m_mutex); }
    ThreadSingleLock(const ThreadSingleLock&) = delete;
    ThreadSingleLock& operator=(const ThreadSingleLock&) = delete;

    // For ScopeUnlock and condition waits only: the guard still releases at its end.
    void unlock() { pthread_mutex_unlock(&m_mutex); }
    void lock() { pthread_mutex_lock(&m_mutex); }
    pthread_mutex_t& mutex() { return m_mutex; }

private:
    pthread_mutex_t& m_mutex;
};

// Tries a mutex without throwing: held() tells whether it was taken; released at the end of
// the scope only then.
class ThreadTryLock {
public:
    explicit ThreadTryLock(pthread_mutex_t& mutex) : m_mutex(mutex), m_held(pthread_mutex_trylock(&mutex) == 0) {}
    ~ThreadTryLock() {
        if (m_held) pthread_mutex_unlock(&m_mutex);
    }
    ThreadTryLock(const ThreadTryLock&) = delete;
    ThreadTryLock& operator=(const ThreadTryLock&) = delete;
    bool held() const { return m_held; }

private:
    pthread_mutex_t& m_mutex;
    const bool m_held;
};

class ThreadSingleTryLock {
public:
    // Throws at once when the mutex is held; the guard then holds and releases nothing.
    explicit ThreadSingleTryLock(pthread_mutex_t& mutex) : m_mutex(mutex) {
        if (pthread_mutex_trylock(&m_mutex) != 0) throw ThreadBusyException();
    }
    ~ThreadSingleTryLock() { pthread_mutex_unlock(&m_mutex); }
    ThreadSingleTryLock(const ThreadSingleTryLock&) = delete;
    ThreadSingleTryLock& operator=(const ThreadSingleTryLock&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

class ThreadReadLock {
public:
    explicit ThreadReadLock(pthread_rwlock_t& lock) : m_lock(lock) { pthread_rwlock_rdlock(&m_lock); }
    ~ThreadReadLock() { pthread_rwlock_unlock(&m_lock); }
    ThreadReadLock(const ThreadReadLock&) = delete;
    ThreadReadLock& operator=(const ThreadReadLock&) = delete;

private:
    pthread_rwlock_t& m_lock;
};

// Tries the write side without waiting: held() tells whether it was taken.
class ThreadTryWriteLock {
public:
    explicit ThreadTryWriteLock(pthread_rwlock_t& lock) : m_lock(lock), m_held(pthread_rwlock_trywrlock(&lock) == 0) {}
    ~ThreadTryWriteLock() {
        if (m_held) pthread_rwlock_unlock(&m_lock);
    }
    ThreadTryWriteLock(const ThreadTryWriteLock&) = delete;
    ThreadTryWriteLock& operator=(const ThreadTryWriteLock&) = delete;
    bool held() const { return m_held; }

private:
    pthread_rwlock_t& m_lock;
    const bool m_held;
};

// Releases a held lock guard (std::unique_lock, ThreadSingleLock) for the rest of the scope and
// takes it again at the end: for calls that must not run under the lock (a device, a program).
template <class Lock>
class ScopeUnlock {
public:
    explicit ScopeUnlock(Lock& lock) : m_lock(lock) { m_lock.unlock(); }
    ~ScopeUnlock() { m_lock.lock(); }
    ScopeUnlock(const ScopeUnlock&) = delete;
    ScopeUnlock& operator=(const ScopeUnlock&) = delete;

private:
    Lock& m_lock;
};

class ThreadWriteLock {
public:
    explicit ThreadWriteLock(pthread_rwlock_t& lock) : m_lock(lock) { pthread_rwlock_wrlock(&m_lock); }
    ~ThreadWriteLock() { pthread_rwlock_unlock(&m_lock); }
    ThreadWriteLock(const ThreadWriteLock&) = delete;
    ThreadWriteLock& operator=(const ThreadWriteLock&) = delete;

private:
    pthread_rwlock_t& m_lock;
};
