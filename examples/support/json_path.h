#ifndef EXAMPLES_SUPPORT_JSON_PATH_H
#define EXAMPLES_SUPPORT_JSON_PATH_H

#include "zq/adt/zqjson.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Prints the string, number, true, false or null at a path, on a line of its own and a string
 * without quotes. The words of the path are names of members, and # followed by an index from 0
 * for an element of an array, at most eight steps in all. Returns 0, or -1 after a line on standard
 * error that says why: nothing is there, an object or array is there, or the path is unusable. */
int example_json_print(zqjson *json, int count, char **path);

#ifdef __cplusplus
}
#endif

#endif
