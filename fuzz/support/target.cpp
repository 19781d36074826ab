#include "fuzz/support/fuzz.h"

#include <ctime>

#include "zq/util/zqlog.h"

static int drop(const char *, size_t, unsigned int, time_t, void *)
{
    return 0;
}

// Every line is formatted, traces too, and goes nowhere.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    zq_log_callback_set(nullptr, drop, nullptr);
    zq_log_callback_enable(nullptr);
    zq_log_stderr_disable(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input(data, size);
    fuzz(input);
    return 0;
}
