/* The one counter runtime of a process that runs the library's coverage build.
 *
 * The compiler would put a copy of it into the library. The tests redirect the library's links to
 * make its calls fail, and would hit the runtime's own with them; so it stands in an object of its
 * own, and the linker leads the library's references here (--wrap). As this object comes before
 * the C library, it also sees every end of a process that would lose the counters. */
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

void __gcov_init(void *info);
void __gcov_exit(void);
void __gcov_merge_add(int64_t *counters, unsigned count);
void __gcov_dump(void);
void __gcov_reset(void);

enum { high_descriptor = 500 }; /* out of the way of whoever expects the lowest free one */

/* The tests cover directories in mount namespaces of their own. Seen from this descriptor, every
   directory is as it was when the process started. Empty where no descriptor was free. */
static char real_root[64];

__attribute__((constructor)) static void start(void)
{
    const int fd = open("/", O_PATH | O_CLOEXEC);
    const int root = fcntl(fd, F_DUPFD_CLOEXEC, high_descriptor);
    if (root >= 0)
        snprintf(real_root, sizeof(real_root), "/proc/self/fd/%d", root);
    if (fd >= 0)
        close(fd);
    /* A child counts from zero: what its parent counted is the parent's to write. */
    pthread_atfork(NULL, NULL, __gcov_reset);
}

/* The runtime adds to what other processes wrote, and locks each file meanwhile. */
static void write_counters(void (*writer)(void))
{
    if (real_root[0] != '\0')
        setenv("GCOV_PREFIX", real_root, 1);
    writer();
    unsetenv("GCOV_PREFIX");
}

void __wrap___gcov_init(void *info)
{
    __gcov_init(info);
}

void __wrap___gcov_exit(void)
{
    write_counters(__gcov_exit);
}

void __wrap___gcov_merge_add(int64_t *counters, unsigned count)
{
    __gcov_merge_add(counters, count);
}

void _exit(int status)
{
    write_counters(__gcov_dump);
    for (;;)
        syscall(SYS_exit_group, status);
}

int execl(const char *path, const char *first, ...)
{
    const char *words[16] = {first};
    va_list rest;
    va_start(rest, first);
    for (int i = 1; i < 15 && words[i - 1] != NULL; i++)
        words[i] = va_arg(rest, const char *);
    va_end(rest);
    write_counters(__gcov_dump);
    const int result = execv(path, (char *const *)words);
    __gcov_reset(); /* counts on, and may be written again */
    return result;
}
