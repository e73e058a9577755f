/* The unit's number: now, and after the next reboot. */
#include <stdio.h>

#include <lh_dir.h>
#include <lh_unit.h>

static void introduce(void)
{
    int now, next;
    if (lh_unit_ids_get(&now, &next) == 0 &&
        lh_unit_id_after_reboot_get(&next) == 0)
        printf("unit %d, %d after the next reboot\n", now, next);
}

/* The number changes with the next reboot. */
static int renumber(int number)
{
    return lh_unit_ids_set(lh_unit_id_get(), number);
}

/* For a peer of the other byte order. */
static int record_for_peer(lh_unit_t *unit)
{
    return lh_unit_get(unit) == 0 ? lh_unit_bswap(unit) : -1;
}

static int stand_alone(void)
{
    lh_unit_t unit = {LH_UNIT_MODE_STANDALONE, LH_UNIT_MODE_STANDALONE,
                      1, 1, 1};
    return lh_unit_set(&unit);
}

int main(void)
{
    lh_unit_t record;
    lh_dir_lookup_opts opts = {.flags = LH_DIR_DESCEND};
    lh_dir_create("/mnt/config/etc/config/vyt", &opts, 0755);

    lh_unit_init(); /* no file yet: a unit that stands alone */
    introduce();
    if (renumber(2) != 0)
        return 1;
    introduce();
    printf("as it was loaded: %s\n", lh_unit_id_get_str_static());
    if (record_for_peer(&record) == 0)
        printf("%08x\n", record.id_after_reboot);
    return stand_alone();
}

/* Prints:
 * unit 1, 1 after the next reboot
 * unit 1, 2 after the next reboot
 * as it was loaded: 1
 * 02000000
 */
