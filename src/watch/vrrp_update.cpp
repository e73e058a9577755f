// The update pass: from the VRRP daemon's status file to the status of what is followed.
#include <cstring>
#include <fcntl.h>

#include "core/debug.hpp"
#include "core/handles.hpp"
#include "lh_file.h"
#include "watch/vrrp_status_file.hpp"
#include "watch/vrrp_tracker.hpp"

namespace vyt {
namespace {

constexpr const char *reader = "read_vrrp_info";

// How the VRRP daemon numbers the states.
enum daemon_state : int32_t { DAEMON_INIT, DAEMON_BACKUP, DAEMON_MASTER, DAEMON_FAULT };

// States that the daemon does not know leave the status as it is.
void set_status(vrrp_instance *instance, int32_t state)
{
    constexpr int32_t statuses[] = {LH_VRRP_STATUS_INIT, LH_VRRP_STATUS_BACKUP,
                                    LH_VRRP_STATUS_MASTER, LH_VRRP_STATUS_FAULT};
    if (state >= DAEMON_INIT && state <= DAEMON_FAULT)
        instance->status = statuses[state];
}

// Folding, by the group's status so far: which daemon states keep it. Every other one makes the group
// take the instance's status.
struct folding_rule {
    bool keep_always;
    bool keep_backup;
    bool keep_master;
};
constexpr folding_rule folding_rules[] = {
    /* Unknown */ {false, false, false}, // the first member decides
    /* Init    */ {true, true, true},    // sticky
    /* Backup  */ {false, true, true},
    /* Master  */ {false, false, true},
    /* Fault   */ {true, true, true}, // sticky
};

void fold(vrrp_group *group, const vrrp_instance *instance, int32_t state)
{
    if (group->status < LH_VRRP_STATUS_UNKNOWN || group->status > LH_VRRP_STATUS_FAULT) {
        DEBUG_LINE_AS(vrrp_dbg, reader, "unexpected status %d", group->status);
        return;
    }
    const folding_rule &rule = folding_rules[group->status];
    const bool keep = rule.keep_always || (rule.keep_backup && state == DAEMON_BACKUP) ||
                      (rule.keep_master && state == DAEMON_MASTER);
    if (!keep)
        group->status = instance->status;
}

// The instance that a record is about, made when a followed group wants it; null: not followed.
vrrp_instance *instance_of(const status_record &record, bool wanted)
{
    vrrp_vrf *vrf = find_vrf(record.netns);
    if (vrf == nullptr && wanted) {
        vrf = create_vrf_instance(record.netns);
        if (vrf == nullptr)
            DEBUG_LINE_AS(vrrp_dbg, reader, "create_vrf_instance failed: %s", strerror(errno));
    }
    if (vrf == nullptr)
        return nullptr;
    vrrp_instance *instance = vrf->instances[record.vrid - 1];
    if (instance == nullptr && wanted) {
        instance = create_vrrp_instance(vrf, static_cast<uint32_t>(record.vrid) - 1);
        if (instance == nullptr)
            DEBUG_LINE_AS(vrrp_dbg, reader, "create_vrrp_instance failed: %s", strerror(errno));
    }
    if (instance == nullptr || !(instance->enabled || wanted))
        return nullptr;
    return instance;
}

void take_record(const status_record &record)
{
    if (record.vrid < 1 || record.vrid > static_cast<int32_t>(vrid_max)) {
        DEBUG_LINE_AS(vrrp_dbg, reader, "invalid Virtual Router Id %d", record.vrid);
        return;
    }
    if (record.group < 0 || record.group > static_cast<int32_t>(group_max)) {
        DEBUG_LINE_AS(vrrp_dbg, reader, "invalid VRRP group %d", record.group);
        return;
    }
    vrrp_group *group =
        record.group != 0 ? find_group(static_cast<uint32_t>(record.group)) : nullptr;
    vrrp_instance *instance = instance_of(record, group != nullptr);
    if (instance == nullptr)
        return;
    instance->group = record.group;
    set_status(instance, record.state);
    list_unlink(&instance->link); // a file may name an instance twice: the last record counts
    if (group != nullptr) {
        list_push_front(&group->members, &instance->link);
        fold(group, instance, record.state);
    }
}

// 0, or the errno that the pass fails with.
int read_vrrp_info()
{
    if (lh_file_is_exist(vrrp_data_path) == 0)
        return 0;
    // Not blocking: whatever stands there in the file's place must not hold the daemon.
    const unique_fd fd(open(vrrp_data_path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.is_open()) {
        DEBUG_LINE_AT(vrrp_dbg, "open failed: %s", strerror(errno));
        return EIO;
    }
    size_t size = lh_file_size_get(vrrp_data_path);
    status_file file;
    if (size != 0 && size % record_size == 0) {
        if (!file.read_from(fd.get(), size)) {
            DEBUG_LINE_AT(vrrp_dbg, "mmap failed: %s", strerror(errno));
            return EIO;
        }
        size = file.length(); // what could be read decides: the file may have shrunk meanwhile
    }
    const size_t remainder = size % record_size;
    if (size == 0)
        return ENOENT;
    if (IS_NE(remainder, 0))
        return EIO;
    for (size_t index = 0; index < size / record_size; index++)
        take_record(file.record(index));
    return 0;
}

// Is there something followed whose status no reading has told yet?
bool something_is_unknown()
{
    for (const vrrp_group *group : vrrp_ctx.groups) {
        if (group != nullptr && group->status == LH_VRRP_STATUS_UNKNOWN)
            return true;
    }
    bool unknown = false;
    for (vrrp_vrf &vrf : list_of<vrrp_vrf>(vrrp_ctx.vrfs))
        for_each_instance(vrf, [&](const vrrp_instance &instance) {
            unknown |= instance.status == LH_VRRP_STATUS_UNKNOWN;
        });
    return unknown;
}

void shift_statuses()
{
    for (vrrp_group *group : vrrp_ctx.groups) {
        if (group != nullptr)
            group->prev_status = std::exchange(group->status, LH_VRRP_STATUS_UNKNOWN);
    }
    for (vrrp_vrf &vrf : list_of<vrrp_vrf>(vrrp_ctx.vrfs))
        for_each_instance(vrf, [](vrrp_instance &instance) {
            instance.prev_status = std::exchange(instance.status, LH_VRRP_STATUS_UNKNOWN);
            list_unlink(&instance.link);
            instance.group = 0;
        });
}

void report_changes()
{
    for (uint32_t gidx = 0; gidx < group_max; gidx++) {
        const vrrp_group *group = vrrp_ctx.groups[gidx];
        if (group != nullptr && group->prev_status != group->status)
            DEBUG_LINE_BARE(vrrp_dbg, "VRRP group %d change status %s to %s",
                            static_cast<int>(gidx + 1),
                            lh_vrrp_status_stringize(group->prev_status),
                            lh_vrrp_status_stringize(group->status));
    }
}

} // namespace
} // namespace vyt

using namespace vyt;

int lh_vrrp_info_update(void)
{
    if (vrrp_ctx.watch_count == 0) {
        forget_unused();
        errno = ENODATA;
        return -1;
    }
    vrrp_ctx.changed = 0;
    if (lh_inotify_process(vrrp_ctx.inotify) != 0) {
        DEBUG_LINE(vrrp_dbg, "lh_inotify_process failed: %s", strerror(errno));
        return -1;
    }
    if (vrrp_ctx.changed == 0 && !something_is_unknown())
        return 0;

    shift_statuses();
    const int error = read_vrrp_info();
    report_changes();
    forget_unused();
    errno = error;
    return error == 0 ? 0 : -1;
}
