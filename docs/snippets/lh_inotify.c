/* A daemon follows a file of peers that comes, changes and goes. */
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

#include <lh_file.h>
#include <lh_inotify.h>

struct daemon {
    lh_inotify *watcher;
    int changes;
};

/* Called at the end of a pass; the file itself tells what has happened
 * to it. */
static void on_peers(void *arg)
{
    struct daemon *daemon = arg;
    daemon->changes++;
    printf("%s\n", lh_file_is_exist("run/peers") ? "read the peers"
                                                 : "no peers any more");
}

static int start(struct daemon *daemon)
{
    daemon->watcher = lh_inotify_create();
    if (daemon->watcher == NULL)
        return -1;
    if (lh_inotify_include_file(daemon->watcher, "run", "peers",
                                LH_INOTIFY_CREATE_DIR, on_peers,
                                daemon) != 0) {
        lh_inotify_free(&daemon->watcher);
        return -1;
    }
    return lh_inotify_process(daemon->watcher); /* arms the watches */
}

/* What the poll loop does: a pass whenever the descriptor is readable.
 */
static void wait_for_change(struct daemon *daemon)
{
    int before = daemon->changes;
    struct pollfd fd = {.fd = lh_inotify_get_fd(daemon->watcher),
                        .events = POLLIN};
    while (daemon->changes == before && poll(&fd, 1, 10000) == 1)
        lh_inotify_process(daemon->watcher);
}

/* After an overflow of the kernel's queue: the descriptor is a new one
 * from here on. */
static int start_over(struct daemon *daemon)
{
    int fd = lh_inotify_restart(daemon->watcher);
    return fd >= 0 ? lh_inotify_process(daemon->watcher) : -1;
}

static void stop(struct daemon *daemon)
{
    lh_inotify_exclude_file(daemon->watcher, "run", "peers");
    lh_inotify_free(&daemon->watcher);
}

int main(void)
{
    struct daemon daemon = {0};
    if (start(&daemon) != 0)
        return 1;
    /* as a good writer does: aside, then into place */
    lh_file_write("run/aside", "blue", 4);
    rename("run/aside", "run/peers");
    wait_for_change(&daemon);
    start_over(&daemon);
    lh_file_rm("run/peers");
    wait_for_change(&daemon);
    stop(&daemon);
    return 0;
}

/* Prints:
 * read the peers
 * read the peers
 * no peers any more
 */
