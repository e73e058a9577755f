#include "watch/vrrp_tracker.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/debug.hpp"
#include "core/platform.hpp"
#include "lh_netns.h"

namespace vyt {

constinit vrrp_tracker vrrp_ctx;

namespace {

// The spelling under which a namespace is kept.
const char *stored_name(const char *netns)
{
    return lh_netns_stringize(netns != nullptr ? netns : "");
}

void disable(vrrp_instance *instance)
{
    if (instance->enabled) {
        instance->enabled = false;
        vrrp_ctx.watch_count--;
    }
}

} // namespace

vrrp_vrf *find_vrf(const char *netns)
{
    const char *name = stored_name(netns);
    return vrrp_ctx.vrfs_by_netns.find(hash_text(hash_start, name), [&](const vrrp_vrf &vrf) {
        return lh_netns_eq(name, vrf.netns);
    });
}

vrrp_vrf *create_vrf_instance(const char *netns)
{
    auto *vrf = static_cast<vrrp_vrf *>(calloc(1, sizeof(vrrp_vrf)));
    if (vrf == nullptr) {
        DEBUG_LINE(vrrp_dbg, "calloc failed %s", strerror(errno));
        return nullptr;
    }
    strlcpy(vrf->netns, stored_name(netns), sizeof(vrf->netns));
    list_push_front(&vrrp_ctx.vrfs, &vrf->link);
    vrrp_ctx.vrfs_by_netns.insert(vrf, hash_text(hash_start, vrf->netns));
    return vrf;
}

vrrp_instance *create_vrrp_instance(vrrp_vrf *vrf, uint32_t vridx)
{
    if (IS_ME(vridx, vrid_max)) {
        errno = EINVAL;
        return nullptr;
    }
    if (vrf->instances[vridx] != nullptr)
        return vrf->instances[vridx];
    auto *instance = static_cast<vrrp_instance *>(malloc(sizeof(vrrp_instance)));
    if (instance == nullptr) {
        DEBUG_LINE(vrrp_dbg, "malloc failed %s", strerror(errno));
        return nullptr;
    }
    list_init(&instance->link);
    instance->enabled = false;
    instance->group = 0;
    instance->vrid = static_cast<uint8_t>(vridx + 1);
    snprintf(instance->name, sizeof(instance->name), "vrrp.%d", instance->vrid);
    instance->vrf = vrf;
    instance->prev_status = LH_VRRP_STATUS_INVALID;
    instance->status = LH_VRRP_STATUS_UNKNOWN;
    vrf->instances[vridx] = instance;
    vrf->count++;
    return instance;
}

void destroy_vrrp_group(uint32_t gidx)
{
    vrrp_group *group = vrrp_ctx.groups[gidx];
    for (vrrp_instance &member : list_of<vrrp_instance>(group->members)) {
        if (member.enabled)
            list_unlink(&member.link);
        else
            destroy_vrrp_instance(&member);
    }
    vrrp_ctx.groups[gidx] = nullptr;
    vrrp_ctx.watch_count--;
    free(group);
}

void destroy_vrrp_instance(vrrp_instance *instance)
{
    disable(instance);
    list_unlink(&instance->link);
    instance->vrf->count--;
    instance->vrf->instances[instance->vrid - 1] = nullptr;
    free(instance);
}

void destroy_vrf(vrrp_vrf *vrf)
{
    for_each_instance(*vrf, [](vrrp_instance &instance) { destroy_vrrp_instance(&instance); });
    list_unlink(&vrf->link);
    vrrp_ctx.vrfs_by_netns.remove(vrf);
    free(vrf);
}

void forget_unused()
{
    for (vrrp_vrf &vrf : list_of<vrrp_vrf>(vrrp_ctx.vrfs)) {
        for_each_instance(vrf, [](vrrp_instance &instance) {
            if (!instance.enabled && instance.group == 0)
                destroy_vrrp_instance(&instance);
        });
        if (vrf.count == 0)
            destroy_vrf(&vrf);
    }
}

} // namespace vyt
