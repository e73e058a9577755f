/* A function of a daemon that checks its arguments. Each check that
 * fires writes its line. */
#define _GNU_SOURCE 1

#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <lh_check.h>

enum { PORT_MAX = 64 };

struct port {
    const char *name;
    int number;
    unsigned speed;
};

static int port_init(struct port *port, const char *name, int number,
                     unsigned speed)
{
    if (PTR_IS_NULL(port) || PTR_IS_NULL(name))
        return -1;
    if (PTR_NOT_NULL(port->name)) /* initialised already */
        return -1;
    if (IS_LT(number, 0) || IS_MT(number, PORT_MAX))
        return -1;
    if (OUT_OF_RANGE(speed, 10, 1000))
        return -1;
    *port = (struct port){name, number, speed};
    return 0;
}

static int port_move(struct port *port, int number, unsigned owner,
                     unsigned owners)
{
    if (IS_EQ(number, port->number)) /* it is there already */
        return -1;
    if (IS_ME(owner, owners)) /* 0 to owners - 1 */
        return -1;
    if (IS_NE(number % 2, 0)) /* even numbers only */
        return -1;
    port->number = number;
    return 0;
}

static int port_save(const struct port *port, const char *path)
{
    if (IS_NOT(access(path, F_OK) == 0))
        return -1;
    FILE *file = fopen(path, "w");
    if (PTR_IS_NULL(file))
        return -1;
    fprintf(file, "%s %d\n", port->name, port->number);
    return CALL_FAILED(fclose(file)) ? -1 : 0;
}

int main(void)
{
    struct port port = {0};
    openlog("ports", LOG_PID, LOG_DAEMON);
    /* PTR_IS_NULL: port */
    printf("%d\n", port_init(NULL, "eth0", 1, 100));
    /* IS_LT check failed: number (-1 < 0) !!! */
    printf("%d\n", port_init(&port, "eth0", -1, 100));
    printf("%d\n", port_init(&port, "eth0", 1, 100));
    /* IS_NE check failed: number % 2 (1 != 0) !!! */
    printf("%d\n", port_move(&port, 3, 0, 2));
    printf("%d\n", port_move(&port, 2, 0, 2));
    /* IS_NOT: access(path, F_OK) == 0 */
    printf("%d\n", port_save(&port, "missing"));
    return 0;
}

/* Prints:
 * -1
 * -1
 * 0
 * -1
 * 0
 * -1
 */
