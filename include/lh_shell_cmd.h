/**
 * @file lh_shell_cmd.h
 * Escaping values for a shell command line, and running one under supervision.
 *
 * @code
 * int on_progress(void *arg); // called twice a second; a non-zero result gives the run up
 *
 * char *escaped = NULL;
 * if (lh_shell_cmd_escaping(name, &escaped) != 0)
 *     ...
 * const char *archive = escaped != NULL ? escaped : name; // null: nothing to escape in it
 *
 * lh_shell_cmd_run_opts opts = {0};
 * opts.flags = LH_SHELL_CMD_RUN_SUDO | LH_SHELL_CMD_RUN_CLOSE_STDOUT;
 * opts.timer_max_period.tv_sec = 30;
 * opts.timer_progress_cb = on_progress;
 * if (lh_shell_cmd_run(&opts, "tar -C %s -xf %s", dir, archive) == 0 && opts.exit_code == 0)
 *     ...
 * free(escaped);
 * @endcode
 */
#ifndef LH_SHELL_CMD_H
#define LH_SHELL_CMD_H

#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Is a character escaped?
 *
 * @param c the character.
 * @return 1 for these sixteen, 0 for all others: ``! " $ & ' ( ) * ; < = > ? \ ` |``.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 * @note **Not everything that a shell interprets is escaped**, deliberately: blanks, newlines and
 *       all other control characters, and `# % + , - . / : @ [ ] { } ^ _ ~`, stay as they are. A
 *       value with a blank is several words to the shell after escaping, and one with a newline
 *       several commands.
 */
int lh_shell_cmd_chr_need_to_be_escaped(unsigned char c);

/**
 * The characters that are escaped, as a string in ascending order of their codes.
 *
 * @param chrs where the pointer to the string goes; the string is static and constant. Null is
 *             logged.
 * @return 0; -1 when `chrs` is null.
 * @errno  kept.
 * @log    `PTR_IS_NULL: chrs`.
 * @blocking no.
 * @threads any.
 */
int lh_shell_cmd_chrs_need_to_be_escaped_get(const char **chrs);

/**
 * Build a new string with a text put before every character of a set: another name of
 * lh_str_insert_str_before_each_of_chrs().
 *
 * @param str    the string; stays the caller's; null is logged.
 * @param prefix the text to insert, all of it printable; null is logged.
 * @param chrs   the characters of the set, all of them printable; null is logged.
 * @param out    where the new string goes, which the caller releases with free(); null is logged.
 *               Left as it was on failure, and on success when there was nothing to escape.
 * @return 0, or -1.
 * @errno  ENOMEM when there is no memory.
 * @log    the lines of lh_str_insert_str_before_each_of_chrs(), under that name: `PTR_IS_NULL: dst`
 *         (for `str`), `PTR_IS_NULL: src` (for `prefix`), `PTR_IS_NULL: chrs`,
 *         `PTR_IS_NULL: str_new` (for `out`); `invalid char: 0x%X`; `PTR_IS_NULL: _str_new` when
 *         there is no memory.
 * @blocking no.
 * @threads any.
 */
int lh_shell_cmd_chrs_escape(const char *str, const char *prefix, const char *chrs, char **out);

/**
 * Escape a value for a shell command line: a copy with a backslash before each of the sixteen
 * characters that lh_shell_cmd_chr_need_to_be_escaped() names.
 *
 * @param str the value; stays the caller's; null is logged.
 * @param out where the copy goes, which the caller releases with free(); null is logged.
 * @return 0, or -1.
 * @errno  ENOMEM when there is no memory.
 * @log    under the name `lh_str_insert_str_before_each_of_chrs`: `PTR_IS_NULL: dst` (for `str`),
 *         `PTR_IS_NULL: str_new` (for `out`), `PTR_IS_NULL: _str_new` when there is no memory.
 * @blocking no.
 * @threads any.
 * @note `*out` is **left as it was** on failure, and also on success when nothing had to be
 *       escaped: set it to null before the call, and where it is still null go on with `str`.
 * @note **A blank or a newline is not escaped** (see lh_shell_cmd_chr_need_to_be_escaped()): a
 *       value that may hold one has to be refused, or quoted in another way, by the caller.
 */
