/* VRFs by name: comparing them, opening a socket in one, and finding out
 * where one is. */
#define _GNU_SOURCE 1

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <lh_close.h>
#include <lh_netns.h>

static void describe(const char *vrf)
{
    printf("%s: index %d%s\n", lh_netns_stringize(vrf),
           lh_netns_map_get_idx(vrf),
           lh_netns_is_default(vrf) ? ", the default one" : "");
}

/* A socket in a VRF, with the thread back where it was. */
static int socket_in(const char *vrf)
{
    int sock = -1;
    int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (home < 0)
        return -1;
    if (lh_netns_set(vrf) == 0) {
        sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (setns(home, CLONE_NEWNET) != 0)
            abort(); /* the thread serves the wrong VRF from here on */
    }
    lh_close(&home);
    return sock;
}

/* The handle keeps its namespace alive as long as it is open. */
static int hold(const char *vrf)
{
    int fd = lh_netns_fd_get(vrf);
    if (fd >= 0)
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

static void show_where(void)
{
    char name[64] = ""; /* left as it is when no handle fits */
    if (lh_netns_get_current_name(name, sizeof(name)) == 0)
        printf("in %s\n", name[0] != '\0' ? name : "no VRF");
}

/* A child that lives in a VRF for good, with that VRF's own /sys. */
static int run_in(const char *vrf)
{
    int status = 1;
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        if (lh_netns_set(vrf) != 0 || lh_mntns_set(vrf) != 0)
            _exit(1);
        show_where();
        fflush(stdout);
        _exit(0);
    }
    waitpid(child, &status, 0);
    return status;
}

int main(void)
{
    describe("");
    describe("blue");
    printf("%d\n", lh_netns_eq("", "1")); /* both are the default one */

    int handle = hold("blue");
    int sock = socket_in("blue");
    printf("%d\n", handle >= 0 && sock >= 0);
    show_where();
    printf("%d\n", run_in("blue"));
    lh_netns_set_default(); /* wherever the thread was */
    show_where();
    return 0;
}

/* Prints:
 * 1: index 0, the default one
 * blue: index 3
 * 1
 * 1
 * in 1
 * in blue
 * 0
 * in 1
 */
