/**
 * @file lh_file.h
 * Files: questions about a path, whole files, lines, creating and copying.
 *
 * All functions are stateless. A call that blocks "as `fopen` does" blocks on the
 * file system, and for as long as it takes when the path is a FIFO or a device.
 */
#ifndef LH_FILE_H
#define LH_FILE_H

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Questions about a path ------------------------------------------------------------------------ */

/**
 * Is there something at this path?
 *
 * @param path the path; links are followed. Null is logged.
 * @return 1 when `access(path, F_OK)` succeeds, else 0.
 * @errno  of `access`.
 * @log    `PTR_IS_NULL: path`; nothing when the file is absent.
 * @blocking on the file system.
 * @threads any.
 */
int lh_file_is_exist(const char *path);

/**
 * Is the path a directory?
 *
 * @param path the path; links are followed. Null is logged.
 * @return 1 when it is, 0 when it is not or could not be looked at.
 * @errno  of `stat`.
 * @log    in the name of `lh_file_mode`: `PTR_IS_NULL: path`; `stat '%s' failed` (path).
 * @blocking on the file system.
 * @threads any.
 */
int lh_file_is_dir(const char *path);

/**
 * Is the path a symbolic link? The answer is always 0.
 *
 * @param path the path; links are followed. Null is logged.
 * @return 0.
 * @errno  of `stat`.
 * @log    in the name of `lh_file_mode`: `PTR_IS_NULL: path`; `stat '%s' failed` (path).
 * @blocking on the file system.
 * @threads any.
 * @note Deliberate: what a link leads to is asked, so not even a link is one, and a dangling link is
 *       logged. Whoever must tell links apart calls `lstat`.
 */
int lh_file_is_lnk(const char *path);

/**
 * Is the path a regular file?
 *
 * @param path the path; links are followed. Null is logged.
 * @return 1 when it is, 0 when it is not or could not be looked at.
 * @errno  of `stat`.
 * @log    in the name of `lh_file_mode`: `PTR_IS_NULL: path`; `stat '%s' failed` (path).
 * @blocking on the file system.
 * @threads any.
 */
int lh_file_is_reg(const char *path);

/**
 * Is the file there and without data?
 *
 * @param path the path; links are followed. Null is logged.
 * @return 1 when its size is 0; 0 when it has data or could not be looked at.
 * @errno  of `stat`.
 * @log    `PTR_IS_NULL: path`; `stat '%s' failed` (path).
 * @blocking on the file system.
 * @threads any.
 * @note A missing file is not an empty one: the answer is 0.
 */
int lh_file_is_empty(const char *path);

/**
 * The size of a file.
 *
 * @param path the path; links are followed. Null is logged.
 * @return its size in bytes; 0 for an empty file, for an absent one and on failure.
 * @errno  of `access` or `stat`.
 * @log    in the name of `lh_file_is_exist`: `PTR_IS_NULL: path`; in its own: `stat '%s' failed`
 *         (path) when the file is there but cannot be looked at; nothing when it is absent.
 * @blocking on the file system.
 * @threads any.
 */
size_t lh_file_size_get(const char *path);

/**
 * The inode number of a file, cut to 32 bits.
 *
 * @param path the path; links are followed. **Not checked for null.**
 * @return the low 32 bits of its inode number; 0 when it could not be looked at.
 * @errno  of `stat`.
 * @log    nothing.
 * @blocking on the file system.
 * @threads any.
 * @note Where inode numbers are longer, two files can have the same low 32 bits.
 */
unsigned int lh_file_get_inode(const char *path);

/**
 * The mode of a file: its type and permissions, as in `st_mode`.
 *
 * @param path the path; links are followed. **Not checked for null.**
 * @return the mode; 0 when it could not be looked at.
 * @errno  of `stat`.
 * @log    nothing.
 * @blocking on the file system.
 * @threads any.
 */
unsigned int lh_file_get_mode(const char *path);

/* Whole files ----------------------------------------------------------------------------------- */

