#ifndef TESTS_SUPPORT_EXPECT_H
#define TESTS_SUPPORT_EXPECT_H

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "zq/util/zqmalloc.h"

// `statement` must stop the process with a report of this source ("net/zqsocket"), function and
// expression, the last two as they are written.
#define EXPECT_MISUSE(statement, source, function, expression)                                     \
    EXPECT_DEATH(statement, misuse_report(source, function, expression))

std::string misuse_report(const std::string &source, const std::string &function,
                          const std::string &expression);

// True while allocation faults are injected: what a call promises on failure still holds, what it
// returns on success cannot be expected.
inline bool faults_injected()
{
    return getenv("ZQMALLOC_FAILMODE") != nullptr;
}

// While faults are injected failed expectations count for nothing, so what a failing call promises
// (its log line, its out-values) is checked with this, which ends the program.
#define CHECK_PROMISE(condition)                                                                   \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: broken promise: %s\n", __FILE__, __LINE__, #condition);        \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

struct ZqFree {
    void operator()(void *block) const { zq_free(block); }
};
using ZqString = std::unique_ptr<char, ZqFree>;

// The owner of an object in a test: Owned<zqjson, zq_json_destroy> json(zq_json_create()).
template <auto destroy>
struct Destroyer {
    template <class T>
    void operator()(T *object) const
    {
        destroy(object);
    }
};
template <class T, auto destroy>
using Owned = std::unique_ptr<T, Destroyer<destroy>>;

#endif
