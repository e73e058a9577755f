// The registry's calls: starting, stopping, asking.
#include "watch/vrrp_fixture.hpp"

#include <climits>
#include <dlfcn.h>

using namespace vyt::test;

class VrrpRegistry : public TrackerTest {};

static bool close_on_exec(int fd)
{
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

// Starting and stopping ---------------------------------------------------------------------------

TEST_F(VrrpRegistry, InitGivesTheWatchersDescriptor)
{
    const auto before = open_descriptors();
    const int fd = lh_vrrp_info_init();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)),
              "anon_inode:inotify");
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_FALSE(close_on_exec(fd));
    EXPECT_EQ(open_descriptors().size(), before.size() + 1);
    lh_vrrp_info_deinit();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(VrrpRegistry, ASecondInitFailsUntilDeinit)
{
    const int fd = start();
    EXPECT_EQ(lh_vrrp_info_init(), -1);
    EXPECT_LINES("lh_vrrp_info_init: PTR_NOT_NULL: vrrp_ctx.inotify");
    EXPECT_EQ(lh_vrrp_info_restart(), fd) << "the first one is still there, on the free number";
    lh_vrrp_info_deinit();
    EXPECT_GE(lh_vrrp_info_init(), 0);
}

TEST_F(VrrpRegistry, AFailingWatcherIsLogged)
{
    Faults faults;
    const auto before = open_descriptors();
    faults.fail("inotify_init1", EMFILE);
    EXPECT_FAILS(EMFILE, lh_vrrp_info_init());
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_vrrp_info_init: PTR_IS_NULL: vrrp_ctx.inotify");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_GE(lh_vrrp_info_init(), 0);
}

// The watcher's record, its file's record, its directory, its path.
TEST_F(VrrpRegistry, EveryFailingAllocationOfInitIsLoggedAndTheNextInitWorks)
{
    Faults faults;
    set_debug_flags(vrrp_dbg);
    const auto before = open_descriptors();
    const std::string include_failed =
        "VRRP_DBG <lh_vrrp_info_init> lh_inotify_include_file failed: Cannot allocate memory";
    const std::vector<std::vector<std::string>> lines = {
        {"lh_vrrp_info_init: PTR_IS_NULL: vrrp_ctx.inotify"},
        {include_failed},
        {"create_file: PTR_IS_NULL: file->parent_dir", include_failed},
        {include_failed},
    };
    for (unsigned nth = 1; nth <= lines.size(); nth++) {
        SCOPED_TRACE(nth);
        faults.fail_allocation(nth);
        EXPECT_FAILS(ENOMEM, lh_vrrp_info_init());
        EXPECT_TRUE(faults.happened());
        EXPECT_EQ(take_lines(), lines[nth - 1]);
        EXPECT_EQ(open_descriptors(), before);
    }
    faults.fail_allocation(lines.size() + 1);
    EXPECT_GE(lh_vrrp_info_init(), 0);
    EXPECT_FALSE(faults.happened());
}

TEST_F(VrrpRegistry, AFailingIncludeIsSilentWithoutTheFlag)
{
    Faults faults;
    faults.fail_allocation(2);
    EXPECT_FAILS(ENOMEM, lh_vrrp_info_init());
    EXPECT_NO_LINES();
}

TEST_F(VrrpRegistry, RestartGivesANewDescriptorThatWorks)
{
    start_with(record(1, daemon_master, 1), {1});
    const auto before = open_descriptors();
    const int fd = lh_vrrp_info_restart();
    EXPECT_GE(fd, 0);
    EXPECT_EQ(open_descriptors().size(), before.size());
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    write_in_place(record(1, daemon_backup, 1));
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_BACKUP);
}

TEST_F(VrrpRegistry, AFailingRestartIsMendedByTheNextOne)
{
    start_with(record(1, daemon_master, 1), {1});
    Faults faults;
    faults.fail("inotify_init1", EMFILE);
    EXPECT_FAILS(EMFILE, lh_vrrp_info_restart());
    set_debug_flags(vrrp_dbg);
    EXPECT_FAILS(EIO, lh_vrrp_info_update());
    EXPECT_LINES("VRRP_DBG <lh_vrrp_info_update> lh_inotify_process failed: Input/output error");
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER) << "nothing was reset";
    EXPECT_GE(lh_vrrp_info_restart(), 0);
    rename_over(record(1, daemon_fault, 1));
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_FAULT);
    EXPECT_LINES("VRRP_DBG VRRP group 1 change status Master to Fault");
}

