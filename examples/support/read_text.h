#ifndef EXAMPLES_SUPPORT_READ_TEXT_H
#define EXAMPLES_SUPPORT_READ_TEXT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Reads a file, or standard input for "-", into a terminated text that the caller frees with
 * zq_free(). Null after a line on standard error that says why; a NUL byte is no text either. */
char *example_read_text(const char *name);

#ifdef __cplusplus
}
#endif

#endif
