// Every fault of the VRRP tracker.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

#include "lh_inotify.h"
#include "lh_vrrp.h"
#include "support/fault_sweep.hpp"
#include "watch/vrrp_fixture.hpp"

using namespace vyt::test;

namespace {

// Lines -------------------------------------------------------------------------------------------

const std::string no_watcher = "lh_vrrp_info_init: PTR_IS_NULL: vrrp_ctx.inotify";
const std::string no_file_record = "INOTIFY_DBG <create_file:#> malloc failed: {error}";
const std::string not_included =
    "VRRP_DBG <lh_vrrp_info_init> lh_inotify_include_file failed: {error}";
const std::string included =
    "INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (vrrp_data)";
const std::string inode_changed = "INOTIFY_DBG <check_inode> inode has changed (vrrp_data)";
const std::string events_unread = "INOTIFY_DBG <read_inotify> read failed: {error}";
const std::string not_processed =
    "VRRP_DBG <lh_vrrp_info_update> lh_inotify_process failed: Input/output error";
const std::string not_opened = "VRRP_DBG <read_vrrp_info:#> open failed: {error}";
const std::string not_sized = "lh_file_size_get: stat '/var/cache/vrrp_data' failed";
const std::string not_mapped = "VRRP_DBG <read_vrrp_info:#> mmap failed: {error}";
const std::string no_vrf = "VRRP_DBG <create_vrf_instance> calloc failed {error}";
const std::string record_without_vrf =
    "VRRP_DBG <read_vrrp_info> create_vrf_instance failed: {error}";
const std::string no_instance = "VRRP_DBG <create_vrrp_instance> malloc failed {error}";
const std::string record_without_instance =
    "VRRP_DBG <read_vrrp_info> create_vrrp_instance failed: {error}";

std::string change(const std::string &from, const std::string &to)
{
    return "VRRP_DBG VRRP group 1 change status " + from + " to " + to;
}

// The tracker under test --------------------------------------------------------------------------

const std::string two_masters = record(1, daemon_master, 1) + record(2, daemon_master, 1);
const std::string one_backup = record(1, daemon_master, 1) + record(2, daemon_backup, 1);

int no_pause(useconds_t)
{
    return 0;
}

// A tracker in a world of its own, stopped at the end. The debug lines are those of what is tried.
class Tracking {
  public:
    explicit Tracking(Attempt &a) : a_(a)
    {
        a.faults().replace("usleep", reinterpret_cast<void *>(no_pause));
    }
    ~Tracking() { lh_vrrp_info_deinit(); }
    Tracking(const Tracking &) = delete;
    Tracking &operator=(const Tracking &) = delete;

    // It is started, and has read this file of group 1.
    void start_with(const std::string &contents)
    {
        write_file(status_path, contents);
        EXPECT_GE(lh_vrrp_info_init(), 0);
        EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0);
        EXPECT_EQ(lh_vrrp_info_update(), 0);
    }

    template <class Call>
    auto tried(Call call)
    {
        set_debug_flags(inotify_dbg | vrrp_dbg);
        auto result = a_.faulted(call);
        set_debug_flags(0);
        return result;
    }

    // Group 1: its status and its members.
    static std::string group()
    {
        std::string text = lh_vrrp_status_stringize(lh_vrrp_group_status_get(1));
        for (const std::string &member : members_of(1))
            text += " " + member;
        return text;
    }

    // The pass under test: its result, with errno where that is promised, what it made of group 1,
    // and what the next one makes of it.
    std::string pass(bool reads)
    {
        const int result = tried(lh_vrrp_info_update);
        std::string outcome = shown(result);
        if (reads || result != 0)
            outcome += std::string(" ") + strerrorname_np(a_.error());
        outcome += ", " + group();
        lh_vrrp_info_update();
        return outcome + ", then " + group();
    }

  private:
    Attempt &a_;
    World world_;
};

// Starting and stopping ---------------------------------------------------------------------------

std::string descriptor(int fd)
{
    return fd >= 0
               ? std::string(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)))
               : shown(fd);
}

// What failed can be done again.
std::string init(Attempt &a)
{
    Tracking t(a);
    const int fd = t.tried(lh_vrrp_info_init);
    const std::string outcome = descriptor(fd);
    EXPECT_TRUE(fd >= 0 || lh_vrrp_info_init() >= 0);
    return outcome;
}

