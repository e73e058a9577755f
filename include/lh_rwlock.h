/**
 * @file lh_rwlock.h
 * POSIX read-write locks whose error codes become log lines.
 *
 * The lock is the caller's own `pthread_rwlock_t`. Results are 0 and -1; the two trylock functions
 * also answer 1 for "busy", silently. Three results are surprising and deliberate: a write lock that
 * fails with EINVAL or EDEADLK, and an unlock that fails with EPERM, write their line and report
 * success (0). Daemons count on going on after them.
 *
 * In a log line `rc` and the words in brackets are the error code and its `strerror`. The codes come
 * as results of the `pthread_rwlock_*` calls; `errno` is not touched. `lock` may be in memory that
 * processes share, when its attributes say so.
 *
 * In the strict C modes (-std=c11) define _POSIX_C_SOURCE as 200809L, or include this header first:
 * otherwise the C library hides pthread_rwlock_t, and nothing is declared here.
 */
#ifndef LH_RWLOCK_H
#define LH_RWLOCK_H

/* Strict C modes show pthread_rwlock_t only on request, which must come before the first system
   header. Where another one came first, the functions stay undeclared. */
#if defined(__STRICT_ANSI__) && !defined(_POSIX_C_SOURCE) && !defined(_XOPEN_SOURCE) &&            \
    !defined(_DEFAULT_SOURCE) && !defined(_GNU_SOURCE)
#define _POSIX_C_SOURCE 200809L
#endif
#include <pthread.h>
#ifdef PTHREAD_RWLOCK_INITIALIZER

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Initialise a lock.
 *
 * @param lock the lock; null is logged. It must not be initialised already.
 * @param attr its attributes, null for the defaults; stays the caller's.
 * @return 0, or -1.
 * @errno  kept.
 * @log    `PTR_IS_NULL: lock`; `cannot initialize rwlock: %d (%s)`.
 * @blocking never.
 * @threads one at a time per lock.
 */
int lh_rwlock_init(pthread_rwlock_t *lock, const pthread_rwlockattr_t *attr);

/**
 * Destroy a lock. Nobody may hold it or wait for it.
 *
 * @param lock the lock; null is logged. Its memory stays the caller's.
 * @return 0, or -1.
 * @errno  kept.
 * @log    `PTR_IS_NULL: lock`; `cannot destroy rwlock: %d (%s)`.
 * @blocking never.
 * @threads one at a time per lock.
 */
int lh_rwlock_destroy(pthread_rwlock_t *lock);

/**
 * Take a lock for reading, together with other readers.
 *
 * @param lock the lock; null is logged.
 * @return 0 when it was taken, else -1.
 * @errno  kept.
 * @log    `PTR_IS_NULL: lock`;
 *         EAGAIN: `maximum number of read locks for rwlock has been exceeded`;
 *         EINVAL: `rwlock not initialized`;
 *         EDEADLK: `rwlock is already locked for writing` (by this thread);
 *         another code: `rwlock cannot be locked, rc: %d (%s)`.
 * @blocking while a writer holds the lock.
 * @threads any.
 */
int lh_rwlock_read_lock(pthread_rwlock_t *lock);

/**
 * Take a lock for reading if that is possible at once.
 *
 * @param lock the lock; null is logged.
 * @return 0 when it was taken; 1 when a writer holds it, without a line; else -1.
 * @errno  kept.
 * @log    as lh_rwlock_read_lock().
 * @blocking never.
 * @threads any.
 * @note A thread that holds the lock for writing gets 1, not -1.
 */
int lh_rwlock_read_trylock(pthread_rwlock_t *lock);

/**
 * Take a lock for writing, alone.
 *
 * @param lock the lock; null is logged.
 * @return 0 when it was taken, and for EINVAL and EDEADLK too; else -1.
 * @errno  kept.
 * @log    `PTR_IS_NULL: lock`;
 *         EINVAL: `rwlock not initialized`;
 *         EDEADLK: `rwlock is already locked for writing` (by this thread);
 *         another code: `rwlock cannot be locked, rc: %d (%s)`.
 * @blocking while anybody else holds the lock, and for ever when this thread holds it for reading.
 * @threads any.
 * @note Deliberate: EINVAL and EDEADLK give 0 after their line. After EDEADLK the thread holds the
 *       lock once, not twice: one unlock releases it.
 */
int lh_rwlock_write_lock(pthread_rwlock_t *lock);

/**
 * Take a lock for writing if that is possible at once.
 *
 * @param lock the lock; null is logged.
 * @return 0 when it was taken; 1 when anybody holds it, without a line; else -1.
 * @errno  kept.
 * @log    `PTR_IS_NULL: lock`;
 *         EDEADLK: `deadlock was detected`;
 *         another code, EINVAL too: `rwlock cannot be locked, rc: %d (%s)`.
 * @blocking never.
 * @threads any.
 */
int lh_rwlock_write_trylock(pthread_rwlock_t *lock);

/**
 * Give a lock back, whichever way it was taken.
 *
 * @param lock the lock; null is logged.
 * @return 0 when it was given back, and for EPERM too; else -1.
 * @errno  kept.
 * @log    `PTR_IS_NULL: lock`;
 *         EPERM: `rwlock not owned`;
 *         EINVAL: `rwlock not initialized`;
 *         another code: `rwlock cannot be unlocked, rc: %d (%s)`.
 * @blocking never.
 * @threads the one that took it.
 * @note Deliberate: EPERM gives 0 after its line.
 */
int lh_rwlock_unlock(pthread_rwlock_t *lock);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* PTHREAD_RWLOCK_INITIALIZER */

#endif
