#ifndef ZQ_UTIL_ZQGETOPT_H
#define ZQ_UTIL_ZQGETOPT_H

#include <stdio.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* A command-line parser. The program registers its options, each with the variable that receives
 * its value, and parses:
 *
 *     int verbose = 0, port = 80;
 *     zq_getopt_flag_set(getopt, "verbose", 'v', &verbose, "Say more.");
 *     zq_getopt_int(getopt, "port", 'p', &port, "number", "Port to listen on.");
 *     zq_getopt_help(getopt, "help", 'h');
 *     switch (zq_getopt_parse(getopt, argc, argv)) ...
 *
 * An option has a long name (`longopt`, null for none), a short character (`character`, 0 for
 * none), or both. "--port=80", "--port 80" and "-p 80" are equal. Short options may be joined: in
 * "-pq 1 2" p takes 1 and q takes 2; "-p80" is p, 8 and 0. Options end at the first argument that
 * does not begin with "-", or after "--". A "-" alone is passed over. Of options with equal names
 * the one registered first counts.
 *
 * Texts given at registration are copied. Unknown options are reported on standard error, bad
 * values in the log. */
ZQ_OBJECT(zqgetopt);

/* zq_getopt_create returns a new parser without options, or null when out of memory. Released with
 * zq_getopt_destroy(). */
ZQ_API zqgetopt *zq_getopt_create(void);

/* zq_getopt_destroy releases the parser; the values stored in the caller's variables stay valid. */
ZQ_API void zq_getopt_destroy(zqgetopt *zqgetopt);

/* zq_getopt_set_synopsis sets the first line of the usage text, without line feed; null restores
 * "usage: PROGRAM OPTIONS". Returns 0, or -1 when out of memory, the old text then being kept. */
ZQ_API int zq_getopt_set_synopsis(zqgetopt *zqgetopt, const char *synopsis);

/* zq_getopt_set_footer sets the text that ends the usage text, written as it is; null for none.
 * Returns 0, or -1 when out of memory, the old text then being kept. */
ZQ_API int zq_getopt_set_footer(zqgetopt *zqgetopt, const char *footer);

/* zq_getopt_const_string registers an option with an argument, whose address in `argv` is stored in
 * *stringptr. `optionname` names the argument in the usage text. Returns 0, or -1 when out of
 * memory. */
ZQ_API int zq_getopt_const_string(zqgetopt *zqgetopt, const char *longopt, int character,
                                  const char **stringptr, const char *optionname,
                                  const char *description);

/* zq_getopt_int registers an option with a decimal argument, which is stored in *intptr. Text after
 * the number is ignored, and text without a number is 0; a number that does not fit an int is an
 * error. Returns 0, or -1 when out of memory. */
ZQ_API int zq_getopt_int(zqgetopt *zqgetopt, const char *longopt, int character, int *intptr,
                         const char *optionname, const char *description);

/* zq_getopt_flag_set registers an option without argument, which stores 1 in *intptr. Returns 0, or
 * -1 when out of memory. */
ZQ_API int zq_getopt_flag_set(zqgetopt *zqgetopt, const char *longopt, int character, int *intptr,
                              const char *description);

/* zq_getopt_help registers an option that writes the usage text to standard output. Returns 0, or
 * -1 when out of memory. */
ZQ_API int zq_getopt_help(zqgetopt *zqgetopt, const char *longopt, int character);

/* zq_getopt_parse parses the arguments argv[1] to argv[argc - 1]. Values are stored as they are met
 * and stay when a later argument is in error. A value given with "=" to an option that takes none
 * is ignored. Returns 0, 1 when the help option was among the arguments (the rest was parsed all
 * the same), or -1 after an error: an unknown option, a missing or bad value, no memory. */
ZQ_API int zq_getopt_parse(zqgetopt *zqgetopt, int argc, char **argv);

/* zq_getopt_optind returns the index in `argv` of the first argument that the last parse did not
 * take, `argc` when it took all; 0 after an error. */
ZQ_API int zq_getopt_optind(zqgetopt *zqgetopt);

/* zq_getopt_usage writes the usage text to a stream, for terminals of 80 columns. Returns 0, also
 * when the stream takes no more. */
ZQ_API int zq_getopt_usage(zqgetopt *zqgetopt, FILE *out);

ZQ_END_DECLS

#endif
