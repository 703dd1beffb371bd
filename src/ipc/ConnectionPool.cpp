#include "ipc/ConnectionPool.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "util/Log.h"

ConnectionPool::ConnectionPool(int listenFd, AcceptFn accept, Handler handler, ErrorFn onError,
                               size_t maxConnections, std::chrono::milliseconds idleTimeout)
    : m_listenFd(listenFd),
      m_accept(std::move(accept)),
      m_handler(std::move(handler)),
      m_onError(std::move(onError)),
      m_maxConnections(maxConnections),
      m_idleTimeout(idleTimeout) {}

ConnectionPool::~ConnectionPool() { shutdown(); }

int ConnectionPool::start() {
    // accept() gives up after the idle time-out, which lets surplus threads end.
    auto ms = m_idleTimeout.count();
    timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>((ms % 1000) * 1000)};
    ::setsockopt(m_listenFd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::lock_guard lock(m_mutex);
    return spawnLocked();
}

int ConnectionPool::spawnLocked() {
    Worker& worker = m_workers.emplace_back();
    try {
        worker.thread = std::thread(&ConnectionPool::workerLoop, this, &worker);
    } catch (const std::system_error& e) {
        LOG_ERR("cannot start a connection thread: %s", e.what());
        m_workers.pop_back();
        return e.code().value();
    }
    ++m_live;
    ++m_accepting;  // counted from the start so that two threads never both think none waits
    return 0;
}

void ConnectionPool::reapFinishedLocked(std::list<Worker>& finished) {
    for (auto it = m_workers.begin(); it != m_workers.end();) {
        auto next = std::next(it);
        if (it->done) finished.splice(finished.end(), m_workers, it);
        it = next;
    }
}

void ConnectionPool::workerLoop(Worker* self) {
    // Leaving is decided and recorded under one holding of the lock, so that threads timing
    // out together can never all leave: the last one always stays.
    auto leaveLocked = [&] {
        --m_live;
        self->done = true;
    };
    for (;;) {
        int fd = m_accept();
        int err = errno;

        std::list<Worker> finished;
        {
            std::lock_guard lock(m_mutex);
            --m_accepting;
            if (m_bStopping) {
                if (fd >= 0) ::close(fd);
                leaveLocked();
                return;
            }
            if (fd < 0 && (err == EAGAIN || err == EWOULDBLOCK)) {
                // Idle for the whole time-out: end unless this is the last thread.
                if (m_live > 1) {
                    leaveLocked();
                    return;
                }
                ++m_accepting;
                continue;
            }
            if (fd >= 0) {
                m_serving.insert(fd);
                // Keep one thread waiting in accept() while there is room for more.
                if (m_accepting == 0 && m_serving.size() < m_maxConnections) spawnLocked();
            }
            reapFinishedLocked(finished);
        }
        for (Worker& w : finished) w.thread.join();

        if (fd < 0) {
            if (m_onError) m_onError(err);
        } else {
            try {
                m_handler(fd);
            } catch (...) {
                LOG_ERR("connection handler ended by an exception");
            }
        }

        std::lock_guard lock(m_mutex);
        if (fd >= 0) {
            m_serving.erase(m_serving.find(fd));
            ::close(fd);  // under the lock, so shutdown never touches a reused descriptor
        }
        if (m_bStopping) {
            leaveLocked();
            return;
        }
        ++m_accepting;
    }
}

void ConnectionPool::shutdown() {
    std::list<Worker> all;
    {
        std::lock_guard lock(m_mutex);
        if (!m_bStopping) {
            m_bStopping = true;
            ::shutdown(m_listenFd, SHUT_RDWR);  // wakes every thread waiting in accept()
            for (int fd : m_serving) ::shutdown(fd, SHUT_RDWR);
        }
        all.splice(all.end(), m_workers);
    }
    for (Worker& w : all) w.thread.join();
}

size_t ConnectionPool::threadCount() {
    std::lock_guard lock(m_mutex);
    return m_live;
}

size_t ConnectionPool::activeCount() {
    std::lock_guard lock(m_mutex);
    return m_serving.size();
}
