#ifndef ZQ_UTIL_ZQINIFILE_H
#define ZQ_UTIL_ZQINIFILE_H

#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* INI files that are read, changed and written back. The file is kept as its lines: comments, blank
 * lines, spacing and order of everything that was not changed survive, except that every line ends
 * in a single line feed when written and that a key line loses the white space in front of its key.
 *
 * The format: "[section]" headers, "key=value" lines, blank lines, and comments, whose first
 * character other than white space is ';' or '#'. White space around section, key and value does
 * not count. Keys in front of the first header belong to the section named by a null pointer.
 * Section and key are compared by case. There are no inline comments, no quotes or escapes, and no
 * continuation lines. Of a line that contains a NUL byte only what stands before it is kept, and
 * the rest is read as a line of its own only from the next line feed on.
 *
 * Lines may be of any length. A file is used by one thread at a time. */
ZQ_OBJECT(zqinifile);

/* zq_inifile_create returns a new empty file. `zqerrorptr` may be null and receives the code: 0, or
 * ZQ_ERROR_NO_MEMORY with a null result. */
ZQ_API zqinifile *zq_inifile_create(zqerror *zqerrorptr);

/* zq_inifile_create_from_file reads a file. `zqerrorptr` may be null and receives the code, 0 on
 * success. With a null result it is
 *   ZQ_ERROR_NOT_FOUND     the file cannot be opened
 *   ZQ_ERROR_NO_MEMORY     out of memory
 *   ZQ_ERROR_OUT_OF_RANGE  a line's length does not fit what can be addressed
 *   ZQ_ERROR_GENERIC       reading failed
 *   ZQ_ERROR_SYNTAX        bad syntax, logged as "Parse error at FILE:LINE: ..."; 0 instead when
 *                          there is no memory even for that message */
ZQ_API zqinifile *zq_inifile_create_from_file(const char *filename, zqerror *zqerrorptr);

/* zq_inifile_destroy releases the file. */
ZQ_API void zq_inifile_destroy(zqinifile *zqinifile);

/* zq_inifile_get returns the value of the last line with this section (may be null) and key,
 * without surrounding white space, or null when there is none. It belongs to the file and is valid
 * until that line is changed or deleted. */
ZQ_API const char *zq_inifile_get(zqinifile *inifile, const char *section, const char *key);

/* zq_inifile_set changes the last line with this section (may be null) and key to "key=value", both
 * without surrounding white space. Where there is none, "key=value" as given is added behind the
 * last key of the section, or behind the section's first line where it has no key; a section that
 * does not exist is added at the end of the file, and a first key without section stands at the
 * beginning. Returns 0, or ZQ_ERROR_NO_MEMORY with the file unchanged. */
ZQ_API zqerror zq_inifile_set(zqinifile *inifile, const char *section, const char *key,
                              const char *new_value);

/* zq_inifile_delete_all removes every line with this section (may be null) and key. `count` may be
 * null and receives how many there were. */
ZQ_API void zq_inifile_delete_all(zqinifile *inifile, const char *section, const char *key,
                                  unsigned int *count);

/* zq_inifile_write_file writes the lines to a file, created or emptied first. Not atomic: a failure
 * can leave the file cut short. Returns 0, or ZQ_ERROR_WRITE, also when the last bytes fail only on
 * closing. */
ZQ_API zqerror zq_inifile_write_file(zqinifile *inifile, const char *filename);

ZQ_END_DECLS

#endif
