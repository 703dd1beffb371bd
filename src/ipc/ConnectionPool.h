// ConnectionPool: the connection threads. Idle threads wait in accept() themselves, so a new
// connection is served by the thread the kernel wakes, with no hand-over between threads.
// When the last idle thread takes a connection, a new one starts, up to maxConnections: past
// that nobody accepts and further connections wait in the listen queue until one finishes.
// Threads left idle longer than idleTimeout end (one always stays).
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <thread>

class ConnectionPool {
public:
    // Returns an accepted descriptor, or -1 with errno set.
    using AcceptFn = std::function<int()>;
    // Serves one connection; the pool closes the descriptor afterwards.
    using Handler = std::function<void(int fd)>;
    // Told about accept failures other than the idle time-out and shutdown.
    using ErrorFn = std::function<void(int err)>;

    ConnectionPool(int listenFd, AcceptFn accept, Handler handler, ErrorFn onError, size_t maxConnections,
                   std::chrono::milliseconds idleTimeout);
    ~ConnectionPool();
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    // Starts the first accepting thread. 0, or the error that kept it from starting.
    int start();
    // Stops accepting, wakes connections blocked on their clients, and joins every thread.
    // The listening socket is shut down (not closed). Idempotent.
    void shutdown();

    size_t threadCount();
    size_t activeCount();

private:
    struct Worker {
        std::thread thread;
        bool done = false;
    };

    int spawnLocked();
    void workerLoop(Worker* self);
    void reapFinishedLocked(std::list<Worker>& finished);

    const int m_listenFd;
    AcceptFn m_accept;
    Handler m_handler;
    ErrorFn m_onError;
    const size_t m_maxConnections;
    const std::chrono::milliseconds m_idleTimeout;

    // m_mutex guards everything below.
    std::mutex m_mutex;
    std::list<Worker> m_workers;
    std::multiset<int> m_serving;  // descriptors being served, for shutdown
    size_t m_accepting = 0;        // threads waiting in accept()
    size_t m_live = 0;             // threads not yet finished
    bool m_bStopping = false;
};
