// The fault decision works beside the allocator it tests: nothing here may use zq_malloc, or the
// logger, which allocates with it.
#include "zq/util/zqmallocfail.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <pthread.h>
#include <string_view>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqtext.h"
#include "zq/util/zqprintf.h"

static constexpr char DATABASE_FILE[] = "zqmallocfail.db";
static constexpr int LINE_SIZE = 4096;
static constexpr int FRAMES_MAX = 50;

namespace {
struct fail_entry : zqlistlink {
    uint64_t hash;
    char *stacktrace;
};

// The paths that have failed, in the order of the file and then in the order met.
struct zqmallocfail {
    zqlist entries;
};
} // namespace

// Null until the first decision.
static zqmallocfail *zq_mallocfail_global;

// Guards the database and the file. A test run that starts threads asks for decisions from each of
// them, and two threads on one new path must not both fail it.
static pthread_mutex_t zq_mallocfail_mutex = PTHREAD_MUTEX_INITIALIZER;

static void zq_mallocfail_lock()
{
    int err = pthread_mutex_lock(&zq_mallocfail_mutex);
    ZQ_ASSERT(err == 0);
}

static void zq_mallocfail_unlock()
{
    int err = pthread_mutex_unlock(&zq_mallocfail_mutex);
    ZQ_ASSERT(err == 0);
}

// ---- the database ----

// FNV-1a. The texts of a program's paths begin alike over hundreds of bytes, so comparing hashes
// first keeps the search short however many paths are known.
static uint64_t zq_mallocfail_hash(const char *stacktrace)
{
    uint64_t hash = 14695981039346656037u;
    for (const char *c = stacktrace; *c; c++)
        hash = (hash ^ static_cast<unsigned char>(*c)) * 1099511628211u;
    return hash;
}

static fail_entry *zq_mallocfail_find(const zqmallocfail *zqmallocfail, const char *stacktrace)
{
    uint64_t hash = zq_mallocfail_hash(stacktrace);
    for (fail_entry *entry : list_items<fail_entry>(&zqmallocfail->entries)) {
        ZQ_ASSERT(entry->stacktrace != NULL);
        if (entry->hash == hash && strcmp(entry->stacktrace, stacktrace) == 0)
            return entry;
    }
    return nullptr;
}

static fail_entry *zq_mallocfail_entry_create()
{
    return static_cast<fail_entry *>(calloc(1, sizeof(fail_entry)));
}

// The entry takes over the text.
static void zq_mallocfail_add(zqmallocfail *zqmallocfail, fail_entry *entry, char *stacktrace)
{
    entry->hash = zq_mallocfail_hash(stacktrace);
    entry->stacktrace = stacktrace;
    list_append(&zqmallocfail->entries, entry);
}

static void zq_mallocfail_destroy(zqmallocfail *zqmallocfail)
{
    ZQ_ASSERT(zqmallocfail != NULL);

    for (fail_entry *entry : list_items<fail_entry>(&zqmallocfail->entries)) {
        ZQ_ASSERT(entry->stacktrace != NULL);
        free(entry->stacktrace);
        free(entry);
    }
    free(zqmallocfail);
}

// ---- the file ----

static int zq_mallocfail_file_load_line(zqmallocfail *zqmallocfail, const char *line)
{
    fail_entry *entry = zq_mallocfail_entry_create();
    if (!entry) {
        zq_stdio_printf_stderr(
            "zq_mallocfail_file_load: not enough memory for stackframe entry (%lu bytes)\n",
            static_cast<unsigned long>(sizeof(*entry)));
        return -1;
    }
    size_t size = strlen(line) + 1;
    char *stacktrace = static_cast<char *>(malloc(size));
    if (!stacktrace) {
        zq_stdio_printf_stderr(
            "zq_mallocfail_file_load: not enough memory for stacktrace (%lu bytes)\n",
            static_cast<unsigned long>(size));
        free(entry);
        return -1;
    }
    memcpy(stacktrace, line, size);
    zq_mallocfail_add(zqmallocfail, entry, stacktrace);
    return 0;
}

static int zq_mallocfail_file_load_lines(zqmallocfail *zqmallocfail, FILE *file, char *buffer)
{
    while (fgets(buffer, LINE_SIZE, file)) {
        size_t len = strlen(buffer);
        if (len >= LINE_SIZE - 1) {
            zq_stdio_printf_stderr("zq_mallocfail_file_load: buffer too short for loading "
                                   "stackframes (%d bytes)\n",
                                   LINE_SIZE);
            return -1;
        }
        if (len > 0 && buffer[len - 1] == '\n')
            buffer[len - 1] = '\0';
        if (zq_mallocfail_file_load_line(zqmallocfail, buffer) != 0)
            return -1;
    }
    return 0;
}

