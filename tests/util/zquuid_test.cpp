#include "zq/util/zquuid.h"

#include <cstring>
#include <set>

#include "tests/support/expect.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"

static int opened_files;

extern "C" FILE *fopen(const char *name, const char *mode)
{
    opened_files++;
    return next_symbol<&fopen>()(name, mode);
}

using Uuid = Owned<zquuid, zq_uuid_destroy>;

TEST(zquuid, is_random_of_version_4)
{
    LogCapture log;
    Uuid uuid(zq_uuid_create());
    if (!uuid)
        CHECK_PROMISE((log.take() == std::vector<LogLine>{{7, "unable to create uuid context"}}));
    Owned<zqrandom, zq_random_destroy> random(zq_random_create());
    ASSERT_TRUE(uuid && random);
    zq_random_uint(random.get());
    zq_uuid_set_random(uuid.get(), random.get());
    opened_files = 0;
    ZqString text(zq_uuid_random(uuid.get()));
    EXPECT_EQ(opened_files, 0) << "its source had its noise";
    zq_uuid_set_random(uuid.get(), nullptr);
    std::set<std::string> seen;
    std::string all_digits(36, '\0');
    for (int i = 0; i < 1000; i++) {
        log.take();
        text.reset(zq_uuid_random(uuid.get()));
        if (!text) {
            const std::string line = log.take().back().text;
            CHECK_PROMISE(line == "zq_random_buffer() failed" ||
                          line == "not enough memory for UUID string");
            continue;
        }
        int matched = 0;
        sscanf(text.get(),
               "%*8[0-9a-f]-%*4[0-9a-f]-4%*3[0-9a-f]-%*1[89ab]%*3[0-9a-f]-%*12[0-9a-f]%n",
               &matched);
        EXPECT_TRUE(matched == 36 && strlen(text.get()) == 36) << text.get();
        EXPECT_TRUE(seen.insert(text.get()).second) << text.get();
        for (size_t k = 0; k < 36; k++)
            all_digits[k] |= text.get()[k];
    }
    EXPECT_GT(opened_files, 0) << "the process-wide source is new";
    // Every digit that is free takes odd and even values, and letters.
    for (size_t k : {0u, 7u, 9u, 12u, 15u, 17u, 20u, 22u, 24u, 35u})
        EXPECT_EQ(all_digits[k] & 0x41, 0x41) << k;
    zq_random_uninit();
    EXPECT_MISUSE(zq_uuid_random(nullptr), "util/zquuid", "zq_uuid_random", "zquuid != NULL");
}
