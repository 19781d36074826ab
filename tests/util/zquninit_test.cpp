#include "zq/util/zquninit.h"

#include <gtest/gtest.h>

#include "zq/crypto/zqrandom.h"
#include "zq/util/zqlog.h"

// LeakSanitizer sees to it that nothing stays behind.
TEST(zquninit, everything_is_rebuilt_on_its_next_use)
{
    zq_uninit();
    for (int round = 0; round < 3; round++) {
        EXPECT_EQ(zq_log_init_threaded(), 0);
        testing::internal::CaptureStderr();
        EXPECT_EQ(zq_log_raw(nullptr, 8, "admitted"), 0);
        EXPECT_EQ(zq_log_raw(nullptr, 9, "not admitted"), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "admitted\n");
        unsigned char bytes[64];
        EXPECT_EQ(zq_random_buffer(nullptr, bytes, sizeof(bytes)), 0);
        while (zq_log_init() != 0) {
        }
        zq_log_stderr_disable(nullptr); // goes with the log
        zq_uninit();
        zq_uninit();
    }
}
