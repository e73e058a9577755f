/* The ports of a switch as bits: kept as digits in a file, combined, and
 * counted. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <lh_bf.h>

static void show(const char *what, const lh_bf_t *ports)
{
    char *bits = lh_bf_strdup(ports);
    if (bits == NULL)
        return;
    printf("%s: %s, %d of %zu set\n", what, bits, lh_bf_popcount(ports),
           lh_bf_n_bits_get(ports));
    free(bits);
}

/* Port 0 goes down when it was up. */
static int shut_port_0(lh_bf_t *ports)
{
    bool up = false;
    if (lh_bf_bit_get(ports, 0, &up) != 0)
        return -1;
    return up ? lh_bf_bit_clear(ports, 0) : 0;
}

/* The text form for a configuration file, and the way back. */
static lh_bf_t *copy_through_text(const lh_bf_t *ports)
{
    char *digits = malloc(lh_bf_hex_str_size_get(ports));
    lh_bf_t *copy = NULL;
    if (digits != NULL &&
        lh_bf_stringize_hex(ports, digits,
                            lh_bf_hex_str_size_get(ports)) == 0) {
        printf("saved as %s\n", digits);
        copy = lh_bf_alloc(NULL,
                           lh_bf_size_for_hex_str_get(strlen(digits)));
        if (copy != NULL &&
            lh_bf_hex_str_parse(copy, digits, strlen(digits)) != 0) {
            lh_bf_free(copy);
            copy = NULL;
        }
    }
    free(digits);
    return copy;
}

/* Which ports are up and not in `used`? The result replaces `used`. */
static void show_idle(lh_bf_t *used, const lh_bf_t *up)
{
    lh_bf_not(used);
    lh_bf_and(used, up);
    if (lh_bf_is_dirty(used))
        show("idle", used);
}

int main(void)
{
    lh_bf_t *up = lh_bf_alloc(NULL, 2); /* 16 ports, all down */
    lh_bf_bit_set(up, 0);
    lh_bf_bit_set(up, 3);
    lh_bf_bit_set(up, 9);
    show("up", up);
    shut_port_0(up);

    lh_bf_t *used = copy_through_text(up);
    lh_bf_bit_clear(used, 9);
    show_idle(used, up);

    size_t port = 15;
    /* one that is out of range is logged */
    if (!lh_bf_bit_out_of_range(up, port))
        lh_bf_bit_set(up, port);
    printf("%zu bytes of text; the highest of 3, 9 and 15 is %d\n",
           lh_bf_str_size_get(up), _lh_max_int_get(3, 9, 15, -1));
    lh_bf_free(used);
    lh_bf_free(up);
    return 0;
}

/* Prints:
 * up: 1001000001000000, 3 of 16 set
 * saved as 0802
 * idle: 0000000001000000, 1 of 16 set
 * 17 bytes of text; the highest of 3, 9 and 15 is 15
 */
