// Noise is mixed in at `addpos`, output is taken at `readpos`; both stay below `poolsize` between
// calls. When either has gone through the pool, the pool is stirred.
#include "zq/crypto/zqrandom.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

#include "zq/crypto/zqsha256.h"
#include "zq/internal/zqassert.h"
#include "zq/internal/zqclock.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/io/zqfile.h"
#include "zq/util/zqstring.h"
#include "zq/util/zqsystem.h"

static constexpr size_t URANDOM_LIMIT = 256;
static constexpr size_t PROC_LIMIT = 262144;

struct zqrandom {
    zqsha256 *sha256; // one running hash for the life of the pool, never initialised again
    size_t poolsize;
    unsigned char *pool;
    uint32_t seeded;
    char *filename;
    size_t addpos;
    size_t readpos;
    pid_t pid; // the process that gathered noise last
};

static zqrandom *zq_random_global;

// ---- stirring ----

static void zq_random_hash(zqrandom *instance)
{
    constexpr size_t blocksize = 32;
    const size_t poolsize = instance->poolsize;
    unsigned char digest[blocksize];
    zq_sha256_update(instance->sha256, instance->pool, poolsize);
    zq_sha256_finalize(instance->sha256);
    zq_sha256_digest(instance->sha256, digest);
    for (size_t i = 0; i < poolsize; i += blocksize) {
        ZQ_ASSERT(i + blocksize <= poolsize);
        // Together they fill one block of the hash, whose chaining value is the next digest.
        unsigned char *block = instance->pool + i;
        zq_sha256_update(instance->sha256, digest, blocksize);
        zq_sha256_update(instance->sha256, block, blocksize);
        zq_sha256_digest(instance->sha256, digest);
        for (size_t k = 0; k < blocksize; k++)
            block[k] ^= digest[k];
    }
    instance->readpos = 0;
}

// ---- noise ----

static void zq_random_add_buffer(zqrandom *instance, const void *buffer, size_t count)
{
    const unsigned char *bytes = static_cast<const unsigned char *>(buffer);
    for (size_t i = 0; i < count; i++) {
        instance->pool[instance->addpos++] ^= bytes[i];
        if (instance->addpos == instance->poolsize) {
            zq_random_hash(instance);
            instance->addpos = 0;
        }
    }
}

// The least significant byte first, so that the same noise gives the same stream on every machine.
static void zq_random_add_number(zqrandom *instance, int64_t value)
{
    unsigned char bytes[sizeof(value)];
    for (unsigned char &byte : bytes) {
        byte = static_cast<unsigned char>(value);
        value >>= 8;
    }
    zq_random_add_buffer(instance, bytes, sizeof(bytes));
}

// Adds at most `limit` bytes of a file. Returns -1 when it cannot be opened.
static int zq_random_add_file(zqrandom *instance, const char *name, size_t limit)
{
    owned<FILE, zq_file_close> file(zq_file_open_binary(name));
    if (!file)
        return -1;
    unsigned char buffer[1024];
    size_t left = limit;
    while (left > 0) {
        size_t count = zq_file_read(file.get(), buffer, std::min(left, sizeof(buffer)));
        if (count == 0)
            break;
        zq_random_add_buffer(instance, buffer, count);
        left -= count;
    }
    return 0;
}

static void zq_random_get_light_noise(zqrandom *instance)
{
    zq_random_add_file(instance, "/dev/urandom", URANDOM_LIMIT);
    zq_random_add_number(instance, zq_time(nullptr));
    static constexpr const char *names[] = {"/proc/interrupts",   "/proc/meminfo",
                                            "/proc/net/rt_cache", "/proc/sched_debug",
                                            "/proc/self/sched",   "/proc/timer_list"};
    for (const char *name : names)
        zq_random_add_file(instance, name, PROC_LIMIT);
    const timeval now = clock_now();
    zq_random_add_number(instance, now.tv_sec);
    zq_random_add_number(instance, now.tv_usec);
    zq_random_hash(instance);
    instance->pid = getpid();
}

// ---- the process-wide instance ----

int zq_random_init(void)
{
    if (!zq_random_global)
        zq_random_global = zq_random_create();
    if (!zq_random_global) {
        ZQ_LOG(7, "unable to initialize the global random context");
        return -1;
    }
    return 0;
}

void zq_random_uninit(void)
{
    zqrandom *global = zq_random_global;
    zq_random_global = nullptr;
    if (global)
        zq_random_destroy(global);
}

// Null only when the process-wide instance is wanted and cannot be made.
static zqrandom *zq_random_resolve(zqrandom *instance)
{
    if (instance)
        return instance;
    return zq_random_init() == 0 ? zq_random_global : nullptr;
}

// ---- instances ----

zqrandom *zq_random_create(void)
{
    owned<zqrandom, zq_random_destroy> created(make_zeroed<zqrandom>());
    if (!created) {
        ZQ_LOG(7, "not enough memory for zqrandom context");
        return nullptr;
    }
    created->sha256 = zq_sha256_create();
    if (!created->sha256) {
        ZQ_LOG(7, "unable to create zqsha256 module context");
        return nullptr;
    }
    created->poolsize = 1024;
    created->pool = static_cast<unsigned char *>(zq_cmalloc(created->poolsize));
    if (!created->pool) {
        ZQ_LOG(7, "not enough memory for the random pool");
        return nullptr;
    }
    return created.release();
}

void zq_random_destroy(zqrandom *zqrandom)
{
    ZQ_ASSERT(zqrandom != NULL);

    if (zqrandom->sha256)
        zq_sha256_destroy(zqrandom->sha256);
    zq_free(zqrandom->pool);
    zq_free(zqrandom->filename);
    zq_free(zqrandom);
}

int zq_random_set_filename(zqrandom *zqrandom, const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    struct zqrandom *instance = zq_random_resolve(zqrandom);
    if (!instance)
        return -1;
    char *copy = zq_strdup(filename);
    if (!copy) {
        ZQ_LOG(7, "not enough memory for copying random storage file name '%s'", filename);
        return -1;
    }
    zq_free(instance->filename);
    instance->filename = copy;
    zq_random_add_file(instance, copy, instance->poolsize);
    return 0;
}

// ---- output ----

int zq_random_buffer(zqrandom *zqrandom, void *buffer, size_t count)
{
    ZQ_ASSERT(buffer != NULL || count == 0);

    struct zqrandom *instance = zq_random_resolve(zqrandom);
    if (!instance) {
        ZQ_LOG(7, "unable to get the global zqrandom context");
        return -1;
    }
    // A forked child shares its parent's pool until it has noise of its own.
    if (!instance->seeded || instance->pid != getpid()) {
        zq_random_get_light_noise(instance);
        instance->seeded = 1;
    }
    unsigned char *out = static_cast<unsigned char *>(buffer);
    while (count > 0) {
        size_t part = std::min(count, instance->poolsize - instance->readpos);
        memcpy(out, instance->pool + instance->readpos, part);
        out += part;
        count -= part;
        instance->readpos += part;
        if (instance->readpos == instance->poolsize)
            zq_random_get_light_noise(instance);
    }
    return 0;
}

uint32_t zq_random_uint(zqrandom *zqrandom)
{
    unsigned char bytes[4] = {0xde, 0xad, 0xbe, 0xef};
    if (zq_random_buffer(zqrandom, bytes, sizeof(bytes)) != 0)
        ZQ_LOG(7, "generating random integer failed");
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}
