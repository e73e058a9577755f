/* A loop that reads commands from a pipe until it is told to stop. */
#include <stdio.h>
#include <unistd.h>

#include <lh_poll_ctx.h>

struct daemon {
    lh_poll_ctx loop;
    int commands;
    int passes;
};

/* A handler of a readable descriptor. */
static int on_command(int fd, void *arg)
{
    struct daemon *daemon = arg;
    char command;
    if (read(fd, &command, 1) != 1) {
        /* the writer has gone: nothing more will come */
        lh_poll_ctx_fd_del(&daemon->loop, fd);
        return -1;
    }
    printf("command %c\n", command);
    daemon->commands++;
    if (command == 'q')
        lh_poll_ctx_main_loop_break(&daemon->loop);
    return 0;
}

/* After every pass; non-zero would end the loop, and be logged. */
static int on_pass(lh_poll_ctx *loop, void *arg)
{
    struct daemon *daemon = arg;
    daemon->passes++;
    for (uint64_t i = 0; i < loop->pfd_num; i++) {
        struct pollfd *fd = loop->pfd[i].fd;
        /* Hung up, nothing to read: never dispatched, it would spin. */
        if ((fd->revents & (POLLHUP | POLLIN)) == POLLHUP) {
            lh_poll_ctx_fd_del(loop, fd->fd);
            break;
        }
    }
    return 0;
}

static int start(struct daemon *daemon, int commands)
{
    daemon->loop.timeout = 1000; /* at most a second a pass */
    if (lh_poll_ctx_on_each_event_cb_set(&daemon->loop, on_pass,
                                         daemon) != 0)
        return -1;
    return lh_poll_ctx_fd_add(&daemon->loop, "commands", commands,
                              on_command, daemon);
}

static void run(struct daemon *daemon)
{
    lh_poll_ctx_main_loop(&daemon->loop);
    lh_poll_ctx_close_all(&daemon->loop); /* the descriptors */
    lh_poll_ctx_free(&daemon->loop);      /* the records of them */
}

int main(void)
{
    struct daemon daemon = {0};
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0 || start(&daemon, pipe_fds[0]) != 0)
        return 1;
    printf("registered as %s\n",
           lh_poll_ctx_fd_get(&daemon.loop, pipe_fds[0])->name);
    if (write(pipe_fds[1], "aq", 2) != 2)
        return 1;
    run(&daemon);
    printf("%d commands in %d passes\n", daemon.commands, daemon.passes);
    close(pipe_fds[1]);
    return 0;
}

/* Prints:
 * registered as commands
 * command a
 * command q
 * 2 commands in 2 passes
 */
