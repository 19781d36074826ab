#include <gtest/gtest.h>

#include "tests/support/process.h"
#include "tests/support/scratch.h"

static const std::string program = ZQ_TEST_BINARY "/examples/zqtestdemo";

TEST(zqtestdemo, succeeds_and_reports)
{
    Scratch scratch;
    Outcome outcome = run({program, "--output", scratch.file("report.xml")});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "stack: 5/5 test cases (16/16 checks) succeeded, 0 (0) failed\n");
    EXPECT_NE(read_file(scratch.file("report.xml")).find("tests=\"5\""), std::string::npos);
    EXPECT_EQ(run({program, "--help"}).status, 0);
    EXPECT_EQ(run({program, "surplus"}).status, 2);
}
