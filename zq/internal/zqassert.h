#ifndef ZQ_INTERNAL_ZQASSERT_H
#define ZQ_INTERNAL_ZQASSERT_H

[[noreturn, gnu::cold]] void zq_assert_failed(const char *function, const char *file, int line,
                                              const char *expression);

// Misuse and broken invariants stop the process; never compiled out, whatever NDEBUG says.
// The expression is stringified as written: NULL stays "NULL".
#define ZQ_ASSERT(expression) ZQ_ASSERT_TEXT(expression, #expression)

// For the rare condition that cannot be spelled in C++ the way callers know it.
#define ZQ_ASSERT_TEXT(expression, text)                                                           \
    do {                                                                                           \
        if (!(expression)) [[unlikely]]                                                            \
            zq_assert_failed(__func__, __FILE__, __LINE__, text);                                  \
    } while (0)

#endif
