/* zqfind lists everything below a directory with its size. Directories wait in a list instead of on
 * the stack, and one is open at a time, so the tree may be as deep as paths can name it. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "examples/support/usage.h"
#include "zq/adt/zqlist.h"
#include "zq/io/zqdir.h"
#include "zq/io/zqutf8dir.h"
#include "zq/util/zqlog.h"
#include "zq/util/zqmalloc.h"
#include "zq/util/zqprintf.h"
#include "zq/util/zqstring.h"
#include "zq/util/zquninit.h"

static const char usage[] =
    "usage: zqfind [--stored] DIR\n"
    "\n"
    "Lists what is below DIR: size in bytes and path, with / after a directory and @ after\n"
    "a symbolic link, which is not followed. Names are shown in composed Unicode (NFC),\n"
    "and entries are looked up by them; with --stored names are the bytes that the file\n"
    "system stores.\n"
    "\n"
    "Exit status: 0 all was listed, 1 something could not be read, 2 usage.\n";

/* A directory to be listed yet; the last one found comes next. */
struct directory {
    zqlistlink link;
    char *path;
};

struct find {
    int stored;
    zqlist waiting;
    int failed;
};

static void complain(struct find *find, const char *path, const char *reason)
{
    fprintf(stderr, "zqfind: %s: %s\n", path, reason);
    find->failed = 1;
}

/* ---- the directories that wait ---- */

/* Takes the path, which is null when there was no memory for it. */
static void wait_for_turn(struct find *find, char *path)
{
    struct directory *directory = path ? zq_cmalloc(sizeof(*directory)) : NULL;
    if (!directory) {
        complain(find, path ? path : "a directory", "not enough memory");
        zq_free(path);
        return;
    }
    directory->path = path;
    directory->link.next = find->waiting.head;
    find->waiting.head = &directory->link;
}

/* The path of the next directory, or null. */
static char *take_turn(struct find *find)
{
    struct directory *directory = (struct directory *)find->waiting.head;
    char *path;
    if (!directory)
        return NULL;
    find->waiting.head = directory->link.next;
    path = directory->path;
    zq_free(directory);
    return path;
}

/* ---- one directory, by stored or by composed names ---- */

struct reader {
    zqdir *dir; /* one of the two is null */
    zqutf8dir *utf8dir;
};

static int reader_open(struct reader *reader, int stored, const char *path)
{
    reader->dir = stored ? zq_dir_open(path) : NULL;
    reader->utf8dir = stored ? NULL : zq_utf8dir_open(path);
    return reader->dir || reader->utf8dir ? 0 : -1;
}

static void reader_close(struct reader *reader)
{
    if (reader->dir)
        zq_dir_destroy(reader->dir);
    else
        zq_utf8dir_destroy(reader->utf8dir);
}

static int reader_next(struct reader *reader)
{
    return reader->dir ? zq_dir_next(reader->dir) : zq_utf8dir_next(reader->utf8dir);
}

static const char *reader_name(struct reader *reader)
{
    return reader->dir ? zq_dir_fetch_name(reader->dir) : zq_utf8dir_fetch_name(reader->utf8dir);
}

static int reader_is_directory(struct reader *reader)
{
    return reader->dir ? zq_dir_is_directory(reader->dir)
                       : zq_utf8dir_is_directory(reader->utf8dir);
}

static int reader_is_symlink(struct reader *reader)
{
    return reader->dir ? zq_dir_is_symlink(reader->dir) : zq_utf8dir_is_symlink(reader->utf8dir);
}

static int64_t reader_size(struct reader *reader)
{
    return reader->dir ? zq_dir_get_size(reader->dir) : zq_utf8dir_get_size(reader->utf8dir);
}

/* ---- listing ---- */

static char *path_below(const char *path, const char *name)
{
    return zq_strdupf(zq_endswith(path, "/") ? "%s%s" : "%s/%s", path, name);
}

static void list_entry(struct find *find, struct reader *reader, const char *parent)
{
    const char *name = reader_name(reader);
    char *path;
    int directory;
    if (!name) {
        complain(find, parent, "a name in it cannot be composed; --stored lists it");
        return;
    }
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return;
    path = path_below(parent, name);
    if (!path) {
        complain(find, name, "not enough memory");
        return;
    }
    directory = reader_is_directory(reader);
    if (directory < 0) {
        complain(find, path, find->stored ? "it is gone" : "not found by that name; try --stored");
        zq_free(path);
        return;
    }
    printf("%12lld %s%s\n", (long long)reader_size(reader), path,
           directory ? "/" : (reader_is_symlink(reader) == 1 ? "@" : ""));
    if (directory)
        wait_for_turn(find, path);
    else
        zq_free(path);
}

static void list_directory(struct find *find, const char *path)
{
    struct reader reader;
    int result;
    if (reader_open(&reader, find->stored, path) != 0) {
        complain(find, path, strerror(errno));
        return;
    }
    while ((result = reader_next(&reader)) == 0)
        list_entry(find, &reader, path);
    if (result > 0)
        complain(find, path, strerror(result));
    reader_close(&reader);
}

static int list_tree(struct find *find, const char *top)
{
    char *path;
    wait_for_turn(find, zq_strdup(top));
    while ((path = take_turn(find)) != NULL) {
        list_directory(find, path);
        zq_free(path);
    }
    if (fflush(stdout) != 0 || ferror(stdout))
        complain(find, "standard output", strerror(errno));
    return find->failed;
}

int main(int argc, char **argv)
{
    struct find find = {0, {NULL, NULL}, 0};
    int status;
    find.stored = argc == 3 && strcmp(argv[1], "--stored") == 0;
    if (argc != 2 + find.stored || argv[argc - 1][0] == '-')
        return example_usage(usage, argc, argv);
    zq_log_stderr_disable(NULL); /* complain() says it all */
    status = list_tree(&find, argv[argc - 1]);
    zq_uninit();
    return status;
}
