#ifndef FUZZ_SUPPORT_CAPTURED_H
#define FUZZ_SUPPORT_CAPTURED_H

#include <cstdio>
#include <cstdlib>
#include <string>

// What `write` writes to the stream it is given.
template <class Write>
std::string written(Write write)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *const stream = open_memstream(&text, &size);
    write(stream);
    fclose(stream);
    std::string result(text, size);
    free(text);
    return result;
}

// What `call` writes to a standard stream, which is given as the C library's variable.
template <class Call>
std::string captured(FILE *&standard, Call call)
{
    return written([&](FILE *stream) {
        FILE *const usual = standard;
        standard = stream;
        call();
        standard = usual;
    });
}

#endif
