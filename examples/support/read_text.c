#include "examples/support/read_text.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "zq/io/zqfile.h"
#include "zq/util/zqmalloc.h"

/* Standard input may be a pipe, whose length nobody knows: the buffer grows as the text comes.
 * Returns null with errno set when reading fails. */
static char *read_stream(FILE *file, size_t *length)
{
    size_t size = 65536;
    char *text = zq_malloc(size);
    *length = 0;
    while (text) {
        size_t room = size - 1 - *length;
        size_t got = zq_file_read(file, text + *length, room);
        *length += got;
        if (got < room)
            break;
        char *grown = size <= SIZE_MAX / 2 ? zq_realloc(text, size * 2) : NULL;
        if (!grown)
            zq_free(text);
        text = grown;
        size *= 2;
    }
    if (!text) {
        errno = ENOMEM;
        return NULL;
    }
    if (ferror(file)) {
        zq_free(text);
        return NULL;
    }
    text[*length] = '\0';
    return text;
}

char *example_read_text(const char *name)
{
    int is_stdin = strcmp(name, "-") == 0;
    FILE *file = is_stdin ? stdin : zq_file_open_binary(name);
    size_t length;
    char *text = file ? read_stream(file, &length) : NULL;
    int error = errno;
    if (file && !is_stdin)
        zq_file_close(file);
    if (!text) {
        fprintf(stderr, "unable to read '%s': %s\n", name, strerror(error));
        return NULL;
    }
    if (strlen(text) != length) {
        fprintf(stderr, "'%s' is not text: it has a NUL byte\n", name);
        zq_free(text);
        return NULL;
    }
    return text;
}
