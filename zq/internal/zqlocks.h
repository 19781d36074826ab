#ifndef ZQ_INTERNAL_ZQLOCKS_H
#define ZQ_INTERNAL_ZQLOCKS_H

#include "zq/util/zqcond.h"
#include "zq/util/zqmutex.h"
#include "zq/util/zqrwlock.h"

// Holds a lock for a scope.
template <class T, void (*lock)(T *), void (*unlock)(T *)>
class [[nodiscard]] scoped_lock {
  public:
    explicit scoped_lock(T *object) : held(object) { lock(held); }
    ~scoped_lock() { unlock(held); }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;

  private:
    T *held;
};

using mutex_lock = scoped_lock<zqmutex, zq_mutex_lock, zq_mutex_unlock>;
using cond_lock = scoped_lock<zqcond, zq_cond_lock, zq_cond_unlock>;
using read_lock = scoped_lock<zqrwlock, zq_rwlock_rdlock, zq_rwlock_unlock>;
using write_lock = scoped_lock<zqrwlock, zq_rwlock_wrlock, zq_rwlock_unlock>;

#endif
