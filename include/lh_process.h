/**
 * @file lh_process.h
 * Who am I, who is that process, pid files, and asking for a reload of the board.
 *
 * The name and pid of the calling process are found once and kept: every error line carries them.
 */
#ifndef LH_PROCESS_H
#define LH_PROCESS_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * The pid of the calling process.
 *
 * @return the pid that `getpid` gave at the first call.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any; no lock, no system call after the first call.
 * @note The value is never refreshed: a forked child whose parent had called it before the fork
 *       still gets (and logs) the parent's pid. Call `getpid` where the child's own pid matters.
 */
int lh_process_self_pid_get(void);

/**
 * The short name of the calling process: the last component of its first command-line word
 * (`mydaemon` for a process started as `/usr/sbin/mydaemon -f`).
 *
 * @return a static string of at most 255 characters, never null and never to be freed; empty while
 *         the name could not be found. Once found it stays; until then every call tries again.
 * @errno  of no meaning while the name is being looked for; kept later.
 * @log    `<%s:%d> lh_process_name_get_by_pid failed` (function, line) when there is no name;
 *         `<%s:%d> invalid len: %d > %zu` (name length plus one, 256) when the name is cut.
 *         The first comes after the line of lh_process_name_get_by_pid() that tells why. They have
 *         the short prefix, because the long one would ask for the name; as long as there is no name,
 *         every error line of the library is preceded by them.
 * @blocking reads `/proc` at the first call.
 * @threads any once the name is known; the first call also overwrites the buffer of
 *         lh_process_name_get_by_pid() and should be made before threads are started.
 */
const char *lh_process_self_name_get(void);

/**
 * The short name of another process: the last component of the first word of its command line.
 *
 * @param pid the process.
 * @return a static buffer, overwritten by the next call and not to be freed, or a constant empty
 *         string when the process's command line cannot be read.
 * @errno  of the failing call.
 * @log    at LOG_DEBUG `<%s:%d> cannot open proc file for pid=%lu`;
 *         at LOG_ERR `<%s:%d> read '%s' failed` (the path in `/proc`). Both with the short prefix.
 * @blocking reads `/proc`.
 * @threads one at a time: the buffer is shared by all callers, copy the name to keep it.
 * @note A process with an empty command line (a kernel thread, a zombie) leaves the buffer as the
 *       previous call left it, so the name of that earlier process comes back.
 */
const char *lh_process_name_get_by_pid(int pid);

/**
 * The command name of a thread, as `/proc/PID/task/TID/comm` gives it.
 *
 * @param pid the process.
 * @param tid the thread.
 * @return a static buffer, cleared by the next call and not to be freed; empty when the name could
 *         not be read. Never null.
 * @errno  of the failing call.
 * @log    `<%s:%d> read '%s' failed` (the path) when reading fails; nothing when there is no such
 *         thread.
 * @blocking reads `/proc`.
 * @threads one at a time: the buffer is shared by all callers.
 */
const char *lh_process_name_get_by_itid(int pid, int tid);

/**
 * Write the calling process's pid, in decimal and without a newline, into a new file.
 *
 * An existing file (or link) of that name is removed first, never written through.
 *
 * @param path the pid file; null is logged.
 * @return 0, or -1.
 * @errno  of the failing call; kept for a null argument.
 * @log    `PTR_IS_NULL: path`; `PTR_IS_NULL: f` when the file cannot be opened; `fprintf failed`
 *         when the pid could not be written.
 * @blocking on the file system.
 * @threads any.
 * @note Whether what was written reached the disk is not looked at: on a full file system the file
 *       may be empty in spite of the result 0.
 * @note The pid is that of lh_process_self_pid_get(): a child forked after its parent's first call
 *       writes its parent's pid.
 */
int lh_process_create_pid_file(const char *path);

/**
 * Read the decimal pid at the start of a file.
 *
 * @param path the pid file; null is a file that cannot be opened ("(null)" in the line, EFAULT).
 * @return the pid, or -1. A file that holds `-1` reads the same as a failure.
 * @errno  of the failing call; of no meaning when the file does not start with a number.
 * @log    `failed to open pidfile '%s'` (path); `failed to read pid from pidfile` when the file
 *         does not start with a number.
 * @blocking on the file system.
 * @threads any.
 */
int lh_read_pid_file(const char *path);

/**
 * Find the pid of a running program by its name, through the program `pidof`.
 *
 * @param name the program's name, at most 57 characters; **put into a shell command as it is**, so
 *             never a text that an outsider chose; null is logged.
 * @return the pid (the first one printed when several processes match), or -1.
 * @errno  of the failing call; kept for a null argument; of no meaning when the name is too long or
 *         no process has it.
 * @log    `PTR_IS_NULL: name`; `snprintf failed` when the name is too long; `cannot get pid` when
 *         the command cannot be started; `cannot parse pid` when no process has that name.
 * @blocking until `pidof` has printed its answer.
 * @threads any.
 * @note Deliberate: the pipe to the command stays open. Every call that starts it costs the daemon
 *       one descriptor and leaves a child that is never waited for, so call it rarely. At most
 *       seven digits of the answer are read.
 */
int lh_process_pid_get_by_name(const char *name);

/**
 * Ask the liveness manager to reload the board: send it the first real-time signal (`SIGRTMIN`).
 *
 * @return 0 when the request was sent, else -1.
 * @errno  of `kill` when that failed; as `get_alive_mgr_pid` left it when the manager is not known.
 * @log    `get_alive_mgr_pid failed` when the manager is not known; `kill failed`.
 * @blocking no; the reload comes later, if the manager grants it.
 * @threads any.
 */
int lh_process_reload_board(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