TEST_F(VrrpRegistry, DeinitForgetsWhatIsEnabled)
{
    start_with(record(1, daemon_master, 1) + record(2, daemon_backup, 0, "red"), {1, 2});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 2), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("blue", 3), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    lh_vrrp_info_deinit();
    EXPECT_FAILS(ENODATA, lh_vrrp_group_status_get(1));
    EXPECT_FAILS(ENODATA, lh_vrrp_group_status_get(2));
    EXPECT_FAILS(0, lh_vrrp_instance_status_get("", 1));
    EXPECT_FAILS(0, lh_vrrp_instance_status_get("red", 2));
    EXPECT_FAILS(0, lh_vrrp_instance_status_get("blue", 3));

    start();
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(members_of(1), names{"vrrp.1"});
}

// Following must end with what is enabled, not with what was enabled before the last start.
TEST_F(VrrpRegistry, InitForgetsInstancesThatWereEnabledBeforeIt)
{
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), LH_VRRP_STATUS_UNKNOWN);
    start();
    EXPECT_FAILS(0, lh_vrrp_instance_status_get("red", 1));
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
}

TEST_F(VrrpRegistry, GroupsEnabledBeforeInitAreFollowed)
{
    write_file(status_path, record(1, daemon_master, 4));
    EXPECT_EQ(lh_vrrp_group_info_update_enable(4), 0);
    start();
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_group_status_is_master(4), 1);
}

// Every call, whatever was called before it: answered, never a crash.
static void call_everything_unstarted()
{
    EXPECT_EQ(lh_vrrp_info_restart(), -1);
    EXPECT_LINES("lh_inotify_restart: PTR_IS_NULL: ptr");
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_FAILS(ENODATA, lh_vrrp_group_status_get(1));
    EXPECT_FAILS(ENODATA, lh_vrrp_group_members_num_get(1));
    char name[1][LH_VRRP_VIFNAME_SIZE];
    EXPECT_FAILS(ENODATA, lh_vrrp_group_members_vifname_get(1, name, 1));
    EXPECT_EQ(lh_vrrp_group_status_is_master(1), 0);
    EXPECT_EQ(lh_vrrp_group_status_is_backup(1), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_group_info_update_disable(1));
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 1));
    EXPECT_QUIETLY(0, lh_vrrp_instance_info_update_disable("red", 1));
    EXPECT_STREQ(lh_vrrp_status_stringize(3), "Master");
    EXPECT_NO_LINES();

    EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_EQ(lh_vrrp_info_update(), -1);
    EXPECT_LINES("lh_inotify_process: PTR_IS_NULL: ptr");
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("red", 1), 0);
    EXPECT_EQ(lh_vrrp_group_info_update_disable(1), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 1));
}

TEST_F(VrrpRegistry, EveryCallIsAnsweredBeforeInit)
{
    call_everything_unstarted();
    lh_vrrp_info_deinit();
    call_everything_unstarted();
}

TEST_F(VrrpRegistry, EveryCallIsAnsweredAfterDeinit)
{
    start_with(record(1, daemon_master, 1, "red"), {1});
    lh_vrrp_info_deinit();
    call_everything_unstarted();
    lh_vrrp_info_deinit();
    lh_vrrp_info_deinit();
    call_everything_unstarted();
    start();
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
}

TEST_F(VrrpRegistry, EveryCallIsAnsweredAfterAFailedInit)
{
    {
        Faults faults;
        faults.fail("inotify_init1", EMFILE);
        EXPECT_EQ(lh_vrrp_info_init(), -1);
        take_lines();
    }
    call_everything_unstarted();
}

TEST_F(VrrpRegistry, AnUnstartedPassTellsTheDebugLog)
{
    set_debug_flags(vrrp_dbg);
    EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0);
    errno = ENXIO;
    EXPECT_EQ(lh_vrrp_info_update(), -1);
    EXPECT_LINES("lh_inotify_process: PTR_IS_NULL: ptr",
                 "VRRP_DBG <lh_vrrp_info_update> lh_inotify_process failed: No such device or "
                 "address");
}

// Numbers out of range ----------------------------------------------------------------------------

static std::string group_line(const char *function, const char *number)
{
    return std::string(function) + ": IS_ME check failed: group (" + number + " >= 32) !!!";
}