int lh_shell_cmd_escaping(const char *str, char **out);

/** Bits of @ref lh_shell_cmd_run_opts::flags. */
enum {
    LH_SHELL_CMD_RUN_SUDO = 1 << 0,         /**< put "/usr/bin/sudo " in front of the command */
    LH_SHELL_CMD_RUN_CLOSE_STDOUT = 1 << 1, /**< run it with standard output closed */
    LH_SHELL_CMD_RUN_CLOSE_STDERR = 1 << 2  /**< run it with standard error closed */
};

/** A callback of a run, called on the thread of the run. It may change the callbacks that are set in
 *  the options record, their arguments and `kill_sig`: these are read each time they are needed. The
 *  flags, the periods and which timers there are were settled when the run began. */
typedef int (*lh_shell_cmd_run_cb)(void *arg);

/**
 * What a run does beside running the command. The caller owns the record and keeps it until the run
 * is over. Zeroed, it asks for nothing but to wait for the command; its field order is part of the
 * interface. A zero period means both words 0.
 */
typedef struct lh_shell_cmd_run_opts {
    uint64_t flags; /**< LH_SHELL_CMD_RUN_... bits */

    lh_shell_cmd_run_cb timer_max_cb; /**< called when the maximum run time is over; the run ends
                                           with its result. Null: the child is sent `kill_sig` */
    void *timer_max_cb_arg;           /**< its argument */
    struct timespec timer_max_period; /**< maximum run time; zero: none */
    int32_t kill_sig;                 /**< sent when the maximum run time is over; 0: SIGTERM */
    int32_t hide_cmd; /**< non-zero: error lines show "********" in place of the command line */

    lh_shell_cmd_run_cb timer_progress_cb; /**< progress tick; non-zero ends the run. Null: none */
    void *timer_progress_cb_arg;           /**< its argument */
    struct timespec timer_progress_period; /**< zero: half a second */

    lh_shell_cmd_run_cb timer_alive_sig_cb; /**< liveness tick, for telling the board's liveness
                                                 manager; non-zero ends the run. Null: none */
    void *timer_alive_sig_cb_arg;           /**< its argument */
    struct timespec
        timer_alive_sig_period; /**< with the callback **always set it**: zero makes the run fail */

    lh_shell_cmd_run_cb timer_check_complete_cb; /**< called at every look whether the child has
                                                      ended; non-zero ends the run. Null: none */
    void *timer_check_complete_cb_arg;           /**< its argument */
    struct timespec timer_check_complete_period; /**< time between two looks; zero: 10 ms */

    lh_shell_cmd_run_cb on_complete_cb; /**< called once after the child has ended; non-zero makes
                                             the run fail. Null: none */
    void *on_complete_cb_arg;           /**< its argument */

    int32_t exit_code; /**< written when the run returns 0 for a child that exited: its code */
    int32_t *pid;      /**< where the child's pid stands while the run lasts; null: nowhere */
} lh_shell_cmd_run_opts;

