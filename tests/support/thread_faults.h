#ifndef TESTS_SUPPORT_THREAD_FAULTS_H
#define TESTS_SUPPORT_THREAD_FAULTS_H

// Defines the calls of POSIX threads in the test program that includes this (once), as
// system_faults.h does those of files. These return their errors.

#include <pthread.h>

#include "tests/support/system_calls.h"

#define DEFINE_THREAD_CALL(name, parameters, arguments, ...)                                       \
    extern "C" int name parameters __VA_ARGS__                                                     \
    {                                                                                              \
        const int error = SystemCalls::outcome_of({#name});                                        \
        return error ? error : next_symbol<&name>() arguments;                                     \
    }

DEFINE_THREAD_CALL(pthread_create,
                   (pthread_t * thread, const pthread_attr_t *attributes, void *(*routine)(void *),
                    void *argument),
                   (thread, attributes, routine, argument), noexcept)
DEFINE_THREAD_CALL(pthread_join, (pthread_t thread, void **result), (thread, result))
DEFINE_THREAD_CALL(pthread_mutex_init,
                   (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
                   (mutex, attributes), noexcept)
DEFINE_THREAD_CALL(pthread_cond_init, (pthread_cond_t * cond, const pthread_condattr_t *attributes),
                   (cond, attributes), noexcept)
DEFINE_THREAD_CALL(pthread_rwlock_init,
                   (pthread_rwlock_t * rwlock, const pthread_rwlockattr_t *attributes),
                   (rwlock, attributes), noexcept)

// ThreadSanitizer cannot stand a call of instrumented code before it has set itself up.
#ifndef __SANITIZE_THREAD__
DEFINE_THREAD_CALL(pthread_mutex_destroy, (pthread_mutex_t * mutex), (mutex), noexcept)
DEFINE_THREAD_CALL(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)
DEFINE_THREAD_CALL(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex), noexcept)
DEFINE_THREAD_CALL(pthread_cond_broadcast, (pthread_cond_t * cond), (cond), noexcept)
DEFINE_THREAD_CALL(pthread_cond_destroy, (pthread_cond_t * cond), (cond), noexcept)
DEFINE_THREAD_CALL(pthread_cond_signal, (pthread_cond_t * cond), (cond), noexcept)
DEFINE_THREAD_CALL(pthread_cond_wait, (pthread_cond_t * cond, pthread_mutex_t *mutex),
                   (cond, mutex))
DEFINE_THREAD_CALL(pthread_rwlock_destroy, (pthread_rwlock_t * rwlock), (rwlock), noexcept)
DEFINE_THREAD_CALL(pthread_rwlock_rdlock, (pthread_rwlock_t * rwlock), (rwlock), noexcept)
DEFINE_THREAD_CALL(pthread_rwlock_wrlock, (pthread_rwlock_t * rwlock), (rwlock), noexcept)
DEFINE_THREAD_CALL(pthread_rwlock_unlock, (pthread_rwlock_t * rwlock), (rwlock), noexcept)
#endif

#endif
