/* zqsum prints the SHA-1 or SHA-256 digests of files in the format of sha1sum and sha256sum, and
 * checks such lists. Several files can be hashed at once, with their lines still in order. */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zq/crypto/zqsha1.h"
#include "zq/crypto/zqsha256.h"
#include "zq/io/zqfile.h"
#include "zq/util/zqgetopt.h"
#include "zq/util/zqmalloc.h"
#include "zq/util/zqmutex.h"
#include "zq/util/zqstring.h"
#include "zq/util/zqthreadpool.h"
#include "zq/util/zqtimeout.h"
#include "zq/util/zquninit.h"

enum { SHA1_SIZE = 20, SHA256_SIZE = 32, READ_SIZE = 262144, MAX_JOBS = 256, BAR_WIDTH = 40 };

/* Less than this is hashed before anybody looks at a progress bar. */
static const uint64_t progress_threshold = (uint64_t)64 << 20;

/* One file to hash. */
struct job {
    char *name;
    unsigned char expected[SHA256_SIZE]; /* from a list that is checked */
    unsigned char digest[SHA256_SIZE];
    int error; /* errno of what failed, 0 when `digest` is there */
    int submitted;
    int finished;
};

struct jobs {
    struct job *items;
    size_t count;
    size_t capacity;
};

/* A bar over the bytes of all files. The lock also keeps the bar out of lines on standard output.
 */
struct progress {
    zqmutex *mutex; /* null when no bar is wanted */
    zqtimeout *pace;
    uint64_t done;
    uint64_t total;
    int shown;
};

/* What one thread hashes with. */
struct worker {
    zqsha1 *sha1; /* one of the two is null */
    zqsha256 *sha256;
    unsigned char buffer[READ_SIZE];
};

struct sum {
    int use_sha1;
    size_t digest_size;
    struct progress progress;
    struct worker *worker; /* for what is hashed without the pool */
    zqthreadpool *pool;    /* null to hash one file after the other */
};

/* ---- progress ---- */

/* Needs the lock. */
static void progress_draw(struct progress *progress)
{
    static const char bar[] = "########################################";
    uint64_t percent =
        progress->done < progress->total ? progress->done * 100 / progress->total : 100;
    int filled = (int)(percent * BAR_WIDTH / 100);
    fprintf(stderr, "\r[%.*s%*s] %3d%% of %llu MiB", filled, bar, BAR_WIDTH - filled, "",
            (int)percent, (unsigned long long)(progress->total >> 20));
    progress->shown = 1;
}

static void progress_add(struct progress *progress, size_t bytes)
{
    if (!progress->mutex)
        return;
    zq_mutex_lock(progress->mutex);
    progress->done += bytes;
    if (zq_timeout_check(progress->pace, NULL, NULL) == 1) {
        progress_draw(progress);
        zq_timeout_reset(progress->pace, NULL, NULL);
    }
    zq_mutex_unlock(progress->mutex);
}

/* Between these two the terminal is free for a line of output. */
static void progress_suspend(struct progress *progress)
{
    if (!progress->mutex)
        return;
    zq_mutex_lock(progress->mutex);
    if (progress->shown)
        fputs("\r\033[K", stderr);
    progress->shown = 0;
}

static void progress_resume(struct progress *progress)
{
    if (!progress->mutex)
        return;
    fflush(stdout);
    zq_mutex_unlock(progress->mutex);
}

static void progress_end(struct progress *progress)
{
    progress_suspend(progress);
    progress_resume(progress);
    if (progress->mutex)
        zq_mutex_destroy(progress->mutex);
    if (progress->pace)
        zq_timeout_destroy(progress->pace);
    memset(progress, 0, sizeof(*progress));
}

/* Without memory there is no bar, and no harm done. */
static void progress_begin(struct progress *progress, const struct jobs *jobs)
{
    size_t i;
    if (!isatty(STDERR_FILENO))
        return;
    for (i = 0; i < jobs->count; i++) {
        struct stat status;
        if (stat(jobs->items[i].name, &status) == 0 && S_ISREG(status.st_mode))
            progress->total += (uint64_t)status.st_size;
    }
    if (progress->total < progress_threshold)
        return;
    progress->pace = zq_timeout_create();
    if (!progress->pace)
        return;
    zq_timeout_set(progress->pace, 0, 100000);
    progress->mutex = zq_mutex_create();
}

