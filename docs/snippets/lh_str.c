/* Texts in fixed buffers and on the heap. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <lh_str.h>

/* In a buffer that was zeroed: inserting writes no terminator. */
static void edit_in_place(void)
{
    char name[16] = "eth0";
    lh_str_insert_str(name, sizeof(name), name + 4, ".100", 4);
    lh_str_insert_chr(name, sizeof(name), name, '_');
    lh_str_replace_symbol(name, '.', '-');
    lh_str_toupper(name, sizeof(name));
    printf("%s with %zu zeros\n", name,
           lh_str_chr_cnt_get(name, strlen(name), '0'));
    lh_str_tolower(name, sizeof(name));
    printf("%s\n", name);
}

/* A list that grows. A failed step frees it, so one look at the end is
 * enough. */
static char *join(const char *const *names, int count)
{
    char *list = NULL;
    for (int i = 0; i < count; i++) {
        if (lh_str_add(&list, "%s%s", i > 0 ? "," : "", names[i]) != 0)
            return NULL;
    }
    return list;
}

/* The old text may be among the arguments. */
static void put_in_brackets(char **text)
{
    if (lh_str_vasprintf(text, "[%s]", *text) == 0)
        printf("%s\n", *text);
}

static void quote(const char *text)
{
    char *quoted = NULL; /* stays null when there is nothing to do */
    if (lh_str_insert_str_before_each_of_chrs(text, "\\", "'",
                                              &quoted) == 0)
        printf("%s\n", quoted != NULL ? quoted : text);
    free(quoted);
}

static int make_path(char *path, size_t size, int pid)
{
    /* -1 when it does not fit */
    return _lh_snprintf(path, size, "/run/worker.%d", pid);
}

static void show_digits(const char *text)
{
    unsigned char bytes[2];
    char *hex = lh_str_to_hex(text);
    char *again = hex != NULL ? lh_hex_to_str(hex) : NULL;
    if (again != NULL && hex2bin(bytes, hex, sizeof(bytes)) == 0)
        printf("%s is %s, from %u and %u on\n", again, hex, bytes[0],
               bytes[1]);
    free(again);
    free(hex);
}

int main(void)
{
    const char *const names[] = {"eth0", "eth1"};
    char path[32];
    edit_in_place();
    char *list = join(names, 2);
    put_in_brackets(&list);
    free(list);
    quote("it's");
    if (make_path(path, sizeof(path), 77) == 0)
        printf("%s\n", path);
    show_digits("VRF");
    return 0;
}

/* Prints:
 * _ETH0-100 with 3 zeros
 * _eth0-100
 * [eth0,eth1]
 * it\'s
 * /run/worker.77
 * VRF is 565246, from 86 and 82 on
 */
