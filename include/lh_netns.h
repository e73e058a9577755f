/**
 * @file lh_netns.h
 * Network namespaces by name, their VRF indices, and a private mount namespace.
 *
 * Every VRF is a network namespace. Its name is the file name of its handle below `/var/run/netns`.
 * The default namespace has two spellings, the empty string and "1"; both are accepted everywhere,
 * "1" is what the library itself writes, and `/var/run/netns/1` is its handle.
 *
 * The library keeps nothing between calls: every call looks at the files as they are now.
 */
#ifndef LH_NETNS_H
#define LH_NETNS_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Is this the name of the default namespace?
 *
 * @param ns the name; null is logged.
 * @return true for "" and "1", else false.
 * @errno  kept.
 * @log    `PTR_IS_NULL: ns`.
 * @blocking no.
 * @threads any.
 */
bool lh_netns_is_default(const char *ns);

/**
 * Do both names mean the same namespace?
 *
 * @param ns1 a name; null is logged.
 * @param ns2 another; null is logged.
 * @return true when both are spellings of the default namespace or the same text, else false.
 * @errno  kept.
 * @log    `PTR_IS_NULL: ns1`; `PTR_IS_NULL: ns2`.
 * @blocking no.
 * @threads any.
 */
bool lh_netns_eq(const char *ns1, const char *ns2);

/**
 * The spelling of a name that is fit to be shown.
 *
 * @param ns the name; stays the caller's. Null is logged.
 * @return "1" for the default namespace, a static constant empty string for null, else `ns` itself.
 *         Never null, never to be freed.
 * @errno  kept.
 * @log    `PTR_IS_NULL: ns`.
 * @blocking no.
 * @threads any.
 */
const char *lh_netns_stringize(const char *ns);

/**
 * Open the handle of a namespace, `/var/run/netns/NS`, for reading.
 *
 * @param ns the name, at most 240 bytes; null is logged.
 * @return the descriptor, which the caller closes, or -1.
 * @errno  of `open` when that failed.
 * @log    `PTR_IS_NULL: ns`; when the path does not fit in 256 bytes the `truncated: '%s'` line of
 *         _lh_snprintf() (the path as far as it fits) and
 *         `lh_snprintf_buf failed for namespace '%s'` (ns);
 *         `open failed for '%s', %s` (the path, the error's text).
 * @blocking as `open` does.
 * @threads any.
 * @note The name goes into the path as it is: "1" opens the default namespace's handle, but ""
 *       opens the directory of the handles itself.
 * @note The descriptor is inherited by programs that the daemon starts, until the daemon sets
 *       `FD_CLOEXEC` on it.
 */
int lh_netns_fd_get(const char *ns);

/**
 * Move the calling thread into a namespace.
 *
 * @param ns the name, at most 240 bytes; null is logged. Not the empty spelling of the default
 *           namespace: see lh_netns_set_default().
 * @return 0 when the thread is in the namespace now; -1 when it is where it was.
 * @errno  of the failing call; kept for a null argument; of no meaning when the path does not fit.
 * @log    `PTR_IS_NULL: ns`; the lines of lh_netns_fd_get() and
 *         `lh_netns_fd_get failed for namespace '%s'` (ns);
 *         `syscall failed for namespace '%s', %s` (ns, the error's text).
 * @blocking as `open` does.
 * @threads any; only the calling thread is moved. Threads that it starts later begin where it is.
 * @note Needs CAP_SYS_ADMIN. A handle of another kind of namespace is accepted as well: what the
 *       handle names is what the thread enters. "" is the directory of the handles, which is no
 *       namespace, and so fails.
 * @note Descriptors keep the namespace they were opened in. So a thread has to be away only while
 *       it opens its sockets. To come back for certain, hold on to the namespace it came from
 *       before leaving: entering by name again can fail, because a handle can be gone by then.
 * @code
 * // A socket in namespace ns, with the thread back where it was; -1 on failure.
 * int socket_in(const char *ns)
 * {
 *     int sock = -1;
 *     int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
 *     if (home < 0)
 *         return -1;
 *     if (lh_netns_set(ns) == 0) {
 *         sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
 *         if (setns(home, CLONE_NEWNET) != 0)
 *             abort(); // the thread serves the wrong VRF from here on: never carry on
 *     }
 *     close(home);
 *     return sock;
 * }
 * @endcode
 */