static int zq_mallocfail_file_load(zqmallocfail *zqmallocfail)
{
    FILE *file = fopen(DATABASE_FILE, "re");
    if (!file)
        return -1;
    int result = -1;
    char *buffer = static_cast<char *>(malloc(LINE_SIZE));
    if (buffer) {
        result = zq_mallocfail_file_load_lines(zqmallocfail, file, buffer);
    } else {
        zq_stdio_printf_stderr(
            "zq_mallocfail_file_load: not enough memory for line buffer (%d bytes)\n", LINE_SIZE);
    }
    free(buffer);
    fclose(file);
    return result;
}

static int zq_mallocfail_file_append(const char *stacktrace)
{
    FILE *file = fopen(DATABASE_FILE, "ae");
    if (!file) {
        zq_stdio_printf_stderr("unable to append stacktrace in file %s\n", DATABASE_FILE);
        return -1;
    }
    int result = 0;
    if (fprintf(file, "%s\n", stacktrace) < 0) {
        zq_stdio_printf_stderr("unable to write stacktrace in file %s\n", DATABASE_FILE);
        result = -1;
    }
    if (fclose(file) != 0)
        result = -1;
    return result;
}

// ---- the decision ----

// A file that is missing or cannot be read to its end makes an empty or partial database.
static zqmallocfail *zq_mallocfail_database_locked()
{
    if (zq_mallocfail_global)
        return zq_mallocfail_global;
    auto *created = static_cast<zqmallocfail *>(calloc(1, sizeof(zqmallocfail)));
    if (created)
        zq_mallocfail_file_load(created);
    zq_mallocfail_global = created;
    return created;
}

// Takes over the text. Whatever goes wrong the path counts as new.
static bool zq_mallocfail_decide_locked(char *stacktrace)
{
    zqmallocfail *database = zq_mallocfail_database_locked();
    bool fail = !database || !zq_mallocfail_find(database, stacktrace);
    fail_entry *entry = nullptr;
    if (database && fail) {
        zq_mallocfail_file_append(stacktrace);
        entry = zq_mallocfail_entry_create();
    }
    if (entry)
        zq_mallocfail_add(database, entry, stacktrace);
    else
        free(stacktrace);
    return fail;
}

// The stack trace generators know this frame, by its being a frame of its own and by its plain
// name.
[[gnu::noinline]] static bool zq_mallocfail_checkfail() __asm__("zq_mallocfail_checkfail");

static bool zq_mallocfail_checkfail()
{
    char *stacktrace = zq_mallocfail_backtrace_stacktrace();
    ZQ_ASSERT(stacktrace != NULL);

    zq_mallocfail_lock();
    bool fail = zq_mallocfail_decide_locked(stacktrace);
    zq_mallocfail_unlock();
    return fail;
}

void *zq_mallocfail_malloc(size_t size)
{
    return zq_mallocfail_checkfail() ? nullptr : malloc(size);
}

void *zq_mallocfail_calloc(size_t count, size_t size)
{
    return zq_mallocfail_checkfail() ? nullptr : calloc(count, size);
}

void zq_mallocfail_uninit(void)
{
    zq_mallocfail_lock();
    zqmallocfail *database = zq_mallocfail_global;
    zq_mallocfail_global = nullptr;
    zq_mallocfail_unlock();
    if (database)
        zq_mallocfail_destroy(database);
}

// ---- the stack as text: backtrace ----

// The machinery between backtrace() and the allocation wrapper, innermost first, as the texts of
// backtrace_symbols() show it; "()" is a function without an exported symbol.
static int zq_mallocfail_backtrace_skip(char *const *symbols, int framecount)
{
    static constexpr const char *machinery[] = {"(zq_mallocfail_backtrace_stacktrace+", "()",
                                                "(zq_mallocfail_malloc+", "(zq_mallocfail_calloc+"};
    int skipped = 0;
    for (const char *frame : machinery) {
        if (skipped < framecount && strstr(symbols[skipped], frame))
            skipped++;
    }
    return skipped;
}

// The symbol's text without the " [address]" at its end.
static std::string_view zq_mallocfail_backtrace_frame(const char *symbol)
{
    const char *bracket = strrchr(symbol, '[');
    if (!bracket || bracket == symbol)
        return symbol;
    return {symbol, static_cast<size_t>(bracket - symbol - 1)};
}

// Joins the frames. *bufferlen is the buffer's size and becomes the length of the whole text.
// Returns -1 when there is no buffer or it is too small.
static int zq_mallocfail_backtrace_stacktrace_generate(char *buffer, size_t *bufferlen,
                                                       void *const *frames, int framecount,
                                                       char *const *symbols)
{
    ZQ_ASSERT(bufferlen != NULL);
    ZQ_ASSERT(buffer != NULL || *bufferlen == 0);
    ZQ_ASSERT(framecount >= 0);
    ZQ_ASSERT(frames != NULL);
    ZQ_ASSERT(symbols != NULL);

    text_writer text{buffer, *bufferlen, 0};
    for (int i = 0; i < framecount; i++) {
        if (i > 0)
            text.put(',');
        text.put(zq_mallocfail_backtrace_frame(symbols[i]));
    }
    *bufferlen = text.length;
    return buffer && text.length <= text.capacity ? 0 : -1;
}

