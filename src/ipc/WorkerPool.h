// WorkerPool: a bounded set of threads that run jobs in the order they are given. A thread starts
// when a job finds none idle, up to the bound; past it jobs wait in line. Threads stay until
// finish().
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ipc {

class WorkerPool {
public:
    // Threads are named name (top -H, core dumps).
    WorkerPool(size_t maxThreads, std::string name);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Queues a job (it must not throw; one that does is logged and dropped). false when the pool
    // is finishing, or no thread runs and none could be started: the job will not run.
    bool submit(std::function<void()> job);
    // Runs the jobs already queued, then joins every thread. Idempotent.
    void finish();

    size_t threadCount();

private:
    void run();

    const size_t m_maxThreads;
    const std::string m_name;

    std::mutex m_mutex;  // guards the members below
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    std::vector<std::thread> m_threads;
    size_t m_idle = 0;
    bool m_bFinishing = false;
};

}  // namespace ipc
