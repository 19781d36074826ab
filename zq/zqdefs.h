#ifndef ZQ_ZQDEFS_H
#define ZQ_ZQDEFS_H

/* What every public header starts from. Conventions that hold for all functions (ownership, misuse,
 * results, logging, threads) are in docs/conventions.md; a header says only what differs. */

#include <stddef.h>
#include <stdint.h>

/* A 32-bit glibc has two kinds of time_t; the library is built with the one of 64 bits. */
#if defined(__TIMESIZE) && __TIMESIZE == 32 && !defined(__USE_TIME_BITS64)
#error "libzq needs -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64"
#endif

#ifdef __cplusplus
#define ZQ_BEGIN_DECLS extern "C" {
#define ZQ_END_DECLS }
/* Declares an opaque type. C++ needs no typedef, so a parameter may carry the name of its type. */
#define ZQ_OBJECT(name) struct name
#else
#define ZQ_BEGIN_DECLS
#define ZQ_END_DECLS
#define ZQ_OBJECT(name) typedef struct name name
#endif

#if defined(__GNUC__)
#define ZQ_API __attribute__((__visibility__("default")))
/* Lets the compiler check printf-like arguments: which argument is the text, and the first
 * to check, which is 0 for functions taking a va_list. */
#define ZQ_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))
/* Lets the compiler check that a variadic call ends with a null pointer. */
#define ZQ_SENTINEL __attribute__((__sentinel__))
#else
#define ZQ_API
#define ZQ_PRINTF(text, first)
#define ZQ_SENTINEL
#endif

#endif