[[gnu::noinline]] char *zq_mallocfail_backtrace_stacktrace(void)
{
    void *captured[FRAMES_MAX];
    int count = backtrace(captured, FRAMES_MAX);
    char **symbols = backtrace_symbols(captured, count);
    ZQ_ASSERT(symbols != NULL);

    int skipped = zq_mallocfail_backtrace_skip(symbols, count);
    size_t stacktracelen = 0;
    int err = zq_mallocfail_backtrace_stacktrace_generate(
        nullptr, &stacktracelen, captured + skipped, count - skipped, symbols + skipped);
    ZQ_ASSERT(err == -1 || stacktracelen == 0);

    char *stacktrace = static_cast<char *>(malloc(stacktracelen + 1));
    if (stacktrace) {
        stacktrace[stacktracelen] = '\0';
        err = zq_mallocfail_backtrace_stacktrace_generate(
            stacktrace, &stacktracelen, captured + skipped, count - skipped, symbols + skipped);
        ZQ_ASSERT(err == 0);
    }
    free(symbols);
    return stacktrace;
}

// ---- the stack as text: libunwind ----

static constexpr size_t NAME_SIZE = 256;

// Empty for a procedure without a name; a long name is cut.
static void zq_mallocfail_unwind_name(unw_cursor_t *cursor, char *name)
{
    unw_word_t offset;
    name[0] = '\0';
    unw_get_proc_name(cursor, name, NAME_SIZE, &offset);
}

// Moves the cursor past the frames of this file, which have to be there. The result is that of the
// last unw_step(): positive while there is a frame to look at.
static int zq_mallocfail_unwind_skip(unw_cursor_t *cursor)
{
    char name[NAME_SIZE];
    zq_mallocfail_unwind_name(cursor, name);
    ZQ_ASSERT(strcmp(name, "zq_mallocfail_unwind_stacktrace") == 0);
    int err = unw_step(cursor);
    ZQ_ASSERT(err > 0);
    zq_mallocfail_unwind_name(cursor, name);
    ZQ_ASSERT(strcmp(name, "zq_mallocfail_checkfail") == 0);

    err = unw_step(cursor);
    if (err <= 0)
        return err;
    zq_mallocfail_unwind_name(cursor, name);
    if (strcmp(name, "zq_mallocfail_malloc") == 0 || strcmp(name, "zq_mallocfail_calloc") == 0)
        err = unw_step(cursor);
    return err;
}

static void zq_mallocfail_unwind_put_frame(text_writer &text, unw_cursor_t *cursor)
{
    char name[NAME_SIZE];
    zq_mallocfail_unwind_name(cursor, name);
    text.put(name);
    if (strcmp(name, "__libc_start_main") == 0)
        return;

    unw_word_t ip = 0;
    unw_get_reg(cursor, UNW_REG_IP, &ip);
    char location[32];
    int ret = zq_snprintf(location, sizeof(location), "@%lx", static_cast<unsigned long>(ip));
    ZQ_ASSERT_TEXT(static_cast<size_t>(ret) <= sizeof(location) - 1,
                   "(size_t) ret <= sizeof(location) - 1");
    text.put(location);
}

// Joins the frames; buffer and result as for the generator above.
static int zq_mallocfail_unwind_stacktrace_generate(char *buffer, size_t *bufferlen,
                                                    unw_cursor_t cursor)
{
    ZQ_ASSERT(bufferlen != NULL);
    ZQ_ASSERT(buffer != NULL || *bufferlen == 0);

    text_writer text{buffer, *bufferlen, 0};
    int err = zq_mallocfail_unwind_skip(&cursor);
    while (err > 0) {
        if (text.length > 0)
            text.put(',');
        zq_mallocfail_unwind_put_frame(text, &cursor);
        err = unw_step(&cursor);
    }
    *bufferlen = text.length;
    return buffer && text.length <= text.capacity ? 0 : -1;
}

char *zq_mallocfail_unwind_stacktrace(void)
{
    unw_context_t context;
    unw_cursor_t cursor;
    int err = unw_getcontext(&context);
    ZQ_ASSERT(err == 0);
    err = unw_init_local(&cursor, &context);
    ZQ_ASSERT(err == 0);

    size_t stacktracelen = 0;
    err = zq_mallocfail_unwind_stacktrace_generate(nullptr, &stacktracelen, cursor);
    ZQ_ASSERT(err == -1);
    char *stacktrace = static_cast<char *>(malloc(stacktracelen + 1));
    if (!stacktrace)
        return nullptr;
    stacktrace[stacktracelen] = '\0';
    err = zq_mallocfail_unwind_stacktrace_generate(stacktrace, &stacktracelen, cursor);
    ZQ_ASSERT(err == 0);
    return stacktrace;
}
