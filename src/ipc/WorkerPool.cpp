#include "ipc/WorkerPool.h"

#include <pthread.h>

#include <exception>
#include <system_error>

#include "util/Log.h"

namespace ipc {

WorkerPool::WorkerPool(size_t maxThreads, std::string name)
    : m_maxThreads(maxThreads > 0 ? maxThreads : 1), m_name(std::move(name)) {}

WorkerPool::~WorkerPool() { finish(); }

bool WorkerPool::submit(std::function<void()> job) {
    {
        std::lock_guard lock(m_mutex);
        if (m_bFinishing) return false;
        if (m_idle <= m_jobs.size() && m_threads.size() < m_maxThreads) {
            try {
                m_threads.emplace_back(&WorkerPool::run, this);
            } catch (const std::system_error& e) {
                LOG_ERR("cannot start a %s thread: %s", m_name.c_str(), e.what());
                if (m_threads.empty()) return false;  // nobody would ever run it
            }
        }
        m_jobs.push_back(std::move(job));
    }
    // Outside the lock, so the woken thread does not at once wait for it.
    m_wake.notify_one();
    return true;
}

void WorkerPool::run() {
    pthread_setname_np(pthread_self(), m_name.substr(0, 15).c_str());
    std::unique_lock lock(m_mutex);
    for (;;) {
        ++m_idle;
        m_wake.wait(lock, [this] { return !m_jobs.empty() || m_bFinishing; });
        --m_idle;
        if (m_jobs.empty()) return;  // finishing, and nothing left to run
        std::function<void()> job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        try {
            job();
        } catch (const std::exception& e) {
            LOG_ERR("%s job ended by an exception: %s", m_name.c_str(), e.what());
        } catch (...) {
            LOG_ERR("%s job ended by an exception", m_name.c_str());
        }
        job = nullptr;  // its captures go before the lock is taken again
        lock.lock();
    }
}

void WorkerPool::finish() {
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(m_mutex);
        m_bFinishing = true;
        threads.swap(m_threads);
        m_wake.notify_all();
    }
    for (std::thread& t : threads) t.join();
}

size_t WorkerPool::threadCount() {
    std::lock_guard lock(m_mutex);
    return m_threads.size();
}

}  // namespace ipc
