/**
 * @file lh_close.h
 * Closing a descriptor once.
 */
#ifndef LH_CLOSE_H
#define LH_CLOSE_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Close a descriptor and mark it as closed.
 *
 * @param fd where the descriptor stands, -1 meaning "closed already"; set to -1 after a successful
 *           close and left as it is otherwise. Null is logged.
 * @return 0 when it was closed now, else -1.
 * @errno  of `close` when that failed.
 * @log    `PTR_IS_NULL: fd`; `IS_EQ check failed: -1 (-1 == -1) !!!` when it was closed already;
 *         `close(*fd) failed`.
 * @blocking as `close` does.
 * @threads any, for descriptors of different places.
 * @note Closing twice is reported as an error, deliberately. Any other negative number goes to
 *       `close` as it is.
 */
int lh_close(int *fd);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
