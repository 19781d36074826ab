// Lines are written synchronously by the thread that logs them. Thresholds are looked at before
// anything else, since most lines of a working program (traces) reach no output.
#include "zq/util/zqlog.h"

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <syslog.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlocks.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"
#include "zq/util/zqsystem.h"

static constexpr int DEFAULT_LEVEL = 8;
static constexpr int LEVEL_MAX = 16;
static constexpr int NO_LEVEL = -1;

namespace {
// A text buffer that is kept from line to line and only grows.
struct line_buffer {
    char *text;
    size_t size;
};

struct log_global {
    zqlog *defaultlog;
    zqmutex *mutex; // the macro mutex; its presence is threaded mode
    zqlog *log;     // the values for the next macro line
    unsigned int level;
    const char *file;
    int line;
};
} // namespace

struct zqlog {
    std::atomic<zqmutex *> mutex;
    std::atomic<int> threshold;      // the largest one of the enabled outputs
    std::atomic<bool> lines_skipped; // lines below it have been dropped unformatted
    line_buffer prefix;
    line_buffer message;
    int callback_enabled;
    zq_log_callback callback;
    void *userdata;
    int callback_level;
    int logfile_enabled;
    char *logfile_name;
    FILE *logfile;
    int logfile_level;
    int stdout_enabled;
    int stdout_level;
    int stderr_enabled;
    int stderr_level;
    int syslog_enabled;
    int syslog_facility;
    int syslog_level;
    int syslog_map[LEVEL_MAX + 1];
};

static log_global *zq_log_global;
std::atomic<int> zq_log_default_threshold{DEFAULT_LEVEL};

// ---- thresholds ----

static bool zq_log_admits(int enabled, int threshold, unsigned int level)
{
    return enabled && threshold >= 0 && static_cast<unsigned int>(threshold) >= level;
}

// Whether any output takes lines of this level.
static bool zq_log_admits_line(zqlog *log, unsigned int level)
{
    if (zq_log_admits(1, log->threshold.load(std::memory_order_relaxed), level))
        return true;
    // Written once only: threads that log much share this.
    if (!log->lines_skipped.load(std::memory_order_relaxed))
        log->lines_skipped.store(true, std::memory_order_relaxed);
    return false;
}

static void zq_log_settings_changed(zqlog *log)
{
    const int outputs[][2] = {{log->callback_enabled, log->callback_level},
                              {log->logfile_enabled, log->logfile_level},
                              {log->stdout_enabled, log->stdout_level},
                              {log->stderr_enabled, log->stderr_level},
                              {log->syslog_enabled, log->syslog_level}};
    int threshold = NO_LEVEL;
    for (const auto &[enabled, level] : outputs) {
        if (enabled && level > threshold)
            threshold = level;
    }
    log->threshold.store(threshold, std::memory_order_relaxed);
    if (zq_log_global && log == zq_log_global->defaultlog)
        zq_log_default_threshold.store(threshold, std::memory_order_relaxed);
}

// ---- the process-wide state ----

static void zq_log_global_destroy(log_global *global)
{
    if (global->mutex)
        zq_mutex_destroy(global->mutex);
    if (global->defaultlog)
        zq_log_destroy(global->defaultlog);
    zq_free(global);
}

int zq_log_init(void)
{
    if (zq_log_global)
        return 0;
    owned<log_global, zq_log_global_destroy> global(make_zeroed<log_global>());
    if (!global)
        return -1;
    global->defaultlog = zq_log_create();
    if (!global->defaultlog)
        return -1;
    zq_log_global = global.release();
    return 0;
}

int zq_log_init_threaded(void)
{
    int result = zq_log_init();
    if (zq_log_global && !zq_log_global->mutex) {
        zq_log_global->mutex = zq_mutex_create();
        if (!zq_log_global->mutex)
            return -1;
    }
    return result;
}

