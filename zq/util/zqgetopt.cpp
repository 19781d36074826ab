#include "zq/util/zqgetopt.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"

// Where the usage text puts descriptions.
static constexpr int DESCRIPTION_COLUMN = 30;
static constexpr int MAX_WIDTH = 79;

namespace {
enum option_type {
    ZQ_GETOPT_TYPE_NONE,
    ZQ_GETOPT_TYPE_HELP,
    ZQ_GETOPT_TYPE_CONST_STRING,
    ZQ_GETOPT_TYPE_INT,
    ZQ_GETOPT_TYPE_FLAG_SET,
    ZQ_GETOPT_TYPE_COUNT
};

struct getopt_option : zqlistlink {
    int type;
    int character; // 0 for none
    char *longopt; // null for none
    char *optionname;
    char *description;
    union {
        const char **conststringptr;
        int *intptr;
    } data;
};
} // namespace

struct zqgetopt {
    char *synopsis;
    char *footer;
    zqlist *options;
    int optind;
    int help_shown;
};

using getopt_options = list_items<getopt_option>;

// ---- options ----

static void zq_getopt_option_destroy(getopt_option *option)
{
    zq_free(option->longopt);
    zq_free(option->optionname);
    zq_free(option->description);
    zq_free(option);
}

// Returns the new option, its `data` still to be set, or null.
static getopt_option *zq_getopt_option_add(zqgetopt *parser, int optiontype, const char *longopt,
                                           int character, const char *optionname,
                                           const char *description)
{
    ZQ_ASSERT(optiontype > ZQ_GETOPT_TYPE_NONE);
    ZQ_ASSERT(optiontype < ZQ_GETOPT_TYPE_COUNT);
    ZQ_ASSERT(description != NULL);

    owned<getopt_option, zq_getopt_option_destroy> option(make_zeroed<getopt_option>());
    if (!option) {
        ZQ_LOG(7, "not enough memory for zqgetopt option");
        return nullptr;
    }
    option->type = optiontype;
    option->character = character;
    if (longopt && !(option->longopt = zq_strdup(longopt))) {
        ZQ_LOG(7, "not enough memory for long option '%s'", longopt);
        return nullptr;
    }
    if (optionname && !(option->optionname = zq_strdup(optionname))) {
        ZQ_LOG(7, "not enough memory for option name");
        return nullptr;
    }
    option->description = zq_strdup(description);
    if (!option->description) {
        ZQ_LOG(7, "not enough memory for option description");
        return nullptr;
    }
    list_append(parser->options, option.get());
    return option.release();
}

static getopt_option *zq_getopt_find_long(const zqgetopt *parser, const char *longopt)
{
    for (getopt_option *option : getopt_options(parser->options))
        if (option->longopt && strcmp(option->longopt, longopt) == 0)
            return option;
    return nullptr;
}

static getopt_option *zq_getopt_find_short(const zqgetopt *parser, char character)
{
    for (getopt_option *option : getopt_options(parser->options))
        if (option->character == character)
            return option;
    return nullptr;
}

// ---- parsers ----

zqgetopt *zq_getopt_create(void)
{
    owned<zqgetopt, zq_getopt_destroy> created(make_zeroed<zqgetopt>());
    if (!created) {
        ZQ_LOG(7, "not enough memory for zqgetopt context");
        return nullptr;
    }
    created->options = zq_list_create();
    if (!created->options) {
        ZQ_LOG(7, "unable to create zqgetopt option list");
        return nullptr;
    }
    return created.release();
}

void zq_getopt_destroy(zqgetopt *zqgetopt)
{
    ZQ_ASSERT(zqgetopt != NULL);

    if (zqgetopt->options) {
        for (getopt_option *option : getopt_options(zqgetopt->options))
            zq_getopt_option_destroy(option);
        zq_list_destroy(zqgetopt->options);
    }
    zq_free(zqgetopt->synopsis);
    zq_free(zqgetopt->footer);
    zq_free(zqgetopt);
}

static int zq_getopt_set_text(char **target, const char *text, const char *what)
{
    char *copy = nullptr;
    if (text && !(copy = zq_strdup(text))) {
        ZQ_LOG(7, "not enough memory for %s string", what);
        return -1;
    }
    zq_free(*target);
    *target = copy;
    return 0;
}

int zq_getopt_set_synopsis(zqgetopt *zqgetopt, const char *synopsis)
{
    ZQ_ASSERT(zqgetopt != NULL);

    return zq_getopt_set_text(&zqgetopt->synopsis, synopsis, "synopsis");
}

int zq_getopt_set_footer(zqgetopt *zqgetopt, const char *footer)
{
    ZQ_ASSERT(zqgetopt != NULL);

    return zq_getopt_set_text(&zqgetopt->footer, footer, "footer");
}

