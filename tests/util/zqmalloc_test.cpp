#include "zq/util/zqmalloc.h"

#include <climits>
#include <cstring>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/heap.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"

static ZqString block(void *memory)
{
    return ZqString(static_cast<char *>(memory));
}

TEST(zqmalloc, blocks_are_the_system_allocators)
{
    ZqString given = block(zq_malloc(100));
    ZqString zeroed = block(zq_calloc(10, 10));
    ZqString context = block(zq_cmalloc(100));
    ZqString copy = block(zq_memdup("a\0b", 4));
    ASSERT_TRUE(given && zeroed && context && copy);
    const char zeros[100] = {};
    EXPECT_EQ(memcmp(zeroed.get(), zeros, 100), 0);
    EXPECT_EQ(memcmp(context.get(), zeros, 100), 0);
    EXPECT_EQ(memcmp(copy.get(), "a\0b", 4), 0);
    free(given.release());
    zq_free(malloc(1));
    zq_free(nullptr);
}

TEST(zqmalloc, what_cannot_be_had_is_null)
{
    if (!heap_is_watched())
        GTEST_SKIP();
    volatile size_t half = SIZE_MAX / 2 + 1;
    EXPECT_EQ(zq_calloc(half, 2), nullptr);
    ZqString kept = block(zq_memdup("ab", 3));
    EXPECT_EQ(zq_malloc(half), nullptr);
    EXPECT_EQ(zq_realloc(kept.get(), half), nullptr);
    EXPECT_STREQ(kept.get(), "ab");
    HeapFailure failure(1);
    EXPECT_EQ(zq_memdup("a", 2), nullptr);
}

TEST(zqmalloc, blocks_of_0_bytes_are_blocks)
{
    ZqString blocks[] = {block(zq_realloc(zq_malloc(20), 0)), block(zq_realloc(nullptr, 0)),
                         block(zq_memdup("", 0))};
    for (const ZqString &smallest : blocks) {
        ASSERT_TRUE(smallest);
        smallest.get()[0] = 'x';
    }
    EXPECT_MISUSE(zq_memdup(nullptr, 1), "util/zqmalloc", "zq_memdup", "memory != NULL");
}

// Runs in a process of its own, where nothing has been allocated yet.
TEST(zqmalloc, DISABLED_first_allocation)
{
    const bool untouched = block(zq_realloc(nullptr, 5)) != nullptr;
    fprintf(stderr, "realloc %d\n", untouched);
    const bool given = block(zq_malloc(5)) != nullptr;
    setenv("ZQMALLOC_FAILMODE", "1", 1); // too late to change anything
    const bool zeroed = block(zq_calloc(5, 1)) != nullptr;
    fprintf(stderr, "malloc %d calloc %d\n", given, zeroed);
    zq_malloc_uninit();
}

TEST(zqmalloc, the_fault_mode_is_decided_by_the_first_allocation)
{
    if (faults_injected())
        GTEST_SKIP() << "starts programs without faults";
    const std::string injected = "realloc 1\nZQMALLOC_FAILMODE enabled!\nmalloc 0 calloc 0\n";
    const std::pair<const char *, std::string> rows[] = {
        {"--unset=ZQMALLOC_FAILMODE", "realloc 1\nmalloc 1 calloc 1\n"},
        {"ZQMALLOC_FAILMODE=", injected},
        {"ZQMALLOC_FAILMODE=0", injected}};
    char program[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", program, sizeof(program) - 1), 0);
    for (const auto &[mode, output] : rows) {
        Scratch scratch;
        Outcome outcome =
            run({"env", "-C", scratch.path(), mode, program, "--gtest_also_run_disabled_tests",
                 "--gtest_filter=zqmalloc.DISABLED_first_allocation"});
        EXPECT_EQ(outcome.status, 0) << mode;
        EXPECT_EQ(outcome.err, output) << mode;
    }
}
