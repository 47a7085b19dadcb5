#pragma once

#include <mutex>

/// What `ScopedLock` needs of a lock.
class BaseMutex {
public:
    virtual ~BaseMutex() = default;
    virtual void lock() = 0;
    virtual void unlock() = 0;
};

/// A plain, non-recursive lock. Copying an object that holds one gives the copy a fresh lock of its own.
class Mutex : public BaseMutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) {}
    Mutex& operator=(const Mutex&) { return *this; }
    void lock() override { mutex_.lock(); }
    void unlock() override { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

/// Holds a lock for the length of a scope.
class ScopedLock {
public:
    explicit ScopedLock(BaseMutex& mutex) : mutex_(mutex) { mutex_.lock(); }
    ~ScopedLock() { mutex_.unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    BaseMutex& mutex_;
};