int zq_getopt_const_string(zqgetopt *zqgetopt, const char *longopt, int character,
                           const char **stringptr, const char *optionname, const char *description)
{
    ZQ_ASSERT(zqgetopt != NULL);
    ZQ_ASSERT(stringptr != NULL);
    ZQ_ASSERT(optionname != NULL);
    ZQ_ASSERT(description != NULL);

    getopt_option *option = zq_getopt_option_add(zqgetopt, ZQ_GETOPT_TYPE_CONST_STRING, longopt,
                                                 character, optionname, description);
    if (!option)
        return -1;
    option->data.conststringptr = stringptr;
    return 0;
}

int zq_getopt_int(zqgetopt *zqgetopt, const char *longopt, int character, int *intptr,
                  const char *optionname, const char *description)
{
    ZQ_ASSERT(zqgetopt != NULL);
    ZQ_ASSERT(intptr != NULL);
    ZQ_ASSERT(optionname != NULL);
    ZQ_ASSERT(description != NULL);

    getopt_option *option = zq_getopt_option_add(zqgetopt, ZQ_GETOPT_TYPE_INT, longopt, character,
                                                 optionname, description);
    if (!option)
        return -1;
    option->data.intptr = intptr;
    return 0;
}

int zq_getopt_flag_set(zqgetopt *zqgetopt, const char *longopt, int character, int *intptr,
                       const char *description)
{
    ZQ_ASSERT(zqgetopt != NULL);
    ZQ_ASSERT(intptr != NULL);
    ZQ_ASSERT(description != NULL);

    getopt_option *option = zq_getopt_option_add(zqgetopt, ZQ_GETOPT_TYPE_FLAG_SET, longopt,
                                                 character, nullptr, description);
    if (!option)
        return -1;
    option->data.intptr = intptr;
    return 0;
}

int zq_getopt_help(zqgetopt *zqgetopt, const char *longopt, int character)
{
    ZQ_ASSERT(zqgetopt != NULL);

    return zq_getopt_option_add(zqgetopt, ZQ_GETOPT_TYPE_HELP, longopt, character, nullptr,
                                "Show help.")
               ? 0
               : -1;
}

// ---- parsing ----

// The results of processing one option.
enum : int { PROCESS_FAILED = -1, PROCESS_DONE = 0, PROCESS_TOOK_VALUE = 1 };

static int zq_getopt_store_int(const getopt_option *option, const char *optionname,
                               const char *value)
{
    ZQ_ASSERT(option->data.intptr != NULL);

    // Text after the number, and text without one, are accepted: meant, "12abc" gives 12.
    errno = 0;
    const int64_t number = strtoll(value, nullptr, 10);
    const int error = errno;
    const char *problem = nullptr;
    if (number > INT_MAX)
        problem = "too large";
    else if (number < INT_MIN)
        problem = "too low";
    else if (error != 0)
        problem = "is invalid";
    if (problem) {
        ZQ_LOG(6, "option '%s' value '%s' %s for a signed integer argument", optionname, value,
               problem);
        return PROCESS_FAILED;
    }
    *option->data.intptr = static_cast<int>(number);
    return PROCESS_TOOK_VALUE;
}

static int zq_getopt_option_process(zqgetopt *zqgetopt, const getopt_option *option,
                                    const char *optionname, const char *value)
{
    ZQ_ASSERT(zqgetopt != NULL);
    ZQ_ASSERT(option != NULL);
    ZQ_ASSERT(optionname != NULL);

    switch (option->type) {
    case ZQ_GETOPT_TYPE_HELP:
        zqgetopt->help_shown = 1;
        zq_getopt_usage(zqgetopt, stdout);
        return PROCESS_DONE;
    case ZQ_GETOPT_TYPE_FLAG_SET:
        ZQ_ASSERT(option->data.intptr != NULL);
        *option->data.intptr = 1;
        return PROCESS_DONE;
    case ZQ_GETOPT_TYPE_CONST_STRING:
    case ZQ_GETOPT_TYPE_INT:
        break;
    default:
        ZQ_LOG(6, "unrecognized option type %d", option->type);
        return PROCESS_FAILED;
    }

    if (!value) {
        ZQ_LOG(6, "option '%s' requires an argument", optionname);
        return PROCESS_FAILED;
    }
    if (option->type == ZQ_GETOPT_TYPE_INT)
        return zq_getopt_store_int(option, optionname, value);
    ZQ_ASSERT(option->data.conststringptr != NULL);
    *option->data.conststringptr = value;
    return PROCESS_TOOK_VALUE;
}

// `next` is the argument after this one, or null. The result tells whether it was taken.
static int zq_getopt_parse_long(zqgetopt *parser, const char *argument, const char *next)
{
    const char *name = argument + 2;
    const char *equals = strchr(name, '=');
    owned_block<> copy;
    if (equals) {
        copy.reset(zq_strndup(name, static_cast<size_t>(equals - name)));
        if (!copy) {
            ZQ_LOG(7, "not enough memory for long option name");
            return PROCESS_FAILED;
        }
        name = copy.get();
    }
    const getopt_option *option = zq_getopt_find_long(parser, name);
    if (!option) {
        zq_stdio_printf_stderr("ERROR: Unknown option '%s'!\n", argument);
        return PROCESS_FAILED;
    }
    int result = zq_getopt_option_process(parser, option, name, equals ? equals + 1 : next);
    return equals && result == PROCESS_TOOK_VALUE ? PROCESS_DONE : result;
}

