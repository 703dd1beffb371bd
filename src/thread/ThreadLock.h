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

private:
    pthread_mutex_t& m_mutex;
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

class ThreadWriteLock {
public:
    explicit ThreadWriteLock(pthread_rwlock_t& lock) : m_lock(lock) { pthread_rwlock_wrlock(&m_lock); }
    ~ThreadWriteLock() { pthread_rwlock_unlock(&m_lock); }
    ThreadWriteLock(const ThreadWriteLock&) = delete;
    ThreadWriteLock& operator=(const ThreadWriteLock&) = delete;

private:
    pthread_rwlock_t& m_lock;
};