/* ---- hashing ---- */

static void worker_destroy(struct worker *worker)
{
    if (worker->sha1)
        zq_sha1_destroy(worker->sha1);
    if (worker->sha256)
        zq_sha256_destroy(worker->sha256);
    zq_free(worker);
}

static struct worker *worker_create(const struct sum *sum)
{
    struct worker *worker = zq_cmalloc(sizeof(*worker));
    if (!worker)
        return NULL;
    if (sum->use_sha1)
        worker->sha1 = zq_sha1_create();
    else
        worker->sha256 = zq_sha256_create();
    if (!worker->sha1 && !worker->sha256) {
        worker_destroy(worker);
        return NULL;
    }
    return worker;
}

static void worker_begin(struct worker *worker)
{
    if (worker->sha1)
        zq_sha1_init(worker->sha1);
    else
        zq_sha256_init(worker->sha256);
}

static void worker_feed(struct worker *worker, size_t count)
{
    if (worker->sha1)
        zq_sha1_update(worker->sha1, worker->buffer, count);
    else
        zq_sha256_update(worker->sha256, worker->buffer, count);
}

static void worker_finish(struct worker *worker, unsigned char *digest)
{
    if (worker->sha1) {
        zq_sha1_finalize(worker->sha1);
        zq_sha1_digest(worker->sha1, digest);
    } else {
        zq_sha256_finalize(worker->sha256);
        zq_sha256_digest(worker->sha256, digest);
    }
}

static int is_stdin(const char *name)
{
    return strcmp(name, "-") == 0;
}

static void hash_job(struct sum *sum, struct worker *worker, struct job *job)
{
    FILE *file = is_stdin(job->name) ? stdin : zq_file_open_binary(job->name);
    size_t count;
    if (!file) {
        job->error = errno;
        return;
    }
    worker_begin(worker);
    do {
        count = zq_file_read(file, worker->buffer, READ_SIZE);
        if (count < READ_SIZE && ferror(file))
            job->error = errno;
        worker_feed(worker, count);
        progress_add(&sum->progress, count);
    } while (count == READ_SIZE);
    worker_finish(worker, job->digest);
    if (file != stdin)
        zq_file_close(file);
}

/* ---- the pool ---- */

static void *pool_create_worker(void *sum, zqerror *error_out)
{
    struct worker *worker = worker_create(sum);
    *error_out = worker ? ZQ_ERROR_NONE : ZQ_ERROR_NO_MEMORY;
    return worker;
}

static void pool_destroy_worker(void *sum, void *worker)
{
    (void)sum;
    worker_destroy(worker);
}

static void pool_handle(void *sum, void *worker, void *job)
{
    hash_job(sum, worker, job);
}

static zqthreadpool *pool_create(struct sum *sum, int threads)
{
    zqthreadpool_params *params = zq_threadpool_params_create_defaults();
    zqthreadpool *pool;
    if (!params)
        return NULL;
    zq_threadpool_params_set_num_threads(params, (uint32_t)threads);
    zq_threadpool_params_set_global_context(params, sum);
    zq_threadpool_params_set_thread_ctx_create(params, pool_create_worker);
    zq_threadpool_params_set_thread_ctx_destroy(params, pool_destroy_worker);
    zq_threadpool_params_set_request_handler(params, pool_handle);
    pool = zq_threadpool_create(params, NULL);
    zq_threadpool_params_destroy(params);
    return pool;
}

/* Standard input is left to the main thread: there is only one. */
static void submit(struct sum *sum, struct jobs *jobs)
{
    size_t i;
    if (!sum->pool)
        return;
    for (i = 0; i < jobs->count; i++) {
        struct job *job = &jobs->items[i];
        if (!is_stdin(job->name))
            job->submitted = zq_threadpool_submit_request(sum->pool, job) == ZQ_ERROR_NONE;
    }
}

