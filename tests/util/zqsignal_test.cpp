#include "zq/util/zqsignal.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/system_calls.h"

extern "C" sighandler_t signal(int number, sighandler_t handler) noexcept
{
    errno = SystemCalls::outcome_of({"signal"});
    return errno == PASS ? next_symbol<&signal>()(number, handler) : SIG_ERR;
}

namespace {
struct Record {
    int calls = 0;
    int number = 0;
};
struct Hook {
    int (*do_register)(zq_signal_callback, void *);
    int number;
};
} // namespace

static const Hook hooks[] = {{zq_signal_register_sigint, SIGINT},
                             {zq_signal_register_sigterm, SIGTERM}};

static void record(zqsignal number, void *context)
{
    auto *seen = static_cast<Record *>(context);
    seen->calls++;
    seen->number = number;
    errno = ENOENT;
}

TEST(zqsignal, the_callback_registered_last_gets_its_signal_and_context)
{
    Record seen[2];
    for (int i = 0; i < 2; i++)
        ASSERT_EQ(hooks[i].do_register(record, &seen[i]), 0);
    for (int i = 0; i < 2; i++) {
        const auto [do_register, number] = hooks[i];
        errno = EDOM;
        raise(number);
        raise(number);
        EXPECT_EQ(errno, EDOM) << "the handler must not change what it interrupted";
        EXPECT_EQ(seen[i].calls, 2) << "the hook outlives its first signal";
        EXPECT_EQ(seen[i].number, number);
        Record others[3];
        for (Record &other : others) {
            ASSERT_EQ(do_register(record, &other), 0);
            raise(number);
        }
        EXPECT_TRUE(others[0].calls == 1 && others[1].calls == 1 && others[2].calls == 1);
        {
            SystemCalls calls(failing("signal", EINVAL));
            EXPECT_EQ(do_register(record, &seen[i]), -1);
        }
        raise(number);
        EXPECT_EQ(seen[i].calls + others[2].calls, 3) << "no hook after a refused registration";
        ASSERT_EQ(do_register(record, &seen[i]), 0);
        EXPECT_EQ(do_register(nullptr, nullptr), 0);
        EXPECT_EXIT(raise(number), testing::KilledBySignal(number), "");
    }
}

TEST(zqsignal, ignore_sigpipe)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    {
        SystemCalls calls(failing("signal", EINVAL));
        EXPECT_EQ(zq_signal_ignore_sigpipe(), -1);
    }
    EXPECT_EXIT((void)!write(ends[1], "x", 1), testing::KilledBySignal(SIGPIPE), "");
    EXPECT_EQ(zq_signal_ignore_sigpipe(), 0);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
    signal(SIGPIPE, SIG_DFL);
}
