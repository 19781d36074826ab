#ifndef ZQ_ADT_ZQHASH_H
#define ZQ_ADT_ZQHASH_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* An intrusive hash table that never stops to rehash.
 *
 * The items are the caller's objects, each with a zqlistlink (zqlist.h) inside, at one offset that
 * is the same for all. Adding an item allocates nothing for it. The table owns the items it holds
 * and releases them through a callback; keys are whatever the callbacks make of the items.
 *
 * When the slots are 90 % full or only 10 % full, a second array of about four times or a quarter
 * of the slots is created, and from then on every add and remove moves one item over, and every
 * lookup the item it finds, until the old array is empty. A resize for which there is no memory is
 * put off; the table works on at its size.
 *
 * A table has no lock. A lookup, too, may move an item, so that even concurrent lookups must be
 * serialised by the caller. The callbacks must not call back into the table. */

ZQ_OBJECT(zqhash);

/* The hash of the key of `item`; the same for as long as the item is in a table. */
typedef unsigned long (*zq_hash_calc_callback)(const void *item, void *context);

/* 0 when the keys of `item1`, which the table holds, and `item2`, which is looked for, are equal.
 */
typedef int (*zq_hash_compare_callback)(const void *item1, const void *item2, void *context);

/* Releases `item` with everything it owns; it is no longer in the table. */
typedef void (*zq_hash_destroy_callback)(void *item, void *context);

/* zq_hash_create returns a new empty table, or null when out of memory.
 *
 * `linkoffset` is the offset in bytes of the zqlistlink in each item, as by offsetof(). `context`
 * is handed to the callbacks and may be null. Released with zq_hash_destroy(). */
ZQ_API zqhash *zq_hash_create(unsigned long linkoffset, zq_hash_calc_callback calchashcallback,
                              zq_hash_compare_callback comparecallback,
                              zq_hash_destroy_callback destroycallback, void *context);

/* zq_hash_create_from returns a new empty table with the link offset, callbacks and context of
 * `original`, or null when out of memory. The items of `original` are not copied. */
ZQ_API zqhash *zq_hash_create_from(const zqhash *original);

/* zq_hash_destroy destroys every item, then the table. */
ZQ_API void zq_hash_destroy(zqhash *zqhash);

/* zq_hash_clear destroys every item and takes the table back to its smallest size; when there is no
 * memory for the smaller array, it keeps its size. */
ZQ_API void zq_hash_clear(zqhash *zqhash);

/* zq_hash_add hands `item` to the table, which owns it from now on. An item with an equal key is
 * destroyed and so replaced. */
ZQ_API void zq_hash_add(zqhash *zqhash, void *item);

/* zq_hash_remove takes this very item out and gives it back to the caller; it is not destroyed.
 *
 * The item must be in the table, as found by zq_hash_lookup() with no other call in between: this
 * is not verified, and taking out an item that was not looked up first, or one that is not in the
 * table, can corrupt the table. */
ZQ_API void zq_hash_remove(zqhash *zqhash, void *item);

/* zq_hash_lookup returns the item whose key equals that of `searchitem`, or null.
 *
 * The search item need only be complete enough for the hash and compare callbacks; its link is not
 * touched. The item found is borrowed from the table. */
ZQ_API void *zq_hash_lookup(zqhash *zqhash, const void *searchitem);

/* zq_hash_enumerate_start returns the first item, in no particular order, or null when the table is
 * empty. */
ZQ_API void *zq_hash_enumerate_start(const zqhash *zqhash);

/* zq_hash_enumerate_next returns the item after `item`, which an enumeration returned, or null at
 * the end. Every item is seen once if the table is not used otherwise in between: adding, removing
 * and looking up may move items. */
ZQ_API void *zq_hash_enumerate_next(const zqhash *zqhash, const void *item);

/* zq_hash_debug_state tells how many items and slots the main array has, and the bigger or smaller
 * array that a resize in progress is filling; both counts of an array that does not exist are 0.
 * Pointers of counts that are not wanted may be null. */
ZQ_API void zq_hash_debug_state(const zqhash *zqhash, unsigned long *mainentries,
                                unsigned long *mainslots, unsigned long *biggerentries,
                                unsigned long *biggerslots, unsigned long *smallerentries,
                                unsigned long *smallerslots);

ZQ_END_DECLS

#endif