/* Jobs finish in any order; those that do before it is their turn are marked. */
static void complete(struct sum *sum, struct job *job)
{
    if (!job->submitted) {
        hash_job(sum, sum->worker, job);
        return;
    }
    while (!job->finished) {
        struct job *finished = zq_threadpool_get_result(sum->pool, NULL);
        finished->finished = 1;
    }
}

/* ---- lists of jobs ---- */

/* Returns the new job, or null when out of memory. The name becomes the job's. */
static struct job *jobs_add(struct jobs *jobs, char *name)
{
    if (name && jobs->count == jobs->capacity) {
        size_t capacity = jobs->capacity ? jobs->capacity * 2 : 64;
        struct job *grown = capacity <= SIZE_MAX / sizeof(*grown)
                                ? zq_realloc(jobs->items, capacity * sizeof(*grown))
                                : NULL;
        if (!grown) {
            zq_free(name);
            return NULL;
        }
        jobs->items = grown;
        jobs->capacity = capacity;
    }
    if (!name)
        return NULL;
    memset(&jobs->items[jobs->count], 0, sizeof(*jobs->items));
    jobs->items[jobs->count].name = name;
    return &jobs->items[jobs->count++];
}

static void jobs_clear(struct jobs *jobs)
{
    size_t i;
    for (i = 0; i < jobs->count; i++)
        zq_free(jobs->items[i].name);
    zq_free(jobs->items);
    memset(jobs, 0, sizeof(*jobs));
}

static int out_of_memory(void)
{
    fputs("zqsum: out of memory\n", stderr);
    return 1;
}

static int complain(const char *name, const char *problem)
{
    fprintf(stderr, "zqsum: %s: %s\n", name, problem);
    return 1;
}

/* ---- printing digests ---- */

static void print_escaped(const char *name)
{
    for (; *name; name++) {
        if (*name == '\\')
            fputs("\\\\", stdout);
        else if (*name == '\n')
            fputs("\\n", stdout);
        else if (*name == '\r')
            fputs("\\r", stdout);
        else
            putchar(*name);
    }
}

/* A line with an escaped name begins with a backslash. */
static void print_line(const struct sum *sum, const struct job *job)
{
    size_t i;
    if (strpbrk(job->name, "\\\n\r"))
        putchar('\\');
    for (i = 0; i < sum->digest_size; i++)
        printf("%02x", job->digest[i]);
    fputs("  ", stdout);
    print_escaped(job->name);
    putchar('\n');
}

/* Returns the exit status. */
static int print_digests(struct sum *sum, char **names, int count)
{
    struct jobs jobs = {0};
    int status = 0;
    int i;
    for (i = 0; i < count; i++)
        if (!jobs_add(&jobs, zq_strdup(names[i]))) {
            jobs_clear(&jobs);
            return out_of_memory();
        }
    progress_begin(&sum->progress, &jobs);
    submit(sum, &jobs);
    for (i = 0; i < count; i++) {
        struct job *job = &jobs.items[i];
        complete(sum, job);
        progress_suspend(&sum->progress);
        if (job->error)
            status = complain(job->name, strerror(job->error));
        else
            print_line(sum, job);
        progress_resume(&sum->progress);
    }
    progress_end(&sum->progress);
    jobs_clear(&jobs);
    return status;
}

/* ---- checking lists ---- */

static int hex_value(char digit)
{
    if (!isxdigit((unsigned char)digit))
        return -1;
    return isdigit((unsigned char)digit) ? digit - '0' : tolower((unsigned char)digit) - 'a' + 10;
}

static int parse_digest(const char *hex, unsigned char *digest, size_t size)
{
    size_t i;
    for (i = 0; i < size; i++) {
        int high = hex_value(hex[2 * i]);
        int low = high < 0 ? -1 : hex_value(hex[2 * i + 1]);
        if (low < 0)
            return -1;
        digest[i] = (unsigned char)(high << 4 | low);
    }
    return 0;
}

