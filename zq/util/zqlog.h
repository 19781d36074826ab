#ifndef ZQ_UTIL_ZQLOG_H
#define ZQ_UTIL_ZQLOG_H

#include <stdio.h>
#include <time.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A log sends each line to up to five outputs, in this order: a callback, a file, standard output,
 * standard error, syslog. Every output has a switch and a threshold: it takes a line when it is
 * enabled and its threshold is at least the line's level (a smaller level is more severe). The
 * library itself uses 6 (internal error, bad input), 7 (failure), 8 (warning), 9 (notice),
 * 10 (information) and 13 (trace).
 *
 * A new log has only standard error enabled, with threshold 8; the other outputs are prepared with
 * threshold 8, the callback with 16. One default log is made on demand and carries the library's
 * own lines; wherever a log is taken, null means the default log.
 *
 * A line in a file reads "2026-01-31 23:59:07 net/zqsocket:998[7] unable to write ...": time stamp,
 * then for the zq_log_macro functions source, line and level, then the message.
 *
 * Threads: without zq_log_init_threaded() a log belongs to one thread. With it, the macro path is
 * serialised by one mutex, and zq_log() and zq_log_raw() by one mutex per log; the two are
 * independent, so do not write to one log through both at once. Configure outputs before other
 * threads log. The logger never logs its own failures. */
ZQ_OBJECT(zqlog);

/* Receives one line without prefix, time stamp or line feed; `message` is `length` bytes. A result
 * other than 0 counts as a failure of that output. */
typedef int (*zq_log_callback)(const char *message, size_t length, unsigned int level, time_t time,
                               void *userdata);

/* ---- the process-wide state ---- */

/* zq_log_init makes the default log unless it exists. Returns 0, or -1 when out of memory. Calling
 * it is never required. */
ZQ_API int zq_log_init(void);

/* zq_log_init_threaded switches to thread-safe logging, for good. Returns 0, or -1 when out of
 * memory. To be called while no other thread logs. */
ZQ_API int zq_log_init_threaded(void);

/* zq_log_uninit releases the default log and the threaded mode; the next use starts afresh. */
ZQ_API void zq_log_uninit(void);

/* ---- log objects ---- */

/* zq_log_create returns a new log, or null when out of memory (nothing is logged). */
ZQ_API zqlog *zq_log_create(void);

/* zq_log_destroy closes the log's file and releases it. */
ZQ_API void zq_log_destroy(zqlog *zqlog);

/* ---- outputs ---- */

/* zq_log_callback_set stores the callback and its user data. */
ZQ_API void zq_log_callback_set(zqlog *zqlog, zq_log_callback callback, void *userdata);
/* zq_log_callback_enable switches the callback output on. */
ZQ_API void zq_log_callback_enable(zqlog *zqlog);
/* zq_log_callback_disable switches the callback output off. */
ZQ_API void zq_log_callback_disable(zqlog *zqlog);
/* zq_log_callback_set_level sets the callback's threshold. */
ZQ_API void zq_log_callback_set_level(zqlog *zqlog, int level);

/* zq_log_logfile_set_name names the log file (a copy is kept), to be opened for appending by the
 * next line. Without a name it is "zqdefault.log" in the working directory. Returns 0, or -1 when
 * out of memory, the old name then being kept. */
ZQ_API int zq_log_logfile_set_name(zqlog *zqlog, const char *name);
/* zq_log_logfile_set_filehandle makes the log write to an open stream, which it closes later. */
ZQ_API void zq_log_logfile_set_filehandle(zqlog *zqlog, FILE *stream);
/* zq_log_logfile_enable switches the file output on. */
ZQ_API void zq_log_logfile_enable(zqlog *zqlog);
/* zq_log_logfile_disable switches the file output off. */
ZQ_API void zq_log_logfile_disable(zqlog *zqlog);
/* zq_log_logfile_recreate closes and opens the log file again, for log rotation; it does nothing
 * while the file output is off. Returns 0, or -1 when the file cannot be opened. */
