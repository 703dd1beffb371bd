#include "thread/CThread.h"

#include <cstring>
#include <exception>
#include <string>

#include "util/Log.h"

CThread::~CThread() {
    // A joinable thread still running here would keep using the derived object's members.
    if (isStarted() && m_type != THREAD_DETACHED_E && !m_bJoined && !isInside()) {
        LOG_ERR("thread destroyed while still joinable; joining now");
        pthread_join(m_thread, nullptr);
    }
}

int CThread::start(const char* name) {
    int rc = pthread_create(&m_thread, nullptr, &CThread::_threadFunc, this);
    if (rc != 0) {
        LOG_ERR("pthread_create(%s) ... fail: %s", name ? name : "", std::strerror(rc));
        return rc;
    }
    m_bStarted.store(true, std::memory_order_release);
    if (name) {
        char shortName[16];
        std::strncpy(shortName, name, sizeof shortName - 1);
        shortName[sizeof shortName - 1] = '\0';
        pthread_setname_np(m_thread, shortName);
    }
    if (m_type == THREAD_DETACHED_E) pthread_detach(m_thread);
    return 0;
}

void CThread::join() {
    if (!isStarted() || m_bJoined || m_type == THREAD_DETACHED_E || isInside()) return;
    pthread_join(m_thread, nullptr);
    m_bJoined = true;
}

bool CThread::isInside() const { return isStarted() && pthread_equal(pthread_self(), m_thread); }

int CThread::mutexInit(pthread_mutex_t& mutex, mutextAttr_e attr) {
    pthread_mutexattr_t attributes;
    int rc = pthread_mutexattr_init(&attributes);
    if (rc != 0) return -rc;
    int type = PTHREAD_MUTEX_NORMAL;
    if (attr == MUTEX_ERRORCHECK_E) type = PTHREAD_MUTEX_ERRORCHECK;
    if (attr == MUTEX_RECURSIVE_E) type = PTHREAD_MUTEX_RECURSIVE;
    int result = pthread_mutexattr_settype(&attributes, type);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return result;
}

void CThread::monotonicCondInit(pthread_cond_t& cond) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
}

void* CThread::_threadFunc(void* self) {
    auto* thread = static_cast<CThread*>(self);
    try {
        thread->onStartup();
        thread->process();
        thread->onExit();
    } catch (const char* what) {
        LOG_ERR("thread ended by exception: %s", what);
    } catch (const std::exception& e) {
        LOG_ERR("thread ended by exception: %s", e.what());
    } catch (...) {
        LOG_ERR("thread ended by an unknown exception");
    }
    return nullptr;
}
