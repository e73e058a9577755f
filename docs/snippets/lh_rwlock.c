/* A table that threads share: many readers or one writer. */
#define _GNU_SOURCE 1

#include <stdio.h>

#include <lh_rwlock.h>

struct table {
    pthread_rwlock_t lock;
    int routes;
};

static int count_routes(struct table *table)
{
    if (lh_rwlock_read_lock(&table->lock) != 0)
        return -1;
    int routes = table->routes;
    lh_rwlock_unlock(&table->lock);
    return routes;
}

static int add_route(struct table *table)
{
    if (lh_rwlock_write_lock(&table->lock) != 0)
        return -1;
    table->routes++;
    return lh_rwlock_unlock(&table->lock);
}

/* From the poll loop, which must not wait: 1 is "busy, try again". */
static int try_to_flush(struct table *table)
{
    int rc = lh_rwlock_write_trylock(&table->lock);
    if (rc != 0)
        return rc;
    table->routes = 0;
    return lh_rwlock_unlock(&table->lock);
}

int main(void)
{
    struct table table = {.routes = 0};
    if (lh_rwlock_init(&table.lock, NULL) != 0)
        return 1;
    add_route(&table);
    printf("%d routes\n", count_routes(&table));

    lh_rwlock_read_trylock(&table.lock);
    printf("while somebody reads: %d\n", try_to_flush(&table));
    lh_rwlock_unlock(&table.lock);
    printf("afterwards: %d\n", try_to_flush(&table));
    printf("%d routes\n", count_routes(&table));
    return lh_rwlock_destroy(&table.lock);
}

/* Prints:
 * 1 routes
 * while somebody reads: 1
 * afterwards: 0
 * 0 routes
 */