std::string restart(Attempt &a)
{
    Tracking t(a);
    t.start_with(two_masters);
    const int fd = t.tried(lh_vrrp_info_restart);
    const std::string outcome = descriptor(fd);
    EXPECT_TRUE(fd >= 0 || lh_vrrp_info_restart() >= 0);
    EXPECT_EQ(Tracking::group(), "Master vrrp.2 vrrp.1");
    write_in_place(one_backup);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    return outcome + ", then " + Tracking::group();
}

std::string deinit(Attempt &a)
{
    Tracking t(a);
    t.start_with(two_masters);
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
    t.tried([] {
        lh_vrrp_info_deinit();
        return 0;
    });
    const std::string outcome = "group 1 " + Tracking::group();
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), -1);
    EXPECT_GE(lh_vrrp_info_init(), 0);
    return outcome;
}

const std::vector<scenario> starting = {
    {.function = "lh_vrrp_info_init",
     .body = init,
     .outcome = "anon_inode:inotify",
     .lines = {included},
     .faults = {fails("malloc:1", "-1",
                      {"INOTIFY_DBG <lh_inotify_create> malloc failed: {error}", no_watcher}),
                fails(
                    "inotify_init1", "-1",
                    {"INOTIFY_DBG <lh_inotify_create> inotify_init1 failed: {error}", no_watcher}),
                fails("malloc", "-1", {no_file_record, not_included}),
                fails("strdup", "-1", {"create_file: PTR_IS_NULL: file->parent_dir", not_included}),
                ignored("access"), ignored("stat")}},
    {.function = "lh_vrrp_info_restart",
     .body = restart,
     .outcome = "anon_inode:inotify, then Backup vrrp.2 vrrp.1",
     .faults = {ignored("inotify_rm_watch"), ignored("close"),
                fails("inotify_init1", "-1, then Backup vrrp.2 vrrp.1",
                      {"INOTIFY_DBG <lh_inotify_restart> inotify_init1 failed: {error}"})}},
    {.function = "lh_vrrp_info_deinit",
     .body = deinit,
     .outcome = "group 1 Invalid",
     .faults = {ignored("inotify_rm_watch"), ignored("close")}},
};

// Following ---------------------------------------------------------------------------------------

std::string enable_group(Attempt &a, bool again)
{
    Tracking t(a);
    EXPECT_TRUE(!again || lh_vrrp_group_info_update_enable(1) == 0);
    const int result = t.tried([] { return lh_vrrp_group_info_update_enable(1); });
    const std::string outcome = shown(result) + ", " + Tracking::group();
    EXPECT_TRUE(result == 0 || lh_vrrp_group_info_update_enable(1) == 0);
    EXPECT_EQ(Tracking::group(), "Unknown");
    return outcome;
}

// Instance 1 of the namespace "red", of which one is followed already, or others of other namespaces.
std::string enable_instance(Attempt &a, bool of_known, int others)
{
    Tracking t(a);
    EXPECT_TRUE(!of_known || lh_vrrp_instance_info_update_enable("red", 2) == 0);
    for (int i = 0; i < others; i++)
        EXPECT_EQ(lh_vrrp_instance_info_update_enable(("ns" + std::to_string(i)).c_str(), 1), 0);
    const int result = t.tried([] { return lh_vrrp_instance_info_update_enable("red", 1); });
    const std::string outcome =
        shown(result) + ", " + lh_vrrp_status_stringize(lh_vrrp_instance_status_get("red", 1));
    EXPECT_TRUE(result == 0 || lh_vrrp_instance_info_update_enable("red", 1) == 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), LH_VRRP_STATUS_UNKNOWN);
    for (int i = 0; i < others; i++)
        EXPECT_EQ(lh_vrrp_instance_status_get(("ns" + std::to_string(i)).c_str(), 1),
                  LH_VRRP_STATUS_UNKNOWN);
    return outcome;
}

scenario of_instances(const char *way, bool of_known, int others, const std::vector<rule> &faults)
{
    return {.function = "lh_vrrp_instance_info_update_enable",
            .way = way,
            .body = [of_known, others](Attempt &a) { return enable_instance(a, of_known, others); },
            .outcome = "0, Unknown",
            .faults = faults};
}

