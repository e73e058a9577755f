/*
 * vrrp_monitor: follows VRRP groups and instances and prints a line for every change, or shows them
 * as a live table (vrrp_table.h).
 *
 * A small but complete daemon, meant to be copied from. It shows
 *   - the tracker (lh_vrrp.h) and the poll loop (lh_poll_ctx.h) working together;
 *   - signals as a descriptor of the same loop, so that no code runs in a signal handler;
 *   - starting over on a new descriptor while running (SIGHUP);
 *   - the poll timeout and the per-pass callback as the remedy for what gives no event;
 *   - a timer, a terminal's keys and size, and stopping, for the table;
 *   - leaving cleanly (SIGINT, SIGTERM).
 *
 * Build: cc -std=c11 vrrp_monitor.c vrrp_table.c -o vrrp_monitor -lVYThelpers
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "lh_close.h"
#include "lh_poll_ctx.h"
#include "lh_timer.h"
#include "lh_vrrp.h"
#include "vrrp_table.h"

enum {
    PASS_MS = 1000, /* the longest time between two passes of the loop */
    GROUP_MAX = 32,
    VRID_MAX = 255,
    NETNS_LENGTH_MAX = 31, /* the tracker keeps no more of a namespace's name */
    MEMBERS_SHOWN = 32
};

/* One thing named on the command line, and what was last printed of it. */
struct followed {
    const char *spelling; /* as the user spelled it: "1", ":10", "blue:30" */
    uint32_t group;       /* the group, or 0 for an instance */
    char netns[NETNS_LENGTH_MAX + 1];
    uint32_t vrid;
    int status;
    int64_t changed_ms;                                       /* on table_clock_ms() */
    char members[(MEMBERS_SHOWN + 1) * LH_VRRP_VIFNAME_SIZE]; /* of a group */
};

struct monitor {
    lh_poll_ctx loop;
    int vrrp_fd; /* the tracker's descriptor: it is the tracker that closes it */
    struct followed *followed;
    size_t count;
    bool watch;             /* show a table instead of lines */
    struct table table;     /* while watching */
    struct table_row *rows; /* one for each that is followed */
};

static const char usage_line[] = "usage: vrrp_monitor [-w] [-g GROUP]... [-i NETNS:VRID]...\n";

static const char help[] =
    "\n"
    "Follows VRRP groups and instances and prints one line for every change.\n"
    "\n"
    "  -g GROUP       follow a group, 1 to 32; may be given again\n"
    "  -i NETNS:VRID  follow one instance: its network namespace (nothing before the\n"
    "                 colon for the default one) and its Virtual Router Id, 1 to 255;\n"
    "                 may be given again\n"
    "  -w, --watch    on a terminal, show a live table instead: the status of each, coloured\n"
    "                 unless NO_COLOR is set, and how long ago it changed; q ends it\n"
    "  -h, --help     show this text\n"
    "\n"
    "Each line has the time, what changed, its old status and its new one. For a group\n"
    "the names of its members follow, when there are any; a change of the members alone\n"
    "gives a line, too. The first lines tell the status at the start:\n"
    "\n"
    "  2031-05-01T12:00:00+0000 group 1 Invalid -> Backup members vrrp.20 vrrp.10\n"
    "  2031-05-01T12:00:00+0000 instance blue:30 Invalid -> Unknown\n"
    "\n"
    "SIGHUP starts over on a new descriptor and prints \"watcher restarted\"; SIGINT and\n"
    "SIGTERM end the program. Errors go to the system log and to standard error; the\n"
    "table has the last of them below.\n"
    "\n"
    "Ends with 0 after a signal, with 1 when it cannot run, with 2 for wrong arguments.\n";

/* What the user sees ------------------------------------------------------------------------- */

/* Prints the line and flushes it: whoever reads from a pipe sees each change at once. */
__attribute__((format(printf, 1, 2))) static void print_line(const char *format, ...)
{
    char stamp[32] = "";
    time_t now = time(NULL);
    struct tm local;
    if (localtime_r(&now, &local) != NULL)
        strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S%z", &local);
    printf("%s ", stamp);

    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
    fflush(stdout);
}

/* Writes "vrrp.20 vrrp.10", or nothing for a group without members. */
static void describe_members(uint32_t group, char *text, size_t size)
{
    char names[MEMBERS_SHOWN][LH_VRRP_VIFNAME_SIZE];
    int count = lh_vrrp_group_members_vifname_get(group, names, MEMBERS_SHOWN);
    bool more = count > MEMBERS_SHOWN; /* one above what fits means that there are more */
    size_t length = 0;

    text[0] = '\0';
    for (int i = 0; i < count && i < MEMBERS_SHOWN; i++)
        length +=
            (size_t)snprintf(text + length, size - length, "%s%s", i == 0 ? "" : " ", names[i]);
    if (more)
        snprintf(text + length, size - length, " ...");
}

