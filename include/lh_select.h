/**
 * @file lh_select.h
 * What is in a descriptor set of `select`, as text and as a number.
 *
 * The functions look at descriptors 0 to `nfds` - 1, at none when `nfds` is 0 or negative. `nfds`
 * may be above FD_SETSIZE for a set that is as large: bit i of the set's 64-bit word i / 64 stands
 * for descriptor i, and all words up to that of descriptor `nfds` - 1 are read.
 */
#ifndef LH_SELECT_H
#define LH_SELECT_H

#include <sys/select.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * The members of a set as text: each number in ascending order and followed by one blank, the last
 * one too (`3 5 `).
 *
 * @param fdset the set; null is logged.
 * @param nfds  how many descriptors to look at.
 * @return a new string, the caller's (release it with `free`); `(null) `, with its blank, when no
 *         descriptor is a member; null when `fdset` is null or there is no memory.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: fdset`; without memory the line of lh_str_add().
 * @blocking no.
 * @threads any, while nobody changes the set.
 */
char *lh_select_fdset_strdup(const fd_set *fdset, int nfds);

/**
 * The number of members of a set.
 *
 * @param fdset the set; null is logged.
 * @param nfds  how many descriptors to look at.
 * @return the number; 0 when `fdset` is null.
 * @errno  kept.
 * @log    `PTR_IS_NULL: fdset`.
 * @blocking no.
 * @threads any, while nobody changes the set.
 */
int lh_select_fdset_fds_cnt_get(const fd_set *fdset, int nfds);

/**
 * Make the text of a set and release it again.
 *
 * @param fdset the set; null is logged.
 * @param nfds  how many descriptors to look at.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: fdset`; without memory the line of lh_str_add().
 * @blocking no.
 * @threads any, while nobody changes the set.
 * @note Deliberate: it writes the text nowhere. Daemons keep their calls of it; whoever wants the
 *       text uses lh_select_fdset_strdup().
 */
void lh_select_fdset_print(const fd_set *fdset, int nfds);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