static int zq_getopt_parse_short(zqgetopt *parser, char character, const char *next)
{
    const getopt_option *option = zq_getopt_find_short(parser, character);
    if (!option) {
        zq_stdio_printf_stderr("ERROR: Unknown option '-%c'!\n", character);
        return PROCESS_FAILED;
    }
    const char name[2] = {character, '\0'};
    return zq_getopt_option_process(parser, option, name, next);
}

// Parses as far as there are options. Returns the index of the first argument not taken, or -1.
static int zq_getopt_parse_arguments(zqgetopt *parser, int argc, char **argv)
{
    int index = 1;
    auto next = [&] { return index < argc ? argv[index] : nullptr; };
    while (index < argc && argv[index][0] == '-') {
        const char *argument = argv[index++];
        if (strcmp(argument, "--") == 0)
            break;
        if (argument[1] == '-') {
            int result = zq_getopt_parse_long(parser, argument, next());
            if (result == PROCESS_FAILED)
                return -1;
            index += result == PROCESS_TOOK_VALUE;
            continue;
        }
        // A "-" alone is a cluster of no options, and passed over like any other: meant.
        for (const char *character = argument + 1; *character; character++) {
            int result = zq_getopt_parse_short(parser, *character, next());
            if (result == PROCESS_FAILED)
                return -1;
            index += result == PROCESS_TOOK_VALUE;
        }
    }
    return index;
}

int zq_getopt_parse(zqgetopt *zqgetopt, int argc, char **argv)
{
    ZQ_ASSERT(zqgetopt != NULL);
    ZQ_ASSERT(argc >= 0);
    ZQ_ASSERT(argv != NULL);

    zqgetopt->help_shown = 0;
    int index = zq_getopt_parse_arguments(zqgetopt, argc, argv);
    if (index < 0) {
        zqgetopt->optind = 0;
        return -1;
    }
    zqgetopt->optind = index;
    return zqgetopt->help_shown ? 1 : 0;
}

int zq_getopt_optind(zqgetopt *zqgetopt)
{
    ZQ_ASSERT(zqgetopt != NULL);

    return zqgetopt->optind;
}

// ---- usage ----

// The length of the next line of a text that has `room` columns. A text that fills the room exactly
// is still broken at its last space, since its end is not among the characters looked at: meant.
static int zq_getopt_measure_line(const char *text, int room)
{
    int last_space = -1;
    for (int i = 0; i < room; i++) {
        if (text[i] == '\0')
            return i;
        if (text[i] == ' ')
            last_space = i;
    }
    return last_space >= 0 ? last_space : room;
}

static void zq_getopt_show_description(FILE *out, const char *description, int currentcolumn,
                                       int startcolumn, int maxwidth)
{
    ZQ_ASSERT(out != NULL);
    ZQ_ASSERT(description != NULL);
    ZQ_ASSERT(currentcolumn >= 0);
    ZQ_ASSERT(startcolumn < maxwidth);
    ZQ_ASSERT(maxwidth > 0);

    if (currentcolumn >= startcolumn) {
        fputc('\n', out);
        currentcolumn = 0;
    }
    const char *text = description;
    for (;;) {
        int len = zq_getopt_measure_line(text, maxwidth - startcolumn);
        fprintf(out, "%*s%.*s\n", startcolumn - currentcolumn, "", len, text);
        text += len;
        if (*text == '\0')
            return;
        if (*text == ' ')
            text++;
        currentcolumn = 0;
    }
}

// Returns the number of characters written, or a negative number.
static int zq_getopt_show_option(FILE *out, const getopt_option *option, const char *longopt)
{
    int count = option->character ? fprintf(out, " -%c%s%s", option->character,
                                            longopt ? ", --" : "", longopt ? longopt : "")
                                  : fprintf(out, " --%s", longopt);
    if (count < 0 || !option->optionname)
        return count;
    int added = fprintf(out, "=%s", option->optionname);
    return added < 0 ? added : count + added;
}

int zq_getopt_usage(zqgetopt *zqgetopt, FILE *out)
{
    ZQ_ASSERT(zqgetopt != NULL);
    ZQ_ASSERT(out != NULL);

    fprintf(out, "%s\n", zqgetopt->synopsis ? zqgetopt->synopsis : "usage: PROGRAM OPTIONS");
    fputs("OPTIONS:\n", out);
    for (const getopt_option *option : getopt_options(zqgetopt->options)) {
        const char *longopt = option->longopt;
        if (!option->character)
            ZQ_ASSERT(longopt != NULL);
        int column = zq_getopt_show_option(out, option, longopt);
        if (column < 0) {
            ZQ_LOG(6, "unable to output usage");
            break;
        }
        zq_getopt_show_description(out, option->description, column, DESCRIPTION_COLUMN, MAX_WIDTH);
    }
    if (zqgetopt->footer)
        fputs(zqgetopt->footer, out);
    return 0;
}