void zq_log_uninit(void)
{
    log_global *global = zq_log_global;
    zq_log_global = nullptr;
    zq_log_default_threshold.store(DEFAULT_LEVEL, std::memory_order_relaxed);
    if (global)
        zq_log_global_destroy(global);
}

// Null only when the default log is wanted and cannot be made.
static zqlog *zq_log_resolve(zqlog *log)
{
    if (log)
        return log;
    return zq_log_init() == 0 ? zq_log_global->defaultlog : nullptr;
}

// ---- log objects ----

zqlog *zq_log_create(void)
{
    static constexpr int default_map[LEVEL_MAX + 1] = {
        LOG_DEBUG, LOG_EMERG,   LOG_EMERG,   LOG_ALERT,  LOG_CRIT, LOG_ERR,
        LOG_ERR,   LOG_WARNING, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_NOTICE,
        LOG_INFO,  LOG_DEBUG,   LOG_DEBUG,   LOG_DEBUG,  LOG_DEBUG};

    zqlog *log = make_zeroed<zqlog>();
    if (!log)
        return nullptr;
    log->callback_level = LEVEL_MAX;
    log->logfile_level = DEFAULT_LEVEL;
    log->stdout_level = DEFAULT_LEVEL;
    log->stderr_enabled = 1;
    log->stderr_level = DEFAULT_LEVEL;
    log->syslog_level = DEFAULT_LEVEL;
    memcpy(log->syslog_map, default_map, sizeof(default_map));
    zq_log_settings_changed(log);
    return log;
}

static void zq_log_logfile_close(zqlog *log)
{
    if (log->logfile)
        fclose(log->logfile);
    log->logfile = nullptr;
}

void zq_log_destroy(zqlog *zqlog)
{
    ZQ_ASSERT(zqlog != NULL);

    zq_free(zqlog->prefix.text);
    zq_free(zqlog->message.text);
    zq_free(zqlog->logfile_name);
    zq_log_logfile_close(zqlog);
    if (zqlog->mutex)
        zq_mutex_destroy(zqlog->mutex);
    zq_free(zqlog);
}

// ---- outputs ----

// The log that a setter applies to.
static zqlog *zq_log_target(zqlog *log)
{
    zqlog *target = zq_log_resolve(log);
    ZQ_ASSERT_TEXT(target, "zq_log_global->defaultlog != NULL");
    return target;
}

static void zq_log_set(zqlog *log, int zqlog::*setting, int value)
{
    zqlog *target = zq_log_target(log);
    target->*setting = value;
    zq_log_settings_changed(target);
}

void zq_log_callback_set(zqlog *zqlog, zq_log_callback callback, void *userdata)
{
    struct zqlog *target = zq_log_target(zqlog);
    target->callback = callback;
    target->userdata = userdata;
}

void zq_log_callback_enable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::callback_enabled, 1);
}

void zq_log_callback_disable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::callback_enabled, 0);
}

void zq_log_callback_set_level(zqlog *zqlog, int level)
{
    zq_log_set(zqlog, &zqlog::callback_level, level);
}

int zq_log_logfile_set_name(zqlog *zqlog, const char *name)
{
    struct zqlog *target = zq_log_target(zqlog);
    char *copy = zq_strdup(name);
    if (!copy)
        return -1;
    zq_free(target->logfile_name);
    target->logfile_name = copy;
    zq_log_logfile_close(target);
    return 0;
}

void zq_log_logfile_set_filehandle(zqlog *zqlog, FILE *stream)
{
    struct zqlog *target = zq_log_target(zqlog);
    zq_log_logfile_close(target);
    target->logfile = stream;
}

void zq_log_logfile_enable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::logfile_enabled, 1);
}

void zq_log_logfile_disable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::logfile_enabled, 0);
}

int zq_log_logfile_recreate(zqlog *zqlog)
{
    struct zqlog *target = zq_log_target(zqlog);
    if (!target->logfile_enabled)
        return 0;
    zq_log_logfile_close(target);
    target->logfile = fopen(target->logfile_name ? target->logfile_name : "zqdefault.log", "ae");
    return target->logfile ? 0 : -1;
}

