#ifndef ZQ_INTERNAL_ZQLOGLINE_H
#define ZQ_INTERNAL_ZQLOGLINE_H

#include <atomic>

#include "zq/zqdefs.h"

// The least severe level that an output of the default log admits.
extern std::atomic<int> zq_log_default_threshold;

// The four calls of the macro path, in one place.
[[gnu::cold]] void zq_log_line(unsigned int level, const char *file, int line, const char *format,
                               ...) ZQ_PRINTF(4, 5);

// A place in a source, for a helper that reports in the name of its caller.
struct log_place {
    const char *file;
    int line;
};
#define ZQ_HERE (log_place{__FILE__, __LINE__})

// Writes one line to the default log. A line that no output admits costs one load and one compare:
// its arguments are not even evaluated.
#define ZQ_LOG(level, ...) ZQ_LOG_AT(ZQ_HERE, level, __VA_ARGS__)

#define ZQ_LOG_AT(place, level, ...)                                                               \
    do {                                                                                           \
        if ((level) <= zq_log_default_threshold.load(std::memory_order_relaxed))                   \
            zq_log_line((level), (place).file, (place).line, __VA_ARGS__);                         \
    } while (0)

#endif
