// CGlobalsSingleton<T>: the one instance of T, made on first use.
#pragma once

#include <atomic>
#include <mutex>

template <class T>
class CGlobalsSingleton {
public:
    static T* get() {
        T* instance = m_instance.load(std::memory_order_acquire);
        if (instance) return instance;
        std::lock_guard lock(m_lock);
        instance = m_instance.load(std::memory_order_relaxed);
        if (!instance) {
            instance = new T();
            m_instance.store(instance, std::memory_order_release);
        }
        return instance;
    }

    // Destroys the instance (tests, and an orderly stop). No other thread may use it meanwhile.
    static void reset() {
        std::lock_guard lock(m_lock);
        delete m_instance.exchange(nullptr);
    }

private:
    static inline std::atomic<T*> m_instance{nullptr};
    static inline std::mutex m_lock;
};
