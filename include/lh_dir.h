/**
 * @file lh_dir.h
 * Directories: walking a tree with a callback, its size and owner, creating and removing it.
 *
 * @code
 * static int count(const char *path, unsigned char type, void *cookie)
 * {
 *     ++*(int *)cookie;
 *     return 0;
 * }
 * ...
 * int number = 0;
 * lh_dir_lookup_opts opts = {.flags = LH_DIR_DESCEND | LH_DIR_CALLBACK, .callback = count};
 * lh_dir_lookup("/etc", &opts, &number);       // /etc itself is counted too, last
 * @endcode
 */
#ifndef LH_DIR_H
#define LH_DIR_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** What a walk does: the bits of @ref lh_dir_lookup_opts::flags. */
enum {
    /** Walk into subdirectories. Without it they are skipped: no callback, no removal for them.
     *  For lh_dir_create(): the normal creation. */
    LH_DIR_DESCEND = 0x01,
    /** Ignore failing callbacks and removals, silently. Together with LH_DIR_REMOVE a missing start
     *  directory is no error. */
    LH_DIR_KEEP_GOING = 0x02,
    /** Remove every entry after its callback, and the start directory last. */
    LH_DIR_REMOVE = 0x04,
    /** Call the callback for every entry, and for the start directory last. */
    LH_DIR_CALLBACK = 0x08
};

/**
 * Called for an entry of a walk.
 *
 * @param path   the entry's full path: the walked directory, a slash and the entry's name; for the
 *               start directory the path as it was given. It belongs to the walk and is freed when
 *               the callback has returned: copy it to keep it.
 * @param type   the entry's type as the directory listing gives it (`d_type`): 4 a directory, 8 a
 *               regular file, 10 a symbolic link, 0 when the file system does not say.
 * @param cookie the walk's `cookie`.
 * @return 0 for success; anything else is a failure and ends the walk, unless it keeps going.
 */
typedef int (*lh_dir_lookup_cb)(const char *path, unsigned char type, void *cookie);

/** How to walk. Zero it, then set `flags` and `callback`; its layout is part of the interface. One
 *  record must not be used by two walks at once. */
typedef struct lh_dir_lookup_opts {
    uint8_t flags;             /**< LH_DIR_... bits */
    uint16_t depth;            /**< nesting level: set it to 0; the walk raises and lowers it */
    lh_dir_lookup_cb callback; /**< for LH_DIR_CALLBACK; null: nothing is called */
} lh_dir_lookup_opts;

/**
 * Walk a directory: entries in the order of their names (`alphasort`), each one's contents before
 * itself, the directory last.
 *
 * @param path   the directory; null is logged.
 * @param opts   how; stays the caller's. Null is logged.
 * @param cookie handed to the callback; stays the caller's.
 * @return 0; -1 at the first failure, with what was done so far left done.
 * @errno  of the failing call, or as the failing callback left it; kept for a null argument.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: opts`; `directory '%s' not exist` (path);
 *         `cannot read directory '%s': %s` (directory, text of errno);
 *         `print file name error '%s/%s'` (directory, entry name) when there is no memory;
 *         `cannot execute requried action on file %s` (entry path) when its callback failed;
 *         `cannot execute remove action on file %s` (entry path);
 *         `cannot execute requried action with directory %s` and
 *         `cannot execute remove action with directory %s`, the same for a subdirectory;
 *         `failed to read '%s' directory` (subdirectory) after the lines of a subdirectory that could
 *         not be walked, once for each level up.
 * @blocking on the file system and in the callback.
 * @threads any; the tree should not change meanwhile.
 * @note The spelling "requried" is deliberate, and so is this: when the callback or the removal fails
 *       for the start directory, the line names no directory ("(null)").
 * @note A subdirectory that cannot be walked ends the walk even if it is to keep going, and `depth`
 *       stays raised then. A record whose `depth` is not 0 is walked without asking first whether the
 *       directory exists: a missing one is reported as one that cannot be read.
 * @note What the listing does not report as a directory is handled as a file: a link to a directory
 *       is not followed, and where the file system reports no types nothing is walked into.
 */
int lh_dir_lookup(const char *path, lh_dir_lookup_opts *opts, void *cookie);

/**
 * Can the path be opened as a directory?
 *
 * @param path the path; links are followed. Null is logged.
 * @return 1 or 0.
 * @errno  of `opendir`.
 * @log    `PTR_IS_NULL: path`.
 * @blocking on the file system.
 * @threads any.
 * @note A directory that the caller may not read counts as missing.
 */
int lh_dir_is_exist(const char *path);