ZQ_API int zq_log_logfile_recreate(zqlog *zqlog);
/* zq_log_logfile_set_level sets the file's threshold. */
ZQ_API void zq_log_logfile_set_level(zqlog *zqlog, int level);

/* zq_log_stdout_enable switches standard output on. */
ZQ_API void zq_log_stdout_enable(zqlog *zqlog);
/* zq_log_stdout_disable switches standard output off. */
ZQ_API void zq_log_stdout_disable(zqlog *zqlog);
/* zq_log_stdout_set_level sets the threshold of standard output. */
ZQ_API void zq_log_stdout_set_level(zqlog *zqlog, int level);

/* zq_log_stderr_enable switches standard error on. */
ZQ_API void zq_log_stderr_enable(zqlog *zqlog);
/* zq_log_stderr_disable switches standard error off. */
ZQ_API void zq_log_stderr_disable(zqlog *zqlog);
/* zq_log_stderr_set_level sets the threshold of standard error. */
ZQ_API void zq_log_stderr_set_level(zqlog *zqlog, int level);

/* zq_log_syslog_enable switches syslog on. */
ZQ_API void zq_log_syslog_enable(zqlog *zqlog);
/* zq_log_syslog_disable switches syslog off. */
ZQ_API void zq_log_syslog_disable(zqlog *zqlog);
/* zq_log_syslog_set_level sets the threshold of syslog. */
ZQ_API void zq_log_syslog_set_level(zqlog *zqlog, int level);
/* zq_log_syslog_set_facility sets the facility that is OR-ed into every priority; 0, the system's
 * default, until then. */
ZQ_API void zq_log_syslog_set_facility(zqlog *zqlog, int facility);
/* zq_log_syslog_map sets the syslog priority of a level, 0 to 16. Returns 0, or -1 for another
 * level; the priority is not checked. */
ZQ_API int zq_log_syslog_map(zqlog *zqlog, int level, int priority);

/* ---- writing ---- */

/* zq_log writes one line, without source. Returns 0 when every output that took the line
 * succeeded, else -1. A line that no output takes is not even formatted. */
ZQ_API int zq_log(zqlog *zqlog, unsigned int level, const char *format, ...) ZQ_PRINTF(3, 4);

/* zq_log_raw is zq_log without the time stamp. */
ZQ_API int zq_log_raw(zqlog *zqlog, unsigned int level, const char *format, ...) ZQ_PRINTF(3, 4);

/* zq_log_macro writes one line with its source in a single call, without taking a lock. Results as
 * for zq_log(). Not to be used for the first line of a log: a "file:line[level]" prefix that is
 * longer than every prefix before has to fit the log's message buffer, which has the size of the
 * longest message so far, or the call ends in an assertion. */
ZQ_API int zq_log_macro(zqlog *zqlog, unsigned int level, const char *file, int line,
                        const char *format, ...) ZQ_PRINTF(5, 6);

/* The macro path: these four calls in this order write one line with its source. */

/* zq_log_macro_mutex_lock takes the macro mutex; without threaded mode it does nothing. */
ZQ_API void zq_log_macro_mutex_lock(void);
/* zq_log_macro_set_values sets what the next zq_log_macro_format() writes with. `file` is not
 * copied and must stay valid until then. */
ZQ_API void zq_log_macro_set_values(zqlog *zqlog, unsigned int level, const char *file, int line);
/* zq_log_macro_format writes the line. Results as for zq_log(); when only the prefix cannot be
 * allocated the line is written without it. */
ZQ_API int zq_log_macro_format(const char *format, ...) ZQ_PRINTF(1, 2);
/* zq_log_macro_mutex_unlock releases the macro mutex. */
ZQ_API void zq_log_macro_mutex_unlock(void);

ZQ_END_DECLS

#endif
