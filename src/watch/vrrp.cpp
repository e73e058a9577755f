// The registry's calls: starting, following, asking.
#include "lh_vrrp.h"

#include <cstdlib>
#include <cstring>

#include "core/debug.hpp"
#include "core/platform.hpp"
#include "watch/vrrp_tracker.hpp"

using namespace vyt;

int32_t shmem_init_err_t;
int64_t garp_delay;
static_assert(sizeof(shmem_init_err_t) == 4 && sizeof(garp_delay) == 8);

namespace {

void on_status_file(void *tracker)
{
    static_cast<vrrp_tracker *>(tracker)->changed = 1;
}

void destroy_all_vrfs()
{
    for (vrrp_vrf &vrf : list_of<vrrp_vrf>(vrrp_ctx.vrfs))
        destroy_vrf(&vrf);
    vrrp_ctx.vrfs_by_netns.clear();
}

// The two range checks. The lines show the number minus one, unsigned, and the exported function.
#define GROUP_OUT_OF_RANGE(group) out_of_range(IS_ME_TEXT((group)-1, "group", group_max))
#define INSTANCE_OUT_OF_RANGE(vrid) out_of_range(IS_ME_TEXT((vrid)-1, "instance", vrid_max))

bool out_of_range(int fired)
{
    if (fired != 0)
        errno = EINVAL;
    return fired != 0;
}

vrrp_group *no_data()
{
    errno = ENODATA;
    return nullptr;
}

// The record of a followed group, or null with ENODATA.
vrrp_group *followed_group(uint32_t group)
{
    vrrp_group *record = find_group(group);
    return record != nullptr ? record : no_data();
}

int create_vrrp_group(uint32_t gidx)
{
    if (out_of_range(IS_ME(gidx, group_max)))
        return -1;
    if (vrrp_ctx.groups[gidx] != nullptr)
        return 0;
    auto *group = static_cast<vrrp_group *>(malloc(sizeof(vrrp_group)));
    if (group == nullptr) {
        DEBUG_LINE(vrrp_dbg, "malloc failed %s", strerror(errno));
        return -1;
    }
    group->prev_status = LH_VRRP_STATUS_INVALID;
    group->status = LH_VRRP_STATUS_UNKNOWN;
    list_init(&group->members);
    vrrp_ctx.groups[gidx] = group;
    vrrp_ctx.watch_count++;
    return 0;
}

} // namespace

int lh_vrrp_info_init(void)
{
    if (PTR_NOT_NULL(vrrp_ctx.inotify))
        return -1;
    destroy_all_vrfs();
    vrrp_ctx.inotify = lh_inotify_create();
    if (PTR_IS_NULL(vrrp_ctx.inotify))
        return -1;
    if (lh_inotify_include_file(vrrp_ctx.inotify, vrrp_data_dir, vrrp_data_name,
                                LH_INOTIFY_CREATE_DIR, on_status_file, &vrrp_ctx) != 0) {
        DEBUG_LINE(vrrp_dbg, "lh_inotify_include_file failed: %s", strerror(errno));
        const errno_saver saver;
        lh_inotify_free(&vrrp_ctx.inotify);
        return -1;
    }
    return lh_inotify_get_fd(vrrp_ctx.inotify);
}

int lh_vrrp_info_restart(void)
{
    return lh_inotify_restart(vrrp_ctx.inotify);
}

void lh_vrrp_info_deinit(void)
{
    lh_inotify_free(&vrrp_ctx.inotify);
    for (uint32_t gidx = 0; gidx < group_max; gidx++) {
        if (vrrp_ctx.groups[gidx] != nullptr)
            destroy_vrrp_group(gidx);
    }
    destroy_all_vrfs();
    vrrp_ctx.changed = 0;
}

int lh_vrrp_group_info_update_enable(uint32_t group)
{
    if (GROUP_OUT_OF_RANGE(group))
        return -1;
    return create_vrrp_group(group - 1);
}

