#ifndef ZQ_UTIL_ZQLOCALIZATION_H
#define ZQ_UTIL_ZQLOCALIZATION_H

#include "zq/util/zqerror.h"
#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Message catalogues in a reduced gettext PO format, one file per language, in a directory per text
 * domain: LOCALEPATH/TEXTDOMAIN/de.po holds the language "de".
 *
 * The format: empty lines, lines beginning with '#', msgid "..." lines followed by msgstr "..."
 * lines, and "..." lines that continue either. Nothing may stand in front of them on a line, not
 * even white space. A backslash stands for the byte after it and nothing else: \" is a quote and \n
 * is the letter n. Plural forms and contexts are not known. The entry of the empty msgid, the
 * header, is kept like any other.
 *
 * Loading may not overlap with use, and lookups in one language are serialised by the caller, since
 * its table may move entries while looking. */
ZQ_OBJECT(zqlocalization);
/* The translations into one language, owned by the catalogue set. */
ZQ_OBJECT(zqlanguage);

/* zq_localization_create returns a new empty catalogue set, or null when out of memory. */
ZQ_API zqlocalization *zq_localization_create(void);

/* zq_localization_destroy releases the set and every language in it. */
ZQ_API void zq_localization_destroy(zqlocalization *zqlocalization);

/* zq_localization_load_utf8 loads every file of a text domain; `localepath` and `textdomain` are
 * UTF-8. Languages and entries are added to those already there, later entries replacing earlier
 * ones of the same msgid. Directories and files not named "NAME.po" are passed over. Returns 0, or
 *   ZQ_ERROR_NO_MEMORY  out of memory
 *   ZQ_ERROR_GENERIC    reading the directory or a file failed
 *   ZQ_ERROR_NOT_FOUND  the directory or a file cannot be opened
 *   ZQ_ERROR_SYNTAX     a file has lines that are not understood; its other entries are loaded all
 *                       the same, except the last one of that file
 * The first file that fails ends the loading; what was loaded stays. */
ZQ_API zqerror zq_localization_load_utf8(zqlocalization *zqlocalization, const char *localepath,
                                         const char *textdomain);

/* zq_localization_list_languages returns the sorted names of the languages as one string, such as
 * "de/en/fr", empty when there are none. The caller frees it with zq_free(). Null when out of
 * memory. */
ZQ_API char *zq_localization_list_languages(zqlocalization *zqlocalization);

/* zq_localization_language_get returns the language of that name, or null when none is loaded. */
ZQ_API zqlanguage *zq_localization_language_get(zqlocalization *zqlocalization,
                                                const char *language);

/* zq_localization_localize returns the translation of exactly this string, owned by the language,
 * or null when there is none or `zqlanguage` is null. The empty string finds the catalogue's
 * header. */
ZQ_API const char *zq_localization_localize(zqlanguage *zqlanguage, const char *string);

ZQ_END_DECLS

#endif
