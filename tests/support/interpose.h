#ifndef TESTS_SUPPORT_INTERPOSE_H
#define TESTS_SUPPORT_INTERPOSE_H

#include <atomic>
#include <dlfcn.h>

// The function that a test program's own definition of the same name stands in front of.
template <class F>
F *next_symbol(const char *name)
{
    return reinterpret_cast<F *>(dlsym(RTLD_NEXT, name));
}

// Makes one call of an interposed function fail.
class Fault {
  public:
    // The `nth` call from now on fails with `error`.
    void arm(int error, int nth = 1)
    {
        code = error;
        left = nth;
    }
    // To be asked once a call; the error to fail with, or 0.
    int strike() { return left > 0 && --left == 0 ? code.load() : 0; }

  private:
    std::atomic<int> code{0};
    std::atomic<int> left{0};
};

// For the calls of the program to these.
extern Fault pthread_create_fault;
extern Fault pthread_cond_init_fault;

#endif
