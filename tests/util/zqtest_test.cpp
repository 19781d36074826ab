#include "zq/util/zqtest.h"

#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"

// The clock of the time stamps; negative for the real one.
static time_t stamp_clock = -1;

extern "C" time_t time(time_t *out)
{
    return stamp_clock < 0 ? next_symbol<decltype(time)>("time")(out) : stamp_clock;
}

using Suite = Owned<zqtest, zq_test_destroy>;
using Lines = std::vector<LogLine>;

static Suite create(const char *name)
{
    LogCapture log;
    Suite suite(zq_test_create(name));
    if (!suite) {
        const std::set<std::string> reasons = {
            "not enough memory for test context",
            "not enough memory for test name '" + std::string(name) + "'",
            "not enough memory for test case list", "unable to create timer context"};
        CHECK_PROMISE(reasons.count(log.take().back().text));
    }
    return suite;
}

static bool add(const Suite &suite, zq_test_case_callback function, void *userdata)
{
    LogCapture log;
    if (zq_test_add(suite.get(), function, userdata) == 0)
        return true;
    CHECK_PROMISE((log.take() == Lines{{7, "not enough memory for a test case"},
                                       {7, "unable to create test case"}}));
    return false;
}

template <class Function>
static std::string standard_error(Function function)
{
    testing::internal::CaptureStderr();
    function();
    return testing::internal::GetCapturedStderr();
}

static int parse(const Suite &suite, std::vector<std::string> words)
{
    static std::vector<std::string> kept; // the output file's name lives in the arguments
    words.insert(words.begin(), "prog");
    kept = words;
    std::vector<char *> argv;
    for (std::string &word : kept)
        argv.push_back(word.data());
    return zq_test_parse_arguments(suite.get(), static_cast<int>(argv.size()), argv.data());
}

// ---- cases, each taking its time on a clock that stands still otherwise ----

static void mixed(zqtestcase *testcase, void *userdata)
{
    static_cast<FakeClock *>(userdata)->advance(1000002);
    ZQ_TEST_EXPECT(1 + 1 == 3);
    ZQ_TEST_EXPECT(strcmp("a", "a") == 0);
}

static void good(zqtestcase *testcase, void *userdata)
{
    static_cast<FakeClock *>(userdata)->advance(250000);
    ZQ_TEST_EXPECT(userdata);
}

static void without_checks(zqtestcase *, void *) {}