static void end(struct monitor *monitor)
{
    lh_poll_ctx_main_loop_break(&monitor->loop);
}

static void draw(struct monitor *monitor)
{
    for (size_t i = 0; i < monitor->count; i++) {
        const struct followed *it = &monitor->followed[i];
        monitor->rows[i] = (struct table_row){.kind = it->group != 0 ? "group" : "instance",
                                              .name = it->spelling,
                                              .members = it->members,
                                              .status = it->status,
                                              .changed_ms = it->changed_ms};
    }
    if (table_draw(&monitor->table, monitor->rows, monitor->count) != 0)
        end(monitor); /* nobody looks any more */
}

/* Shows what differs from the last time. The library keeps the statuses; telling a change from no
   change is the daemon's part. */
static void show_changes(struct monitor *monitor)
{
    for (size_t i = 0; i < monitor->count; i++) {
        struct followed *it = &monitor->followed[i];
        char members[sizeof(it->members)] = "";
        int status;

        if (it->group != 0) {
            status = lh_vrrp_group_status_get(it->group);
            describe_members(it->group, members, sizeof(members));
        } else {
            status = lh_vrrp_instance_status_get(it->netns, it->vrid);
        }
        if (status == it->status && strcmp(members, it->members) == 0)
            continue;

        if (!monitor->watch)
            print_line("%s %s %s -> %s%s%s", it->group != 0 ? "group" : "instance", it->spelling,
                       lh_vrrp_status_stringize(it->status), lh_vrrp_status_stringize(status),
                       members[0] != '\0' ? " members " : "", members);
        it->changed_ms = table_clock_ms();
        it->status = status;
        memcpy(it->members, members, sizeof(members));
    }
    if (monitor->watch)
        draw(monitor);
}

/* The tracker -------------------------------------------------------------------------------- */

static void update(struct monitor *monitor)
{
    /* The result is no news: an empty or half-written file fails a pass and leaves everything
       "Unknown", which is what show_changes() then finds; the next event brings the next try. */
    (void)lh_vrrp_info_update();
    show_changes(monitor);
}

static int on_vrrp(int fd, void *arg)
{
    (void)fd;
    update(arg);
    return 0;
}

static int poll_tracker(struct monitor *monitor, int fd)
{
    monitor->vrrp_fd = fd;
    return fd < 0 ? -1 : lh_poll_ctx_fd_add(&monitor->loop, "vrrp", fd, on_vrrp, monitor);
}

/* Restarting closes the old descriptor and opens a new one, often of the same number. So the old
   one leaves the loop before, and the new one enters it afterwards. */
static void restart(struct monitor *monitor)
{
    if (monitor->vrrp_fd >= 0)
        lh_poll_ctx_fd_del(&monitor->loop, monitor->vrrp_fd);
    if (poll_tracker(monitor, lh_vrrp_info_restart()) != 0) {
        monitor->vrrp_fd = -1; /* after_each_pass() tries again */
        return;
    }
    if (monitor->watch)
        fputs("watcher restarted\n", stderr); /* the table shows it */
    else
        print_line("watcher restarted");
    update(monitor); /* nothing is watched until this has armed the watch again */
}

/* The loop ----------------------------------------------------------------------------------- */

static int on_signal(int fd, void *arg)
{
    struct monitor *monitor = arg;
    struct signalfd_siginfo signal;

    if (read(fd, &signal, sizeof(signal)) != (ssize_t)sizeof(signal))
        return 0; /* there was none; the loop does not look at a handler's result */
    switch (signal.ssi_signo) {
    case SIGHUP:
        restart(monitor);
        break;
    case SIGWINCH:
        draw(monitor);
        break;
    case SIGTSTP: /* the shell has its screen while this program is stopped */
        table_leave_screen(&monitor->table);
        raise(SIGSTOP);
        table_enter_screen(&monitor->table);
        draw(monitor);
        break;
    default:
        end(monitor);
    }
    return 0;
}

/* The loop calls handlers for readable descriptors only. One that has hung up, with nothing left to
   read, is never handed to its handler and makes every wait return at once: take it out. */
static void drop_hung_up(struct monitor *monitor)
{
    lh_poll_ctx *loop = &monitor->loop;

    for (uint64_t i = loop->pfd_num; i-- > 0;) { /* from the end: deleting moves the later ones */
        int fd = loop->pfd[i].fd->fd;
        short events = loop->pfd[i].fd->revents;
        if ((events & POLLIN) != 0 || (events & (POLLERR | POLLHUP | POLLNVAL)) == 0)
            continue;
        syslog(LOG_WARNING, "descriptor %d (%s) has hung up", fd, loop->pfd[i].name);
        if (fd == monitor->vrrp_fd) {
            restart(monitor);
        } else if (fd == STDIN_FILENO || fd == monitor->table.log_fd) {
            lh_poll_ctx_fd_del(loop, fd); /* the table's, which needs both */
            end(monitor);
        } else {
            lh_poll_ctx_fd_del(loop, fd);
            lh_close(&fd);
        }
    }
}

