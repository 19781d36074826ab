/* zqjson prints a value of a JSON document, named by its path. */
#include <stdio.h>

#include "examples/support/json_path.h"
#include "examples/support/read_text.h"
#include "examples/support/usage.h"
#include "zq/adt/zqjson.h"
#include "zq/util/zqmalloc.h"

static const char usage[] =
    "usage: zqjson FILE PATH...\n"
    "\n"
    "Prints the string, number, true, false or null at PATH in the JSON document FILE,\n"
    "- for standard input. Each word of PATH is the name of a member; the word # is\n"
    "followed by the index, from 0, of an array element:\n"
    "\n"
    "    zqjson package.json authors '#' 0 name\n"
    "\n"
    "Exit status: 0 printed, 1 no single value at PATH, 2 usage, 3 FILE cannot be read,\n"
    "4 FILE is not JSON, 5 out of memory, 6 output failed.\n";

enum {
    EXIT_PRINTED = 0,
    EXIT_NO_VALUE = 1, /* 2 is example_usage()'s */
    EXIT_READ = 3,
    EXIT_SYNTAX = 4,
    EXIT_MEMORY = 5,
    EXIT_OUTPUT = 6
};

static int print(const char *name, const char *text, int count, char **path)
{
    zqjson *json = zq_json_create();
    if (!json)
        return EXIT_MEMORY;
    int status = EXIT_PRINTED;
    if (zq_json_parse(json, text) != 0) {
        fprintf(stderr, "unable to parse '%s'\n", name);
        status = EXIT_SYNTAX;
    } else if (example_json_print(json, count, path) != 0) {
        status = EXIT_NO_VALUE;
    } else if (fflush(stdout) != 0) {
        status = EXIT_OUTPUT;
    }
    zq_json_destroy(json);
    return status;
}

int main(int argc, char **argv)
{
    if (argc < 3)
        return example_usage(usage, argc, argv);
    char *text = example_read_text(argv[1]);
    if (!text)
        return EXIT_READ;
    int status = print(argv[1], text, argc - 2, argv + 2);
    zq_free(text);
    return status;
}