static void expect_group_is_refused(uint32_t group, const char *number)
{
    char name[1][LH_VRRP_VIFNAME_SIZE];
    EXPECT_FAILS(EINVAL, lh_vrrp_group_info_update_enable(group));
    EXPECT_LINES(group_line("lh_vrrp_group_info_update_enable", number));
    EXPECT_FAILS(EINVAL, lh_vrrp_group_info_update_disable(group));
    EXPECT_LINES(group_line("lh_vrrp_group_info_update_disable", number));
    EXPECT_FAILS(EINVAL, lh_vrrp_group_status_get(group));
    EXPECT_LINES(group_line("lh_vrrp_group_status_get", number));
    errno = 0;
    EXPECT_EQ(lh_vrrp_group_status_is_master(group), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LINES(group_line("lh_vrrp_group_status_get", number));
    errno = 0;
    EXPECT_EQ(lh_vrrp_group_status_is_backup(group), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LINES(group_line("lh_vrrp_group_status_get", number));
    EXPECT_FAILS(EINVAL, lh_vrrp_group_members_num_get(group));
    EXPECT_LINES(group_line("lh_vrrp_group_members_num_get", number));
    EXPECT_FAILS(EINVAL, lh_vrrp_group_members_vifname_get(group, name, 1));
    EXPECT_LINES(group_line("lh_vrrp_group_members_vifname_get", number));
}

TEST_F(VrrpRegistry, GroupsOutOfRangeAreRefused)
{
    start();
    expect_group_is_refused(0, "4294967295");
    expect_group_is_refused(33, "32");
    expect_group_is_refused(UINT32_MAX, "4294967294");
    expect_group_is_refused(0x80000000u, "2147483647");
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update()) << "none of them is followed";
}

static std::string instance_line(const char *function, const char *number)
{
    return std::string(function) + ": IS_ME check failed: instance (" + number + " >= 255) !!!";
}

static void expect_vrid_is_refused(uint32_t vrid, const char *number)
{
    EXPECT_FAILS(EINVAL, lh_vrrp_instance_info_update_enable("red", vrid));
    EXPECT_LINES(instance_line("lh_vrrp_instance_info_update_enable", number));
    EXPECT_FAILS(EINVAL, lh_vrrp_instance_info_update_disable("red", vrid));
    EXPECT_LINES(instance_line("lh_vrrp_instance_info_update_disable", number));
    EXPECT_FAILS(EINVAL, lh_vrrp_instance_status_get(nullptr, vrid));
    EXPECT_LINES(instance_line("lh_vrrp_instance_status_get", number));
}

TEST_F(VrrpRegistry, VirtualRouterIdsOutOfRangeAreRefused)
{
    start();
    expect_vrid_is_refused(0, "4294967295");
    expect_vrid_is_refused(256, "255");
    expect_vrid_is_refused(257, "256");
    expect_vrid_is_refused(UINT32_MAX, "4294967294");
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 1)) << "not even the namespace is known";
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
}

TEST_F(VrrpRegistry, EveryNumberInRangeIsTaken)
{
    start();
    for (uint32_t group = 1; group <= 32; group++) {
        EXPECT_FAILS(ENODATA, lh_vrrp_group_status_get(group));
        EXPECT_EQ(lh_vrrp_group_info_update_enable(group), 0);
        EXPECT_EQ(lh_vrrp_group_status_get(group), LH_VRRP_STATUS_UNKNOWN);
    }
    for (uint32_t vrid = 1; vrid <= 255; vrid++) {
        EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", vrid), 0);
        EXPECT_EQ(lh_vrrp_instance_status_get("red", vrid), LH_VRRP_STATUS_UNKNOWN);
    }
    for (uint32_t group = 1; group <= 32; group++)
        EXPECT_EQ(lh_vrrp_group_info_update_disable(group), 0);
    for (uint32_t vrid = 1; vrid <= 255; vrid++) {
        EXPECT_EQ(lh_vrrp_info_update(), 0) << "something is still followed";
        EXPECT_EQ(lh_vrrp_instance_info_update_disable("red", vrid), 0);
        EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("red", vrid));
    }
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 1)) << "the cleanup forgot the namespace";
}

// Members' names ----------------------------------------------------------------------------------

struct name_slots {
    name_slots() { memset(slots, '#', sizeof(slots)); }
    bool untouched_from(int index) const
    {
        return std::string(slots[index], sizeof(slots) - size_t(index) * sizeof(slots[0])) ==
               std::string(sizeof(slots) - size_t(index) * sizeof(slots[0]), '#');
    }
    char slots[5][LH_VRRP_VIFNAME_SIZE];
};

TEST_F(VrrpRegistry, MembersAreNamedLastOneFirst)
{
    start_with(record(7, daemon_master, 3) + record(255, daemon_master, 3, "red") +
                   record(1, daemon_master, 3),
               {3});
    EXPECT_EQ(lh_vrrp_group_members_num_get(3), 3);
    name_slots names;
    EXPECT_EQ(lh_vrrp_group_members_vifname_get(3, names.slots, 5), 3);
    EXPECT_STREQ(names.slots[0], "vrrp.1");
    EXPECT_STREQ(names.slots[1], "vrrp.255");
    EXPECT_STREQ(names.slots[2], "vrrp.7");
    EXPECT_TRUE(names.untouched_from(3));
}

