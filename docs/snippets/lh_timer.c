/* A timer as a descriptor, and times of other machines. */
#include <stdio.h>

#include <lh_close.h>
#include <lh_timer.h>

static int on_tick(void *arg)
{
    printf("tick %d\n", ++*(int *)arg);
    return 0;
}

/* In a daemon the poll loop waits; here it is the handling itself. */
static int tick_twice(void)
{
    int ticks = 0;
    int fd = lh_timer_fd_create(lh_timer_ms_to_timespec(5));
    if (fd < 0)
        return -1;
    while (ticks < 2 && lh_timer_fd_handle(fd, on_tick, &ticks) == 0)
        ;
    return lh_close(&fd);
}

/* A peer of the other byte order sends its clock. */
static void show_peer_time(struct timeval sent)
{
    struct tm local;
    lh_struct_timeval_bs(&sent);
    if (lh_localtime_unix((uint32_t)sent.tv_sec, &local) == 0)
        printf("the peer's year is %d\n", local.tm_year + 1900);
}

int main(void)
{
    struct timeval sent = {.tv_sec = 1709622489, .tv_usec = 0};
    tick_twice();
    lh_struct_timeval_bs(&sent); /* as the peer sees it */
    show_peer_time(sent);
    printf("%ld s\n", (long)lh_timer_s_to_timespec(30).tv_sec);
    return 0;
}

/* Prints:
 * tick 1
 * tick 2
 * the peer's year is 2024
 * 30 s
 */
