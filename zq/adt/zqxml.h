#ifndef ZQ_ADT_ZQXML_H
#define ZQ_ADT_ZQXML_H

#include <stdio.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* Reads a small subset of XML from memory, writes it out indented and answers queries by a path of
 * tag names: elements, one text value per element, child elements, raw attribute text, and
 * declarations between <? and ?>. There are no comments, CDATA sections or attribute syntax, and
 * entity references stay as they are written. Depth and number of elements are bounded by memory
 * only.
 *
 * What is particular about it:
 *   - only a space ends a tag name; a tab or line break becomes part of it
 *   - only space, carriage return and line feed are blank around a value; blanks before it are
 *     dropped, blanks after it are kept
 *   - text after a child of an element is refused; text before the first child is its value
 *   - text in front of a top-level element becomes the value of that element
 *   - an empty-element tag keeps its slash: <a/> has the tag "a/", and <a b="c"/> the attributes
 *     'b="c"/'; a declaration has the tag "?xml" and loses its closing question mark
 *   - an end tag at the top level with nothing open ends the document there, successfully
 *   - anything after the last element, a final line feed too, makes one more top-level node without
 *     a tag
 *
 * A document is used by one thread at a time; queries and output only read it. */
ZQ_OBJECT(zqxml);

/* zq_xml_create returns a new empty document, or null when out of memory. */
ZQ_API zqxml *zq_xml_create(void);

/* zq_xml_destroy releases the document and its tree. */
ZQ_API void zq_xml_destroy(zqxml *zqxml);

/* zq_xml_parse replaces the document's content by the parsed `text`, of which it keeps a copy. The
 * text must not lie inside the document. Returns 0, or -1 with the reason in the log (text after a
 * child element is refused without a line) and the document left empty. */
ZQ_API int zq_xml_parse(zqxml *zqxml, const char *text);

/* zq_xml_output writes the document to an open stream, indented by two spaces a level. A node with
 * neither value nor children is written as one start tag with the first byte of its tag before the
 * closing '>', which completes a declaration. Returns 0; write errors are not looked at here, the
 * caller asks ferror(). */
ZQ_API int zq_xml_output(zqxml *zqxml, FILE *out);

/* zq_xml_query_value returns a terminated copy of the value found as zq_xml_query_value_const()
 * does, which the caller frees with zq_free(); an empty string for a node without a value. Null
 * when nothing matches, or when out of memory, which is logged. */
ZQ_API char *zq_xml_query_value(zqxml *zqxml, ...) ZQ_SENTINEL;

/* zq_xml_query_value_const finds the value of the node at a path: const char * tag names from the
 * top level downwards, compared in full and in case, closed by a null pointer. A name ending in '#'
 * is followed by an unsigned int n and selects the n-th node of that name, counted from 0, instead
 * of the first:
 *
 *     zq_xml_query_value_const(zqxml, &value, &len, "x", "y#", 1u, (char *)NULL);
 *
 * An empty path selects the first top-level node, which must exist. Returns 0 with *valueptr
 * pointing to *valuelenptr bytes inside the document, not terminated and valid until the next parse
 * or the destruction; null and 0 for a node without a value. Returns -1, with null and 0 and
 * nothing logged, when nothing matches. */
ZQ_API int zq_xml_query_value_const(zqxml *zqxml, const char **valueptr, size_t *valuelenptr,
                                    ...) ZQ_SENTINEL;

ZQ_END_DECLS

#endif