/* Runs after every pass, at least once in PASS_MS. Some things give no event: a directory that could
   not be watched appears again, a deleted file that somebody still holds open. A pass that waited
   in vain looks at them. */
static int after_each_pass(lh_poll_ctx *loop, void *arg)
{
    struct monitor *monitor = arg;

    if (loop->poll_rc > 0)
        drop_hung_up(monitor);
    if (monitor->vrrp_fd < 0)
        restart(monitor);
    else if (loop->poll_rc == 0)
        update(monitor);
    return 0; /* anything else would end the loop */
}

/* The signals arrive as data on a descriptor; blocked, they do nothing else. A table needs a few
   more: it has to leave the screen as it was. */
static int open_signals(bool watch)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (watch) {
        sigaddset(&signals, SIGQUIT);
        sigaddset(&signals, SIGTSTP);
        sigaddset(&signals, SIGWINCH);
    }
    if (sigprocmask(SIG_BLOCK, &signals, NULL) != 0)
        return -1;
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

/* Registers the descriptor, or closes it: either way it has an owner afterwards. */
static int add(struct monitor *monitor, const char *name, int fd, lh_poll_ctx_fd_cb cb)
{
    if (fd < 0)
        return -1;
    if (lh_poll_ctx_fd_add(&monitor->loop, name, fd, cb, monitor) == 0)
        return 0;
    lh_close(&fd);
    return -1;
}

/* The table ---------------------------------------------------------------------------------- */

/* With a timer no pass waits in vain: what gives no event is looked at here. */
static int on_tick(void *arg)
{
    update(arg);
    return 0;
}

static int on_timer(int fd, void *arg)
{
    return lh_timer_fd_handle(fd, on_tick, arg);
}

static int on_key(int fd, void *arg)
{
    char keys[64];
    ssize_t count = read(fd, keys, sizeof(keys));
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return 0;
    if (count == 0 && isatty(fd))
        return 0; /* somebody else took them, or Ctrl-C did */
    if (count <= 0 || memchr(keys, 'q', (size_t)count) != NULL)
        end(arg); /* the terminal has gone */
    return 0;
}

static int on_log(int fd, void *arg)
{
    struct monitor *monitor = arg;
    (void)fd;
    table_take_log(&monitor->table);
    draw(monitor);
    return 0;
}

/* The keys and the log are the table's descriptors: they leave the loop before it closes the others. */
static void stop_polling(struct monitor *monitor, int fd)
{
    if (fd >= 0 && lh_poll_ctx_fd_get(&monitor->loop, fd) != NULL)
        lh_poll_ctx_fd_del(&monitor->loop, fd);
}

static int start_table(struct monitor *monitor)
{
    struct table *table = &monitor->table;
    /* One follows something. NOLINTNEXTLINE(clang-analyzer-optin.portability.UnixAPI) */
    monitor->rows = calloc(monitor->count, sizeof(*monitor->rows));
    if (monitor->rows == NULL || table_open(table) != 0 ||
        add(monitor, "timer", lh_timer_fd_create(lh_timer_s_to_timespec(1)), on_timer) != 0)
        return -1;
    if (table->log_fd >= 0 &&
        lh_poll_ctx_fd_add(&monitor->loop, "log", table->log_fd, on_log, monitor) != 0)
        return -1;
    if (table->has_keys &&
        lh_poll_ctx_fd_add(&monitor->loop, "keys", STDIN_FILENO, on_key, monitor) != 0)
        return -1;
    return 0;
}

static void stop_table(struct monitor *monitor)
{
    stop_polling(monitor, monitor->table.log_fd);
    stop_polling(monitor, STDIN_FILENO);
    table_close(&monitor->table);
    free(monitor->rows);
}

/* Start and end ------------------------------------------------------------------------------ */

static int follow(const struct followed *it)
{
    return it->group != 0 ? lh_vrrp_group_info_update_enable(it->group)
                          : lh_vrrp_instance_info_update_enable(it->netns, it->vrid);
}

