#include "tests/support/interpose.h"

#include <pthread.h>

Fault pthread_create_fault;
Fault pthread_cond_init_fault;

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                              void *(*routine)(void *), void *argument) noexcept
{
    int error = pthread_create_fault.strike();
    return error ? error : next_symbol<&pthread_create>()(thread, attributes, routine, argument);
}

extern "C" int pthread_cond_init(pthread_cond_t *cond,
                                 const pthread_condattr_t *attributes) noexcept
{
    int error = pthread_cond_init_fault.strike();
    return error ? error : next_symbol<&pthread_cond_init>()(cond, attributes);
}
