/* zqini reads and changes values of INI files and leaves the rest of the file as it is. */
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "examples/support/usage.h"
#include "zq/io/zqdeletefile.h"
#include "zq/io/zqfile.h"
#include "zq/util/zqinifile.h"
#include "zq/util/zqmalloc.h"
#include "zq/util/zqprintf.h"

static const char usage[] =
    "usage: zqini get FILE SECTION KEY\n"
    "       zqini set FILE SECTION KEY VALUE\n"
    "       zqini delete FILE SECTION KEY\n"
    "\n"
    "Prints, sets or deletes a value of an INI file. SECTION '' is the part in front of\n"
    "the first section. get reads standard input when FILE is -; set makes a file that\n"
    "does not exist. All other lines stay as they are, and the previous file is kept as\n"
    "FILE.bak.\n"
    "\n"
    "Exit status: 0 done, 1 no such key, 2 usage, 3 FILE cannot be read, 4 bad syntax in\n"
    "FILE, 5 FILE cannot be written, 6 out of memory, 7 an INI file cannot hold the value.\n";

enum {
    EXIT_DONE = 0,
    EXIT_NO_KEY = 1, /* 2 is example_usage()'s */
    EXIT_READ = 3,
    EXIT_SYNTAX = 4,
    EXIT_WRITE = 5,
    EXIT_MEMORY = 6,
    EXIT_VALUE = 7
};

struct request {
    const char *filename;
    const char *section; /* null in front of the first one */
    const char *key;
    const char *value; /* null but for set */
};

static int complain(const char *what, const char *name, int status)
{
    fprintf(stderr, "%s '%s'\n", what, name);
    return status;
}

static int load(const char *filename, zqinifile **inifile)
{
    zqerror error;
    *inifile = zq_inifile_create_from_file(filename, &error);
    if (*inifile)
        return EXIT_DONE;
    if (error == ZQ_ERROR_SYNTAX)
        return complain("bad syntax in", filename, EXIT_SYNTAX);
    if (error == ZQ_ERROR_NO_MEMORY)
        return complain("not enough memory for", filename, EXIT_MEMORY);
    return complain("unable to read", filename, EXIT_READ);
}

static int get(const struct request *request)
{
    zqinifile *inifile;
    int status = load(strcmp(request->filename, "-") ? request->filename : "/dev/stdin", &inifile);
    if (status != EXIT_DONE)
        return status;
    const char *value = zq_inifile_get(inifile, request->section, request->key);
    if (!value)
        status = complain("there is no key", request->key, EXIT_NO_KEY);
    else if (puts(value) < 0 || fflush(stdout) != 0)
        status = complain("unable to write", "standard output", EXIT_WRITE);
    zq_inifile_destroy(inifile);
    return status;
}

/* ---- saving ---- */

/* Reads the written file back: a line break in a value, say, would give other lines than meant. */
static int verify(zqinifile *inifile, const char *written, const struct request *request)
{
    zqinifile *copy = zq_inifile_create_from_file(written, NULL);
    const char *is = copy ? zq_inifile_get(copy, request->section, request->key) : NULL;
    const char *should = zq_inifile_get(inifile, request->section, request->key);
    int same = copy && (is && should ? strcmp(is, should) == 0 : is == should);
    if (request->value && !should)
        same = 0; /* a key that is not found again, such as one in white space */
    if (copy)
        zq_inifile_destroy(copy);
    return same ? EXIT_DONE
                : complain("an INI file cannot hold the value of", request->key, EXIT_VALUE);
}

static int replace(const char *filename, const char *written)
{
    char *data;
    size_t length;
    if (zq_file_data_load(written, &data, &length) != 0)
        return complain("unable to read", written, EXIT_READ);
    int saved = zq_file_data_save_with_backup(filename, data, length);
    zq_free(data);
    return saved == 0 ? EXIT_DONE : complain("unable to write", filename, EXIT_WRITE);
}

/* INI files are written by name, and in place. To have the file complete at every moment, it is
 * written beside its place first and from there goes through the backup scheme. */
static int save(zqinifile *inifile, const struct request *request)
{
    struct stat original;
    if (stat(request->filename, &original) == 0)
        umask(~original.st_mode & 0777); /* no file made here may be read by more people */
    char *written = zq_strdupf("%s.zqini", request->filename);
    if (!written)
        return complain("not enough memory for", request->filename, EXIT_MEMORY);
    int status = EXIT_DONE;
    if (zq_inifile_write_file(inifile, written) != ZQ_ERROR_NONE)
        status = complain("unable to write", written, EXIT_WRITE);
    if (status == EXIT_DONE)
        status = verify(inifile, written, request);
    if (status == EXIT_DONE)
        status = replace(request->filename, written);
    zq_deletefile(written);
    zq_free(written);
    return status;
}

static int set(const struct request *request)
{
    zqinifile *inifile;
    int status = EXIT_DONE;
    if (zq_file_exists(request->filename) == 0)
        inifile = zq_inifile_create(NULL);
    else
        status = load(request->filename, &inifile);
    if (status != EXIT_DONE)
        return status;
    if (!inifile)
        return complain("not enough memory for", request->filename, EXIT_MEMORY);
    if (zq_inifile_set(inifile, request->section, request->key, request->value) != ZQ_ERROR_NONE)
        status = complain("not enough memory for", request->key, EXIT_MEMORY);
    else
        status = save(inifile, request);
    zq_inifile_destroy(inifile);
    return status;
}

static int delete_all(const struct request *request)
{
    zqinifile *inifile;
    int status = load(request->filename, &inifile);
    if (status != EXIT_DONE)
        return status;
    unsigned int count;
    zq_inifile_delete_all(inifile, request->section, request->key, &count);
    if (count == 0)
        status = complain("there is no key", request->key, EXIT_NO_KEY);
    else
        status = save(inifile, request);
    zq_inifile_destroy(inifile);
    return status;
}

int main(int argc, char **argv)
{
    struct request request = {NULL, NULL, NULL, NULL};
    if (argc == 5 || argc == 6) {
        request.filename = argv[2];
        request.section = argv[3][0] != '\0' ? argv[3] : NULL;
        request.key = argv[4];
        request.value = argv[5];
    }
    if (argc == 5 && strcmp(argv[1], "get") == 0)
        return get(&request);
    if (argc == 6 && strcmp(argv[1], "set") == 0)
        return set(&request);
    if (argc == 5 && strcmp(argv[1], "delete") == 0)
        return delete_all(&request);
    return example_usage(usage, argc, argv);
}
