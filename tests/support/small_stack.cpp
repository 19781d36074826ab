#include "tests/support/small_stack.h"

#include <cstdlib>
#include <pthread.h>

static void *call(void *body)
{
    (*static_cast<const std::function<void()> *>(body))();
    return nullptr;
}

void on_small_stack(const std::function<void()> &body)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    if (pthread_create(&thread, &attributes, call, const_cast<std::function<void()> *>(&body)) != 0)
        abort();
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}
