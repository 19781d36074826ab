#ifndef ZQ_UTIL_ZQSYSTEM_H
#define ZQ_UTIL_ZQSYSTEM_H

#include <time.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* The system's names, environment and clock. New strings are freed with zq_free(); a null result
 * has been logged (level 7) unless stated otherwise. Environment changes are for one thread,
 * everything else for any. */

/* zq_gethostname returns the host name as a new string (at most 256 bytes of it), or null. */
ZQ_API char *zq_gethostname(void);

/* zq_uname_sysname returns the operating system's name as a new string, or null: logged when out of
 * memory, silent when the system does not tell. */
ZQ_API char *zq_uname_sysname(void);

/* zq_uname_nodename returns the node name as a new string, or null. */
ZQ_API char *zq_uname_nodename(void);

/* zq_uname_version returns "RELEASE VERSION" of the operating system as a new string, or null. */
ZQ_API char *zq_uname_version(void);

/* zq_setenv is the platform's setenv(): 0, or -1 with errno set. */
ZQ_API int zq_setenv(const char *name, const char *value, int overwrite);

/* zq_unsetenv is the platform's unsetenv(): 0, or -1 with errno set. */
ZQ_API int zq_unsetenv(const char *name);

/* zq_sleep waits for that time: 0, or -1 when a signal interrupted it. */
ZQ_API int zq_sleep(unsigned int seconds, unsigned int microseconds);

/* zq_time returns the seconds since the Epoch, also through `tloc` when it is not null. */
ZQ_API time_t zq_time(time_t *tloc);

/* zq_localtime_r converts to broken-down local time: `result`, or null when it does not fit. */
ZQ_API struct tm *zq_localtime_r(const time_t *timep, struct tm *result);

ZQ_END_DECLS

#endif