/**
 * The callback of lh_dir_size(), for walks of your own: adds the size of an entry to a total.
 *
 * @param path   the entry; links are followed, a directory counts with its own size. Null is logged.
 * @param type   ignored.
 * @param cookie the running total, a `uint64_t`, in bytes; null is logged.
 * @return 0; -1 for a null argument. An entry without an answer adds 0.
 * @errno  of no meaning.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: cookie`; the lines of lh_file_size_get().
 * @blocking on the file system.
 * @threads any.
 */
int lh_dir_cb_size(const char *path, unsigned char type, void *cookie);

/**
 * The total size of a tree: of every entry at any depth, directories and the start included.
 *
 * @param path the directory; null is logged.
 * @return the total in bytes; all ones (`(size_t)-1`) when the tree cannot be walked.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path`; the lines of lh_file_size_get(); the lines of lh_dir_lookup() and
 *         then `lh_dir_size error`.
 * @blocking on the file system.
 * @threads any.
 * @note Links are followed: a link adds the size of what it leads to.
 */
size_t lh_dir_size(const char *path);

/**
 * Change the owner and group of everything in a tree, the start directory last.
 *
 * @param path the directory; null is logged.
 * @param uid  the owner.
 * @param gid  the group.
 * @return 0, also when an entry's owner could not be changed; -1 when the tree cannot be walked.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path`; the lines of lh_dir_lookup() and then `lh_dir_chown_recursive error`.
 * @blocking on the file system.
 * @threads any.
 * @note Links are followed: what a link leads to changes its owner, wherever it is.
 */
int lh_dir_chown_recursive(const char *path, unsigned int uid, unsigned int gid);

/**
 * Create a directory and its missing parents.
 *
 * @param path the directory; null is logged.
 * @param opts only LH_DIR_DESCEND is looked at: set it. **Not checked for null.**
 * @param mode permissions of every directory that is created, less the umask.
 * @return 0, also when the directory was there already; else -1, with the parents that were made left
 *         in place.
 * @errno  of the failing call; ENOTDIR when something else has the name of a directory; kept for a
 *         null argument, and when a directory that was created counts as a failure.
 * @log    `PTR_IS_NULL: path`; `PTR_IS_NULL: buf` when there is no memory; `cannot create '%s': %s`
 *         (path, text of errno).
 * @blocking on the file system.
 * @threads any; it does not matter who else creates the same directories.
 * @note Deliberate: without LH_DIR_DESCEND a directory whose parents exist is created and then
 *       **reported as failed** (-1 and the `cannot create` line with whatever errno held), unless
 *       errno held EEXIST before the call. Where that first attempt fails, the call goes on as with
 *       LH_DIR_DESCEND.
 */
int lh_dir_create(const char *path, const lh_dir_lookup_opts *opts, mode_t mode);

/**
 * The space left to unprivileged users on a file system.
 *
 * @param path anything on the file system; null is logged.
 * @return bytes (`f_bsize` times `f_bavail` of `statvfs`); all ones (`UINT64_MAX`) on failure.
 * @errno  of `statvfs`.
 * @log    `PTR_IS_NULL: path`; nothing when `statvfs` fails.
 * @blocking on the file system.
 * @threads any.
 */
uint64_t lh_get_free_fs_size(const char *path);

/**
 * Remove a directory and everything below it (or a single file).
 *
 * @param path what to remove; null is logged.
 * @return 0; -1 at the first failure, with what was removed so far gone. A missing path gives -1
 *         without a line.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path`; in the name of `remove_dir`: `cannot remove '%s': %s` (entry, text of
 *         errno) or `PTR_IS_NULL: fpath`, `PTR_IS_NULL: sb`, `PTR_IS_NULL: ftwbuf`.
 * @blocking on the file system.
 * @threads any; uses up to 16 descriptors meanwhile.
 * @note **Links are followed**: what is in a directory that a link leads to is removed too. A
 *       directory that is reached twice, because a link in the tree leads to another part of it or
 *       back to its start, is handled only once: something may be left then, and the result is
 *       mostly -1.
 */
int lh_dir_rm(const char *path);

/**
 * Remove everything below a directory and keep the directory.
 *
 * @param path the directory; null is logged.
 * @return 0; -1 at the first failure, with what was removed so far gone. A missing path gives -1
 *         without a line.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path`; in the name of `remove_file`: `cannot remove '%s': %s` (entry, text of
 *         errno) or `PTR_IS_NULL: fpath`, `PTR_IS_NULL: sb`, `PTR_IS_NULL: ftwbuf`.
 * @blocking on the file system.
 * @threads any; uses up to 16 descriptors meanwhile.
 * @note **Links are followed**, as in lh_dir_rm(); with a link that leads to another part of the tree
 *       or back to its start something may be left, even with the result 0.
 */
int lh_dir_clear(const char *path);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