void zq_log_logfile_set_level(zqlog *zqlog, int level)
{
    zq_log_set(zqlog, &zqlog::logfile_level, level);
}

void zq_log_stdout_enable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::stdout_enabled, 1);
}

void zq_log_stdout_disable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::stdout_enabled, 0);
}

void zq_log_stdout_set_level(zqlog *zqlog, int level)
{
    zq_log_set(zqlog, &zqlog::stdout_level, level);
}

void zq_log_stderr_enable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::stderr_enabled, 1);
}

void zq_log_stderr_disable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::stderr_enabled, 0);
}

void zq_log_stderr_set_level(zqlog *zqlog, int level)
{
    zq_log_set(zqlog, &zqlog::stderr_level, level);
}

void zq_log_syslog_enable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::syslog_enabled, 1);
}

void zq_log_syslog_disable(zqlog *zqlog)
{
    zq_log_set(zqlog, &zqlog::syslog_enabled, 0);
}

void zq_log_syslog_set_level(zqlog *zqlog, int level)
{
    zq_log_set(zqlog, &zqlog::syslog_level, level);
}

void zq_log_syslog_set_facility(zqlog *zqlog, int facility)
{
    zq_log_set(zqlog, &zqlog::syslog_facility, facility);
}

int zq_log_syslog_map(zqlog *zqlog, int level, int priority)
{
    struct zqlog *target = zq_log_target(zqlog);
    if (level < 0 || level > LEVEL_MAX)
        return -1;
    target->syslog_map[level] = priority;
    return 0;
}

// ---- writing one line ----

namespace {
struct log_line {
    const char *prefix; // null when there is none
    const char *message;
    size_t length;
    unsigned int level;
    bool raw;
    time_t time;
};
} // namespace

// Returns the number of writes that failed. The stream stays locked throughout, so lines of several
// logs that share a stream do not mix.
static int zq_log_write_stream(FILE *stream, const log_line &line)
{
    int failures = 0;
    flockfile(stream);
    if (!line.raw) {
        struct tm tm = {};
        zq_localtime_r(&line.time, &tm);
        failures +=
            fprintf(stream, "%04u-%02u-%02u %02u:%02u:%02u ",
                    static_cast<unsigned int>(tm.tm_year + 1900),
                    static_cast<unsigned int>(tm.tm_mon + 1), static_cast<unsigned int>(tm.tm_mday),
                    static_cast<unsigned int>(tm.tm_hour), static_cast<unsigned int>(tm.tm_min),
                    static_cast<unsigned int>(tm.tm_sec)) < 0;
    }
    if (line.prefix)
        failures += fprintf(stream, "%s ", line.prefix) < 0;
    failures += fwrite(line.message, 1, line.length, stream) != line.length;
    failures += fwrite("\n", 1, 1, stream) != 1;
    failures += fflush(stream) != 0;
    funlockfile(stream);
    return failures;
}

static int zq_log_write_callback(const zqlog *log, const log_line &line)
{
    if (!log->callback)
        return 1;
    return log->callback(line.message, line.length, line.level, line.time, log->userdata) != 0;
}

static int zq_log_write_logfile(zqlog *log, const log_line &line)
{
    int failures = 0;
    if (!log->logfile && zq_log_logfile_recreate(log) != 0)
        failures++;
    if (log->logfile)
        failures += zq_log_write_stream(log->logfile, line);
    return failures;
}

static void zq_log_write_syslog(const zqlog *log, const log_line &line)
{
    // Levels above the map share the priority of its last entry.
    unsigned int level = line.level > LEVEL_MAX ? LEVEL_MAX : line.level;
    int priority = log->syslog_map[level] | log->syslog_facility;
    owned_block<> message(zq_strndup(line.message, line.length));
    if (!message) {
        syslog(priority, "not enough memory for logging string");
        return;
    }
    if (!line.prefix) {
        syslog(priority, "%s", message.get());
        return;
    }
    owned_block<> joined(zq_strdupf("%s %s", line.prefix, message.get()));
    if (joined)
        syslog(priority, "%s", joined.get());
    else
        syslog(priority, "<not enough memory for prefix> %s", message.get());
}

