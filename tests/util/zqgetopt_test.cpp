#include "zq/util/zqgetopt.h"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"

using Getopt = Owned<zqgetopt, zq_getopt_destroy>;
using Lines = std::vector<LogLine>;

static Getopt create()
{
    LogCapture log;
    Getopt getopt(zq_getopt_create());
    if (!getopt) {
        LogLine line = log.take().back();
        CHECK_PROMISE((line == LogLine{7, "not enough memory for zqgetopt context"}) ||
                      (line == LogLine{7, "unable to create zqgetopt option list"}));
    }
    return getopt;
}

static std::string usage(zqgetopt *getopt)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    EXPECT_EQ(zq_getopt_usage(getopt, out), 0);
    fclose(out);
    std::string result(text, size);
    free(text);
    return result;
}

namespace {
struct Values {
    int verbose = 0;
    int port = -7;
    const char *query = nullptr;
    const char *only_long = nullptr;
    int number = -7;
};
} // namespace

static bool add_options(zqgetopt *getopt, Values *values)
{
    return zq_getopt_flag_set(getopt, "verbose", 'v', &values->verbose, "Say more.") == 0 &&
           zq_getopt_int(getopt, "port", 'p', &values->port, "number", "Port.") == 0 &&
           zq_getopt_const_string(getopt, "query", 'q', &values->query, "text", "Query.") == 0 &&
           zq_getopt_const_string(getopt, "only-long", 0, &values->only_long, "x", "Long.") == 0 &&
           zq_getopt_int(getopt, nullptr, 'n', &values->number, "n", "Short.") == 0 &&
           zq_getopt_help(getopt, "help", 'h') == 0;
}

