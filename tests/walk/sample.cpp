// A program for the walk to be tried on: sound, or with the fault that its argument names.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <unistd.h>

#include "zq/util/zqmalloc.h"
#include "zq/util/zqstring.h"

static int copies_both(const char *fault)
{
    char *first = zq_strdup("first");
    if (!first)
        return strcmp(fault, "hang") == 0 ? -1 : 1;
    char *second = zq_strdup("second");
    if (!second && strcmp(fault, "crash") == 0)
        abort();
    if (!second && strcmp(fault, "undefined") == 0) {
        volatile int most = INT_MAX;
        most = most + 1;
    }
    if (second || strcmp(fault, "leak") != 0)
        zq_free(first);
    zq_free(second);
    return second ? 0 : 1;
}

int main(int argc, char **argv)
{
    const char *fault = argc > 1 ? argv[1] : "none";
    int results[2];
    std::thread other([&] { results[1] = copies_both(fault); });
    results[0] = copies_both(fault);
    other.join();
    while (results[0] < 0)
        pause();
    return results[0] || results[1];
}
