/* Ordered index container: objects held by pointer, in the order of a comparison function.
 *
 * The caller owns the objects; the container only links them. One thread uses a set at a time. No
 * procedure blocks. */
#ifndef RUMA_ORDSET_H
#define RUMA_ORDSET_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A set. All-zero bytes are an empty set, into which nothing can be inserted before
 * ordset_create. */
struct ordset {
    void *tree; /* the container's own */
};

/* Orders two keys or objects: negative, zero or positive as `a` comes before, with or after `b`. */
typedef int (*ordset_compare)(const void *a, const void *b);

/* Makes `set` an empty set ordered by `compare`, giving up whatever it held before (the objects
 * themselves are left alone). `kind`, `keys` and `flags` are 1 in every use. Returns 0, or -1 when
 * there is no memory; the set is then empty and every insertion fails. */
int ordset_create(struct ordset *set, int kind, int keys, ordset_compare compare, int flags);

/* Inserts `object` under `key`. Returns `object`; the object already there when one compares equal
 * to `key` (nothing is inserted); NULL when there is no memory, or no more room than the platform
 * grants (the host platform: `[agent] max_rows` objects in each set). */
void *ordset_add(struct ordset *set, const void *key, void *object);

/* Returns the object that compares equal to `key`, or NULL. `flags` is 0. */
void *ordset_find(const struct ordset *set, const void *key, int flags);

/* Returns the first object greater than `key`, or NULL. */
void *ordset_find_nextgreater(const struct ordset *set, const void *key);

/* Returns the `n`th object in order, counting from 1, or NULL. */
void *ordset_find_nth_obj(const struct ordset *set, uint32_t n);

/* Unlinks and returns the object that compares equal to `key`, or NULL. */
void *ordset_remove(struct ordset *set, const void *key);

/* Returns the number of objects. */
uint32_t ordset_size(const struct ordset *set);

#ifdef __cplusplus
}
#endif

#endif
