// Command lines beside the header's rules over standard strings, and the usage text.
// The input: synopsis, footer, a table of options, the arguments.

#include "zq/util/zqgetopt.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <list>
#include <memory>
#include <optional>
#include <vector>

#include "fuzz/support/captured.h"
#include "fuzz/support/fuzz.h"

namespace {
enum class Kind { help, flag, integer, string, count };

struct Values {
    int number = 0;
    const char *text = nullptr;
    bool operator==(const Values &) const = default;
};

struct Option {
    Kind kind;
    char character; // 0 for none
    std::optional<std::string> name;
    std::string argument, description;
    Values stored, expected;

    bool takes_value() const { return kind == Kind::integer || kind == Kind::string; }
};

struct Expectation {
    std::list<Option> &options;
    std::vector<char *> &argv;
    size_t index = 1; // of the first argument not taken
    bool help = false;
};
} // namespace

static Option take_option(Input &input)
{
    Option option = {};
    const unsigned int kind = input.byte();
    option.kind = static_cast<Kind>(kind % static_cast<unsigned int>(Kind::count));
    option.character = static_cast<char>(input.byte());
    std::string name = input.text();
    // Without a character there has to be a name.
    if (kind < 128 || !option.character)
        option.name = std::move(name);
    if (option.takes_value())
        option.argument = input.text();
    option.description = option.kind == Kind::help ? "Show help." : input.text();
    return option;
}

static int add(zqgetopt *getopt, Option &option)
{
    const char *name = option.name ? option.name->c_str() : nullptr;
    const char *argument = option.argument.c_str(), *description = option.description.c_str();
    switch (option.kind) {
    case Kind::flag:
        return zq_getopt_flag_set(getopt, name, option.character, &option.stored.number,
                                  description);
    case Kind::integer:
        return zq_getopt_int(getopt, name, option.character, &option.stored.number, argument,
                             description);
    case Kind::string:
        return zq_getopt_const_string(getopt, name, option.character, &option.stored.text, argument,
                                      description);
    default:
        return zq_getopt_help(getopt, name, option.character);
    }
}

// A decimal number with whatever follows, 0 for none; nothing when it does not fit.
static std::optional<int> number(const char *text)
{
    text += strspn(text, " \t\n\v\f\r");
    if (text[0] == '+' && text[1] != '-')
        text++;
    int value = 0;
    if (std::from_chars(text, text + strlen(text), value).ec == std::errc::result_out_of_range)
        return std::nullopt;
    return value;
}

// The first option for which it holds takes `given`, or else the next argument when it needs one.
template <class Predicate>
static bool expect_option(Expectation &line, Predicate matches, const char *given)
{
    const auto option = std::find_if(line.options.begin(), line.options.end(), matches);
    if (option == line.options.end())
        return false;
    line.help |= option->kind == Kind::help;
    if (option->kind == Kind::flag)
        option->expected.number = 1;
    if (!option->takes_value())
        return true;
    if (!given && line.index == line.argv.size())
        return false;
    const char *value = given ? given : line.argv[line.index++];
    if (option->kind == Kind::string)
        option->expected.text = value;
    else if (const std::optional<int> parsed = number(value))
        option->expected.number = *parsed;
    else
        return false;
    return true;
}

static bool expect_arguments(Expectation &line)
{
    while (line.index < line.argv.size() && line.argv[line.index][0] == '-') {
        const std::string_view argument = line.argv[line.index++];
        if (argument == "--")
            return true;
        if (argument.starts_with("--")) {
            const size_t equals = argument.find('=');
            const std::string_view name = argument.substr(0, equals).substr(2);
            const char *given = equals == argument.npos ? nullptr : &argument[equals] + 1;
            if (!expect_option(
                    line, [&](auto &option) { return option.name == name; }, given))
                return false;
            continue;
        }
        for (char c : argument.substr(1))
            if (!expect_option(
                    line, [&](auto &option) { return option.character == c; }, nullptr))
                return false;
    }
    return true;
}

static std::string squeezed(std::string text)
{
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
    return text;
}

// The text is right but for spaces and the breaks between lines, and these leave no line too long.
static void check_usage(const std::string &usage, const std::string &synopsis,
                        const std::string &footer, const std::list<Option> &options)
{
    std::string expected = synopsis + "OPTIONS:";
    bool one_line_each = true;
    for (const Option &option : options) {
        std::string head;
        if (option.character)
            (head += '-') += option.character;
        if (option.name)
            head += (option.character ? ", --" : "--") + *option.name;
        if (option.takes_value())
            head += "=" + option.argument;
        one_line_each &= (head + option.description).find('\n') == std::string::npos;
        expected += head + option.description;
    }
    FUZZ_CHECK(squeezed(usage) == squeezed(expected + footer));
    if (!one_line_each)
        return;
    const size_t end = usage.size() - footer.size();
    for (size_t start = synopsis.size() + strlen("\nOPTIONS:\n"); start < end;) {
        const size_t length = usage.find('\n', start) - start;
        FUZZ_CHECK(length <= 79 || usage.compare(start, 2, " -") == 0);
        start += length + 1;
    }
}

static void check_parse(zqgetopt *getopt, std::list<Option> &options, std::vector<char *> &argv,
                        const std::string &usage)
{
    Expectation line{options, argv};
    const bool good = expect_arguments(line);
    int result = -2;
    std::string out, err;
    err = captured(stderr, [&] {
        out = captured(stdout, [&] {
            result = zq_getopt_parse(getopt, static_cast<int>(argv.size()), argv.data());
        });
    });
    FUZZ_CHECK(result == (good ? line.help : -1));
    FUZZ_CHECK(zq_getopt_optind(getopt) == (good ? static_cast<int>(line.index) : 0));
    FUZZ_CHECK(out.empty() != line.help && (!line.help || out.starts_with(usage)));
    FUZZ_CHECK(err.empty() || (!good && err.starts_with("ERROR: Unknown option '")));
    for (const Option &option : options)
        FUZZ_CHECK(option.stored == option.expected);
}

void fuzz(Input &input)
{
    const std::unique_ptr<zqgetopt, decltype(&zq_getopt_destroy)> getopt(zq_getopt_create(),
                                                                         zq_getopt_destroy);
    std::string synopsis = input.text();
    const std::string footer = input.text();
    if (synopsis.empty())
        synopsis = "usage: PROGRAM OPTIONS";
    else
        FUZZ_CHECK(zq_getopt_set_synopsis(getopt.get(), synopsis.c_str()) == 0);
    FUZZ_CHECK(zq_getopt_set_footer(getopt.get(), footer.c_str()) == 0);

    std::list<Option> options;
    for (unsigned int count = input.below(9); count > 0; count--)
        FUZZ_CHECK(add(getopt.get(), options.emplace_back(take_option(input))) == 0);
    std::list<std::string> arguments = {"program"};
    while (!input.empty())
        arguments.push_back(input.text());
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());

    const std::string usage =
        written([&](FILE *out) { FUZZ_CHECK(zq_getopt_usage(getopt.get(), out) == 0); });
    check_usage(usage, synopsis, footer, options);
    check_parse(getopt.get(), options, argv, usage);
    check_parse(getopt.get(), options, argv, usage); // which begins afresh
}
