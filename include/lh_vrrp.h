/**
 * @file lh_vrrp.h
 * The status of VRRP groups and instances, followed through the VRRP daemon's status file.
 *
 * The VRRP daemon publishes the state of its instances in "/var/cache/vrrp_data". A daemon that
 * wants to know whether a group (1 to 32), or one instance (a network namespace and a Virtual Router
 * Id, 1 to 255), is master:
 *
 * @code
 * int fd = lh_vrrp_info_init();
 * lh_vrrp_group_info_update_enable(1);
 * lh_poll_ctx_fd_add(&ctx, "vrrp", fd, on_vrrp, &daemon);
 * lh_vrrp_info_update();                                     // the first reading
 * lh_poll_ctx_main_loop(&ctx);
 *
 * static int on_vrrp(int fd, void *arg)
 * {
 *     lh_vrrp_info_update();
 *     int status = lh_vrrp_group_status_get(1);              // compare with the one seen before
 *     ...
 * @endcode
 *
 * There is one tracker in a process. All calls come from the thread that runs the poll loop. Every
 * call is answered before lh_vrrp_info_init() and after lh_vrrp_info_deinit(), too. Debug lines are
 * written while the debug flag "VRRP_DBG" (flag 1 of subsystem 99) is on.
 *
 * Network namespaces are given by name; null, "" and "1" all mean the default one.
 *
 * Whoever writes the status file should write it aside and rename it into place, so that no reader
 * sees half of it. This reader survives a file that shrinks, vanishes or is replaced while it is
 * read: what could be read decides.
 */
#ifndef LH_VRRP_H
#define LH_VRRP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Status of a group or an instance. */
enum lh_vrrp_status {
    LH_VRRP_STATUS_INVALID = -1, /**< never read, or the error result of a query */
    LH_VRRP_STATUS_UNKNOWN = 0,  /**< followed, but not in the last reading */
    LH_VRRP_STATUS_INIT = 1,     /**< starting; for groups see lh_vrrp_info_update() */
    LH_VRRP_STATUS_BACKUP = 2,   /**< another router is master */
    LH_VRRP_STATUS_MASTER = 3,   /**< this router is master */
    LH_VRRP_STATUS_FAULT = 4     /**< not able to be master, for want of a link say */
};

/** Size of one name given by lh_vrrp_group_members_vifname_get(). */
#define LH_VRRP_VIFNAME_SIZE 16

/** Shared by the daemons that use the VRRP data; zero at load, never touched by the library. */
extern int32_t shmem_init_err_t;
/** Shared by the daemons that use the VRRP data; zero at load, never touched by the library. */
extern int64_t garp_delay;

/**
 * Start the tracker.
 *
 * @return the descriptor to poll for reading, which stays the tracker's; -1 on failure.
 * @errno  of the failing call; kept when it was started already.
 * @log    `PTR_NOT_NULL: vrrp_ctx.inotify` when it was started already; the lines of
 *         lh_inotify_create() and then `PTR_IS_NULL: vrrp_ctx.inotify` when the watcher could not
 *         be made; the lines of lh_inotify_include_file(), when it failed with the debug line
 *         `lh_inotify_include_file failed: %s` behind them.
 * @blocking on the file system (a `stat`).
 * @threads the poll loop's.
 * @note Instances that were enabled before are forgotten; enabled groups stay. Call
 *       lh_vrrp_info_update() once after enabling what is to be followed. The directory
 *       "/var/cache/" is created whenever it is missing.
 */
int lh_vrrp_info_init(void);

/**
 * Start over on a new descriptor, for example after an overflow of the kernel's event queue.
 *
 * @return the new descriptor, to be polled instead of the old one (which is closed: take it out of
 *         the poll loop first); -1 on failure and while the tracker is not started.
 * @errno  of `inotify_init1`.
 * @log    as lh_inotify_restart().
 * @blocking no.
 * @threads the poll loop's.
 * @note Call lh_vrrp_info_update() afterwards, which arms the watch again and reads the file.
 */
int lh_vrrp_info_restart(void);

/**
 * Stop the tracker and forget everything that was followed. A tracker that is not started only
 * forgets.
 *
 * @errno  of no meaning.
 * @log    none.
 * @blocking no.
 * @threads the poll loop's.
 * @note Take the descriptor out of the poll loop first.
 */
void lh_vrrp_info_deinit(void);