int lh_vrrp_group_info_update_disable(uint32_t group)
{
    if (GROUP_OUT_OF_RANGE(group))
        return -1;
    if (followed_group(group) == nullptr)
        return -1;
    destroy_vrrp_group(group - 1);
    return 0;
}

int lh_vrrp_instance_info_update_enable(const char *netns, uint32_t vrid)
{
    if (INSTANCE_OUT_OF_RANGE(vrid))
        return -1;
    vrrp_vrf *vrf = find_vrf(netns);
    if (vrf == nullptr)
        vrf = create_vrf_instance(netns);
    if (vrf == nullptr)
        return -1;
    vrrp_instance *instance = create_vrrp_instance(vrf, vrid - 1);
    if (instance == nullptr)
        return -1;
    if (!instance->enabled) {
        instance->enabled = true;
        vrrp_ctx.watch_count++;
    }
    return 0;
}

int lh_vrrp_instance_info_update_disable(const char *netns, uint32_t vrid)
{
    if (INSTANCE_OUT_OF_RANGE(vrid))
        return -1;
    const vrrp_vrf *vrf = find_vrf(netns);
    if (vrf == nullptr)
        return 0;
    if (vrrp_instance *instance = vrf->instances[vrid - 1])
        destroy_vrrp_instance(instance);
    return 0;
}

int lh_vrrp_group_status_get(uint32_t group)
{
    if (GROUP_OUT_OF_RANGE(group))
        return LH_VRRP_STATUS_INVALID;
    const vrrp_group *record = followed_group(group);
    return record != nullptr ? record->status : LH_VRRP_STATUS_INVALID;
}

int lh_vrrp_group_status_is_master(uint32_t group)
{
    return lh_vrrp_group_status_get(group) == LH_VRRP_STATUS_MASTER;
}

int lh_vrrp_group_status_is_backup(uint32_t group)
{
    return lh_vrrp_group_status_get(group) == LH_VRRP_STATUS_BACKUP;
}

int lh_vrrp_instance_status_get(const char *netns, uint32_t vrid)
{
    if (INSTANCE_OUT_OF_RANGE(vrid))
        return LH_VRRP_STATUS_INVALID;
    const vrrp_vrf *vrf = find_vrf(netns);
    if (vrf == nullptr)
        return LH_VRRP_STATUS_INVALID;
    const vrrp_instance *instance = vrf->instances[vrid - 1];
    if (instance == nullptr) {
        errno = ENODATA;
        return LH_VRRP_STATUS_INVALID;
    }
    return instance->status;
}

int lh_vrrp_group_members_num_get(uint32_t group)
{
    if (GROUP_OUT_OF_RANGE(group))
        return -1;
    const vrrp_group *record = followed_group(group);
    if (record == nullptr)
        return -1;
    int count = 0;
    for ([[maybe_unused]] const vrrp_instance &member : list_of<vrrp_instance>(record->members))
        count++;
    return count;
}

int lh_vrrp_group_members_vifname_get(uint32_t group, char names[][LH_VRRP_VIFNAME_SIZE], int max)
{
    if (max > 0 && PTR_IS_NULL(names)) // without slots there is nothing to miss
        return -1;
    if (GROUP_OUT_OF_RANGE(group))
        return -1;
    const vrrp_group *record = followed_group(group);
    if (record == nullptr)
        return -1;
    int count = 0;
    for (const vrrp_instance &member : list_of<vrrp_instance>(record->members)) {
        if (max <= 0) {
            errno = ENOBUFS;
            return -1;
        }
        if (count == max)
            return max + 1;
        strlcpy(names[count++], member.name, LH_VRRP_VIFNAME_SIZE);
    }
    return count;
}

const char *lh_vrrp_status_stringize(int32_t status)
{
    constexpr const char *texts[] = {"Invalid", "Unknown", "Init", "Backup", "Master", "Fault"};
    if (status < LH_VRRP_STATUS_INVALID || status > LH_VRRP_STATUS_FAULT) {
        errno = EINVAL;
        return "";
    }
    return texts[status - LH_VRRP_STATUS_INVALID];
}
