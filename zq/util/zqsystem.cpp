#include "zq/util/zqsystem.h"

#include <cerrno>
#include <cstdlib>
#include <sys/select.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"

static constexpr size_t HOSTNAME_SIZE = 257;

// ---- names ----

char *zq_gethostname(void)
{
    owned_block<> buffer(static_cast<char *>(zq_malloc(HOSTNAME_SIZE)));
    if (!buffer) {
        ZQ_LOG(7, "not enough memory for gethostname() buffer");
        return nullptr;
    }
    if (gethostname(buffer.get(), HOSTNAME_SIZE) != 0) {
        int err = errno;
        ZQ_LOG(7, "gethostname() failed: errno %d", err);
        return nullptr;
    }
    // A name that was cut need not be terminated.
    buffer.get()[HOSTNAME_SIZE - 1] = '\0';
    char *hostname = zq_strdup(buffer.get());
    if (!hostname)
        ZQ_LOG(7, "not enough memory for hostname");
    return hostname;
}

char *zq_uname_sysname(void)
{
    struct utsname names;
    // Silent, unlike its siblings: meant, callers fall back to a name of their own.
    if (uname(&names) < 0)
        return nullptr;
    char *sysname = zq_strdup(names.sysname);
    if (!sysname)
        ZQ_LOG(7, "not enough memory for the operating system name");
    return sysname;
}

char *zq_uname_nodename(void)
{
    struct utsname names;
    if (uname(&names) < 0) {
        int err = errno;
        ZQ_LOG(7, "uname() failed, errno %d", err);
        return nullptr;
    }
    char *nodename = zq_strdup(names.nodename);
    if (!nodename)
        ZQ_LOG(7, "not enough memory for the node name");
    return nodename;
}

char *zq_uname_version(void)
{
    struct utsname names;
    if (uname(&names) < 0) {
        ZQ_LOG(7, "uname() returned an error");
        return nullptr;
    }
    char *version = zq_strdupf("%s %s", names.release, names.version);
    if (!version)
        ZQ_LOG(7, "not enough memory for the operating system version");
    return version;
}

// ---- environment ----

int zq_setenv(const char *name, const char *value, int overwrite)
{
    ZQ_ASSERT(name != NULL);
    ZQ_ASSERT(value != NULL);

    return setenv(name, value, overwrite);
}

int zq_unsetenv(const char *name)
{
    ZQ_ASSERT(name != NULL);

    return unsetenv(name);
}

// ---- time ----

int zq_sleep(unsigned int seconds, unsigned int microseconds)
{
    struct timeval timeout = {static_cast<time_t>(seconds), static_cast<suseconds_t>(microseconds)};
    return select(0, nullptr, nullptr, nullptr, &timeout);
}

time_t zq_time(time_t *tloc)
{
    return time(tloc);
}

struct tm *zq_localtime_r(const time_t *timep, struct tm *result)
{
    ZQ_ASSERT(timep);
    ZQ_ASSERT(result);

    return localtime_r(timep, result);
}