/**
 * Run a command with `/bin/sh -c` in a child process, and wait for it under supervision.
 *
 * The child is looked at once every check period. The run ends when it has ended, when the maximum
 * run time is over, or when a callback asks for the end by a non-zero result. When several periods
 * are over at once, the order is: maximum run time, progress, liveness, completion.
 *
 * @param opts what to do beside running the command. Null: **unsupervised**, see below.
 * @param fmt  `printf` format of the command line, followed by its arguments. Null is logged.
 * @return 0 when the child exited, whatever its code, which is in `opts->exit_code`; what
 *         `timer_max_cb` returned when the maximum run time was over and that callback is set; -1
 *         on every failure: the child was ended by a signal (no line), the maximum run time was
 *         over without `timer_max_cb`, another callback returned non-zero (no line), or as logged.
 * @errno  of the failing call where a line names one; kept for a null format; else of no meaning.
 * @log    `PTR_IS_NULL: fmt` with the usual prefix. All other lines give the function twice, as in
 *         `<mydaemon(1234):lh_shell_cmd_run:9> <lh_shell_cmd_run> timer expired`. The command line
 *         in them is the whole one, with sudo, or "********" with `hide_cmd`:
 *         `<lh_shell_cmd_run> vasprintf failed`, `<lh_shell_cmd_run> asprintf failed`;
 *         `<lh_shell_cmd_run> fork failed for '%s'` (command line);
 *         `<lh_shell_cmd_run> execl failed for '%s' (%s)` (command line, error text), written by
 *         the child;
 *         `<lh_shell_cmd_run> lh_timer_fd_create timer_max failed`,
 *         `<lh_shell_cmd_run> lh_timer_fd_create timer_progress failed`,
 *         `<lh_shell_cmd_run> lh_timer_fd_create timer_alive_sig failed` and
 *         `<lh_shell_cmd_run> lh_timer_fd_create timer_check_complete failed`, each after the line
 *         of lh_timer_fd_create();
 *         `<lh_shell_cmd_run> poll failed: %s` (error text);
 *         `<lh_shell_cmd_run> timer expired`;
 *         `<lh_shell_cmd_run> waitpid failed`;
 *         `<lh_shell_cmd_run> '%s' failed` (command line): unsupervised only.
 *         A timer that cannot be read gives the line of lh_timer_fd_handle() and counts as a
 *         callback that returned -1.
 * @blocking for the whole run. The end of the command is noticed by the next check, so a command
 *         takes at least one check period. A callback delays everything else by the time it takes.
 * @threads any, each run with its own options record. Callbacks run on the calling thread.
 *
 * @note **Unsupervised.** With null `opts` the command runs without sudo, limits and callbacks. The
 *       result is then its exit code, or -1 on failure: `'%s' failed` is logged when a signal ended
 *       it.
 * @note **Nothing is escaped.** The command line goes to the shell as it was formatted: escape
 *       every name and every text that came from outside before it is formatted, or the shell runs
 *       it.
 * @note Sudo stands in front of the whole line once: of `a; b` it runs `a` alone, and a redirection
 *       is still made by the daemon's own user. `hide_cmd` hides the line from the log only, not
 *       from the list of processes.
 * @note **The child stays behind** whenever the run ends before the child does: after the maximum
 *       run time (also after `kill_sig` was sent), a callback's non-zero result, or a failure. It
 *       is not ended and not waited for: it goes on running, and stays a zombie afterwards until
 *       the daemon waits for it. Take the pid from `*opts->pid` inside a callback. `kill_sig` goes
 *       to the child alone: programs that the shell has started live on. A non-zero result of
 *       `timer_check_complete_cb` gives -1 also when the child has ended just then and been waited
 *       for.
 * @note **When `/bin/sh` cannot be run, the call returns twice**: in the daemon as for any run, and
 *       in the child with -1. The child does not exit on its own, deliberately: what a second copy
 *       of the daemon has to do is the caller's to decide. Compare `getpid` with the daemon's own
 *       pid after a -1, and call `_exit` in the child.
 * @note **Descriptors are inherited.** The command has every descriptor of the daemon open that
 *       does not close on exec, timers of the runs of other threads and of outer runs included.
 * @note `*opts->pid` holds the child's pid before the first callback runs, and 0 after the return in
 *       the daemon; it is left alone when there was no child (the command line could not be built, or
 *       `fork` failed), and in a child that could not run `/bin/sh`.
 * @note `exit_code` keeps its value unless the child exited and the result is 0.
 * @note Deliberate: the liveness period has a default of 1000000000 nanoseconds, which no timer
 *       accepts. A run with `timer_alive_sig_cb` and a zero period fails with
 *       `lh_timer_fd_create timer_alive_sig failed`. So does one with any other period out of
 *       range, under its timer's name; the child runs by then and stays behind, and the descriptor
 *       of the refused timer stays open (see lh_timer_fd_create()).
 * @note A daemon that ignores SIGCHLD (or that reaps every child from a handler) cannot see how the
 *       command ended: its run ends with `waitpid failed` and -1 once the child has.
 * @note `timer_max_cb` is called once, at the end of the run. Its result is the run's: a 0 from it
 *       cannot be told from a child that exited, except by the callback itself.
 */
int lh_shell_cmd_run(lh_shell_cmd_run_opts *opts, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