static int start(struct monitor *monitor)
{
    monitor->loop.timeout = PASS_MS;
    monitor->watch = monitor->watch && table_is_possible();
    if (add(monitor, "signals", open_signals(monitor->watch), on_signal) != 0 ||
        lh_poll_ctx_on_each_event_cb_set(&monitor->loop, after_each_pass, monitor) != 0)
        return -1;

    /* First the tracker, then what it is to follow: starting it forgets instances. */
    if (poll_tracker(monitor, lh_vrrp_info_init()) != 0)
        return -1;
    for (size_t i = 0; i < monitor->count; i++) {
        if (follow(&monitor->followed[i]) != 0)
            return -1;
    }
    if (monitor->watch && start_table(monitor) != 0)
        return -1;
    update(monitor); /* the first reading; it arms the watch, too */
    return 0;
}

/* The tracker closes its own descriptor, so that leaves the loop first; then the loop closes the
   others. */
static void leave(struct monitor *monitor)
{
    if (monitor->watch)
        stop_table(monitor);
    stop_polling(monitor, monitor->vrrp_fd);
    lh_vrrp_info_deinit();
    lh_poll_ctx_close_all(&monitor->loop);
    lh_poll_ctx_free(&monitor->loop);
    free(monitor->followed);
}

/* The command line --------------------------------------------------------------------------- */

/* Reads a decimal number from 1 to max and nothing else. */
static bool parse_number(const char *text, unsigned long max, uint32_t *number)
{
    char *rest;
    if (text[0] < '0' || text[0] > '9') /* strtoul would take a sign and blanks, too */
        return false;
    errno = 0;
    unsigned long value = strtoul(text, &rest, 10);
    if (errno != 0 || *rest != '\0' || value < 1 || value > max)
        return false;
    *number = (uint32_t)value;
    return true;
}

static bool parse_group(const char *text, struct followed *it)
{
    if (parse_number(text, GROUP_MAX, &it->group))
        return true;
    fprintf(stderr, "vrrp_monitor: -g %s: a group is a number from 1 to 32\n", text);
    return false;
}

static bool parse_instance(const char *text, struct followed *it)
{
    const char *colon = strrchr(text, ':');
    if (colon == NULL || !parse_number(colon + 1, VRID_MAX, &it->vrid)) {
        fprintf(stderr, "vrrp_monitor: -i %s: an instance is NETNS:VRID, the VRID from 1 to 255\n",
                text);
        return false;
    }
    size_t length = (size_t)(colon - text);
    if (length > NETNS_LENGTH_MAX) {
        fprintf(stderr, "vrrp_monitor: -i %s: a namespace's name has at most %d characters\n", text,
                NETNS_LENGTH_MAX);
        return false;
    }
    memcpy(it->netns, text, length); /* the record was zeroed: the name is terminated */
    return true;
}

static int usage(void)
{
    fputs(usage_line, stderr);
    return 2;
}

/* Returns -1 to go on, else the exit status. */
static int parse_arguments(struct monitor *monitor, int argc, char **argv)
{
    static const struct option options[] = {
        {"watch", no_argument, NULL, 'w'}, {"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};
    int option;

    while ((option = getopt_long(argc, argv, "+wg:i:h", options, NULL)) != -1) {
        if (option == 'w') {
            monitor->watch = true;
            continue;
        }
        struct followed *it = &monitor->followed[monitor->count];
        it->spelling = optarg;
        it->status = LH_VRRP_STATUS_INVALID;
        if (option == 'h') {
            fputs(usage_line, stdout);
            fputs(help, stdout);
            return 0;
        }
        if (!(option == 'g' && parse_group(optarg, it)) &&
            !(option == 'i' && parse_instance(optarg, it)))
            return usage();
        monitor->count++;
    }
    if (optind < argc) {
        fprintf(stderr, "vrrp_monitor: %s is no option\n", argv[optind]);
        return usage();
    }
    if (monitor->count == 0) {
        fputs("vrrp_monitor: nothing to follow\n", stderr);
        return usage();
    }
    return -1;
}

int main(int argc, char **argv)
{
    struct monitor monitor = {.vrrp_fd = -1};

    /* The library writes to the system log but leaves its identity to the daemon. */
    openlog("vrrp_monitor", LOG_PID | LOG_PERROR, LOG_DAEMON);
    monitor.followed = calloc((size_t)argc, sizeof(*monitor.followed)); /* more than enough */
    if (monitor.followed == NULL) {
        perror("vrrp_monitor");
        return 1;
    }
    int status = parse_arguments(&monitor, argc, argv);
    if (status < 0) {
        status = start(&monitor);
        if (status == 0)
            lh_poll_ctx_main_loop(&monitor.loop);
        else
            fprintf(stderr, "vrrp_monitor: cannot start: %s\n", strerror(errno));
        /* The loop also ends when polling fails; only a signal is a good end. */
        status = status == 0 && monitor.loop.stop != 0 ? 0 : 1;
    }
    leave(&monitor);
    return status;
}