/**
 * Read a whole file into fresh memory, with a NUL behind it.
 *
 * @param path      the file; null is logged.
 * @param text      where the pointer to the contents goes; the caller frees it with `free`. Null is
 *                  logged.
 * @param text_size where the file's size in bytes plus one (for the NUL) goes; null is logged.
 * @return 0, or -1. An empty or absent file is a failure.
 * @errno  of the failing call; kept for a null argument; of no meaning when the file is empty, or
 *         shrank before it was read.
 * @log    `PTR_IS_NULL: path`, `PTR_IS_NULL: text` or `PTR_IS_NULL: text_size`;
 *         `file '%s' is empty` (path) when its size is 0 or it is absent or cannot be looked at, in
 *         the last case after the line of lh_file_size_get();
 *         `PTR_IS_NULL: f` and `fopen '%s' failed (%d)'%s'` (path, errno and its text);
 *         `PTR_IS_NULL: *text` when there is no memory;
 *         `fread '%s' failed (%d)'%s'` (path, errno and its text).
 * @blocking as `fopen` does.
 * @threads any.
 * @note The size is asked once: a file that shrinks meanwhile is a failure, one that grows is cut.
 *       Bytes that are NUL are kept. After a failure `*text` must not be used: it is untouched up to
 *       `PTR_IS_NULL: f`, null after `PTR_IS_NULL: *text`, and already freed after the `fread` line.
 *       From the allocation on `*text_size` is set, on failures too.
 */
int lh_file_text_alloc(const char *path, char **text, size_t *text_size);

/**
 * Read the first line of a file, or the reason why it cannot be opened.
 *
 * @param path the file; **not checked for null**.
 * @param buf  where the line goes, NUL-terminated and without its newline; **not checked for null**.
 * @param size size of `buf` in bytes; at most `size - 1` bytes of the line are kept. With 0 the
 *             buffer is not written to.
 * @return 0 when the file could be opened (an empty file gives ""), else -1 with the C library's
 *         text for the error in `buf`.
 * @errno  of the failing `fopen`.
 * @log    nothing.
 * @blocking as `fopen` does.
 * @threads any.
 * @note Only the newline is removed: a "\r" before it stays.
 */
int lh_file_read_line(const char *path, char *buf, size_t size);

/**
 * Replace a file's contents. The file is created when it is absent.
 *
 * @param path the file; null is logged.
 * @param data the new contents; stays the caller's. Null is logged.
 * @param size their size in bytes; 0 is logged and **leaves the file as it is**.
 * @return 0, also when `size` is 0; else -1.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: data`; `IS_EQ check failed: 0 (0 == 0) !!!` when
 *         `size` is 0; `fopen '%s' failed: %s` (path, text of errno);
 *         `IS_NE check failed: nmemb (1 != 0) !!!` when writing failed.
 * @blocking as `fopen` does.
 * @threads any; two writers of one file race.
 * @note Deliberate: a failure that shows only when the file is closed is not noticed (a small
 *       contents on a full file system).
 */
int lh_file_write(const char *path, const void *data, size_t size);

/**
 * Read the first `size` bytes of a file.
 *
 * @param path the file; null is logged.
 * @param data where they go; null is logged.
 * @param size how many; 0 is logged and leaves the buffer as it is.
 * @return 0, also when `size` is 0; -1 on failure and when the file has fewer bytes.
 * @errno  of the failing call; kept for a null argument; of no meaning when the file is too short.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: data`; `IS_EQ check failed: 0 (0 == 0) !!!` when
 *         `size` is 0; `fopen '%s' failed: %s` (path, text of errno);
 *         `IS_NE check failed: nmemb (1 != 0) !!!` when fewer bytes could be read.
 * @blocking as `fopen` does.
 * @threads any.
 * @note When the file is too short, what there was stands in the buffer.
 */
int lh_file_read(const char *path, void *data, size_t size);

/**
 * Apply `scanf` to a file, from its start.
 *
 * @param path the file; null is logged.
 * @param fmt  the format; null is logged. Further arguments as for `scanf`.
 * @return how many items were assigned; -1 when the input ended before the first, when the file
 *         cannot be opened, and for a null argument.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: fmt`; `PTR_IS_NULL: f` when the file cannot be
 *         opened; `fclose(f) failed`, which does not change the result.
 * @blocking as `fopen` does.
 * @threads any.
 */
