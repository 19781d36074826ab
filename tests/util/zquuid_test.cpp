#include "zq/util/zquuid.h"

#include <gtest/gtest.h>
#include <set>

#include "tests/support/expect.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"

static int opened_files;

extern "C" FILE *fopen(const char *name, const char *mode)
{
    opened_files++;
    return next_symbol<decltype(fopen)>("fopen")(name, mode);
}

using Uuid = Owned<zquuid, zq_uuid_destroy>;

static Uuid create()
{
    LogCapture log;
    Uuid uuid(zq_uuid_create());
    if (!uuid)
        CHECK_PROMISE((log.take() == std::vector<LogLine>{{7, "unable to create uuid context"}}));
    return uuid;
}

// "h" stands for a hexadecimal digit, "v" for one that says variant 10.
static bool well_formed(const std::string &uuid)
{
    const std::string shape = "hhhhhhhh-hhhh-4hhh-vhhh-hhhhhhhhhhhh";
    bool matches = uuid.size() == shape.size();
    for (size_t i = 0; matches && i < shape.size(); i++) {
        std::string allowed = shape[i] == 'h'   ? "0123456789abcdef"
                              : shape[i] == 'v' ? "89ab"
                                                : shape.substr(i, 1);
        matches = allowed.find(uuid[i]) != std::string::npos;
    }
    return matches;
}

TEST(zquuid, is_random_of_version_4)
{
    Uuid uuid = create();
    ASSERT_TRUE(uuid);
    LogCapture log;
    std::set<std::string> seen;
    char all_digits[36] = {};
    for (int i = 0; i < 1000; i++) {
        ZqString text(zq_uuid_random(uuid.get()));
        if (!text) {
            const std::set<std::string> reasons = {"zq_random_buffer() failed",
                                                   "not enough memory for UUID string"};
            CHECK_PROMISE(reasons.count(log.take().back().text));
            continue;
        }
        EXPECT_TRUE(well_formed(text.get())) << text.get();
        EXPECT_TRUE(seen.insert(text.get()).second) << text.get();
        for (int k = 0; k < 36; k++)
            all_digits[k] |= text.get()[k];
    }
    // Every digit that is free takes odd and even values, and letters.
    for (int k : {0, 7, 9, 12, 15, 17, 20, 22, 24, 35})
        EXPECT_EQ(all_digits[k] & 0x41, 0x41) << k;
    zq_random_uninit();
}

TEST(zquuid, draws_from_the_source_it_was_given)
{
    Uuid uuid = create();
    Owned<zqrandom, zq_random_destroy> random(zq_random_create());
    ASSERT_TRUE(uuid && random);
    zq_random_uint(random.get());
    zq_uuid_set_random(uuid.get(), random.get());
    zq_random_uninit();
    opened_files = 0;
    ZqString own(zq_uuid_random(uuid.get()));
    EXPECT_EQ(opened_files, 0) << "its source had its noise";
    zq_uuid_set_random(uuid.get(), nullptr);
    ZqString global(zq_uuid_random(uuid.get()));
    EXPECT_GT(opened_files, 0) << "the process-wide one is new";
    zq_random_uninit();
}

TEST(zquuid, misuse_stops_the_process)
{
    const char *expression = "zquuid != NULL";
    EXPECT_MISUSE(zq_uuid_destroy(nullptr), "util/zquuid", "zq_uuid_destroy", expression);
    EXPECT_MISUSE(zq_uuid_set_random(nullptr, nullptr), "util/zquuid", "zq_uuid_set_random",
                  expression);
    EXPECT_MISUSE(zq_uuid_random(nullptr), "util/zquuid", "zq_uuid_random", expression);
}