const rule without_vrf = fails("calloc:1", "-1, Invalid", {no_vrf});
const rule without_instance = fails("malloc", "-1, Invalid", {no_instance});

// The tracker has read a file, and what the call answers then.
scenario of_reading(const char *function, const std::function<std::string()> &call,
                    const std::string &outcome)
{
    return {.function = function,
            .body =
                [call](Attempt &a) {
                    Tracking t(a);
                    t.start_with(one_backup);
                    return t.tried(call);
                },
            .outcome = outcome};
}

const std::vector<scenario> following = {
    {.function = "lh_vrrp_group_info_update_enable",
     .way = "for the first time",
     .body = [](Attempt &a) { return enable_group(a, false); },
     .outcome = "0, Unknown",
     .faults = {fails("malloc", "-1, Invalid",
                      {"VRRP_DBG <create_vrrp_group> malloc failed {error}"})}},
    {.function = "lh_vrrp_group_info_update_enable",
     .way = "again",
     .body = [](Attempt &a) { return enable_group(a, true); },
     .outcome = "0, Unknown"},
    of_instances("of a new namespace", false, 0, {without_vrf, without_instance}),
    of_instances("of a known namespace", true, 0, {without_instance}),
    // More room for finding namespaces is a help, no need.
    of_instances("of a seventeenth namespace", false, 16,
                 {without_vrf, ignored("calloc:2"), without_instance}),
    of_reading(
        "lh_vrrp_group_info_update_disable",
        [] {
            const int result = lh_vrrp_group_info_update_disable(1);
            return shown(result) + ", " + Tracking::group();
        },
        "0, Invalid"),
    of_reading(
        "lh_vrrp_instance_info_update_disable",
        [] {
            const int result = lh_vrrp_instance_info_update_disable("", 2);
            return shown(result) + ", " + Tracking::group();
        },
        "0, Backup vrrp.1"),
    of_reading(
        "lh_vrrp_group_status_get", [] { return shown(lh_vrrp_group_status_get(1)); }, "2"),
    of_reading(
        "lh_vrrp_group_status_is_master", [] { return shown(lh_vrrp_group_status_is_master(1)); },
        "0"),
    of_reading(
        "lh_vrrp_group_status_is_backup", [] { return shown(lh_vrrp_group_status_is_backup(1)); },
        "1"),
    of_reading(
        "lh_vrrp_instance_status_get", [] { return shown(lh_vrrp_instance_status_get("1", 1)); },
        "3"),
    of_reading(
        "lh_vrrp_group_members_num_get", [] { return shown(lh_vrrp_group_members_num_get(1)); },
        "2"),
    of_reading(
        "lh_vrrp_group_members_vifname_get",
        [] {
            char slots[1][LH_VRRP_VIFNAME_SIZE];
            const int result = lh_vrrp_group_members_vifname_get(1, slots, 1);
            return shown(result) + " " + slots[0];
        },
        "2 vrrp.2"),
    simply(
        "lh_vrrp_status_stringize", [] { return shown(lh_vrrp_status_stringize(4)); }, "'Fault'"),
};

// Passes ------------------------------------------------------------------------------------------

// The last part of a pass, where the status file is read: its n-th calls of each kind, the change of
// status to "Unknown" and what the next pass makes of it.
struct reading {
    std::string access_of_reader, access_of_size, stat, read;
    std::vector<std::string> to_unknown;
    std::string then;
};

std::vector<rule> faults_of(const reading &r)
{
    const auto unread = [&](const std::string &call, const std::string &error,
                            const std::vector<std::string> &lines) {
        std::vector<std::string> all = lines;
        all.insert(all.end(), r.to_unknown.begin(), r.to_unknown.end());
        return gives(call, error + ", Unknown, then " + r.then, all);
    };
    // A file that seems to be missing is none to complain of; one without a size seems empty.
    return {unread(r.access_of_reader, "0 0", {}),
            unread("open", "-1 EIO", {not_opened}),
            unread(r.access_of_size, "-1 ENOENT", {}),
            unread(r.stat, "-1 ENOENT", {not_sized}),
            unread("mmap", "-1 EIO", {not_mapped}),
            ignored(r.read).with({EINTR}),
            unread(r.read, "-1 EIO", {not_mapped}),
            resumed(r.read),
            ignored("munmap"),
            ignored("close")};
}