static std::string joined(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

TEST(zqgetopt, command_lines)
{
    const std::string text = " for a signed integer argument";
    const struct {
        std::vector<std::string> arguments; // after the program's name
        int result;
        int optind;
        Values values;
        std::string err;
        Lines log;
    } rows[] = {
        {{}, 0, 1, {}, "", {}},
        {{"-v", "file"}, 0, 2, {1}, "", {}},
        {{"file", "-v"}, 0, 1, {}, "", {}},
        {{"--port=80", "rest"}, 0, 2, {0, 80}, "", {}},
        {{"--port", "80", "rest"}, 0, 3, {0, 80}, "", {}},
        {{"-p", "80", "rest"}, 0, 3, {0, 80}, "", {}},
        {{"-pq", "1", "2"}, 0, 4, {0, 1, "2"}, "", {}},
        {{"-vpvq", "1", "2", "-v"}, 0, 5, {1, 1, "2"}, "", {}},
        {{"--", "-x"}, 0, 2, {}, "", {}},
        {{"-v", "-", "-p", "1", "-"}, 0, 6, {1, 1}, "", {}},
        {{"--verbose=no", "x"}, 0, 2, {1}, "", {}},
        {{"--query", "--port=1"}, 0, 3, {0, -7, "--port=1"}, "", {}},
        {{"--query=a=b", "--query="}, 0, 3, {0, -7, ""}, "", {}},
        {{"--only-long=l", "-n", "5"}, 0, 4, {0, -7, nullptr, "l", 5}, "", {}},
        {{"-p", "12abc"}, 0, 3, {0, 12}, "", {}},
        {{"-p", "abc"}, 0, 3, {0, 0}, "", {}},
        {{"-p", " +7"}, 0, 3, {0, 7}, "", {}},
        {{"--port=2147483647"}, 0, 2, {0, INT_MAX}, "", {}},
        {{"--port=-2147483648"}, 0, 2, {0, INT_MIN}, "", {}},
        {{"--port=3000000000"},
         -1,
         0,
         {},
         "",
         {{6, "option 'port' value '3000000000' too large" + text}}},
        {{"-p", "-2147483649"},
         -1,
         0,
         {},
         "",
         {{6, "option 'p' value '-2147483649' too low" + text}}},
        {{"-v", "--port"}, -1, 0, {1}, "", {{6, "option 'port' requires an argument"}}},
        {{"-vq"}, -1, 0, {1}, "", {{6, "option 'q' requires an argument"}}},
        {{"-v", "--Port=1"}, -1, 0, {1}, "ERROR: Unknown option '--Port=1'!\n", {}},
        {{"--=1"}, -1, 0, {}, "ERROR: Unknown option '--=1'!\n", {}},
        {{"--por", "1"}, -1, 0, {}, "ERROR: Unknown option '--por'!\n", {}},
        {{"-vxv"}, -1, 0, {1}, "ERROR: Unknown option '-x'!\n", {}},
    };
    Values values;
    Getopt getopt = create();
    ASSERT_TRUE(getopt);
    ASSERT_TRUE(add_options(getopt.get(), &values));
    LogCapture log;
    for (const auto &row : rows) {
        SCOPED_TRACE(joined(row.arguments));
        std::vector<std::string> words = row.arguments;
        words.insert(words.begin(), "prog");
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        values = Values();
        testing::internal::CaptureStderr();
        int result = zq_getopt_parse(getopt.get(), static_cast<int>(argv.size()), argv.data());
        std::string err = testing::internal::GetCapturedStderr();
        Lines lines = log.take();
        if (faults_injected() && lines != row.log) {
            CHECK_PROMISE(result == -1 && zq_getopt_optind(getopt.get()) == 0);
            CHECK_PROMISE((lines == Lines{{7, "not enough memory for long option name"}}));
            continue;
        }
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(zq_getopt_optind(getopt.get()), row.optind);
        EXPECT_EQ(err, row.err);
        EXPECT_EQ(lines, row.log);
        EXPECT_EQ(values.verbose, row.values.verbose);
        EXPECT_EQ(values.port, row.values.port);
        EXPECT_STREQ(values.query, row.values.query);
        EXPECT_STREQ(values.only_long, row.values.only_long);
        EXPECT_EQ(values.number, row.values.number);
    }
}

TEST(zqgetopt, help_writes_the_usage_and_goes_on)
{
    Values values;
    Getopt getopt = create();
    ASSERT_TRUE(getopt);
    ASSERT_TRUE(add_options(getopt.get(), &values));
    char prog[] = "prog", options[] = "-hv", port[] = "--port=1", extra[] = "extra";
    char *argv[] = {prog, options, port, extra};
    testing::internal::CaptureStdout();
    int result = zq_getopt_parse(getopt.get(), 4, argv);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), usage(getopt.get()));
    EXPECT_EQ(result, 1);
    EXPECT_EQ(zq_getopt_optind(getopt.get()), 3);
    EXPECT_EQ(values.verbose, 1);
    EXPECT_EQ(values.port, 1);
    // The next parse starts afresh.
    EXPECT_EQ(zq_getopt_parse(getopt.get(), 1, argv), 0);
    EXPECT_EQ(zq_getopt_optind(getopt.get()), 1);
}

TEST(zqgetopt, the_first_of_equal_names_counts)
{
    Getopt getopt = create();
    ASSERT_TRUE(getopt);
    int first = 0, second = 0;
    ASSERT_EQ(zq_getopt_flag_set(getopt.get(), "same", 's', &first, "First."), 0);
    ASSERT_EQ(zq_getopt_flag_set(getopt.get(), "same", 's', &second, "Second."), 0);
    char prog[] = "prog", by_long[] = "--same", by_short[] = "-s";
    char *argv[] = {prog, by_long, by_short};
    EXPECT_EQ(zq_getopt_parse(getopt.get(), 3, argv), 0);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
}

TEST(zqgetopt, usage_text)
{
    Getopt getopt = create();
    ASSERT_TRUE(getopt);
    EXPECT_EQ(usage(getopt.get()), "usage: PROGRAM OPTIONS\nOPTIONS:\n");
    ASSERT_EQ(zq_getopt_set_synopsis(getopt.get(), "usage: prog [FILE]"), 0);
    ASSERT_EQ(zq_getopt_set_footer(getopt.get(), "No line feed"), 0);
    EXPECT_EQ(usage(getopt.get()), "usage: prog [FILE]\nOPTIONS:\nNo line feed");
    ASSERT_EQ(zq_getopt_set_synopsis(getopt.get(), nullptr), 0);
    ASSERT_EQ(zq_getopt_set_footer(getopt.get(), nullptr), 0);
    EXPECT_EQ(usage(getopt.get()), "usage: PROGRAM OPTIONS\nOPTIONS:\n");

    Values values;
    ASSERT_TRUE(add_options(getopt.get(), &values));
    ASSERT_EQ(zq_getopt_help(getopt.get(), nullptr, 'H'), 0);
    EXPECT_EQ(usage(getopt.get()), "usage: PROGRAM OPTIONS\n"
                                   "OPTIONS:\n"
                                   " -v, --verbose                Say more.\n"
                                   " -p, --port=number            Port.\n"
                                   " -q, --query=text             Query.\n"
                                   " --only-long=x                Long.\n"
                                   " -n=n                         Short.\n"
                                   " -h, --help                   Show help.\n"
                                   " -H                           Show help.\n");
}