/**
 * Follow a group. Doing so again changes nothing.
 *
 * @param group 1 to 32.
 * @return 0, or -1.
 * @errno  EINVAL for a group out of range; ENOMEM.
 * @log    `IS_ME check failed: group (%lu >= %lu) !!!` (the group minus one as an unsigned 32-bit
 *         number, 32). Debug line `malloc failed %s` (function `create_vrrp_group`). Once more for
 *         the same range, which does not happen: `IS_ME check failed: gidx (%lu >= %lu) !!!`
 *         (function `create_vrrp_group`).
 * @blocking no.
 * @threads the poll loop's.
 * @note The status is "Unknown" until the next lh_vrrp_info_update().
 */
int lh_vrrp_group_info_update_enable(uint32_t group);

/**
 * Stop following a group. Members that are followed for themselves stay followed.
 *
 * @param group 1 to 32.
 * @return 0, or -1.
 * @errno  EINVAL for a group out of range; ENODATA, without a line, for one that is not followed.
 * @log    `IS_ME check failed: group (%lu >= %lu) !!!`.
 * @blocking no.
 * @threads the poll loop's.
 */
int lh_vrrp_group_info_update_disable(uint32_t group);

/**
 * Follow one instance for itself. Doing so again changes nothing.
 *
 * @param netns its network namespace; null, "" and "1" are the default one. Copied; at most 31
 *              characters are kept, so an instance of a longer name is never found again.
 * @param vrid  its Virtual Router Id, 1 to 255.
 * @return 0, or -1.
 * @errno  EINVAL for a Virtual Router Id out of range; ENOMEM.
 * @log    `IS_ME check failed: instance (%lu >= %lu) !!!` (the id minus one, 255). Debug lines
 *         `calloc failed %s` (function `create_vrf_instance`), `malloc failed %s` (function
 *         `create_vrrp_instance`). Once more for the same range, which does not happen: `IS_ME
 *         check failed: vridx (%lu >= %lu) !!!` (function `create_vrrp_instance`).
 * @blocking no.
 * @threads the poll loop's.
 */
int lh_vrrp_instance_info_update_enable(const char *netns, uint32_t vrid);

/**
 * Stop following an instance.
 *
 * @param netns as for lh_vrrp_instance_info_update_enable().
 * @param vrid  1 to 255.
 * @return 0, also for an instance that is not followed; -1 for an id out of range.
 * @errno  EINVAL for a Virtual Router Id out of range.
 * @log    `IS_ME check failed: instance (%lu >= %lu) !!!`.
 * @blocking no.
 * @threads the poll loop's.
 * @note The instance is forgotten even when a followed group has it as a member; the next reading
 *       finds it again.
 */
int lh_vrrp_instance_info_update_disable(const char *netns, uint32_t vrid);

/**
 * Read the status file if it changed (or if something followed has no status yet) and bring every
 * status up to date. To be called when the tracker's descriptor is readable and after enabling.
 *
 * A group's status comes from its members in the file: "Master" when all are master, "Backup" when
 * at least one is backup and none is in init or fault, else that of the first member in init or
 * fault. What the file does not name is "Unknown", and so is everything while the file is missing.
 *
 * @return 0, or -1.
 * @errno  ENODATA, without a line, while nothing is followed; EIO when the watcher or the file
 *         could not be read, or the file's size is no multiple of 576 bytes; ENOENT when the file
 *         is empty; kept while the tracker is not started, although its debug line tells of it. 0
 *         after a good reading, of no meaning when nothing had to be read.
 * @log    `PTR_IS_NULL: ptr` (function `lh_inotify_process`) while the tracker is not started;
 *         `IS_NE check failed: remainder (%lu != %lu) !!!` (function `read_vrrp_info`) for a file
 *         of a wrong size; the lines of lh_file_size_get() and lh_inotify_process(); `IS_ME check
 *         failed: vridx (%lu >= %lu) !!!` (function `create_vrrp_instance`), which does not happen.
 *         Debug lines: `lh_inotify_process failed: %s`; of `read_vrrp_info`: `open failed: %s` and
 *         `mmap failed: %s` (with line number; the second one also when reading the bytes fails),
 *         `invalid Virtual Router Id %d`, `invalid VRRP group %d`, `create_vrf_instance failed: %s`
 *         (after `calloc failed %s` of `create_vrf_instance`), `create_vrrp_instance failed: %s`
 *         (after `malloc failed %s` of `create_vrrp_instance`), `unexpected status %d`; `VRRP group
 *         %d change status %s to %s`.
 * @blocking on the file system; see lh_inotify_process() for the seconds that arming a watch may
 *         take while the directory is being lost.
 * @threads the poll loop's.
 * @note The file is read into memory, as much as it is large, until the call returns: a publisher
 *       that cuts it short meanwhile does no harm.
 * @note After a failed reading every status is "Unknown". A status file that names one instance
 *       twice counts both for the groups' statuses; the instance is a member once, of the group that
 *       its last record names.
 */
