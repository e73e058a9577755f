#include <cstring>
#include <sched.h>
#include <sys/mount.h>

#include "core/log.hpp"
#include "lh_netns.h"

using namespace vyt;

// Deliberate: a failing step leaves the steps before it done. There is no way back out of a mount
// namespace, so the process that could not get its own is of no use to anyone and ends.
int lh_mntns_set(const char *ns)
{
    if (ns == nullptr || *ns == '\0') {
        LOG_ERROR("<%s> invalid namespace", __func__);
        return -1;
    }
    if (unshare(CLONE_NEWNS) != 0) {
        LOG_ERROR("<%s> unshare failed: %s", __func__, strerror(errno));
        return -1;
    }
    if (mount("", "/", "none", MS_REC | MS_SLAVE, nullptr) != 0) {
        LOG_ERROR("<%s> \"mount --make-rslave /\" failed: %s", __func__, strerror(errno));
        return -1;
    }
    if (umount2("/sys", MNT_DETACH) != 0) {
        LOG_ERROR("<%s> umount of /sys failed: %s", __func__, strerror(errno));
        return -1;
    }
    if (mount(ns, "/sys", "sysfs", 0, nullptr) != 0) {
        LOG_ERROR("<%s> mount of /sys failed: %s", __func__, strerror(errno));
        return -1;
    }
    return 0;
}
