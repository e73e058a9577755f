/* A daemon that wants to know whether group 1, and an instance in the
 * VRF blue, are master. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <lh_file.h>
#include <lh_vrrp.h>

/* Start the tracker; the result is the descriptor for the poll loop. */
static int start(void)
{
    int fd = lh_vrrp_info_init();
    if (fd < 0)
        return -1;
    lh_vrrp_group_info_update_enable(1);
    lh_vrrp_instance_info_update_enable("blue", 30);
    lh_vrrp_info_update(); /* the first reading */
    return fd;
}

/* The handler of the descriptor. */
static int on_readable(int fd, void *arg)
{
    (void)fd, (void)arg;
    lh_vrrp_info_update();
    const char *status =
        lh_vrrp_status_stringize(lh_vrrp_group_status_get(1));
    printf("group 1: %s, master %d, backup %d\n", status,
           lh_vrrp_group_status_is_master(1),
           lh_vrrp_group_status_is_backup(1));
    printf("blue:30: %s\n",
           lh_vrrp_status_stringize(
               lh_vrrp_instance_status_get("blue", 30)));
    return 0;
}

static void show_members(uint32_t group)
{
    char names[8][LH_VRRP_VIFNAME_SIZE];
    int count = lh_vrrp_group_members_vifname_get(group, names, 8);
    printf("%d members\n", lh_vrrp_group_members_num_get(group));
    for (int i = 0; i < count && i < 8; i++)
        printf("%s\n", names[i]);
}

/* After an overflow of the kernel's queue: the descriptor is a new one
 * from here on. */
static int start_over(void)
{
    int fd = lh_vrrp_info_restart();
    lh_vrrp_info_update();
    return fd;
}

static void stop(void)
{
    lh_vrrp_instance_info_update_disable("blue", 30);
    lh_vrrp_group_info_update_disable(1);
    lh_vrrp_info_deinit();
}

/* What the VRRP daemon does: records of 576 bytes, written aside and
 * renamed into place. */
static void publish(int vrid, int state, int group, const char *netns)
{
    char record[576] = {0};
    memcpy(record, &vrid, 4);
    memcpy(record + 472, &state, 4);
    memcpy(record + 496, &group, 4);
    strcpy(record + 521, netns);
    lh_file_write("/var/cache/aside", record, sizeof(record));
    rename("/var/cache/aside", "/var/cache/vrrp_data");
}

int main(void)
{
    int fd = start();
    if (fd < 0)
        return 1;
    publish(10, 2, 1, "");
    on_readable(fd, NULL);
    show_members(1);
    fd = start_over();
    publish(30, 1, 0, "blue");
    on_readable(fd, NULL);
    stop();
    /* the daemons' own, never touched */
    return shmem_init_err_t == 0 && garp_delay == 0 ? 0 : 1;
}

/* Prints:
 * group 1: Master, master 1, backup 0
 * blue:30: Unknown
 * 1 members
 * vrrp.10
 * group 1: Unknown, master 0, backup 0
 * blue:30: Backup
 */