// Serves the outputs in their order. Returns 0 or the negative number of failures.
static int zq_log_buffer(zqlog *zqlog, const char *prefix, const char *string, size_t length,
                         unsigned int level, int raw)
{
    ZQ_ASSERT(zqlog != NULL);
    ZQ_ASSERT(string != NULL);
    ZQ_ASSERT(raw == 0 || raw == 1);
    ZQ_ASSERT_TEXT(zqlog->message.text, "zqlog->buffer != NULL");

    log_line line = {prefix, string, length, level, raw == 1, zq_time(nullptr)};
    int failures = 0;
    if (zq_log_admits(zqlog->callback_enabled, zqlog->callback_level, level))
        failures += zq_log_write_callback(zqlog, line);
    if (zq_log_admits(zqlog->logfile_enabled, zqlog->logfile_level, level))
        failures += zq_log_write_logfile(zqlog, line);
    if (zq_log_admits(zqlog->stdout_enabled, zqlog->stdout_level, level))
        failures += zq_log_write_stream(stdout, line);
    if (zq_log_admits(zqlog->stderr_enabled, zqlog->stderr_level, level))
        failures += zq_log_write_stream(stderr, line);
    if (zq_log_admits(zqlog->syslog_enabled, zqlog->syslog_level, level))
        zq_log_write_syslog(zqlog, line);
    return -failures;
}

// Formats into the buffer, growing it when the text does not fit. Returns the length of the text,
// or -1 when it cannot be rendered or allocated; the buffer then holds nothing of use.
static int zq_log_vformat(line_buffer *buffer, const char *format, va_list ap)
{
    va_list again;
    va_copy(again, ap);
    int count = zq_vsnprintf(buffer->text, buffer->size, format, ap);
    if (count >= 0 && buffer->size <= static_cast<size_t>(count)) {
        zq_free(buffer->text);
        size_t size = static_cast<size_t>(count) + 1;
        *buffer = {static_cast<char *>(zq_malloc(size)), size};
        if (!buffer->text) {
            buffer->size = 0;
            count = -1;
        } else {
            int res = zq_vsnprintf(buffer->text, size, format, again);
            ZQ_ASSERT(res >= 0);
            count = res;
        }
    }
    va_end(again);
    return count < 0 ? -1 : count;
}

ZQ_PRINTF(2, 3) static int zq_log_format(line_buffer *buffer, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int count = zq_log_vformat(buffer, format, ap);
    va_end(ap);
    return count;
}

static int zq_log_vmessage(zqlog *zqlog, const char *prefix, unsigned int level, int raw,
                           const char *format, va_list ap)
{
    int count = zq_log_vformat(&zqlog->message, format, ap);
    if (count < 0)
        return -1;
    ZQ_ASSERT_TEXT(static_cast<size_t>(count) < zqlog->message.size, "count < zqlog->buflen");
    return zq_log_buffer(zqlog, prefix, zqlog->message.text, static_cast<size_t>(count), level,
                         raw) == 0
               ? 0
               : -1;
}

// ---- zq_log and zq_log_raw ----

// The log's own mutex, made on first use in threaded mode; null means that nothing is locked.
static zqmutex *zq_log_own_mutex(zqlog *log)
{
    zqmutex *mutex = log->mutex.load(std::memory_order_acquire);
    if (mutex || !zq_log_global || !zq_log_global->mutex)
        return mutex;
    owned<zqmutex, zq_mutex_destroy> made(zq_mutex_create());
    // When two threads get here at once, the first one's mutex serves both.
    if (!made || !log->mutex.compare_exchange_strong(mutex, made.get(), std::memory_order_acq_rel))
        return mutex;
    return made.release();
}

