/* Names of interfaces in a list that owns its copies. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <lh_list.h>

static void add_interface(lh_list *names, const char *name, int urgent)
{
    size_t size = strlen(name) + 1;
    /* 1 is success here. */
    int added = urgent ? lh_list_add(names, name, size)
                       : lh_list_add_tail(names, name, size);
    if (!added)
        printf("no memory for %s\n", name);
}

static int starts_with(const void *data, const void *key, size_t size)
{
    (void)size;
    return strncmp(data, key, strlen(key)) == 0;
}

static void look_up(const lh_list *names)
{
    char name[8] = "eth1"; /* as long as the longest element, at least */
    printf("eth1: %d\n", lh_list_contains(names, name));
    printf("any VLAN: %d\n",
           lh_list_contains_ex(names, "vlan", starts_with));
}

static void walk(const lh_list *names)
{
    for (const lh_list *link = names->next; link != names;
         link = link->next)
        printf("%s\n", (const char *)((const lh_list_node *)link)->data);
}

/* What is taken out belongs to the caller. */
static void take_both_ends(lh_list *names)
{
    char *first = lh_list_pop_front(names);
    char *last = lh_list_pop_back(names);
    if (first != NULL && last != NULL)
        printf("from %s to %s\n", first, last);
    free(first);
    free(last);
}

int main(void)
{
    lh_list names = {&names, &names}; /* empty */
    add_interface(&names, "eth1", 0);
    add_interface(&names, "vlan20", 0);
    add_interface(&names, "eth0", 1);
    walk(&names);
    look_up(&names);
    take_both_ends(&names);
    lh_list_free(&names);
    return lh_list_empty(&names) ? 0 : 1;
}

/* Prints:
 * eth0
 * eth1
 * vlan20
 * eth1: 1
 * any VLAN: 1
 * from eth0 to vlan20
 */
