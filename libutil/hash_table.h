/* Chained hash table with a fixed number of buckets, in three flavours:
 *  - string keys (vd_hash_create): the table keeps its own copy of each key
 *    but does NOT own the values;
 *  - 64-bit keys (vd_hash_create_uint64): the table OWNS the values and
 *    free()s them on delete and destroy (store only malloc'ed pointers);
 *  - 64-bit keys with the value inside the entry (vd_hash_create_uint64_val).
 *
 * Duplicates are not checked: a second insert of a key adds a second entry,
 * found first by search; deleting it uncovers the older one.
 * vd_hash_count reports the number of inserts made: deletes do not lower it.
 * No locking inside: callers serialise all calls on one table (a search may
 * reorder a chain when VD_HASH_MOVE_TO_FRONT is set).
 * Failures are logged through __kxfs_logfn at level 3.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vd_hash vd_hash_t;

#define VD_HASH_MOVE_TO_FRONT 0x1 /* move a found entry to its chain's head */

/* Null on allocation failure or a bucket count of 0 (errno ENOMEM/EINVAL). */
vd_hash_t *vd_hash_create(uint32_t buckets);
vd_hash_t *vd_hash_create_uint64(uint32_t buckets);
vd_hash_t *vd_hash_create_uint64_val(uint32_t buckets, uint32_t value_size);

/* Set the table's flags (0 at creation). */
void vd_hash_set_flags(vd_hash_t *table, uint16_t flags);

/* Insert: pointer to the new entry's value slot (valid until the entry is
 * deleted), or null on failure. */
void **vd_hash_insert(vd_hash_t *table, const char *name, void *value);
void **vd_hash_insert_uint64(vd_hash_t *table, uint64_t key, void *value);
/* Pointer to the entry's value_size zeroed bytes, or null. */
void *vd_hash_insert_uint64_val(vd_hash_t *table, uint64_t key);

/* The stored value, or null when absent. */
void *vd_hash_search(vd_hash_t *table, const char *name);
void *vd_hash_search_uint64(vd_hash_t *table, uint64_t key);
/* Pointer to the inline value, or null when absent. */
void *vd_hash_search_uint64_val(vd_hash_t *table, uint64_t key);

/* 0 when an entry was removed, 1 when none matched. */
int vd_hash_delete(vd_hash_t *table, const char *name);
int vd_hash_delete_uint64(vd_hash_t *table, uint64_t key);
int vd_hash_delete_uint64_val(vd_hash_t *table, uint64_t key);

/* callback(arg, key, value) for every entry: buckets in index order, each
 * chain from head to tail. `value` points to the entry's value: the inline
 * bytes (type 3) or the slot holding the stored pointer (the other flavours).
 * `key` is the 64-bit key, or for string keys the address of the table's copy
 * of the name. The callback may delete the entry it was given, nothing else. */
typedef void (*vd_hash_iter_fn)(void *arg, uint64_t key, void *value);
void vd_hash_iterate_uint64_val(vd_hash_t *table, void *arg, vd_hash_iter_fn callback);

uint32_t vd_hash_count(const vd_hash_t *table);
/* Logs "<n> buckets, min <a>, max <b>, avg <c>" at level 1. */
void vd_hash_info(const vd_hash_t *table);
/* Destroys every entry (and, for 64-bit keys, every value); null is ignored. */
void vd_hash_destroy(vd_hash_t *table);

/* h = h * 65599 + (signed char)c over the string; "" hashes to 0. */
uint32_t vd_name_hash(const char *name);
/* Low 32 bits of *key XOR its high 32 bits. */
uint32_t uint64_hash(const uint64_t *key);

#ifdef __cplusplus
}
#endif
