// proc_lock.h - scoped holders for the library's locks.
//
// Every lock a function takes goes through one of these, so that every path
// out of the function releases it. They are not recursive: a thread that
// takes a lock it already holds waits forever.
#pragma once

#include <pthread.h>

#include "fsc.h"

namespace qvfs {

// Whether an inter-process lock still exists in the system. A process whose
// locks were removed under it (ipcrm, a test that swaps the key directory)
// has lost its shared state and must start the layers again.
bool lock_exists(int semId);

// Holds an inter-process lock (a System V semaphore id, -1 for none).
class ProcLockGuard {
public:
    explicit ProcLockGuard(int semId) : id_(semId), held_(true) { fsc_ProcLock(id_); }
    ~ProcLockGuard() { unlock(); }
    ProcLockGuard(const ProcLockGuard&) = delete;
    ProcLockGuard& operator=(const ProcLockGuard&) = delete;

    // Releases early; the destructor then does nothing.
    void unlock() {
        if (held_) {
            held_ = false;
            fsc_ProcUnlock(id_);
        }
    }
    // Takes the lock again after unlock().
    void lock() {
        if (!held_) {
            fsc_ProcLock(id_);
            held_ = true;
        }
    }
    bool held() const { return held_; }

private:
    int id_;
    bool held_;
};

// Holds a process mutex.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t& m) : m_(m), held_(true) { pthread_mutex_lock(&m_); }
    ~MutexGuard() { unlock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    void unlock() {
        if (held_) {
            held_ = false;
            pthread_mutex_unlock(&m_);
        }
    }

private:
    pthread_mutex_t& m_;
    bool held_;
};

}  // namespace qvfs
