#include "zq/util/zqgetopt.h"

#include <algorithm>
#include <sstream>

#include "tests/support/expect.h"
#include "tests/support/log_capture.h"

using Getopt = Owned<zqgetopt, zq_getopt_destroy>;

static std::string usage(const Getopt &getopt)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    EXPECT_EQ(zq_getopt_usage(getopt.get(), out), 0);
    fclose(out);
    std::string result(text, size);
    free(text);
    return result;
}

// Parses the words of a line, behind the program's name.
static int parse(const Getopt &getopt, const std::string &line)
{
    static std::vector<std::string> words; // string values point into them
    words = {"prog"};
    std::istringstream in(line);
    for (std::string word; in >> word;)
        words.push_back(word);
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    return zq_getopt_parse(getopt.get(), static_cast<int>(argv.size()), argv.data());
}

namespace {
struct Values {
    int verbose = 0, port = -7, number = -7;
    const char *query = nullptr, *only_long = nullptr;
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

TEST(zqgetopt, refused_command_lines)
{
    const std::string signed_integer = " for a signed integer argument";
    const struct {
        const char *line;
        std::string err, log;
    } rows[] = {
        {"--port=3000000000", "",
         "[6] option 'port' value '3000000000' too large" + signed_integer},
        {"-p -2147483649", "", "[6] option 'p' value '-2147483649' too low" + signed_integer},
        {"-v --port", "", "[6] option 'port' requires an argument"},
        {"-vq", "", "[6] option 'q' requires an argument"},
        {"-v --Port=1", "ERROR: Unknown option '--Port=1'!\n", ""},
        {"--=1", "ERROR: Unknown option '--=1'!\n", ""},
        {"-vxv", "ERROR: Unknown option '-x'!\n", ""},
    };
    Values values;
    Getopt getopt(zq_getopt_create());
    ASSERT_TRUE(getopt && add_options(getopt.get(), &values));
    LogCapture log;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        EXPECT_EQ(parse(getopt, "-p 010 file"), 0);
        EXPECT_EQ(values.port, 10);
        testing::internal::CaptureStderr();
        CHECK_PROMISE(parse(getopt, row.line) == -1 && zq_getopt_optind(getopt.get()) == 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.err);
        const std::string lines = joined(log.take());
        CHECK_PROMISE(lines == row.log ||
                      (faults_injected() && lines == "[7] not enough memory for long option name"));
    }
}

TEST(zqgetopt, usage_text)
{
    Getopt getopt(zq_getopt_create());
    ASSERT_TRUE(getopt);
    const std::string empty = "usage: PROGRAM OPTIONS\nOPTIONS:\n";
    zq_getopt_set_synopsis(getopt.get(), "usage: prog [FILE]");
    zq_getopt_set_footer(getopt.get(), "No line feed");
    EXPECT_EQ(usage(getopt), "usage: prog [FILE]\nOPTIONS:\nNo line feed");
    zq_getopt_set_synopsis(getopt.get(), nullptr);
    zq_getopt_set_footer(getopt.get(), nullptr);
    EXPECT_EQ(usage(getopt), empty);

    Values values;
    int unset = 0; // the first of equal names counts
    ASSERT_TRUE(add_options(getopt.get(), &values));
    ASSERT_EQ(zq_getopt_flag_set(getopt.get(), "verbose", 'v', &unset, "Again."), 0);
    ASSERT_EQ(zq_getopt_help(getopt.get(), nullptr, 'H'), 0);
    // Help writes the usage and goes on.
    testing::internal::CaptureStdout();
    EXPECT_EQ(parse(getopt, "-Hv --verbose extra"), 1);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              empty + " -v, --verbose                Say more.\n"
                      " -p, --port=number            Port.\n"
                      " -q, --query=text             Query.\n"
                      " --only-long=x                Long.\n"
                      " -n=n                         Short.\n"
                      " -h, --help                   Show help.\n"
                      " -v, --verbose                Again.\n"
                      " -H                           Show help.\n");
    EXPECT_EQ(zq_getopt_optind(getopt.get()), 3);
    EXPECT_TRUE(values.verbose == 1 && unset == 0);
    EXPECT_EQ(parse(getopt, ""), 0) << "the next parse starts afresh";
    EXPECT_EQ(zq_getopt_optind(getopt.get()), 1);

    LogCapture log;
    FILE *full = fopen("/dev/full", "w");
    ASSERT_TRUE(full);
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(zq_getopt_usage(getopt.get(), full), 0);
    fclose(full);
    EXPECT_EQ(log.take(), (Lines{{6, "unable to output usage"}})) << "only once";
}

