// Debug-build bookkeeping of the locks each thread holds, so that the lock
// rules the headers state are checked where they apply: a lock taken in a
// forbidden combination fails at once, and functions that need a lock held
// assert it (assert(lock_rules::holds(lock_rules::TABLES_EXCLUSIVE))).
// Rule for this file: with NDEBUG every record compiles to nothing and a
// RuleMutex is exactly the mutex it wraps; holds() exists only for assert.
#pragma once

#include <cassert>
#include <mutex>
#include <shared_mutex>

namespace lock_rules {

// The process's locks, one bit each in a thread's held set.
enum : unsigned {
    TABLES_SHARED = 1u << 0,     // rwlock for reading
    TABLES_EXCLUSIVE = 1u << 1,  // rwlock for writing
    REALTIME_LIST = 1u << 2,     // mutex
    TIMEOUT_TABLE = 1u << 3,     // the stations-in-time-out table
    DATA_FILES = 1u << 4,        // the data-file descriptor cache
    SEGMENT = 1u << 5,           // semaphore 0 of the shared segment
};
constexpr unsigned TABLES = TABLES_SHARED | TABLES_EXCLUSIVE;
constexpr unsigned ANY = TABLES | REALTIME_LIST | TIMEOUT_TABLE | DATA_FILES | SEGMENT;

// Locks a thread must not hold when it takes `lock`: none is taken twice;
// the two table locks are never held together; the time-out table and the
// data-file cache are held for a look-up only, so nothing is taken inside
// them, and the time-out table is taken with nothing else held.
constexpr unsigned excluded_by(unsigned lock)
{
    constexpr unsigned leaves = TIMEOUT_TABLE | DATA_FILES;
    switch (lock) {
    case TABLES_SHARED:
    case TABLES_EXCLUSIVE: return TABLES | REALTIME_LIST | leaves;
    case REALTIME_LIST: return TABLES | REALTIME_LIST | leaves;
    case TIMEOUT_TABLE: return ANY;
    default: return lock | leaves;
    }
}

#ifndef NDEBUG
inline thread_local unsigned held_set = 0;

inline void taking(unsigned lock)
{
    assert((held_set & excluded_by(lock)) == 0 && "lock taken against the lock rules");
}
inline void taken(unsigned lock) { held_set |= lock; }
inline void released(unsigned lock)
{
    assert((held_set & lock) != 0 && "lock released that this thread does not hold");
    held_set &= ~lock;
}
// True when the thread holds any of `locks`.
inline bool holds(unsigned locks) { return (held_set & locks) != 0; }
#else
inline void taking(unsigned) {}
inline void taken(unsigned) {}
inline void released(unsigned) {}
#endif

// std::mutex that records itself as `Lock` in the held set.
template <unsigned Lock>
class RuleMutex {
public:
    void lock()
    {
        taking(Lock);
        m_.lock();
        taken(Lock);
    }
    bool try_lock()
    {
        taking(Lock);
        const bool ok = m_.try_lock();
        if (ok) taken(Lock);
        return ok;
    }
    void unlock()
    {
        released(Lock);
        m_.unlock();
    }

private:
    std::mutex m_;
};

// rwlock: std::shared_mutex recording its mode.
class TablesLock {
public:
    void lock()
    {
        taking(TABLES_EXCLUSIVE);
        m_.lock();
        taken(TABLES_EXCLUSIVE);
    }
    void unlock()
    {
        released(TABLES_EXCLUSIVE);
        m_.unlock();
    }
    void lock_shared()
    {
        taking(TABLES_SHARED);
        m_.lock_shared();
        taken(TABLES_SHARED);
    }
    void unlock_shared()
    {
        released(TABLES_SHARED);
        m_.unlock_shared();
    }

private:
    std::shared_mutex m_;
};

} // namespace lock_rules
