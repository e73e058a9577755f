/**
 * @file lh_reload_reason.h
 * Recording why a reload is made.
 */
#ifndef LH_RELOAD_REASON_H
#define LH_RELOAD_REASON_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Write the reason of a reload to a file of mode 0600, replacing what it held: one line without a
 * newline, at most 511 characters.
 *
 * @param reload_reason the reason, cut at 511 characters. Null is logged, and the text is "Unknown:
 *                      reload reason is not specified" without a time.
 * @param path          the file; a longer path than 4095 characters is cut there. Null stands for
 *                      "/tmp/%d" with the pid of lh_process_self_pid_get().
 * @param add_time      append the local time as " at %d.%m.%Y %H:%M:%S" (day.month.year). It is left
 *                      out when it does not fit as a whole: it takes 23 characters.
 * @return 0, also for a null reason; -1 when the file could not be created or written.
 * @errno  of the failing call.
 * @log    `PTR_IS_NULL: reload_reason`; `lh_file_write failed` (deliberately the same words for
 *         both) after a line of lh_file_create() when the file could not be created, after one of
 *         lh_file_write() when it could not be written. An empty reason without a time leaves an
 *         empty file, with the IS_EQ line of lh_file_write().
 * @blocking on the file system.
 * @threads any.
 * @note **The default path is predictable and under /tmp**: somebody else on the box may have put a
 *       link there, which is followed, or a file with a mode of his own, which is kept. Give a path
 *       in a directory that only the daemon may write where that matters.
 * @note A file that was created stays behind, empty, when writing fails. A disk that is full, or
 *       fails when the file is closed, is not noticed: 0 with an empty file.
 */
int lh_reload_reason_write(const char *reload_reason, const char *path, bool add_time);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