int lh_netns_set(const char *ns);

/**
 * Move the calling thread into the default namespace: lh_netns_set() with "1".
 *
 * @return 0 when the thread is in the default namespace now; -1 when it is where it was.
 * @errno  of the failing call.
 * @log    as lh_netns_set(), whose name the lines carry.
 * @blocking as `open` does.
 * @threads any; only the calling thread is moved.
 */
int lh_netns_set_default(void);

/**
 * The VRF index of a namespace, from the map `/var/run/vrfs.map`.
 *
 * The map has one namespace a line: name, colon, decimal index, for example `mgmt:3`. The first
 * line whose name means the same as `ns`, as lh_netns_eq() sees it, decides.
 *
 * @param ns the name, or null.
 * @return the index; 0 at once and without a look at the map when `ns` is null or empty; -1 when
 *         the map has no such name or cannot be opened. A line without a number has index 0, and a
 *         map that cannot be read ends where that happens.
 * @errno  of `fopen` when that failed.
 * @log    `failed to open '%s'` (the map's path); for each line without a colon that was met on the
 *         way `no delimeter in line '%s', skipping` (the line as it was read, its newline
 *         included); `no namespace '%s' found'` (ns). The spelling and the last quote are as given.
 * @blocking on the file system.
 * @threads any.
 * @note Deliberate: "1" is looked up, the empty spelling is not. "1" also finds a line whose name
 *       is empty.
 * @note A line is read in pieces of at most 255 characters, each taken for a line of its own.
 */
int lh_netns_map_get_idx(const char *ns);

/**
 * The name of the network namespace that the process is in: the handle below `/var/run/netns` with
 * the inode number of `/proc/self/ns/net`.
 *
 * @param ns_name where the name is written, as a string; null is logged. Left as it was when no
 *                handle fits, and on failure.
 * @param size    bytes at `ns_name`; a name of up to `size` - 1 characters fits.
 * @return 0, also when **no handle was found**: put an empty string there first to tell. -1 on
 *         failure.
 * @errno  of the failing call; kept for a null argument; of no meaning when the name does not fit
 *         or the directory has too few entries.
 * @log    `PTR_IS_NULL: ns_name`; with the function's name in the inner brackets
 *         `<%s> stat failed: %s`, `<%s> opendir failed: %s` and `<%s> readdir failed: %s` (the
 *         error's text), `<%s> buffer overflow` when the name does not fit; `<%s:%d> stat failed:
 *         %s` (function, source line, the error's text) when a handle cannot be looked at.
 * @blocking on the file system.
 * @threads any. `/proc/self` is the main thread's view: on another thread that has moved by itself
 *         the answer is still about the main thread.
 * @note Deliberate: the first two entries of the directory are skipped without a look, taken for
 *       "." and ".."; a directory that gives fewer is the `readdir failed` error. Where a file
 *       system lists them later, they are looked at like handles, and two handles are missed. From
 *       the third entry on, an entry that cannot be read is the end of the list.
 * @note A handle that cannot be looked at before the right one is found fails the call. Inode
 *       numbers are compared, devices are not.
 */
int lh_netns_get_current_name(char *ns_name, size_t size);

/**
 * Give the process a private mount namespace in which `/sys` shows the devices of the network
 * namespace that it has entered before.
 *
 * @param ns the name of that namespace, which becomes the source shown for the mount of `/sys`.
 *           Null or empty is logged.
 * @return 0, or -1.
 * @errno  of the failing call; kept when there is no name.
 * @log    each with the function's name in the inner brackets and, but for the first one, the
 *         error's text: `<%s> invalid namespace`; `<%s> unshare failed: %s`;
 *         `<%s> "mount --make-rslave /" failed: %s`; `<%s> umount of /sys failed: %s`;
 *         `<%s> mount of /sys failed: %s`.
 * @blocking as the mounts do.
 * @threads before the process starts threads: one that runs already stays in the old mount
 *         namespace.
 * @note Needs CAP_SYS_ADMIN. Meant to run once in a process (or a child) that has just entered its
 *       network namespace with lh_netns_set(). There is no way back, and after a failure what has
 *       been done so far stays done: end that process.
 * @note Mounts that the rest of the system makes later still appear inside; mounts made inside stay
 *       there.
 */
int lh_mntns_set(const char *ns);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