/* In place. */
static int unescape(char *name)
{
    char *out = name;
    for (; *name; name++) {
        if (*name != '\\') {
            *out++ = *name;
            continue;
        }
        name++;
        if (*name != '\\' && *name != 'n' && *name != 'r')
            return -1;
        *out++ = *name == 'n' ? '\n' : *name == 'r' ? '\r' : '\\';
    }
    *out = '\0';
    return 0;
}

/* Finds digest and name of a line, which is "DIGEST  NAME" or "DIGEST *NAME", after a backslash
 * when the name is escaped. Returns the name, or null when it is no such line. */
static char *parse_line(const struct sum *sum, char *line, unsigned char *digest)
{
    int escaped;
    char *name;
    line += strspn(line, " \t");
    escaped = *line == '\\';
    line += escaped;
    if (parse_digest(line, digest, sum->digest_size) != 0)
        return NULL;
    name = line + 2 * sum->digest_size;
    if ((name[0] != ' ' && name[0] != '\t') || (name[1] != ' ' && name[1] != '*') || !name[2])
        return NULL;
    name += 2;
    return escaped && unescape(name) != 0 ? NULL : name;
}

/* Reads a list. Returns 0, or 1 after saying why not. */
static int read_list(const struct sum *sum, const char *filename, struct jobs *jobs,
                     size_t *improper)
{
    FILE *file = is_stdin(filename) ? stdin : zq_file_open_binary(filename);
    char *line = NULL;
    size_t size = 0;
    int status = 0;
    if (!file)
        return complain(filename, strerror(errno));
    while (status == 0 && getline(&line, &size, file) >= 0) {
        unsigned char digest[SHA256_SIZE];
        struct job *job;
        char *name;
        line[strcspn(line, "\n")] = '\0';
        if (*line && line[strlen(line) - 1] == '\r')
            line[strlen(line) - 1] = '\0';
        if (*line == '\0' || *line == '#')
            continue;
        name = parse_line(sum, line, digest);
        if (!name) {
            ++*improper;
            continue;
        }
        job = jobs_add(jobs, zq_strdup(name));
        if (job)
            memcpy(job->expected, digest, sum->digest_size);
        else
            status = out_of_memory();
    }
    if (status == 0 && ferror(file))
        status = complain(filename, "read error");
    free(line);
    if (file != stdin)
        zq_file_close(file);
    return status;
}

static void print_outcome(const struct job *job, const char *outcome)
{
    if (strchr(job->name, '\n')) {
        putchar('\\');
        print_escaped(job->name);
    } else {
        fputs(job->name, stdout);
    }
    printf(": %s\n", outcome);
}

static void warn(size_t count, const char *one, const char *several)
{
    if (count > 0)
        fprintf(stderr, "zqsum: WARNING: %zu %s\n", count, count == 1 ? one : several);
}

/* Returns the exit status. */
static int check_jobs(struct sum *sum, struct jobs *jobs, size_t improper)
{
    size_t unreadable = 0, differing = 0, i;
    progress_begin(&sum->progress, jobs);
    submit(sum, jobs);
    for (i = 0; i < jobs->count; i++) {
        struct job *job = &jobs->items[i];
        complete(sum, job);
        progress_suspend(&sum->progress);
        if (job->error) {
            complain(job->name, strerror(job->error));
            print_outcome(job, "FAILED open or read");
            unreadable++;
        } else if (memcmp(job->digest, job->expected, sum->digest_size) != 0) {
            print_outcome(job, "FAILED");
            differing++;
        } else {
            print_outcome(job, "OK");
        }
        progress_resume(&sum->progress);
    }
    progress_end(&sum->progress);
    fflush(stdout);
    warn(improper, "line is improperly formatted", "lines are improperly formatted");
    warn(unreadable, "listed file could not be read", "listed files could not be read");
    warn(differing, "computed checksum did NOT match", "computed checksums did NOT match");
    return unreadable > 0 || differing > 0;
}

