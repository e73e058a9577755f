/* What a daemon waits for, in its own log. */
#include <stdio.h>
#include <stdlib.h>

#include <lh_select.h>

static void show(const fd_set *set, int nfds)
{
    char *text = lh_select_fdset_strdup(set, nfds);
    if (text == NULL)
        return;
    printf("%d: [%s]\n", lh_select_fdset_fds_cnt_get(set, nfds), text);
    free(text);
}

int main(void)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(3, &set);
    FD_SET(5, &set);
    show(&set, 6);
    /* writes nothing, in spite of its name */
    lh_select_fdset_print(&set, 6);
    return 0;
}

/* Prints:
 * 2: [3 5 ]
 */
