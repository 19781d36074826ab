#ifndef ZQ_ADT_ZQJSON_H
#define ZQ_ADT_ZQJSON_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* JSON texts held in memory, parsed into a tree of nodes and queried by path.
 *
 * What is accepted is a subset of RFC 8259 with a few leniencies:
 *  - the top level is an object or an array; a text of white space alone is an empty document;
 *  - numbers have no exponent, and one that begins with 0 may contain no other 0: 0.5 and 01 are
 *    accepted, 0.0 and 0.10 not. An integer that does not fit 64 bits is misuse, and so is a minus
 *    sign alone;
 *  - a \u escape gives one byte and goes up to \u00ff; bytes of strings are otherwise taken as they
 *    are, control characters included, and are not checked to be UTF-8;
 *  - a comma may stand before a closing bracket, and a text may end after a complete element or
 *    member, or the comma behind it, as if everything open had been closed there;
 *  - when a name comes twice in an object, the last one counts.
 * Depth and length are limited by memory alone, never by the stack. Parsing does not depend on the
 * locale.
 *
 * Functions that return an int return 0, or -1 with the reason in the log, but for a node of
 * another type than asked for and a text that is no number, which are not logged. What a query
 * finds belongs to the document and is valid until it is parsed into again or destroyed.
 *
 * A path is a sequence of strings that ends with a null pointer, and leads from the root, or from a
 * given node, down to the node wanted. A string is the name of a member; "#" is followed by an
 * unsigned long, the index from 0 of an array element:
 *
 *     zq_json_fetch_string(zqjson, &name, "items", "#", 2ul, "name", NULL);
 *
 * An index that is no unsigned long (a plain 2) is undefined behaviour. With an empty path, the
 * node is the one started from; from no node that is no node, not the root.
 *
 * A document has no lock, and queries may move members in their maps: every call must be serialised
 * by the caller. */

ZQ_OBJECT(zqjson);
ZQ_OBJECT(zqjsonnode);

typedef enum zqjsonnodetype {
    ZQ_JSON_TYPE_NONE = 0,
    ZQ_JSON_TYPE_OBJECT = 1,
    ZQ_JSON_TYPE_ARRAY = 2,
    ZQ_JSON_TYPE_STRING = 3,
    ZQ_JSON_TYPE_NUMBER = 4,
    ZQ_JSON_TYPE_TRUE = 5,
    ZQ_JSON_TYPE_FALSE = 6,
    ZQ_JSON_TYPE_NULL = 7,
    ZQ_JSON_TYPE_COUNT = 8
} zqjsonnodetype;

/* zq_json_create returns a new empty document, or null when out of memory. Released with
 * zq_json_destroy(). */
ZQ_API zqjson *zq_json_create(void);

/* zq_json_destroy frees the document with all its nodes. */
ZQ_API void zq_json_destroy(zqjson *zqjson);

/* zq_json_parse replaces the content of the document by that of the terminated text `json`, which
 * is not kept. After a failure the document is empty. */
ZQ_API int zq_json_parse(zqjson *zqjson, const char *json);

/* zq_json_fetch_node finds a node of any type. On failure *zqjsonnodeptr is null. */
ZQ_API int zq_json_fetch_node(zqjson *zqjson, zqjsonnode **zqjsonnodeptr, ...) ZQ_SENTINEL;

/* zq_json_fetch_string finds a string. On failure *stringptr is null. */
ZQ_API int zq_json_fetch_string(zqjson *zqjson, const char **stringptr, ...) ZQ_SENTINEL;

/* zq_json_fetch_int finds a number, one with a fraction rounded as by
 * zq_convert_i64_from_double_round(). True is 1, false is 0, and a string is what strtod() reads at
 * its start in the C locale. Fails when the value does not fit an int, too. On failure *valueptr is
 * 0. */
ZQ_API int zq_json_fetch_int(zqjson *zqjson, int *valueptr, ...) ZQ_SENTINEL;

/* zq_json_fetch_int64 is zq_json_fetch_int() for 64 bits, except that a value beyond them is the
 * nearest that there is. The string "nan" is 0. */
ZQ_API int zq_json_fetch_int64(zqjson *zqjson, int64_t *valueptr, ...) ZQ_SENTINEL;

/* zq_json_fetch_double finds a number, which is infinite where a double cannot hold it. True is 1,
 * false is 0, and a string is what strtod() reads at its start in the C locale. On failure
 * *valueptr is 0. */
ZQ_API int zq_json_fetch_double(zqjson *zqjson, double *valueptr, ...) ZQ_SENTINEL;

/* zq_json_fetch_boolean finds true, giving 1, or false, giving 0. On failure *valueptr is 0. */
ZQ_API int zq_json_fetch_boolean(zqjson *zqjson, int *valueptr, ...) ZQ_SENTINEL;

/* zq_json_fetch_null finds a node of any type: *valueptr is 1 when it is null, else 0. On failure
 * *valueptr is 0. */
ZQ_API int zq_json_fetch_null(zqjson *zqjson, int *valueptr, ...) ZQ_SENTINEL;

/* zq_json_node_fetch_node is zq_json_fetch_node() with a path from `startnode`, or from the root
 * when that is null. */
ZQ_API int zq_json_node_fetch_node(zqjson *zqjson, zqjsonnode *startnode,
                                   zqjsonnode **zqjsonnodeptr, ...) ZQ_SENTINEL;

/* zq_json_node_fetch_string is zq_json_fetch_string() with a path from `startnode`, or from the
 * root when that is null. */
ZQ_API int zq_json_node_fetch_string(zqjson *zqjson, zqjsonnode *startnode, const char **stringptr,
                                     ...) ZQ_SENTINEL;

/* zq_json_node_fetch_int is zq_json_fetch_int() with a path from `startnode`, or from the root when
 * that is null. */
ZQ_API int zq_json_node_fetch_int(zqjson *zqjson, zqjsonnode *startnode, int *valueptr,
                                  ...) ZQ_SENTINEL;

/* zq_json_node_fetch_int64 is zq_json_fetch_int64() with a path from `startnode`, or from the root
 * when that is null. */
ZQ_API int zq_json_node_fetch_int64(zqjson *zqjson, zqjsonnode *startnode, int64_t *valueptr,
                                    ...) ZQ_SENTINEL;

/* zq_json_node_fetch_next returns the array element after `node`, or null. It steps through an
 * array in constant time, where a path with an index walks to the element from the first one. */
ZQ_API zqjsonnode *zq_json_node_fetch_next(zqjson *zqjson, zqjsonnode *node);

/* zq_json_node_create returns a new node of a type, empty or 0, or null when out of memory; any
 * type but ZQ_JSON_TYPE_NONE.
 *
 * It is the constructor that the parser uses. Such a node stands alone: it can be the start of a
 * path, but nothing puts it into a document, and nothing exported destroys it. The caller frees it
 * with zq_free(), except that the map inside an object node cannot be released. */
ZQ_API zqjsonnode *zq_json_node_create(zqjsonnodetype nodetype);

ZQ_END_DECLS

#endif