static int zq_log_vwrite(zqlog *log, unsigned int level, int raw, const char *format, va_list ap)
{
    zqlog *target = zq_log_resolve(log);
    if (!target)
        return -1;
    if (!zq_log_admits_line(target, level))
        return 0;
    zqmutex *mutex = zq_log_own_mutex(target);
    if (!mutex)
        return zq_log_vmessage(target, nullptr, level, raw, format, ap);
    mutex_lock lock(mutex);
    return zq_log_vmessage(target, nullptr, level, raw, format, ap);
}

int zq_log(zqlog *zqlog, unsigned int level, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int result = zq_log_vwrite(zqlog, level, 0, format, ap);
    va_end(ap);
    return result;
}

int zq_log_raw(zqlog *zqlog, unsigned int level, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int result = zq_log_vwrite(zqlog, level, 1, format, ap);
    va_end(ap);
    return result;
}

// ---- the macro path ----

static constexpr char PREFIX_FORMAT[] = "%s:%d[%d]";

int zq_log_macro(zqlog *zqlog, unsigned int level, const char *file, int line, const char *format,
                 ...)
{
    ZQ_ASSERT(file != NULL);

    struct zqlog *target = zq_log_resolve(zqlog);
    if (!target)
        return -1;
    size_t prefix_size = target->prefix.size;
    int count = zq_log_format(&target->prefix, PREFIX_FORMAT, file, line, static_cast<int>(level));
    if (count < 0)
        return -1;
    // A prefix that grew is held against the message's buffer, not its own: meant, see the header.
    // What lines that were dropped unformatted would have made of that buffer counts as enough.
    if (target->prefix.size != prefix_size) {
        ZQ_ASSERT_TEXT(static_cast<size_t>(count) < target->message.size || target->lines_skipped,
                       "count < zqlog->buflen");
    }
    if (!zq_log_admits_line(target, level))
        return 0;

    va_list ap;
    va_start(ap, format);
    int result = zq_log_vmessage(target, target->prefix.text, level, 0, format, ap);
    va_end(ap);
    return result;
}

void zq_log_macro_mutex_lock(void)
{
    if (zq_log_global && zq_log_global->mutex)
        zq_mutex_lock(zq_log_global->mutex);
}

void zq_log_macro_set_values(zqlog *zqlog, unsigned int level, const char *file, int line)
{
    if (zq_log_init() != 0)
        return;
    zq_log_global->log = zqlog;
    zq_log_global->level = level;
    zq_log_global->file = file;
    zq_log_global->line = line;
}

static int zq_log_macro_vformat(const char *format, va_list ap)
{
    if (zq_log_init() != 0)
        return -1;
    const log_global &values = *zq_log_global;
    zqlog *target = values.log ? values.log : values.defaultlog;
    if (!zq_log_admits_line(target, values.level))
        return 0;
    int count = zq_log_format(&target->prefix, PREFIX_FORMAT, values.file, values.line,
                              static_cast<int>(values.level));
    if (count >= 0)
        ZQ_ASSERT_TEXT(target->prefix.size > static_cast<size_t>(count),
                       "zqlog->prefixlen > count");
    const char *prefix = count < 0 ? nullptr : target->prefix.text;
    return zq_log_vmessage(target, prefix, values.level, 0, format, ap);
}

int zq_log_macro_format(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int result = zq_log_macro_vformat(format, ap);
    va_end(ap);
    return result;
}

void zq_log_macro_mutex_unlock(void)
{
    if (zq_log_global && zq_log_global->mutex)
        zq_mutex_unlock(zq_log_global->mutex);
}

void zq_log_line(unsigned int level, const char *file, int line, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    zq_log_macro_mutex_lock();
    // Where there is no memory for the state, the values are not kept and the line is lost.
    if (zq_log_init() == 0) {
        zq_log_macro_set_values(nullptr, level, file, line);
        zq_log_macro_vformat(format, ap);
    }
    zq_log_macro_mutex_unlock();
    va_end(ap);
}
