// zqsum beside sha1sum and sha256sum: the same lines, reports and exit statuses.
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/process.h"
#include "tests/support/scratch.h"

namespace fs = std::filesystem;

using Words = std::vector<std::string>;

static const std::string program = ZQ_TEST_BINARY "/examples/zqsum";

// Reports begin with the name of the program.
static std::string without_name(const std::string &text, const std::string &name)
{
    std::string result = text;
    for (size_t at = 0; (at = result.find(name + ": ", at)) != std::string::npos;)
        result.erase(at, name.size() + 2);
    return result;
}

// `algorithm` is "sha1" or "sha256".
static void expect_same(const std::string &algorithm, const Words &options, const Words &arguments,
                        const std::string &input = "")
{
    const std::string tool = algorithm + "sum";
    Words ours = {program, "-a", algorithm};
    Words theirs = {"env", "LC_ALL=C", tool};
    ours.insert(ours.end(), options.begin(), options.end());
    ours.insert(ours.end(), arguments.begin(), arguments.end());
    theirs.insert(theirs.end(), arguments.begin(), arguments.end());
    Outcome actual = run(ours, input);
    Outcome expected = run(theirs, input);
    EXPECT_EQ(actual.out, expected.out);
    EXPECT_EQ(without_name(actual.err, "zqsum"), without_name(expected.err, tool));
    EXPECT_EQ(actual.status, expected.status);
}

TEST(zqsum, prints_what_coreutils_prints)
{
    Scratch scratch;
    const std::string plain = scratch.write("plain", "text");
    const std::string empty = scratch.write("empty", "");
    const std::string spaces = scratch.write(" two  spaces ", "x");
    const std::string backslash = scratch.write("back\\slash", "x");
    const std::string lines = scratch.write("line\nfeed\\n\r", "x");
    const std::string big = scratch.write("big", std::string(1000000, 'b'));
    for (const char *algorithm : {"sha1", "sha256"}) {
        expect_same(algorithm, {}, {});
        expect_same(algorithm, {}, {}, "typed");
        expect_same(algorithm, {}, {"-"}, "typed");
        expect_same(algorithm, {}, {"-", plain}, "typed");
        expect_same(algorithm, {}, {plain, "-", empty}, "typed");
        expect_same(algorithm, {"-j", "2"}, {plain, "-", empty}, "typed");
        expect_same(algorithm, {}, {"--", plain});
        expect_same(algorithm, {}, {plain, empty, spaces, backslash, lines, big});
        expect_same(algorithm, {}, {scratch.file("missing"), plain});
        expect_same(algorithm, {"--jobs=4"}, {scratch.file("missing"), "/dev", plain});
    }
    EXPECT_EQ(run({program, plain}).out, run({"sha256sum", plain}).out) << "the default";
}

TEST(zqsum, checks_lists_as_coreutils_does)
{
    Scratch scratch;
    const std::string good = scratch.write("good", "good");
    const std::string changed = scratch.write("changed", "old");
    const std::string escaped = scratch.write("line\nfeed\\", "x");
    for (const std::string algorithm : {"sha1", "sha256"}) {
        const std::string tool = algorithm + "sum";
        std::string digest = run({tool, good}).out;
        digest = digest.substr(0, digest.find(' '));
        std::string upper = digest;
        std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
        const std::string lists[] = {
            run({tool, good, escaped}).out,
            run({tool, good, changed, escaped}).out + digest + "  " + scratch.file("missing"),
            "# comment\n\n" + upper + " *" + good + "\r\n",
            " \t" + digest + "\t " + good + "\n",
            digest + "  " + good + "\nno digest\n",
            digest + "  " + good + "\n" + digest.substr(1) + "  " + good + "\nx" + digest +
                "  a\n" + digest + "  \n\\" + digest + "  bad\\escape\n\\" + digest + "  bad\\",
            "nothing\nproper\n",
            "",
        };
        scratch.write("changed", "new");
        for (const std::string &text : lists) {
            SCOPED_TRACE(text);
            const std::string list = scratch.write("list", text);
            expect_same(algorithm, {}, {"-c", list});
            expect_same(algorithm, {"--jobs=2"}, {"-c", list});
            expect_same(algorithm, {"-j", "2"}, {"-c", list, scratch.file("missing"), list});
            expect_same(algorithm, {}, {"-c"}, text);
        }
        scratch.write("changed", "old");
    }
}

TEST(zqsum, a_large_tree_on_two_threads)
{
    Words files;
    for (const auto &entry : fs::recursive_directory_iterator(
             "/usr/include", fs::directory_options::skip_permission_denied))
        if (entry.is_regular_file() && files.size() < 4000)
            files.push_back(entry.path());
    ASSERT_GT(files.size(), 500u);
    Words expected = {"sha256sum"};
    expected.insert(expected.end(), files.begin(), files.end());
    Words actual = {program, "-j", "2"};
    actual.insert(actual.end(), files.begin(), files.end());
    const std::string list = run(expected).out;
    Outcome outcome = run(actual);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(outcome.out == list); // too long to be shown

    outcome = run({program, "-cj", "2"}, list);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'),
              static_cast<std::ptrdiff_t>(files.size()));
    EXPECT_EQ(outcome.out.find("FAILED"), std::string::npos);
}

// Runs a command on a terminal of its own and returns all that it writes.
static std::string run_on_terminal(const Words &command)
{
    int terminal;
    pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        std::vector<char *> argv;
        const Words words = runnable(command);
        for (const std::string &word : words)
            argv.push_back(const_cast<char *>(word.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    std::string text;
    char buffer[1024];
    for (ssize_t count; (count = read(terminal, buffer, sizeof(buffer))) > 0;)
        text.append(buffer, static_cast<size_t>(count));
    close(terminal);
    waitpid(child, nullptr, 0);
    return text;
}

TEST(zqsum, a_terminal_sees_the_progress_of_large_files)
{
    Scratch scratch;
    const std::string large = scratch.write("large", "");
    const std::string small = scratch.write("small", "");
    fs::resize_file(large, uintmax_t{1} << 29); // a hole takes no room
    fs::resize_file(small, 1 << 20);
    for (const char *jobs : {"1", "2"}) {
        std::string text = run_on_terminal({program, "-j", jobs, small, large});
        EXPECT_NE(text.find("% of 513 MiB"), std::string::npos) << text;
        EXPECT_NE(text.find("\r\x1b[K9acca8e8c22201155389f65abbf6bc97"), std::string::npos)
            << "the bar goes before a line comes";
    }
    EXPECT_EQ(run_on_terminal({program, small}).find('['), std::string::npos);
    EXPECT_EQ(run({program, large}).err, "") << "nobody watches";
}

TEST(zqsum, failures_have_a_status)
{
    EXPECT_EQ(run({program, "--help"}).status, 0);
    EXPECT_NE(run({program, "--help"}).out.find("usage: zqsum"), std::string::npos);
    EXPECT_EQ(run({program, "-x"}).status, 2);
    EXPECT_EQ(run({program, "-a"}).status, 2);
    EXPECT_EQ(run({program, "-a", "md5"}).err, "zqsum: there is no algorithm 'md5'\n");
    EXPECT_EQ(run({program, "-j", "0"}).status, 2);
    EXPECT_EQ(run({program, "-j", "257"}).status, 2);
    Outcome full = run({"sh", "-c", "\"$@\" /dev/null >/dev/full", "sh", program});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "zqsum: standard output: No space left on device\n");
}
