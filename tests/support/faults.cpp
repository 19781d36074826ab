#include "tests/support/faults.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <unistd.h>

#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "zq/util/zqlog.h"

static constexpr char MARK[] = "without memory: ";

static std::string own_program()
{
    char path[4096];
    ssize_t len = readlink("/proc/self/exe", path, sizeof(path));
    return std::string(path, len < 0 ? 0 : static_cast<size_t>(len));
}

static std::set<std::string> lines_without_memory(const std::string &test)
{
    Scratch scratch;
    std::set<std::string> found;
    std::string before = "-";
    std::string after;
    for (int runs = 0; before != after && runs < 500; runs++) {
        before = after;
        Outcome outcome = run({"env", "-C", scratch.path(), "ZQMALLOC_FAILMODE=1", own_program(),
                               "--gtest_filter=" + test});
        EXPECT_LE(outcome.status, 1) << outcome.out << outcome.err;
        std::istringstream out(outcome.out);
        for (std::string line; std::getline(out, line);) {
            if (line.starts_with(MARK))
                found.insert(line.substr(sizeof(MARK) - 1));
        }
        after = read_file(scratch.file("zqmallocfail.db"));
    }
    EXPECT_EQ(before, after) << "still new failures";
    return found;
}

void expect_lines_without_memory(const std::string &test, const std::vector<std::string> &entries)
{
    const std::set<std::string> found = lines_without_memory(test);
    for (const std::string &entry : entries)
        EXPECT_TRUE(found.count(entry)) << entry << "\nis not among\n"
                                        << testing::PrintToString(found);
}

FaultLines::FaultLines(int level) : log(level)
{
    for (int tries = 0; tries < 200; tries++) {
        zq_log_macro_set_values(nullptr, 10, "a/prefix/longer/than/that/of/any/source", 1000000);
        if (zq_log_macro_format("%1000s", "") == 0)
            break;
    }
    log.take();
}

void FaultLines::step()
{
    const std::string lines = joined(log.take());
    if (!lines.empty())
        printf("\n%s%s\n", MARK, lines.c_str());
}
