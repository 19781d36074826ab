#include "zq/util/zqmalloc.h"

#include <climits>
#include <cstring>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"

using Block = ZqString;

static Block block(void *memory)
{
    return Block(static_cast<char *>(memory));
}

TEST(zqmalloc, blocks_are_the_system_allocators)
{
    Block given = block(zq_malloc(100));
    Block zeroed = block(zq_calloc(10, 10));
    Block context = block(zq_cmalloc(100));
    ASSERT_TRUE(given && zeroed && context);
    const char zeros[100] = {};
    EXPECT_EQ(memcmp(zeroed.get(), zeros, 100), 0);
    EXPECT_EQ(memcmp(context.get(), zeros, 100), 0);
    free(given.release());
    zq_free(malloc(1));
    zq_free(nullptr);
}

TEST(zqmalloc, what_cannot_be_had_is_null)
{
    if (faults_injected())
        GTEST_SKIP() << "cannot tell which allocation fails";
    volatile size_t half = SIZE_MAX / 2 + 1;
    EXPECT_EQ(zq_calloc(half, 2), nullptr);
    Block kept = block(zq_memdup("ab", 3));
    ASSERT_TRUE(kept);
    EXPECT_EQ(zq_malloc(half), nullptr);
    EXPECT_EQ(zq_realloc(kept.get(), half), nullptr);
    EXPECT_STREQ(kept.get(), "ab");
}

TEST(zqmalloc, a_size_of_0_never_frees)
{
    void *memory = zq_malloc(20);
    Block smallest = block(zq_realloc(memory, 0));
    ASSERT_TRUE(smallest);
    smallest.get()[0] = 'x';
    Block fresh = block(zq_realloc(nullptr, 0));
    ASSERT_TRUE(fresh);
    fresh.get()[0] = 'x';
}

TEST(zqmalloc, memdup)
{
    Block copy = block(zq_memdup("a\0b", 4));
    ASSERT_TRUE(copy);
    EXPECT_EQ(memcmp(copy.get(), "a\0b", 4), 0);
    Block empty = block(zq_memdup("", 0));
    ASSERT_TRUE(empty);
    empty.get()[0] = 'x';
    EXPECT_MISUSE(zq_memdup(nullptr, 1), "util/zqmalloc", "zq_memdup", "memory != NULL");
    if (heap_is_watched() && !faults_injected()) {
        HeapFailure failure(1);
        EXPECT_EQ(zq_memdup("a", 2), nullptr);
    }
}

// Runs in a process of its own, where nothing has been allocated yet.
TEST(zqmalloc, DISABLED_first_allocation)
{
    fputs("started\n", stderr);
    Block untouched = block(zq_realloc(nullptr, 5));
    fprintf(stderr, "realloc %s\n", untouched ? "given" : "refused");
    Block given = block(zq_malloc(5));
    fprintf(stderr, "malloc %s\n", given ? "given" : "refused");
    // Too late to change anything.
    setenv("ZQMALLOC_FAILMODE", "1", 1);
    Block zeroed = block(zq_calloc(5, 1));
    fprintf(stderr, "calloc %s\n", zeroed ? "given" : "refused");
    zq_malloc_uninit();
}

TEST(zqmalloc, the_fault_mode_is_decided_by_the_first_allocation)
{
    if (faults_injected())
        GTEST_SKIP() << "starts programs without faults";
    const struct {
        const char *mode;
        const char *output;
    } rows[] = {
        {"--unset=ZQMALLOC_FAILMODE", "started\nrealloc given\nmalloc given\ncalloc given\n"},
        {"ZQMALLOC_FAILMODE=", "started\nrealloc given\nZQMALLOC_FAILMODE enabled!\n"
                               "malloc refused\ncalloc refused\n"},
        {"ZQMALLOC_FAILMODE=0", "started\nrealloc given\nZQMALLOC_FAILMODE enabled!\n"
                                "malloc refused\ncalloc refused\n"},
    };
    char program[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", program, sizeof(program) - 1), 0);
    for (const auto &row : rows) {
        Scratch scratch;
        Outcome outcome =
            run({"env", "-C", scratch.path(), row.mode, program, "--gtest_also_run_disabled_tests",
                 "--gtest_filter=zqmalloc.DISABLED_first_allocation"});
        EXPECT_EQ(outcome.status, 0) << row.mode;
        EXPECT_EQ(outcome.err, row.output) << row.mode;
    }
}