int lh_file_scanf(const char *path, const char *fmt, ...) __attribute__((format(scanf, 2, 3)));

/**
 * Remove a file.
 *
 * @param path the file (a link itself, not what it leads to); null is logged.
 * @return 0, or -1.
 * @errno  of `unlink`.
 * @log    `PTR_IS_NULL: path`.
 * @blocking on the file system.
 * @threads any.
 */
int lh_file_rm_nocheck(const char *path);

/**
 * Remove a file after asking whether it is there.
 *
 * @param path the file (a link itself, not what it leads to); null is logged.
 * @return 0, or -1; an absent file gives -1 without a line.
 * @errno  of `access` or `unlink`.
 * @log    `PTR_IS_NULL: path`.
 * @blocking on the file system.
 * @threads any.
 * @note A dangling link counts as absent and stays; lh_file_rm_nocheck() removes it.
 */
int lh_file_rm(const char *path);

/**
 * Turn a file's DOS line endings into Unix ones, in place, through the program `dos2unix`.
 *
 * @param path          the file; null is logged.
 * @param prepared_path the same name made safe for the shell (lh_shell_cmd.h); it is put into the
 *                      command as it is. At most 499 bytes. Null is logged.
 * @return 0, or -1.
 * @errno  of the failing call; kept for a null argument; of no meaning when `prepared_path` is too
 *         long or the command ended with another status than 0.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: prepared_path`; `IS_NOT: lh_file_is_exist(path)`;
 *         the line of _lh_snprintf() when `prepared_path` is too long; `system(cmd) failed` when the
 *         command could not be run or did not end with status 0.
 * @blocking until the command has ended.
 * @threads any.
 * @note The file is looked for under `path` and converted under `prepared_path`.
 */
int lh_file_convert_to_unix_format(const char *path, const char *prepared_path);

/* Lines ----------------------------------------------------------------------------------------- */

/**
 * Append formatted text to an existing file.
 *
 * @param path the file; it is never created. Null is logged.
 * @param fmt  `printf` format; end it with "\n" to append a line. Null is logged. Further arguments
 *             as for `printf`.
 * @return 0, or -1.
 * @errno  of the failing call; kept for a null argument; of no meaning for an empty text.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: fmt`; `IS_NOT: lh_file_is_exist(path)`;
 *         `IS_EQ check failed: -1 (-1 == -1) !!!` when the text could not be formatted;
 *         `PTR_IS_NULL: f` when the file cannot be opened; `IS_NE check failed: 1 (1 != 0) !!!` when
 *         it could not be written; `fclose(f) failed`, which does not change the result.
 * @blocking as `fopen` does.
 * @threads any.
 * @note An empty text is reported as one that could not be written, and gives -1.
 */