int lh_vrrp_info_update(void);

/**
 * The status of a followed group.
 *
 * @param group 1 to 32.
 * @return one of enum lh_vrrp_status; -1 on failure.
 * @errno  EINVAL for a group out of range; ENODATA, without a line, for one that is not followed.
 * @log    `IS_ME check failed: group (%lu >= %lu) !!!`.
 * @blocking no.
 * @threads the poll loop's.
 */
int lh_vrrp_group_status_get(uint32_t group);

/**
 * Is a followed group master?
 *
 * @param group 1 to 32.
 * @return 1 when its status is "Master", else 0, also on failure.
 * @errno  as lh_vrrp_group_status_get().
 * @log    as lh_vrrp_group_status_get(), whose name the lines carry.
 * @blocking no.
 * @threads the poll loop's.
 */
int lh_vrrp_group_status_is_master(uint32_t group);

/**
 * Is a followed group backup?
 *
 * @param group 1 to 32.
 * @return 1 when its status is "Backup", else 0, also on failure.
 * @errno  as lh_vrrp_group_status_get().
 * @log    as lh_vrrp_group_status_get(), whose name the lines carry.
 * @blocking no.
 * @threads the poll loop's.
 */
int lh_vrrp_group_status_is_backup(uint32_t group);

/**
 * The status of an instance that is followed, or a member of a followed group.
 *
 * @param netns as for lh_vrrp_instance_info_update_enable().
 * @param vrid  1 to 255.
 * @return one of enum lh_vrrp_status; -1 on failure.
 * @errno  EINVAL for a Virtual Router Id out of range; ENODATA, without a line, when the namespace is
 *         known but not the instance; untouched when the namespace is not known.
 * @log    `IS_ME check failed: instance (%lu >= %lu) !!!`.
 * @blocking no.
 * @threads the poll loop's.
 */
int lh_vrrp_instance_status_get(const char *netns, uint32_t vrid);

/**
 * How many instances the last reading put into a followed group.
 *
 * @param group 1 to 32.
 * @return the number, or -1.
 * @errno  EINVAL for a group out of range; ENODATA, without a line, for one that is not followed.
 * @log    `IS_ME check failed: group (%lu >= %lu) !!!`.
 * @blocking no.
 * @threads the poll loop's.
 */
int lh_vrrp_group_members_num_get(uint32_t group);

/**
 * The virtual interface names ("vrrp.%d" of each Virtual Router Id) of a followed group's members,
 * the last one in the file first.
 *
 * @param group 1 to 32.
 * @param names where the names go, `max` slots of 16 bytes, each terminated; null is logged, but for
 *              a `max` of 0 or less.
 * @param max   how many slots there are.
 * @return the number of names when all fit; `max + 1` when there are more members than `max`, and
 *         `max` names were given; -1 on failure.
 * @errno  EINVAL for a group out of range; ENODATA, without a line, for one that is not followed;
 *         ENOBUFS, without a line, when `max` is 0 or less and there is a member.
 * @log    `PTR_IS_NULL: names`; `IS_ME check failed: group (%lu >= %lu) !!!`.
 * @blocking no.
 * @threads the poll loop's.
 * @note The name says nothing of the namespace: members of two namespaces may have the same one.
 */
int lh_vrrp_group_members_vifname_get(uint32_t group, char names[][LH_VRRP_VIFNAME_SIZE], int max);

/**
 * The text of a status.
 *
 * @param status one of enum lh_vrrp_status.
 * @return "Invalid", "Unknown", "Init", "Backup", "Master" or "Fault", a constant; the empty string
 *         for any other number.
 * @errno  EINVAL for any other number.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
const char *lh_vrrp_status_stringize(int32_t status);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
