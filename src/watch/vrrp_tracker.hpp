// The tracker's records: which groups and instances are followed, and what the last reading said.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "core/hash_index.hpp"
#include "core/list.hpp"
#include "lh_inotify.h"
#include "lh_vrrp.h"

namespace vyt {

inline constexpr uint32_t group_max = 32;
inline constexpr uint32_t vrid_max = 255;
inline constexpr size_t netns_size = 32;

inline constexpr const char *vrrp_data_dir = "/var/cache/";
inline constexpr const char *vrrp_data_name = "vrrp_data";
inline constexpr const char *vrrp_data_path = "/var/cache/vrrp_data";

// A group has a record exactly while it is followed.
struct vrrp_group {
    int32_t prev_status;
    int32_t status;
    lh_list members; // of the last reading, the last one first
};

// The instances of one network namespace.
struct vrrp_vrf {
    lh_list link;
    char netns[netns_size];
    struct vrrp_instance *instances[vrid_max]; // slot v-1 for Virtual Router Id v
    uint16_t count;
    hash_link<vrrp_vrf> by_netns;
};

struct vrrp_instance {
    lh_list link; // in its group's members; linked to itself when in none
    bool enabled; // for itself
    uint8_t vrid;
    int32_t group; // of the last reading; 0: none
    char name[LH_VRRP_VIFNAME_SIZE];
    vrrp_vrf *vrf;
    int32_t prev_status;
    int32_t status;
};

struct vrrp_tracker {
    lh_inotify *inotify = nullptr;      // null: not started
    uint8_t changed = 0;                // set by the watcher's callback
    int32_t watch_count = 0;            // groups and instances that are enabled
    vrrp_group *groups[group_max] = {}; // slot g-1 for group g
    lh_list vrfs = {&vrfs, &vrfs};      // newest first
    hash_index<vrrp_vrf, &vrrp_vrf::by_netns> vrfs_by_netns = {};
};

// One in a process.
extern vrrp_tracker vrrp_ctx;

inline vrrp_group *find_group(uint32_t group) // 1 to 32
{
    return vrrp_ctx.groups[group - 1];
}

// The newest record of that name, or null. Null, "" and "1" are the default namespace.
vrrp_vrf *find_vrf(const char *netns);
// Null, with errno, when there is no memory.
vrrp_vrf *create_vrf_instance(const char *netns);
vrrp_instance *create_vrrp_instance(vrrp_vrf *vrf, uint32_t vridx); // Virtual Router Id minus one

void destroy_vrrp_group(uint32_t gidx); // group minus one
void destroy_vrrp_instance(vrrp_instance *instance);
void destroy_vrf(vrrp_vrf *vrf);
// Forgets the instances that are neither enabled nor in a group of the last reading.
void forget_unused();

// Calls the function for every instance there is; it may destroy the one that it is given.
template <class Function>
void for_each_instance(vrrp_vrf &vrf, Function &&function)
{
    for (uint32_t vridx = 0, left = vrf.count; vridx < vrid_max && left != 0; vridx++) {
        if (vrrp_instance *instance = vrf.instances[vridx]) {
            left--;
            function(*instance);
        }
    }
}

} // namespace vyt
