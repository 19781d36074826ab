#include "zq/util/zqtest.h"

#include <limits>

#include "tests/support/expect.h"
#include "tests/support/fake_clock.h"
#include "tests/support/interpose.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch.h"

// The clock of the time stamps; negative for the real one.
static time_t stamp_clock = -1;

extern "C" time_t time(time_t *out)
{
    return stamp_clock < 0 ? next_symbol<&time>()(out) : stamp_clock;
}

using Suite = Owned<zqtest, zq_test_destroy>;

static Suite create(const std::string &name)
{
    LogCapture log;
    Suite suite(zq_test_create(name.c_str()));
    const std::string said = testing::PrintToString(log.take());
    CHECK_PROMISE(suite || said.ends_with("[7] not enough memory for test context }") ||
                  said.ends_with("[7] not enough memory for test name '" + name + "' }") ||
                  said.ends_with("[7] not enough memory for test case list }") ||
                  said.ends_with("[7] unable to create timer context }"));
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

static std::string errors_of(int (*call)(zqtest *), const Suite &suite, int expected)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(suite.get()), expected);
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

TEST(zqtest, results_and_summaries)
{
    Suite suite = create("s");
    ASSERT_TRUE(suite);
    FakeClock clock;
    EXPECT_EQ(errors_of(zq_test_run, suite, 0), "") << "an empty suite succeeds";
    ASSERT_TRUE(add(suite, good, &clock));
    EXPECT_EQ(errors_of(zq_test_summary, suite, 0),
              "s: testcase 1 has NOT been run!\n"
              "s: 0/1 test cases (0/1 checks) succeeded, 1 (1) failed\n");
    // A case without checks fails the run, not the summary.
    ASSERT_TRUE(add(suite, without_checks, nullptr));
    errors_of(zq_test_run, suite, 1);
    EXPECT_EQ(errors_of(zq_test_summary, suite, 0),
              "s: 2/2 test cases (1/1 checks) succeeded, 0 (0) failed\n");
    suite = create("s");
    ASSERT_TRUE(suite && add(suite, mixed, &clock));
    std::string err = errors_of(zq_test_run, suite, 1);
    EXPECT_TRUE(err.starts_with("ERROR: " __FILE__ ":")) << err;
    EXPECT_TRUE(err.ends_with(" failed condition: 1 + 1 == 3\n")) << err;
    EXPECT_EQ(errors_of(zq_test_summary, suite, 0),
              "s: testcase 1, 1/2 checks succeeded, 1 failed\n"
              "s: 0/1 test cases (1/2 checks) succeeded, 1 (1) failed\n");
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
        std::string out, err;
    } rows[] = {
        {{}, 0, "", ""},
        {{"-xa", "--output=file"}, 0, "", ""},
        {{"--help"}, 1, usage, ""},
        {{"extra"}, -1, "", "Too many arguments.\n" + usage},
        {{"-y"}, -1, "", "ERROR: Unknown option '-y'!\nParsing options failed.\n" + usage},
    };
    for (const auto &row : rows) {
        Suite suite = create("suite");
        ASSERT_TRUE(suite);
        LogCapture log;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        int result = parse(suite, row.words);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.err);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        EXPECT_EQ(result, row.result);
        const std::string said = testing::PrintToString(log.take());
        CHECK_PROMISE(
            said == "{}" ||
            (result == -1 && (said.ends_with("[7] unable to create getopt context }") ||
                              said.ends_with("[7] unable to add command line options }") ||
                              said.ends_with("not enough memory for long option name }"))));
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
    errors_of(zq_test_run, suite, 1);
    ASSERT_TRUE(add(suite, good, &clock));
    struct tm day = {};
    strptime("2026-01-31T23:00:00", "%Y-%m-%dT%H:%M:%S", &day);
    day.tm_isdst = -1;
    stamp_clock = mktime(&day);
    errors_of(zq_test_summary, suite, 0);
    const std::string outputs = "      <system-out>XXX</system-out>\n"
                                "      <system-err>XXX</system-err>\n"
                                "    </testcase>\n";
    auto testcase = [](const std::string &checks, const std::string &seconds) {
        return "    <testcase name=\"XXX testcase name XXX\" assertions=\"" + checks +
               "\" classname=\"XXX classname XXX\" status=\"\" time=\"" + seconds + "\">\n";
    };
    const std::string first =
        "  <testsuite name=\"first\" hostname=\"localhost\" tests=\"3\" errors=\"0\""
        " failures=\"2\" time=\"1.250002\" timestamp=\"2026-01-31T23:00:00\">\n" +
        testcase("2", "1.000002") +
        "      <failure message=\"1/2 checks failed\" type=\"failed expectation\">"
        "      </failure>\n" +
        outputs + testcase("1", "0.250000") + outputs + testcase("0", "0.000000") +
        "      <error message=\"testcase was not run at all\" type=\"tescase not run\">"
        "      </error>\n" +
        outputs + "  </testsuite>\n";
    EXPECT_EQ(read_file(file), first);

    const std::string head = "  <testsuite name=\"second\" ";
    for (const char *append : {"-ax", "-x"}) { // appended, then replaced
        Suite second = create("second");
        ASSERT_TRUE(second);
        ASSERT_EQ(parse(second, {append, "-o", file}), 0);
        errors_of(zq_test_summary, second, 0);
        EXPECT_TRUE(read_file(file).starts_with(append[1] == 'a' ? first + head : head));
    }

    Suite third = create("third");
    ASSERT_TRUE(third);
    LogCapture log;
    const std::string expected = "third: 0/0 test cases (0/0 checks) succeeded, 0 (0) failed\n";
    const std::string missing = scratch.file("no/such/directory");
    ASSERT_EQ(parse(third, {"-o", missing}), 0);
    EXPECT_EQ(errors_of(zq_test_summary, third, -1), expected);
    EXPECT_EQ(log.take(),
              (Lines{{7, "unable to open file '" + missing + "' for writing, error 2"}}));
    ASSERT_EQ(parse(third, {"-o", "/dev/full"}), 0);
    EXPECT_EQ(errors_of(zq_test_summary, third, -1), expected);
    EXPECT_EQ(log.take(), (Lines{{7, "unable to write file '/dev/full', error 28"}}));
    // A time beyond the years that fit.
    ASSERT_EQ(parse(third, {"-o", file}), 0);
    stamp_clock = std::numeric_limits<time_t>::max();
    EXPECT_EQ(errors_of(zq_test_summary, third, -1), expected);
    stamp_clock = -1;
    EXPECT_EQ(log.take(), (Lines{{7, "local time conversion failed"}}));
}

TEST(zqtest, misuse)
{
    Suite suite = create("suite");
    ASSERT_TRUE(suite);
    char *argv[] = {nullptr};
#define MISUSE(call, function, text) EXPECT_MISUSE(call, "util/zqtest", function, text)
    MISUSE(zq_test_create(nullptr), "zq_test_create", "name != NULL");
    MISUSE(zq_test_parse_arguments(suite.get(), 0, argv), "zq_test_parse_arguments", "argc > 0");
    MISUSE(zq_test_add(suite.get(), nullptr, nullptr), "zq_test_add", "testfunction != NULL");
    MISUSE(zq_test_case_expect_true(nullptr, "f", 1, "c", 1), "zq_test_case_expect_true",
           "zqtestcase != NULL");
}
