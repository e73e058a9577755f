/**
 * @file lh_list.h
 * A circular doubly linked list that owns copies of its elements' data.
 *
 * The caller owns the head and starts an empty list by pointing both of its fields at it; there is
 * no function for that:
 *
 * @code
 * lh_list names = {&names, &names};
 * lh_list_add_tail(&names, "eth0", 5);                       // the list keeps its own copy
 * for (lh_list *link = names.next; link != &names; link = link->next)
 *     puts((const char *)((lh_list_node *)link)->data);
 * lh_list_free(&names);
 * @endcode
 *
 * The lists have no lock. A list that threads share is guarded by its owner, typically with
 * lh_rwlock.h: for reading around lh_list_contains(), lh_list_contains_ex(), lh_list_empty() and a
 * walk, for writing around everything else.
 *
 * No function checks the head for null, deliberately: a head is a variable, not an answer.
 */
#ifndef LH_LIST_H
#define LH_LIST_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The head of a list. The caller starts an empty list by pointing both fields at the head. */
typedef struct lh_list {
    struct lh_list *next; /**< first node, or the head itself */
    struct lh_list *prev; /**< last node, or the head itself */
} lh_list;

/** One node, for walking a list: a `next` that is not the head points at one of these. */
typedef struct lh_list_node {
    lh_list *next; /**< next node, or the head */
    lh_list *prev; /**< previous node, or the head */
    void *data;    /**< the node's own copy of the element, never null */
    size_t size;   /**< bytes of `data` */
} lh_list_node;

/**
 * Decides whether a node is the one that lh_list_contains_ex() looks for.
 *
 * @param data the node's data; it belongs to the node.
 * @param key  what the caller of lh_list_contains_ex() gave.
 * @param size bytes of `data`.
 * @return non-zero for a match. Only the low byte is looked at, so a `bool` or a byte does as well.
 */
typedef int (*lh_list_cmp)(const void *data, const void *key, size_t size);

/**
 * Put a copy of an element at the front.
 *
 * @param head the list; not checked for null.
 * @param data the element; stays the caller's. May be null when `size` is 0, else null is logged.
 * @param size its bytes; 0 adds a node with an empty block of data.
 * @return 1, or 0 with the list as it was.
 * @errno  ENOMEM when there is no memory.
 * @log    under the name `list_add`: `PTR_IS_NULL: data`;
 *         `Unable to allocate memory for new entry`;
 *         `Unable to allocate memory for new entry data`.
 * @blocking no.
 * @threads one at a time per list; guard a shared list.
 * @note Success is 1 here and failure 0, unlike in most families.
 */
int lh_list_add(lh_list *head, const void *data, size_t size);

/**
 * Put a copy of an element at the back.
 *
 * @param head the list; not checked for null.
 * @param data the element; stays the caller's. May be null when `size` is 0, else null is logged.
 * @param size its bytes; 0 adds a node with an empty block of data.
 * @return 1, or 0 with the list as it was.
 * @errno  ENOMEM when there is no memory.
 * @log    the lines of lh_list_add(), under the name `list_add` too.
 * @blocking no.
 * @threads one at a time per list; guard a shared list.
 */
int lh_list_add_tail(lh_list *head, const void *data, size_t size);

/**
 * Look for an element with a comparator of one's own, from the first node to the last.
 *
 * @param head the list; not checked for null.
 * @param key  handed to `cmp`; null is logged.
 * @param cmp  asked for each node until it answers non-zero; null is logged. It must not change the
 *             list.
 * @return the first non-zero answer's low byte, 1 to 255; 0 when no node matches.
 * @errno  as `cmp` left it.
 * @log    `PTR_IS_NULL: key`; `PTR_IS_NULL: cmp`.
 * @blocking in `cmp` only.
 * @threads guard a shared list, for reading at least.
 * @note An answer whose low byte is 0 (256, say) is no match.
 */
int lh_list_contains_ex(const lh_list *head, const void *key, lh_list_cmp cmp);

/**
 * Is there an element with these bytes?
 *
 * @param head the list; not checked for null.
 * @param key  the bytes to look for; null is logged.
 * @return 1 when some node's data equals the first `size` bytes of the key, else 0.
 * @errno  kept.
 * @log    `PTR_IS_NULL: key`.
 * @blocking no.
 * @threads guard a shared list, for reading at least.
 * @note The number of bytes compared is each *node's* size: the key must be as long as the longest
 *       element, else bytes past its end are read. A node of size 0 equals every key.
 */
int lh_list_contains(const lh_list *head, const void *key);

/**
 * Take the first element out of the list.
 *
 * @param head the list; not checked for null.
 * @return the element's data, the caller's now (release it with `free`); null when the list is
 *         empty. An element of size 0 gives a pointer to no bytes, to be released too.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads one at a time per list; guard a shared list.
 * @note The element's size is not handed out: read it from the node before, where it matters.
 */
void *lh_list_pop_front(lh_list *head);

/**
 * Take the last element out of the list.
 *
 * @param head the list; not checked for null.
 * @return as lh_list_pop_front().
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads one at a time per list; guard a shared list.
 */
void *lh_list_pop_back(lh_list *head);

/**
 * Is the list empty?
 *
 * @param head the list; not checked for null.
 * @return 1 when it is, else 0.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads guard a shared list, for reading at least.
 */
int lh_list_empty(const lh_list *head);

/**
 * Release every node with its data and leave the list empty.
 *
 * @param head the list; not checked for null. The head itself stays the caller's.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads one at a time per list; guard a shared list.
 */
void lh_list_free(lh_list *head);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
