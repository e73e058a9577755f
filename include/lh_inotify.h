/**
 * @file lh_inotify.h
 * Following files that may not exist yet, may be replaced, and whose directory may vanish.
 *
 * A watcher owns one inotify descriptor. Every followed file is watched directly while it is there
 * and through its directory while it is not; a small state machine per file moves between the two.
 * The daemon polls the watcher's descriptor, calls lh_inotify_process() whenever it is readable, and
 * is told of changes through a callback per file:
 *
 * @code
 * lh_inotify *watcher = lh_inotify_create();
 * lh_inotify_include_file(watcher, "/run/mydaemon", "peers", 0, on_peers_changed, &daemon);
 * lh_poll_ctx_fd_add(&ctx, "files", lh_inotify_get_fd(watcher), on_readable, watcher);
 * lh_inotify_process(watcher);                               // arms the watches
 * @endcode
 *
 * A watcher and its files belong to one thread. Debug lines are written while the debug flag
 * "INOTIFY_DBG" (flag 0 of subsystem 99) is on.
 *
 * What a daemon author should know:
 * - Whoever writes a followed file should write it aside and rename it into place: an in-place
 *   writer is reported after its first `write`, when the file is half written.
 * - A file that is unlinked while somebody still has it open gives no event until it is closed. The
 *   next pass notices all the same that the path is gone, but only an event makes the descriptor
 *   readable.
 * - When the kernel's event queue overflows, events are lost, and what was still to be done for a
 *   file without a watch (its directory is missing, or its first pass is still to come) is forgotten.
 *   Call lh_inotify_restart() when in doubt: the pass after it looks at every file again.
 * - The descriptor is not close-on-exec, and a forked child shares it: a child that reads from it
 *   takes its parent's events away.
 */
#ifndef LH_INOTIFY_H
#define LH_INOTIFY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A watcher. */
typedef struct lh_inotify lh_inotify;

/** Called at the end of a file's turn in lh_inotify_process() when the file is new, changed or gone,
 *  with the argument given at inclusion; the result is ignored. It looks at the file itself, or
 *  notes that it must be read again. It must not include or exclude files of the same watcher. */
typedef void (*lh_inotify_cb)(void *arg);

/** Flag of lh_inotify_include_file(): create the parent directory, with its parents and mode 0777,
 *  whenever it is missing. */
#define LH_INOTIFY_CREATE_DIR 0x1u

/**
 * Make a watcher that follows nothing yet.
 *
 * @return the watcher, released with lh_inotify_free(); null on failure.
 * @errno  of the failing call.
 * @log    debug lines `malloc failed: %s`, `inotify_init1 failed: %s` (strerror).
 * @blocking no.
 * @threads any; the watcher then belongs to one thread.
 */
lh_inotify *lh_inotify_create(void);

/**
 * Release a watcher: forget its files, drop their watches, close its descriptor.
 *
 * @param ptr where the pointer to the watcher stands; it is set to null. A null pointer in it does
 *            nothing; a null `ptr` is logged.
 * @errno  of no meaning.
 * @log    `PTR_IS_NULL: ptr`.
 * @blocking no.
 * @threads the watcher's.
 * @note Take the descriptor out of the poll loop first.
 */
void lh_inotify_free(lh_inotify **ptr);

/**
 * The descriptor to poll for reading.
 *
 * @param ptr the watcher; null is logged.
 * @return the descriptor, which stays the watcher's; -1 for a null watcher and after a failed
 *         restart.
 * @errno  kept.
 * @log    `PTR_IS_NULL: ptr`.
 * @blocking no.
 * @threads the watcher's.
 */
int lh_inotify_get_fd(lh_inotify *ptr);

/**
 * Start over on a new descriptor: all watches are dropped, the files stay, and the next
 * lh_inotify_process() arms every watch again and looks at every file.
 *
 * @param ptr the watcher; null is logged.
 * @return the new descriptor, to be polled instead of the old one, which is closed (take that out of
 *         the poll loop before this call); -1 on failure, after which the watcher has none.
 * @errno  of `inotify_init1`.
 * @log    `PTR_IS_NULL: ptr`; debug line `inotify_init1 failed: %s`.
 * @blocking no.
 * @threads the watcher's.
 * @note Follow it with lh_inotify_process(): until then nothing is watched. Every file that is there
 *       is then reported as changed once.
 */
int lh_inotify_restart(lh_inotify *ptr);