TEST_F(VrrpRegistry, AsManySlotsAsMembersIsEnough)
{
    start_with(record(1, 2, 3) + record(2, 2, 3) + record(3, 2, 3), {3});
    name_slots names;
    EXPECT_QUIETLY(3, lh_vrrp_group_members_vifname_get(3, names.slots, 3));
    EXPECT_STREQ(names.slots[2], "vrrp.1");
    EXPECT_TRUE(names.untouched_from(3));
    EXPECT_EQ(lh_vrrp_group_members_vifname_get(3, names.slots, INT_MAX), 3);
}

TEST_F(VrrpRegistry, TooFewSlotsAreFilledAndReported)
{
    start_with(record(1, 2, 3) + record(2, 2, 3) + record(3, 2, 3), {3});
    name_slots two;
    EXPECT_QUIETLY(3, lh_vrrp_group_members_vifname_get(3, two.slots, 2));
    EXPECT_STREQ(two.slots[0], "vrrp.3");
    EXPECT_STREQ(two.slots[1], "vrrp.2");
    EXPECT_TRUE(two.untouched_from(2));
    name_slots one;
    EXPECT_EQ(lh_vrrp_group_members_vifname_get(3, one.slots, 1), 2);
    EXPECT_TRUE(one.untouched_from(1));
}

TEST_F(VrrpRegistry, NoSlotsForMembersIsSilentlyNoBuffer)
{
    start_with(record(1, 2, 3), {3, 4});
    name_slots names;
    for (const int max : {0, -1, INT_MIN}) {
        EXPECT_FAILS(ENOBUFS, lh_vrrp_group_members_vifname_get(3, names.slots, max));
        EXPECT_QUIETLY(0, lh_vrrp_group_members_vifname_get(4, names.slots, max));
    }
    EXPECT_QUIETLY(0, lh_vrrp_group_members_vifname_get(4, names.slots, 5));
    EXPECT_TRUE(names.untouched_from(0));
    EXPECT_NO_LINES();
}

TEST_F(VrrpRegistry, NullSlotsAreLoggedBeforeTheGroupIsLookedAt)
{
    start({1});
    for (const uint32_t group : {1u, 2u, 0u, 33u}) {
        EXPECT_EQ(lh_vrrp_group_members_vifname_get(group, nullptr, 5), -1);
        EXPECT_LINES("lh_vrrp_group_members_vifname_get: PTR_IS_NULL: names");
    }
}

TEST_F(VrrpRegistry, NullSlotsAreNotMissedWhereThereAreNone)
{
    start_with(record(1, 2, 3), {3, 4});
    for (const int max : {0, -1, INT_MIN}) {
        EXPECT_FAILS(ENOBUFS, lh_vrrp_group_members_vifname_get(3, nullptr, max));
        EXPECT_QUIETLY(0, lh_vrrp_group_members_vifname_get(4, nullptr, max));
        EXPECT_FAILS(ENODATA, lh_vrrp_group_members_vifname_get(5, nullptr, max));
        EXPECT_NO_LINES();
        EXPECT_FAILS(EINVAL, lh_vrrp_group_members_vifname_get(33, nullptr, max));
        EXPECT_LINES("lh_vrrp_group_members_vifname_get: IS_ME check failed: group (32 >= 32) !!!");
    }
}

// Texts and data ----------------------------------------------------------------------------------

TEST_F(VrrpRegistry, EveryStatusHasItsText)
{
    const std::pair<int, const char *> texts[] = {{-1, "Invalid"}, {0, "Unknown"}, {1, "Init"},
                                                  {2, "Backup"},   {3, "Master"},  {4, "Fault"}};
    for (const auto &[status, text] : texts) {
        errno = 77;
        EXPECT_STREQ(lh_vrrp_status_stringize(status), text);
        EXPECT_EQ(errno, 77);
    }
}

TEST_F(VrrpRegistry, OtherStatusesHaveNone)
{
    for (const int status : {-2, 5, 255, INT_MIN, INT_MAX}) {
        errno = 0;
        EXPECT_STREQ(lh_vrrp_status_stringize(status), "");
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_NO_LINES();
}

TEST_F(VrrpRegistry, TheSharedDataIsZeroAndStaysTheDaemons)
{
    static_assert(sizeof(shmem_init_err_t) == 4 && sizeof(garp_delay) == 8);
    EXPECT_EQ(shmem_init_err_t, 0);
    EXPECT_EQ(garp_delay, 0);
    shmem_init_err_t = -3;
    garp_delay = INT64_MIN;
    start_with(record(1, daemon_master, 1), {1});
    lh_vrrp_info_deinit();
    EXPECT_EQ(shmem_init_err_t, -3);
    EXPECT_EQ(garp_delay, INT64_MIN);
    shmem_init_err_t = 0;
    garp_delay = 0;
    EXPECT_NE(dlsym(RTLD_DEFAULT, "shmem_init_err_t"), nullptr);
    EXPECT_NE(dlsym(RTLD_DEFAULT, "garp_delay"), nullptr);
}
