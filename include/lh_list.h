/**
 * @file lh_list.h
 * A circular doubly linked list that owns copies of its elements' data.
 */
#ifndef LH_LIST_H
#define LH_LIST_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The head of a list. The caller starts an empty list by pointing both fields at the head. */
typedef struct lh_list {
    struct lh_list *next; /**< first node, or the head itself */
    struct lh_list *prev; /**< last node, or the head itself */
} lh_list;

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