/**
 * Follow a file, which may not exist yet.
 *
 * @param ptr          the watcher; null is logged.
 * @param parent_dir   the file's directory; copied, and never normalised: "/run" and "/run/" are
 *                     different directories to this watcher. Null is logged.
 * @param file_name    the file's name in it; copied; null is logged.
 * @param flags        0 or LH_INOTIFY_CREATE_DIR; other bits are ignored.
 * @param callback     called when the file is new, changed or gone; may be null.
 * @param callback_arg handed to it; stays the caller's.
 * @return 0, or -1.
 * @errno  EEXIST, without a line, when this directory and name are followed already; else of the
 *         failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: ptr`, `PTR_IS_NULL: parent_dir` or `PTR_IS_NULL: file_name`;
 *         `PTR_IS_NULL: file->parent_dir` (function `create_file`) when there is no memory for it.
 *         Debug lines of `create_file`, with line number: `malloc failed: %s`,
 *         `state %s to %s (%s)`.
 * @blocking on the file system (a `stat`).
 * @threads the watcher's; not from a callback.
 * @note No watch is armed here: the next lh_inotify_process() does it. A file that is there already
 *       is reported as changed by that pass.
 * @note Of one name under two spellings of the same directory, only the one included first is told
 *       that the file appears.
 */
int lh_inotify_include_file(lh_inotify *ptr, const char *parent_dir, const char *file_name,
                            uint32_t flags, lh_inotify_cb callback, void *callback_arg);

/**
 * Stop following a file.
 *
 * @param ptr        the watcher; null is logged.
 * @param parent_dir the directory, spelled as it was included; null is logged.
 * @param file_name  the name; null is logged.
 * @return 0, also when the file was not followed; -1 for a null argument.
 * @errno  of no meaning.
 * @log    `PTR_IS_NULL: ptr`, `PTR_IS_NULL: parent_dir` or `PTR_IS_NULL: file_name`.
 * @blocking no.
 * @threads the watcher's; not from a callback.
 * @note A directory watch that another followed file uses stays armed for it.
 */
int lh_inotify_exclude_file(lh_inotify *ptr, const char *parent_dir, const char *file_name);

/**
 * One pass: notice replaced files and directories, read the waiting events, move every file's watch
 * to where it belongs, and call the callbacks of the files that are new, changed or gone.
 *
 * @param ptr the watcher; null is logged.
 * @return 0, or -1 when the descriptor could not be read; no file had its turn then.
 * @errno  EIO when reading failed. A pass that returns 0 leaves EPERM there when the last thing that
 *         it did was to fail at creating a directory, EACCES when it was to be refused a watch.
 * @log    `PTR_IS_NULL: ptr`; `IS_NE check failed: file->watch_fd (%ld != %ld) !!!` (function
 *         `create_watch_fd`); the lines of lh_dir_create() when a directory is to be created.
 *         Debug lines: `read failed: %s`, `unexpected events in mask 0x%x`,
 *         `inode has changed (%s)`, `invalid state %s`, `lh_dir_create failed`,
 *         `got EACCES, '%s' mode is %o`, `lh_file_get_mode failed %s`,
 *         `create_watch_fd failed: %s`, `can't do state transition`, `state %s to %s (%s)`.
 * @blocking does not wait for events. Arming a watch that fails is tried again every quarter of a
 *         second, for about half a second for a file and two seconds for a directory, for each file
 *         concerned. A file that is there but may not be watched (its mode, or the limit on watches)
 *         is tried fifty times over, about 25 seconds, by this pass and by every later one until it
 *         may; the debug line is `can't do state transition`. At most 100 buffers of events are
 *         read; the rest waits for the next pass.
 * @threads the watcher's.
 * @note A file whose directory is missing, and not to be created, is tried again by every later
 *       pass; nothing makes the descriptor readable when the directory appears, so such a daemon
 *       calls this from a timer, too.
 * @note A file that appears in its watched directory is reported by that pass and once more by
 *       the next one. Deliberate: it serves the daemon that read the file while it was being filled.
 * @note A file that came and went again before a pass is looked for by that pass and every later
 *       one, for half a second each, until it is there; where no other file shares its directory's
 *       watch, the descriptor stays readable all the while. lh_inotify_restart() ends it.
 * @note A removal is not reported when the pass just before reported one for this file, nor by the
 *       file's first pass.
 */
int lh_inotify_process(lh_inotify *ptr);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