TEST(zqgetopt, descriptions_are_wrapped)
{
    const std::string indent(30, ' ');
    const std::string x49(49, 'x');
    const struct {
        const char *longopt;
        std::string description;
        std::string expected;
    } rows[] = {
        {"name-of-24-characters---", "d", " --name-of-24-characters---   d\n"},
        {"name-of-26-characters-----", "d", " --name-of-26-characters----- d\n"},
        {"name-of-27-characters------", "d", " --name-of-27-characters------\n" + indent + "d\n"},
        {"o", "", " --o" + indent.substr(4) + "\n"},
        {"o", x49, " --o" + indent.substr(4) + x49 + "\n"},
        {"o", x49 + "yz", " --o" + indent.substr(4) + x49 + "\n" + indent + "yz\n"},
        // 49 characters fill the line, and are broken all the same.
        {"o", "a " + x49.substr(2),
         " --o" + indent.substr(4) + "a\n" + indent + x49.substr(2) + "\n"},
        {"o", "a " + x49.substr(3), " --o" + indent.substr(4) + "a " + x49.substr(3) + "\n"},
        {"o", x49 + " y", " --o" + indent.substr(4) + x49 + "\n" + indent + "y\n"},
        // Of two spaces one goes with the line break.
        {"o", x49 + "  y", " --o" + indent.substr(4) + x49 + "\n" + indent + " y\n"},
        {"o", x49 + " ", " --o" + indent.substr(4) + x49 + "\n" + indent + "\n"},
        {"o", " " + x49, " --o" + indent.substr(4) + "\n" + indent + x49 + "\n"},
        {"o",
         "one two three four five six seven eight nine ten eleven twelve thirteen fourteen "
         "fifteen sixteen seventeen 18 nineteen",
         " --o" + indent.substr(4) + "one two three four five six seven eight nine ten\n" + indent +
             "eleven twelve thirteen fourteen fifteen sixteen\n" + indent +
             "seventeen 18 nineteen\n"},
    };
    for (const auto &row : rows) {
        Getopt getopt = create();
        ASSERT_TRUE(getopt);
        int flag;
        ASSERT_EQ(zq_getopt_flag_set(getopt.get(), row.longopt, 0, &flag, row.description.c_str()),
                  0);
        EXPECT_EQ(usage(getopt.get()), "usage: PROGRAM OPTIONS\nOPTIONS:\n" + row.expected);
    }
}

TEST(zqgetopt, a_full_disk_ends_the_list)
{
    Getopt getopt = create();
    ASSERT_TRUE(getopt);
    ASSERT_EQ(zq_getopt_help(getopt.get(), "help", 'h'), 0);
    ASSERT_EQ(zq_getopt_help(getopt.get(), "help", 'h'), 0);
    LogCapture log;
    FILE *full = fopen("/dev/full", "w");
    ASSERT_TRUE(full);
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(zq_getopt_usage(getopt.get(), full), 0);
    fclose(full);
    EXPECT_EQ(log.take(), (Lines{{6, "unable to output usage"}}));
}

