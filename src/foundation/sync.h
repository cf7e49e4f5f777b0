// Synchronisation wrappers: a recursive mutex, a scoped lock over it, and a
// base class that gives an object its own recursive lock.
#pragma once

#include <mutex>

class RecursiveMutex {
public:
    void lock() { m_.lock(); }
    void unlock() { m_.unlock(); }

private:
    std::recursive_mutex m_;
};

class Synchronizable {
public:
    virtual ~Synchronizable() = default;
    virtual void lock() { mutex_.lock(); }
    virtual void unlock() { mutex_.unlock(); }

private:
    RecursiveMutex mutex_;
};

// Holds a lock for the lifetime of the scope.
class Synchronized {
public:
    explicit Synchronized(RecursiveMutex& m) : m_(&m) { m_->lock(); }
    explicit Synchronized(Synchronizable& s) : s_(&s) { s_->lock(); }
    ~Synchronized() {
        if (m_) m_->unlock();
        if (s_) s_->unlock();
    }
    Synchronized(const Synchronized&) = delete;
    Synchronized& operator=(const Synchronized&) = delete;

private:
    RecursiveMutex* m_ = nullptr;
    Synchronizable* s_ = nullptr;
};