static int check_list(struct sum *sum, const char *filename)
{
    struct jobs jobs = {0};
    size_t improper = 0;
    int status = read_list(sum, filename, &jobs, &improper);
    if (status == 0 && jobs.count == 0)
        status = complain(is_stdin(filename) ? "'standard input'" : filename,
                          "no properly formatted checksum lines found");
    else if (status == 0)
        status = check_jobs(sum, &jobs, improper);
    jobs_clear(&jobs);
    return status;
}

/* ---- the command line ---- */

struct options {
    const char *algorithm;
    int check;
    int jobs;
};

static int add_options(zqgetopt *getopt, struct options *options)
{
    return zq_getopt_set_synopsis(getopt, "usage: zqsum [OPTION]... [FILE]...") == 0 &&
           zq_getopt_const_string(getopt, "algorithm", 'a', &options->algorithm, "sha1|sha256",
                                  "The digest to compute (sha256).") == 0 &&
           zq_getopt_flag_set(getopt, "check", 'c', &options->check,
                              "Read lists of digests from the files and check them.") == 0 &&
           zq_getopt_int(getopt, "jobs", 'j', &options->jobs, "N",
                         "Hash N files at once (1). Lines stay in order.") == 0 &&
           zq_getopt_help(getopt, "help", 'h') == 0 &&
           zq_getopt_set_footer(getopt,
                                "\nWithout FILE, or for the FILE -, reads standard input. Exit "
                                "status: 0 when all\nwent well, 1 when a file could not be read or "
                                "did not match, 2 for wrong usage.\n") == 0;
}

/* The option parser passes over "-", which is a file here: only what is in front of it is given to
 * the parser. Returns the index of the first file, -1 after an error, 0 when help was shown. */
static int parse_options(struct options *options, int argc, char **argv)
{
    zqgetopt *getopt = zq_getopt_create();
    int index = -1;
    int end = 1;
    while (end < argc && !is_stdin(argv[end]))
        end++;
    if (getopt && add_options(getopt, options)) {
        int result = zq_getopt_parse(getopt, end, argv);
        if (result >= 0)
            index = result > 0 ? 0 : zq_getopt_optind(getopt);
    }
    if (getopt)
        zq_getopt_destroy(getopt);
    return index;
}

static int wrong_usage(const struct options *options)
{
    if (strcmp(options->algorithm, "sha1") != 0 && strcmp(options->algorithm, "sha256") != 0)
        fprintf(stderr, "zqsum: there is no algorithm '%s'\n", options->algorithm);
    else if (options->jobs < 1 || options->jobs > MAX_JOBS)
        fprintf(stderr, "zqsum: the number of jobs is 1 to %d\n", MAX_JOBS);
    else
        return 0;
    return 2;
}

static int run(const struct options *options, char **files, int count)
{
    struct sum sum = {0};
    int status = 0;
    int i;
    sum.use_sha1 = strcmp(options->algorithm, "sha1") == 0;
    sum.digest_size = sum.use_sha1 ? SHA1_SIZE : SHA256_SIZE;
    sum.worker = worker_create(&sum);
    if (!sum.worker)
        return out_of_memory();
    if (options->jobs > 1)
        sum.pool = pool_create(&sum, options->jobs);
    if (!options->check)
        status = print_digests(&sum, files, count);
    else
        for (i = 0; i < count; i++)
            status |= check_list(&sum, files[i]);
    if (sum.pool)
        zq_threadpool_destroy(sum.pool);
    worker_destroy(sum.worker);
    return status;
}

int main(int argc, char **argv)
{
    static char standard_input[] = "-";
    static char *default_files[] = {standard_input};
    struct options options = {"sha256", 0, 1};
    int index = parse_options(&options, argc, argv);
    int status;
    if (index <= 0)
        return index < 0 ? 2 : 0;
    status = wrong_usage(&options);
    if (status == 0)
        status = index < argc ? run(&options, argv + index, argc - index)
                              : run(&options, default_files, 1);
    if (fflush(stdout) != 0 || ferror(stdout))
        status = complain("standard output", strerror(errno));
    zq_uninit();
    return status;
}
