/* A descriptor that knows whether it is open. */
#include <fcntl.h>
#include <stdio.h>

#include <lh_close.h>

struct source {
    int fd; /* -1: closed */
};

/* May be called in any state. */
static void source_stop(struct source *source)
{
    if (source->fd >= 0) /* closing twice would be logged */
        lh_close(&source->fd);
}

int main(void)
{
    struct source source = {.fd = open("/dev/null", O_RDONLY)};
    source_stop(&source);
    source_stop(&source);
    printf("%d\n", source.fd);
    return 0;
}

/* Prints:
 * -1
 */