scenario of_pass(const char *way, const std::function<std::string(Attempt &)> &body,
                 const std::string &outcome, const std::vector<std::string> &lines,
                 const std::vector<rule> &faults, const std::vector<rule> &more = {})
{
    scenario s = {.function = "lh_vrrp_info_update",
                  .way = way,
                  .body = body,
                  .outcome = outcome,
                  .lines = lines,
                  .faults = faults};
    s.faults.insert(s.faults.end(), more.begin(), more.end());
    return s;
}

// The first pass with this status file, or without one.
std::string first_pass(Attempt &a, const std::string &contents)
{
    Tracking t(a);
    if (!contents.empty())
        write_file(status_path, contents);
    EXPECT_GE(lh_vrrp_info_init(), 0);
    EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0);
    return t.pass(true);
}

std::string pass_after_writing(Attempt &a)
{
    Tracking t(a);
    t.start_with(two_masters);
    write_in_place(one_backup);
    return t.pass(true);
}

std::string pass_after_nothing(Attempt &a)
{
    Tracking t(a);
    t.start_with(two_masters);
    return t.pass(false);
}

std::string pass_without_groups(Attempt &a)
{
    Tracking t(a);
    EXPECT_GE(lh_vrrp_info_init(), 0);
    return t.pass(true);
}

std::vector<scenario> passes()
{
    const std::string masters = "Master vrrp.2 vrrp.1";
    const std::string backup = "Backup vrrp.2 vrrp.1";
    const std::string good = "0 0, " + backup + ", then " + backup;
    const std::string quiet = "0, " + masters + ", then " + masters;
    const std::string known = change("Unknown", "Backup");
    const std::string changed = change("Master", "Backup");
    // Where the watcher cannot be read nothing is reset.
    const auto unprocessed = [](const std::string &call, const std::string &kept,
                                const std::string &then) {
        return gives(call, "-1 EIO, " + kept + ", then " + then, {events_unread, not_processed});
    };
    return {
        of_pass(
            "for the first time", [](Attempt &a) { return first_pass(a, one_backup); }, good,
            {known},
            {gives("stat:1", good, {inode_changed, known}),
             unprocessed("read:1", "Unknown", backup), ignored("stat:2"),
             ignored("inotify_add_watch"),
             gives("calloc", "0 0, Backup vrrp.2, then Backup vrrp.2",
                   {no_vrf, record_without_vrf, known}),
             gives("malloc:1", "0 0, Backup vrrp.2, then Backup vrrp.2",
                   {no_instance, record_without_instance, known}),
             gives("malloc:2", "0 0, Master vrrp.1, then Master vrrp.1",
                   {no_instance, record_without_instance, change("Unknown", "Master")})},
            faults_of({"access:1", "access:2", "stat:3", "read:2", {}, backup})),
        of_pass("after a change", pass_after_writing, good, {changed},
                {gives("stat:1", good, {inode_changed, changed}),
                 unprocessed("read:1", masters, backup), unprocessed("read:2", masters, backup)},
                faults_of({"access:1",
                           "access:2",
                           "stat:2",
                           "read:3",
                           {change("Master", "Unknown")},
                           backup})),
        of_pass("after nothing", pass_after_nothing, quiet, {},
                {gives("stat", quiet, {inode_changed}), unprocessed("read", masters, masters)}),
        of_pass("without a file", [](Attempt &a) { return first_pass(a, ""); },
                "0 0, Unknown, then Unknown", {},
                {gives("stat:1", "0 0, Unknown, then Unknown", {inode_changed}),
                 unprocessed("read", "Unknown", "Unknown"), ignored("opendir"), ignored("closedir"),
                 ignored("stat:2"), ignored("inotify_add_watch"), ignored("access")}),
        of_pass("without anything to follow", pass_without_groups,
                "-1 ENODATA, Invalid, then Invalid", {}, {}),
    };
}

const bool swept = register_fault_sweep("FaultsOfVrrpStarting", starting) &&
                   register_fault_sweep("FaultsOfVrrpFollowing", following) &&
                   register_fault_sweep("FaultsOfVrrpPasses", passes());

} // namespace