TEST(zqtest, a_false_condition)
{
    Suite suite = create("suite");
    ASSERT_TRUE(suite);
    FakeClock clock;
    ASSERT_TRUE(add(suite, mixed, &clock));
    int result = 0;
    std::string err = standard_error([&] { result = zq_test_run(suite.get()); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(err.rfind("ERROR: " __FILE__ ":", 0), 0u) << err;
    EXPECT_NE(err.find(" failed condition: 1 + 1 == 3\n"), std::string::npos) << err;
    err = standard_error([&] { result = zq_test_summary(suite.get()); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(err, "suite: testcase 1, 1/2 checks succeeded, 1 failed\n"
                   "suite: 0/1 test cases (1/2 checks) succeeded, 1 (1) failed\n");
}

TEST(zqtest, results_and_summaries)
{
    Suite suite = create("s");
    ASSERT_TRUE(suite);
    FakeClock clock;
    ASSERT_EQ(zq_test_run(suite.get()), 0) << "an empty suite succeeds";
    ASSERT_TRUE(add(suite, good, &clock));
    EXPECT_EQ(standard_error([&] { zq_test_summary(suite.get()); }),
              "s: testcase 1 has NOT been run!\n"
              "s: 0/1 test cases (0/1 checks) succeeded, 1 (1) failed\n");
    EXPECT_EQ(zq_test_run(suite.get()), 0);
    EXPECT_EQ(standard_error([&] { zq_test_summary(suite.get()); }),
              "s: 1/1 test cases (1/1 checks) succeeded, 0 (0) failed\n");
    // A case without checks fails the run, not the summary.
    ASSERT_TRUE(add(suite, without_checks, nullptr));
    EXPECT_EQ(zq_test_run(suite.get()), 1);
    EXPECT_EQ(standard_error([&] { zq_test_summary(suite.get()); }),
              "s: 2/2 test cases (2/2 checks) succeeded, 0 (0) failed\n");
}

TEST(zqtest, command_line)
{
    const std::string usage = "usage: PROGRAM OPTIONS\n"
                              "OPTIONS:\n"
                              " -x, --xml                    Enable xml output.\n"
                              " -o, --output=outfile         Output file name.\n"
                              " -a, --append                 Append to a previous output file.\n"
                              " -h, --help                   Show help.\n";
    const struct {
        std::vector<std::string> words;
        int result;
        std::string out;
        std::string err;
    } rows[] = {
        {{}, 0, "", ""},
        {{"-xa", "--output=file"}, 0, "", ""},
        {{"--help"}, 1, usage, ""},
        {{"-h", "extra"}, 1, usage, ""},
        {{"extra"}, -1, "", "Too many arguments.\n" + usage},
        {{"-y"}, -1, "", "ERROR: Unknown option '-y'!\nParsing options failed.\n" + usage},
    };
    for (const auto &row : rows) {
        Suite suite = create("suite");
        ASSERT_TRUE(suite);
        LogCapture log;
        int result = 0;
        std::string err;
        testing::internal::CaptureStdout();
        err = standard_error([&] { result = parse(suite, row.words); });
        std::string out = testing::internal::GetCapturedStdout();
        auto lines = log.take();
        if (!lines.empty()) {
            const std::string last = lines.back().text;
            CHECK_PROMISE(result == -1);
            CHECK_PROMISE(last == "unable to create getopt context" ||
                          last == "unable to add command line options" ||
                          last == "not enough memory for long option name");
            continue;
        }
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(out, row.out);
        EXPECT_EQ(err, row.err);
    }
}

TEST(zqtest, xml_report)
{
    Scratch scratch;
    const std::string file = scratch.file("report.xml");
    Suite suite = create("first");
    ASSERT_TRUE(suite);
    FakeClock clock;
    ASSERT_TRUE(add(suite, mixed, &clock) && add(suite, good, &clock));
    ASSERT_EQ(parse(suite, {"-o", file}), 0);
    std::string errors = standard_error([&] { zq_test_run(suite.get()); });
    ASSERT_TRUE(add(suite, good, &clock));
    struct tm day = {};
    day.tm_year = 126;
    day.tm_mday = 31;
    day.tm_hour = 23;
    day.tm_isdst = -1;
    stamp_clock = mktime(&day);
    errors = standard_error([&] { EXPECT_EQ(zq_test_summary(suite.get()), 0); });
    const std::string first =
        "  <testsuite name=\"first\" hostname=\"localhost\" tests=\"3\" errors=\"0\""
        " failures=\"2\" time=\"1.250002\" timestamp=\"2026-01-31T23:00:00\">\n"
        "    <testcase name=\"XXX testcase name XXX\" assertions=\"2\""
        " classname=\"XXX classname XXX\" status=\"\" time=\"1.000002\">\n"
        "      <failure message=\"1/2 checks failed\" type=\"failed expectation\">"
        "      </failure>\n"
        "      <system-out>XXX</system-out>\n"
        "      <system-err>XXX</system-err>\n"
        "    </testcase>\n"
        "    <testcase name=\"XXX testcase name XXX\" assertions=\"1\""
        " classname=\"XXX classname XXX\" status=\"\" time=\"0.250000\">\n"
        "      <system-out>XXX</system-out>\n"
        "      <system-err>XXX</system-err>\n"
        "    </testcase>\n"
        "    <testcase name=\"XXX testcase name XXX\" assertions=\"0\""
        " classname=\"XXX classname XXX\" status=\"\" time=\"0.000000\">\n"
        "      <error message=\"testcase was not run at all\" type=\"tescase not run\">"
        "      </error>\n"
        "      <system-out>XXX</system-out>\n"
        "      <system-err>XXX</system-err>\n"
        "    </testcase>\n"
        "  </testsuite>\n";
    EXPECT_EQ(read_file(file), first);

    Suite second = create("second");
    ASSERT_TRUE(second);
    ASSERT_EQ(parse(second, {"-a", "-o", file}), 0);
    errors = standard_error([&] { EXPECT_EQ(zq_test_summary(second.get()), 0); });
    stamp_clock = -1;
    const std::string both = read_file(file);
    EXPECT_EQ(both.substr(0, first.size()), first);

    const char *reader = "import sys, xml.etree.ElementTree as tree\n"
                         "suites = tree.fromstring('<r>' + sys.stdin.read() + '</r>')\n"
                         "print([(s.get('name'), len(s)) for s in suites])\n";
    Outcome outcome = run({"python3", "-c", reader}, both);
    EXPECT_EQ(outcome.out, "[('first', 3), ('second', 0)]\n") << outcome.err;

    Suite third = create("third");
    ASSERT_TRUE(third);
    ASSERT_EQ(parse(third, {"-o", file}), 0);
    errors = standard_error([&] { EXPECT_EQ(zq_test_summary(third.get()), 0); });
    EXPECT_EQ(read_file(file).find("second"), std::string::npos) << "replaced without -a";
}

TEST(zqtest, a_report_that_cannot_be_written)
{
    Scratch scratch;
    const std::string missing = scratch.file("no/such/directory");
    Suite suite = create("suite");
    ASSERT_TRUE(suite);
    ASSERT_EQ(parse(suite, {"-o", missing}), 0);
    LogCapture log;
    const std::string expected = "suite: 0/0 test cases (0/0 checks) succeeded, 0 (0) failed\n";
    EXPECT_EQ(standard_error([&] { EXPECT_EQ(zq_test_summary(suite.get()), -1); }), expected);
    EXPECT_EQ(log.take(), (Lines{{7, "unable to open file '" + missing + "' for writing, error " +
                                         std::to_string(ENOENT)}}));

    // A time beyond the years that fit.
    ASSERT_EQ(parse(suite, {"-o", scratch.file("report")}), 0);
    stamp_clock = std::numeric_limits<time_t>::max();
    EXPECT_EQ(standard_error([&] { EXPECT_EQ(zq_test_summary(suite.get()), -1); }), expected);
    stamp_clock = -1;
    EXPECT_EQ(log.take(), (Lines{{7, "local time conversion failed"}}));
}

TEST(zqtest, misuse_stops_the_process)
{
    Suite owner = create("suite");
    zqtest *suite = owner.get();
    ASSERT_TRUE(suite);
    char *argv[] = {nullptr};
    const char *file = "util/zqtest";
    const char *object = "zqtest != NULL";
    EXPECT_MISUSE(zq_test_create(nullptr), file, "zq_test_create", "name != NULL");
    EXPECT_MISUSE(zq_test_destroy(nullptr), file, "zq_test_destroy", object);
    const char *function = "zq_test_parse_arguments";
    EXPECT_MISUSE(zq_test_parse_arguments(nullptr, 1, argv), file, function, object);
    EXPECT_MISUSE(zq_test_parse_arguments(suite, 0, argv), file, function, "argc > 0");
    EXPECT_MISUSE(zq_test_parse_arguments(suite, 1, nullptr), file, function, "argv != NULL");
    EXPECT_MISUSE(zq_test_add(nullptr, mixed, nullptr), file, "zq_test_add", object);
    EXPECT_MISUSE(zq_test_add(suite, nullptr, nullptr), file, "zq_test_add",
                  "testfunction != NULL");
    EXPECT_MISUSE(zq_test_run(nullptr), file, "zq_test_run", object);
    EXPECT_MISUSE(zq_test_summary(nullptr), file, "zq_test_summary", object);
    function = "zq_test_case_expect_true";
    EXPECT_MISUSE(zq_test_case_expect_true(nullptr, "f", 1, "c", 1), file, function,
                  "zqtestcase != NULL");
    struct Arguments {
        const char *filename;
        int line;
        const char *condstring;
        const char *expression;
    };
    for (Arguments wrong :
         {Arguments{nullptr, 1, "c", "filename != NULL"}, Arguments{"f", 0, "c", "line > 0"},
          Arguments{"f", 1, nullptr, "condstring != NULL"}}) {
        auto check = [](zqtestcase *testcase, void *userdata) {
            const auto *given = static_cast<Arguments *>(userdata);
            zq_test_case_expect_true(testcase, given->filename, given->line, given->condstring, 1);
        };
        Suite misused = create("misused");
        ASSERT_TRUE(misused && add(misused, check, &wrong));
        EXPECT_MISUSE(zq_test_run(misused.get()), file, function, wrong.expression);
    }
}
