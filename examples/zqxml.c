/* zqxml prints the value of an element of a simple XML document, named by its path. */
#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "examples/support/read_text.h"
#include "examples/support/usage.h"
#include "zq/adt/zqxml.h"
#include "zq/util/zqmalloc.h"
#include "zq/util/zqprintf.h"

static const char usage[] =
    "usage: zqxml FILE PATH...\n"
    "\n"
    "Prints the text of the element at PATH in the XML document FILE, - for standard\n"
    "input. PATH is the tags from the outermost element inwards, 12 at most. A tag with\n"
    "# behind it is followed by an index, from 0, and names that element of several:\n"
    "\n"
    "    zqxml order.xml order item# 2 price\n"
    "\n"
    "Exit status: 0 printed, 1 no element at PATH, 2 usage, 3 FILE cannot be read,\n"
    "4 FILE is not XML of the simple kind, 5 out of memory, 6 output failed.\n";

enum {
    EXIT_PRINTED = 0,
    EXIT_NO_ELEMENT = 1,
    EXIT_USAGE = 2,
    EXIT_READ = 3,
    EXIT_SYNTAX = 4,
    EXIT_MEMORY = 5,
    EXIT_OUTPUT = 6
};

enum { MAX_STEPS = 12 };

/* Every step is asked for as a tag with # and an index, 0 where none is given: so all have the same
 * two arguments. A path ends at its first step without a tag. */
struct path {
    char *tag[MAX_STEPS + 1];
    unsigned int index[MAX_STEPS + 1];
};

static void path_clear(struct path *path)
{
    for (int i = 0; i < MAX_STEPS; i++)
        zq_free(path->tag[i]);
}

static int parse_index(const char *word, unsigned int *index)
{
    char *end;
    errno = 0;
    unsigned long value = strtoul(word, &end, 10);
    if (!isdigit((unsigned char)word[0]) || *end != '\0' || errno != 0 || value > UINT_MAX)
        return -1;
    *index = (unsigned int)value;
    return 0;
}

/* Returns an exit status. */
static int path_parse(struct path *path, int count, char **words)
{
    int step = 0;
    for (int i = 0; i < count; i++, step++) {
        size_t length = strlen(words[i]);
        int indexed = length > 0 && words[i][length - 1] == '#';
        if (step == MAX_STEPS) {
            fprintf(stderr, "a path can have %d steps at most\n", MAX_STEPS);
            return EXIT_USAGE;
        }
        path->tag[step] = zq_strdupf("%s%s", words[i], indexed ? "" : "#");
        if (!path->tag[step])
            return EXIT_MEMORY;
        if (indexed && (++i == count || parse_index(words[i], &path->index[step]) != 0)) {
            fprintf(stderr, "'%s' is followed by an index\n", path->tag[step]);
            return EXIT_USAGE;
        }
    }
    return EXIT_PRINTED;
}

static int print(zqxml *xml, const struct path *path)
{
    char *const *tag = path->tag;
    const unsigned int *index = path->index;
    const char *value;
    size_t length;
    if (zq_xml_query_value_const(xml, &value, &length, tag[0], index[0], tag[1], index[1], tag[2],
                                 index[2], tag[3], index[3], tag[4], index[4], tag[5], index[5],
                                 tag[6], index[6], tag[7], index[7], tag[8], index[8], tag[9],
                                 index[9], tag[10], index[10], tag[11], index[11],
                                 (char *)NULL) != 0) {
        fprintf(stderr, "there is no element at this path\n");
        return EXIT_NO_ELEMENT;
    }
    if (length > 0)
        fwrite(value, 1, length, stdout);
    putchar('\n');
    return fflush(stdout) == 0 ? EXIT_PRINTED : EXIT_OUTPUT;
}

static int parse_and_print(const char *name, const char *text, const struct path *path)
{
    zqxml *xml = zq_xml_create();
    if (!xml)
        return EXIT_MEMORY;
    int status = EXIT_SYNTAX;
    if (zq_xml_parse(xml, text) == 0)
        status = print(xml, path);
    else
        fprintf(stderr, "unable to parse '%s' (text after a child element is refused too)\n", name);
    zq_xml_destroy(xml);
    return status;
}

int main(int argc, char **argv)
{
    if (argc < 3)
        return example_usage(usage, argc, argv);
    struct path path = {0};
    int status = path_parse(&path, argc - 2, argv + 2);
    char *text = status == EXIT_PRINTED ? example_read_text(argv[1]) : NULL;
    if (text)
        status = parse_and_print(argv[1], text, &path);
    else if (status == EXIT_PRINTED)
        status = EXIT_READ;
    zq_free(text);
    path_clear(&path);
    return status;
}