// A break of line is "|" here, with the spaces around it.
TEST(zqgetopt, descriptions_are_wrapped)
{
    const std::string x46(46, 'x');
    const std::string words = "one two three four five six seven eight nine ten";
    const struct {
        std::string name, description, expected;
    } rows[] = {
        {"name-of-26-characters-----", "d", " d|"},
        {"name-of-27-characters------", "d", "|d|"},
        {"o", "", "|"},
        {"o", x46 + "xyz", x46 + "xyz|"},
        {"o", x46 + "wxyz", x46 + "wxy|z|"},
        // 49 characters fill the line, and are broken all the same.
        {"o", "a " + x46 + "y", "a|" + x46 + "y|"},
        {"o", "a " + x46, "a " + x46 + "|"},
        // Of two spaces one goes with the line break.
        {"o", x46 + "xyz  y", x46 + "xyz| y|"},
        {"o", x46 + "xyz ", x46 + "xyz||"},
        {"o", " " + x46 + "xyz", "|" + x46 + "xyz|"},
        {"o", words + " " + words + " end", words + "|" + words + "|end|"},
    };
    for (const auto &row : rows) {
        int flag;
        Getopt getopt(zq_getopt_create());
        ASSERT_TRUE(getopt);
        ASSERT_EQ(
            zq_getopt_flag_set(getopt.get(), row.name.c_str(), 0, &flag, row.description.c_str()),
            0);
        std::string text = usage(getopt);
        const std::string broken = "\n" + std::string(30, ' ');
        for (size_t at; (at = text.find(broken)) != std::string::npos;)
            text.replace(at, broken.size(), "|");
        std::string head = "usage: PROGRAM OPTIONS\nOPTIONS:\n --" + row.name;
        if (row.name == "o")
            head.append(26, ' ');
        std::replace(text.begin() + static_cast<std::ptrdiff_t>(head.size()), text.end(), '\n',
                     '|');
        EXPECT_EQ(text, head + row.expected);
    }
}

TEST(zqgetopt, without_memory_nothing_changes)
{
    LogCapture log;
    Getopt getopt(zq_getopt_create());
    std::string said = testing::PrintToString(log.take());
    CHECK_PROMISE(getopt || said == "{ [7] not enough memory for zqgetopt context }" ||
                  said.ends_with("[7] unable to create zqgetopt option list }"));
    ASSERT_TRUE(getopt);
    std::string before = usage(getopt);
    auto check = [&](int result, const std::string &lines) {
        said = testing::PrintToString(log.take());
        CHECK_PROMISE(result == 0 || usage(getopt) == before);
        CHECK_PROMISE(result == 0 || lines.find(said) != std::string::npos);
        before = usage(getopt);
    };
    check(zq_getopt_set_synopsis(getopt.get(), "synopsis"),
          "{ [7] not enough memory for synopsis string }");
    check(zq_getopt_set_footer(getopt.get(), "footer"),
          "{ [7] not enough memory for footer string }");
    int number = 0;
    check(zq_getopt_int(getopt.get(), "long", 'l', &number, "name", "Description."),
          "{ [7] not enough memory for zqgetopt option }"
          "{ [7] not enough memory for long option 'long' }"
          "{ [7] not enough memory for option name }"
          "{ [7] not enough memory for option description }");
}

TEST(zqgetopt, misuse)
{
    Getopt owner(zq_getopt_create());
    zqgetopt *getopt = owner.get();
    ASSERT_TRUE(getopt);
    char *argv[] = {nullptr};
#define MISUSE(call, function, text) EXPECT_MISUSE(call, "util/zqgetopt", function, text)
    MISUSE(zq_getopt_destroy(nullptr), "zq_getopt_destroy", "zqgetopt != NULL");
    MISUSE(zq_getopt_const_string(getopt, "a", 0, nullptr, "a", "a"), "zq_getopt_const_string",
           "stringptr != NULL");
    MISUSE(zq_getopt_int(getopt, "a", 0, nullptr, "a", "a"), "zq_getopt_int", "intptr != NULL");
    MISUSE(zq_getopt_parse(getopt, -1, argv), "zq_getopt_parse", "argc >= 0");
    ASSERT_EQ(zq_getopt_help(getopt, nullptr, 0), 0);
    MISUSE(zq_getopt_usage(getopt, stdout), "zq_getopt_usage", "longopt != NULL");
}