TEST(zqgetopt, without_memory_nothing_changes)
{
    Getopt getopt = create();
    ASSERT_TRUE(getopt);
    int variable = 0;
    std::string before = usage(getopt.get());
    LogCapture log;
    if (zq_getopt_set_synopsis(getopt.get(), "synopsis") != 0) {
        CHECK_PROMISE((log.take() == Lines{{7, "not enough memory for synopsis string"}}));
        CHECK_PROMISE(usage(getopt.get()) == before);
    }
    before = usage(getopt.get());
    if (zq_getopt_set_footer(getopt.get(), "footer") != 0) {
        CHECK_PROMISE((log.take() == Lines{{7, "not enough memory for footer string"}}));
        CHECK_PROMISE(usage(getopt.get()) == before);
    }
    before = usage(getopt.get());
    if (zq_getopt_int(getopt.get(), "long", 'l', &variable, "name", "Description.") != 0) {
        const std::string text = log.take().back().text;
        CHECK_PROMISE(text == "not enough memory for zqgetopt option" ||
                      text == "not enough memory for long option 'long'" ||
                      text == "not enough memory for option name" ||
                      text == "not enough memory for option description");
        CHECK_PROMISE(usage(getopt.get()) == before);
    }
    EXPECT_EQ(log.take(), Lines{});
}

TEST(zqgetopt, misuse_stops_the_process)
{
    Getopt owner = create();
    zqgetopt *getopt = owner.get();
    ASSERT_TRUE(getopt);
    const char *text;
    int number;
    char *argv[] = {nullptr};
    const char *file = "util/zqgetopt";
    const char *object = "zqgetopt != NULL";
    EXPECT_MISUSE(zq_getopt_destroy(nullptr), file, "zq_getopt_destroy", object);
    EXPECT_MISUSE(zq_getopt_set_synopsis(nullptr, ""), file, "zq_getopt_set_synopsis", object);
    EXPECT_MISUSE(zq_getopt_set_footer(nullptr, ""), file, "zq_getopt_set_footer", object);
    const char *function = "zq_getopt_const_string";
    EXPECT_MISUSE(zq_getopt_const_string(nullptr, "a", 0, &text, "a", "a"), file, function, object);
    EXPECT_MISUSE(zq_getopt_const_string(getopt, "a", 0, nullptr, "a", "a"), file, function,
                  "stringptr != NULL");
    EXPECT_MISUSE(zq_getopt_const_string(getopt, "a", 0, &text, nullptr, "a"), file, function,
                  "optionname != NULL");
    EXPECT_MISUSE(zq_getopt_const_string(getopt, "a", 0, &text, "a", nullptr), file, function,
                  "description != NULL");
    function = "zq_getopt_int";
    EXPECT_MISUSE(zq_getopt_int(nullptr, "a", 0, &number, "a", "a"), file, function, object);
    EXPECT_MISUSE(zq_getopt_int(getopt, "a", 0, nullptr, "a", "a"), file, function,
                  "intptr != NULL");
    EXPECT_MISUSE(zq_getopt_int(getopt, "a", 0, &number, nullptr, "a"), file, function,
                  "optionname != NULL");
    EXPECT_MISUSE(zq_getopt_int(getopt, "a", 0, &number, "a", nullptr), file, function,
                  "description != NULL");
    function = "zq_getopt_flag_set";
    EXPECT_MISUSE(zq_getopt_flag_set(nullptr, "a", 0, &number, "a"), file, function, object);
    EXPECT_MISUSE(zq_getopt_flag_set(getopt, "a", 0, nullptr, "a"), file, function,
                  "intptr != NULL");
    EXPECT_MISUSE(zq_getopt_flag_set(getopt, "a", 0, &number, nullptr), file, function,
                  "description != NULL");
    EXPECT_MISUSE(zq_getopt_help(nullptr, "a", 0), file, "zq_getopt_help", object);
    function = "zq_getopt_parse";
    EXPECT_MISUSE(zq_getopt_parse(nullptr, 0, argv), file, function, object);
    EXPECT_MISUSE(zq_getopt_parse(getopt, -1, argv), file, function, "argc >= 0");
    EXPECT_MISUSE(zq_getopt_parse(getopt, 0, nullptr), file, function, "argv != NULL");
    EXPECT_MISUSE(zq_getopt_optind(nullptr), file, "zq_getopt_optind", object);
    EXPECT_MISUSE(zq_getopt_usage(nullptr, stdout), file, "zq_getopt_usage", object);
    EXPECT_MISUSE(zq_getopt_usage(getopt, nullptr), file, "zq_getopt_usage", "out != NULL");
    ASSERT_EQ(zq_getopt_help(getopt, nullptr, 0), 0);
    EXPECT_MISUSE(zq_getopt_usage(getopt, stdout), file, "zq_getopt_usage", "longopt != NULL");
}
