#include "tests/support/interpose.h"

#include <pthread.h>

Fault pthread_create_fault;
Fault pthread_cond_init_fault;

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                              void *(*routine)(void *), void *argument) noexcept
{
    static auto *const next = next_symbol<decltype(pthread_create)>("pthread_create");
    int error = pthread_create_fault.strike();
    return error ? error : next(thread, attributes, routine, argument);
}

extern "C" int pthread_cond_init(pthread_cond_t *cond,
                                 const pthread_condattr_t *attributes) noexcept
{
    static auto *const next = next_symbol<decltype(pthread_cond_init)>("pthread_cond_init");
    int error = pthread_cond_init_fault.strike();
    return error ? error : next(cond, attributes);
}
