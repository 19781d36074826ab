#ifndef TESTS_SUPPORT_INTERPOSE_H
#define TESTS_SUPPORT_INTERPOSE_H

#include <dlfcn.h>

// Not instrumented, what follows: AddressSanitizer allocates before it can check anything.
#define NOT_INSTRUMENTED __attribute__((no_sanitize_address))

// The function that a test program's own definition stands in front of. It is looked up by the name
// that the linker knows, such as __time64 for time() where times have 64 bits by choice.
template <auto *own>
NOT_INSTRUMENTED auto *find_next_symbol()
{
    Dl_info info = {};
    dladdr(reinterpret_cast<const void *>(own), &info);
    return reinterpret_cast<decltype(own)>(dlsym(RTLD_NEXT, info.dli_sname));
}

template <auto *own>
NOT_INSTRUMENTED auto *next_symbol()
{
    static auto *const next = find_next_symbol<own>();
    return next;
}

#endif