int lh_file_line_append(const char *path, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

/**
 * Count the lines of a file: its newlines plus one.
 *
 * @param path      the file; null is logged.
 * @param lines_num where the count goes; null is logged. Written only on success.
 * @return 0, or -1.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: lines_num`; `IS_NOT: lh_file_is_exist(path)`;
 *         `PTR_IS_NULL: f` when the file cannot be opened; `fclose(f) failed`, which does not change
 *         the result.
 * @blocking as `fopen` does.
 * @threads any.
 * @note Deliberate: the plus one holds also for a file that ends with a newline, so "a\nb\n" has 3
 *       lines and an empty file has 1. A read error ends the counting like the end of the file.
 */
int lh_file_lines_num_get(const char *path, size_t *lines_num);

/**
 * Copy one line of a file, without its newline.
 *
 * @param path      the file; null is logged.
 * @param line      where the line goes, NUL-terminated; null is logged.
 * @param line_size size of `line` in bytes.
 * @param num       which line, from 1; 0 is logged.
 * @return 0, or -1; a file with fewer lines gives -1 without a line of its own in the log.
 * @errno  of the failing call; kept for a null argument; of no meaning when there is no such line
 *         or it does not fit.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: line`; `IS_EQ check failed: 0 (0 == 0) !!!` when
 *         `num` is 0; `PTR_IS_NULL: f` when the file cannot be opened;
 *         `IS_MT check failed: len + 1 (%ld > %ld) !!!` (the line's length plus one, `line_size`)
 *         when it does not fit; `fclose(f) failed`, which does not change the result.
 * @blocking as `fopen` does.
 * @threads any.
 * @note Deliberate: lines longer than 1023 bytes are taken in pieces of 1023 bytes, and every piece
 *       counts as a line. A line that holds a NUL byte ends there.
 */
int lh_file_line_get_by_num(const char *path, char *line, long line_size, size_t num);

/**
 * Move an open stream past lines, in the way of `fscanf` with `"%*[^\n]\n"`: past the rest of a line
 * and then past all white space.
 *
 * @param f the stream; stays the caller's. Null is logged.
 * @param n how many lines.
 * @return 0, or -1 with the stream wherever the failing step left it.
 * @errno  of the failing call; kept for a null argument; of no meaning at the end of the stream.
 * @log    `PTR_IS_NULL: f`; `IS_EQ check failed: rc (-1 == -1) !!!` and `end of file reached`;
 *         `IS_NE check failed: rc (%ld != 0) !!!` and `fscanf failed: %s` (text of errno).
 * @blocking as reading the stream does.
 * @threads one at a time per stream.
 * @note Blank lines after a skipped line, and the leading blanks of the next line, are gone too. A
 *       stream that stands at an empty line does not move, and the round counts as a skipped line.
 */
int lh_file_skip_lines(FILE *f, unsigned int n);

/**
 * Read an open stream backwards, one line a call.
 *
 * Position the stream at its end (or wherever to start) and call until -1; the stream's position is
 * all that is kept between the calls:
 *
 * @code
 * fseek(file, 0, SEEK_END);
 * while ((length = lh_file_reverse_getline(&line, &size, file)) != -1)
 *     use(line, length);
 * free(line);
 * @endcode
 *
 * @param line in/out as for `getline`: a block of the C allocator, or null; grown as needed and
 *             owned by the caller. Null is logged.
 * @param size in/out as for `getline`: the block's size in bytes. Null is logged.
 * @param file the stream, which must be seekable; it stays the caller's and is left at the newline
 *             before the returned line, or at its start. Null is logged.
 * @return how many bytes were read: the line before the position, with its newline if it has one.
 *         1, with "" in the buffer, for the empty line behind a newline that ends the stream. -1 at
 *         the start of the stream and on failure.
 * @errno  of the failing call; kept for a null argument; of no meaning at the start of the stream,
 *         and when the file shrank meanwhile.
 * @log    `PTR_IS_NULL: line`, `PTR_IS_NULL: size` or `PTR_IS_NULL: file`; `ftell failed: %s`,
 *         `fseek failed: %s`, `fread failed: (%s)` and `getline failed: %s` (text of errno); nothing
 *         at the start of the stream.
 * @blocking as reading the stream does.
 * @threads one at a time per stream: a call moves the position many times.
 * @note The empty line behind the last newline is returned only into a fresh buffer or one whose
 *       first byte is NUL. With another line left in it the call fails with `getline failed`, so
 *       start every stream with a fresh or emptied buffer.
 * @note A line is read up to its newline even if the position was inside it. An empty first line of
 *       the stream is never returned. On failure the stream is wherever the failing step left it.
 */
ssize_t lh_file_reverse_getline(char **line, size_t *size, FILE *file);

/* Creating, permissions, copying ---------------------------------------------------------------- */

/**
 * Create an empty file, or empty an existing one.
 *
 * @param path the file; null is logged.
 * @param mode permissions of a new file, less the umask.
 * @return 0, or -1.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path`; `cannot open file '%s': %s` or `cannot close file '%s': %s` (path,
 *         text of errno).
 * @blocking as `open` does.
 * @threads any.
 */
int lh_file_create(const char *path, mode_t mode);

/**
 * Add permission bits to those that a file has.
 *
 * @param path the file; links are followed. Null is logged.
 * @param bits the bits to add, for example 0111.
 * @return 0, or -1.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path`; `cannot stat file '%s': %s` or `cannot chmod file '%s': %s` (path,
 *         text of errno).
 * @blocking on the file system.
 * @threads any.
 */
int lh_file_permissions_add(const char *path, mode_t bits);

/**
 * Copy a file with its owner, group and permissions.
 *
 * @param src_fname the file to copy; null is logged.
 * @param dst_fname the copy, created or overwritten; null is logged.
 * @param mode      permissions of the copy, whatever the umask; 0 means those of the source.
 * @return 0, or -1 with whatever was done left as it is.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: src_fname` or `PTR_IS_NULL: dst_fname`; `stat failed (%s)`;
 *         `open file %s failed (%s)` (the copy); `utime failed (%s)`; `fchmod failed (%s)`, for the
 *         permissions and for the owner; `open file %s (%s)` (the source); `read failed (%s)`;
 *         `write failed (%s)`; the last argument is always the text of errno.
 * @blocking as `open` and reading and writing the files do.
 * @threads any.
 * @note Deliberate: the copy is given the source's two times crossed, and then written, so its
 *       access time is the source's modification time and its modification time that of the copying.
 *       Copying stops without a complaint at the first read that gives less than 4096 bytes, and a
 *       write that takes only a part is not noticed.
 * @note The owner is set after the permissions, which takes a set-user-id or set-group-id bit away
 *       again. A directory as the source fails at the first read, when an empty copy has been made; a
 *       file that is copied onto itself is emptied, and the result is 0.
 */
int lh_copy_file(const char *src_fname, const char *dst_fname, mode_t mode);

/**
 * Copy a file's contents inside the kernel, with one `sendfile`.
 *
 * @param src  the file to copy; null is logged.
 * @param dst  the copy, created or overwritten; null is logged.
 * @param mode permissions of a new copy, less the umask; 0 and all ones mean 0664.
 * @param sync not 0: flush the copy to its device before returning.
 * @return **how many bytes were copied**, so 0 for an empty file; -1 on failure, with whatever was
 *         done left as it is.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: src` or `PTR_IS_NULL: dst`; `open file %s failed (%m)` (source or copy);
 *         `fstat of file '%s' failed (%m)` (source); `sendfile src:'%s', dst:'%s' failed (%m)`.
 * @blocking as `open` and reading and writing the files do.
 * @threads any.
 * @note One call moves at most 2147479552 bytes: of a larger file only a part is copied. The result
 *       is an `int`; it can hold that. A failing flush is not noticed.
 */
int lh_fast_copy_file(const char *src, const char *dst, mode_t mode, int sync);

/**
 * Find the program in a command line: the longest leading part of a text, cut at a space or a slash,
 * that names an existing file.
 *
 * For "/usr/sbin/prog -d /tmp" that part is "/usr/sbin/prog" and its last component "prog".
 *
 * @param path        the text; null is logged.
 * @param base        where the part's last component goes, NUL-terminated and cut to fit; null is
 *                    logged.
 * @param base_size   size of `base` in bytes.
 * @param prefix      where the part itself goes, in the same way; null when it is not wanted.
 * @param prefix_size size of `prefix` in bytes.
 * @return 0, or -1 for a null `path` or `base`.
 * @errno  of no meaning.
 * @log    `PTR_IS_NULL: path` or `PTR_IS_NULL: base`; `PTR_IS_NULL: copy_path` when there is no
 *         memory, which goes on as if no part named a file.
 * @blocking on the file system.
 * @threads any.
 * @note When no part names a file, the whole text is taken. In both results trailing slashes are
 *       left out, except where there is nothing else; the last component of an empty text is ".".
 *       The search ends before the first space or slash: for "/nosuch" it does not try "/".
 */
int lh_basename(const char *path, char *base, size_t base_size, char *prefix, size_t prefix_size);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
