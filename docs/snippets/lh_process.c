/* A daemon that runs once: its pid file, and who else is there. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <lh_file.h>
#include <lh_process.h>

/* Is the process of the pid file one of ours? A file that was left
 * behind may name any process. */
static int is_running(const char *pid_file)
{
    /* reading a missing one would log an error */
    if (!lh_file_is_exist(pid_file))
        return 0;
    int pid = lh_read_pid_file(pid_file);
    if (pid <= 0)
        return 0;
    return strcmp(lh_process_name_get_by_pid(pid),
                  lh_process_self_name_get()) == 0;
}

static void introduce(void)
{
    int pid = lh_process_self_pid_get();
    printf("pid is right: %d\n", pid == getpid());
    printf("%s, thread %s\n", lh_process_self_name_get(),
           lh_process_name_get_by_itid(pid, pid));
}

/* Seldom: each call costs a descriptor. */
static void look_for(const char *program)
{
    printf("%s: %s\n", program,
           lh_process_pid_get_by_name(program) > 0 ? "runs"
                                                   : "does not run");
}

int main(void)
{
    printf("running: %d\n", is_running("daemon.pid"));
    if (lh_process_create_pid_file("daemon.pid") != 0)
        return 1;
    printf("running: %d\n", is_running("daemon.pid"));
    introduce();
    look_for(lh_process_self_name_get());
    if (lh_process_reload_board() != 0)
        printf("nobody there to reload the board\n");
    return 0;
}

/* Prints:
 * running: 0
 * running: 1
 * pid is right: 1
 * lh_process, thread lh_process
 * lh_process: runs
 * nobody there to reload the board
 */
