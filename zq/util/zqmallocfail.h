#ifndef ZQ_UTIL_ZQMALLOCFAIL_H
#define ZQ_UTIL_ZQMALLOCFAIL_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Allocation fault injection: with ZQMALLOC_FAILMODE in the environment every distinct call path to
 * an allocation fails once. Paths that have failed are appended, one line each, to the file
 * "zqmallocfail.db" in the working directory, and succeed from then on; running a program again
 * until the file stops growing walks through all of its allocation failures. */

/* zq_mallocfail_malloc returns null when the calling path has not failed before, else malloc(size).
 */
ZQ_API void *zq_mallocfail_malloc(size_t size);

/* zq_mallocfail_calloc is the same with calloc(count, size). */
ZQ_API void *zq_mallocfail_calloc(size_t count, size_t size);

/* zq_mallocfail_uninit forgets the paths held in memory; the next decision loads the file again. */
ZQ_API void zq_mallocfail_uninit(void);

/* zq_mallocfail_backtrace_stacktrace returns the call stack as text, at most 50 frames joined by
 * ",", from the platform's backtrace(). The caller releases it with free(). */
ZQ_API char *zq_mallocfail_backtrace_stacktrace(void);

/* zq_mallocfail_unwind_stacktrace returns the same through libunwind. It serves the fault decision
 * alone: its caller must be a function named zq_mallocfail_checkfail, anything else is misuse. */
ZQ_API char *zq_mallocfail_unwind_stacktrace(void);

ZQ_END_DECLS

#endif
