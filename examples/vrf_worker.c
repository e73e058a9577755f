/*
 * vrf_worker: opens a socket in the network namespace of a VRF and comes back.
 *
 * A thread enters a namespace by name with lh_netns_set() (lh_netns.h). Descriptors keep the
 * namespace in which they were opened, so the thread has to be away only while it opens them. Shows
 * how to be sure of the way back, and what is left to do when it fails all the same.
 *
 * Build: cc -std=c11 vrf_worker.c -o vrf_worker -lVYThelpers
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <linux/sockios.h>

#include "lh_close.h"
#include "lh_netns.h"

enum { EXIT_LOST = 3 };

static const char usage_line[] = "usage: vrf_worker VRF\n";

static const char help[] =
    "\n"
    "Opens a socket in the network namespace of a VRF, comes back, and tells which namespace\n"
    "is whose. VRF is the name of a handle in /var/run/netns; 1 is the default namespace.\n"
    "\n"
    "  -h, --help  show this text\n"
    "\n"
    "Ends with 0 when all went well, with 1 when the VRF could not be entered, with 2 for\n"
    "wrong arguments, and with 3 when it could not come back. Needs CAP_SYS_ADMIN.\n";

/* The kernel's number of the namespace behind a descriptor; 0 when it cannot be had. */
static unsigned long namespace_number(int fd)
{
    struct stat info;
    return fstat(fd, &info) == 0 ? (unsigned long)info.st_ino : 0;
}

/* Where the calling thread is. /proc/self would be the main thread's view. */
static int open_here(void)
{
    return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}

/*
 * A socket in the namespace of this VRF, with the thread back where it was; -1 on failure.
 *
 * The way back is held open before the thread leaves: entering by name again could fail, because a
 * handle can be gone by then. setns on an open descriptor cannot fail for such a reason. Should it
 * fail all the same (the right was taken from the process, say), then the thread stands in a
 * foreign VRF and everything that it opens from here on would serve the wrong network. No cleaning
 * up helps: end the process at once and let whoever supervises it start it again.
 */
static int socket_in(const char *vrf)
{
    int home = open_here();
    if (home < 0)
        return -1;

    int sock = -1;
    if (lh_netns_set(vrf) == 0) {
        sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int error = errno;
        if (setns(home, CLONE_NEWNET) != 0) {
            syslog(LOG_CRIT, "cannot leave the VRF %s again: %s; ending", vrf, strerror(errno));
            _exit(EXIT_LOST); /* no exit handler may run in the wrong VRF either */
        }
        errno = error; /* of socket(), for the caller */
    }
    int error = errno;
    lh_close(&home);
    errno = error;
    return sock;
}

static void tell(const char *whose, int namespace_fd)
{
    printf("%s: net:[%lu]\n", whose, namespace_number(namespace_fd));
    fflush(stdout);
    if (namespace_fd >= 0)
        lh_close(&namespace_fd);
}

static int usage(void)
{
    fputs(usage_line, stderr);
    return 2;
}

int main(int argc, char **argv)
{
    static const struct option options[] = {{"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};
    int option;

    while ((option = getopt_long(argc, argv, "+h", options, NULL)) != -1) {
        if (option != 'h')
            return usage();
        fputs(usage_line, stdout);
        fputs(help, stdout);
        return 0;
    }
    if (argc - optind != 1 || argv[optind][0] == '\0')
        return usage();

    const char *vrf = argv[optind];
    openlog("vrf_worker", LOG_PID | LOG_PERROR, LOG_DAEMON);
    tell("before", open_here());
    int sock = socket_in(vrf);
    if (sock < 0) {
        fprintf(stderr, "vrf_worker: no socket in %s: %s\n", vrf, strerror(errno));
        return 1;
    }
    tell("socket", ioctl(sock, SIOCGSKNS)); /* the namespace that the socket belongs to */
    tell("after", open_here());
    lh_close(&sock);
    return 0;
}
