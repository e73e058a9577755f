// What is followed: groups and instances, and the namespaces that they are told apart by.
#include "watch/vrrp_fixture.hpp"

using namespace vyt::test;

class VrrpRegistry : public TrackerTest {};

// Following ---------------------------------------------------------------------------------------

TEST_F(VrrpRegistry, EnablingAGroupTwiceCountsOnce)
{
    start();
    EXPECT_EQ(lh_vrrp_group_info_update_enable(7), 0);
    EXPECT_EQ(lh_vrrp_group_info_update_enable(7), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_group_info_update_disable(7), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_FAILS(ENODATA, lh_vrrp_group_info_update_disable(7));
}

TEST_F(VrrpRegistry, EnablingAnInstanceTwiceCountsOnce)
{
    start();
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 7), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 7), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("red", 7), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("red", 7), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update()) << "disabling twice counts once, too";
}

TEST_F(VrrpRegistry, EnablingAgainKeepsTheStatus)
{
    start_with(record(1, daemon_master, 1, "red"), {1});
    EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(members_of(1), names{"vrrp.1"});
}

TEST_F(VrrpRegistry, AMissingGroupIsSilentlyNoData)
{
    start({1});
    set_debug_flags(vrrp_dbg | inotify_dbg);
    char name[1][LH_VRRP_VIFNAME_SIZE];
    EXPECT_FAILS(ENODATA, lh_vrrp_group_info_update_disable(2));
    EXPECT_FAILS(ENODATA, lh_vrrp_group_status_get(2));
    EXPECT_FAILS(ENODATA, lh_vrrp_group_members_num_get(2));
    EXPECT_FAILS(ENODATA, lh_vrrp_group_members_vifname_get(2, name, 1));
    EXPECT_FAILS(ENODATA, lh_vrrp_group_members_vifname_get(2, name, 0));
    EXPECT_NO_LINES();
}

TEST_F(VrrpRegistry, DisablingWhatIsNotFollowedIsFine)
{
    start();
    EXPECT_QUIETLY(0, lh_vrrp_instance_info_update_disable("red", 9));
    EXPECT_QUIETLY(0, lh_vrrp_instance_info_update_disable(nullptr, 9));
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 8), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("red", 9), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 8), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_EQ(lh_vrrp_info_update(), 0) << "the other one is still followed";
}

TEST_F(VrrpRegistry, AnInstanceOfItsOwnSurvivesItsGroup)
{
    start_with(record(1, daemon_master, 1, "red") + record(2, daemon_backup, 1, "red"), {1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
    EXPECT_EQ(lh_vrrp_group_info_update_disable(1), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), LH_VRRP_STATUS_MASTER);
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("red", 2));
    EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0) << "until the next reading";
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(members_of(1), (names{"vrrp.2", "vrrp.1"}));
}

TEST_F(VrrpRegistry, DisablingAnInstanceTakesItOutOfItsGroup)
{
    start_with(record(1, daemon_master, 1) + record(2, daemon_master, 1), {1});
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("", 1), 0);
    EXPECT_EQ(members_of(1), names{"vrrp.2"});
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("", 1));
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(2, daemon_master, 1)), 0);
    EXPECT_EQ(members_of(1), (names{"vrrp.2", "vrrp.1"}));
}

// Namespace names ---------------------------------------------------------------------------------

TEST_F(VrrpRegistry, TheDefaultNamespaceHasThreeSpellings)
{
    const char *const spellings[] = {nullptr, "", "1"};
    start();
    for (const char *enabled : spellings) {
        EXPECT_EQ(lh_vrrp_instance_info_update_enable(enabled, 5), 0);
        for (const char *asked : spellings)
            EXPECT_EQ(lh_vrrp_instance_status_get(asked, 5), LH_VRRP_STATUS_UNKNOWN);
    }
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("", 5), 0) << "counted once";
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    for (const char *other : {"01", "1 ", "11", "default", "0"})
        EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get(other, 5));
}

TEST_F(VrrpRegistry, NamespacesAreToldApart)
{
    start();
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 5), 0);
    for (const char *other : {"Red", "re", "redd", "", "blue"})
        EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get(other, 5));
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("red", 6));
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 5), LH_VRRP_STATUS_UNKNOWN);
}

TEST_F(VrrpRegistry, ANameOf31CharactersIsKept)
{
    const std::string name(31, 'n');
    start();
    EXPECT_EQ(lh_vrrp_instance_info_update_enable(name.c_str(), 5), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_enable(name.c_str(), 5), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get(name.c_str(), 5), LH_VRRP_STATUS_UNKNOWN);
    write_file(status_path, record(5, daemon_backup, 0, name));
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get(name.c_str(), 5), LH_VRRP_STATUS_BACKUP);
    EXPECT_EQ(lh_vrrp_instance_info_update_disable(name.c_str(), 5), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
}

// The name is kept shortened, and the long one never equals it.
TEST_F(VrrpRegistry, ANameOf32CharactersIsFoundByItsFirst31)
{
    const std::string name(32, 'n');
    start();
    EXPECT_EQ(lh_vrrp_instance_info_update_enable(name.c_str(), 5), 0);
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get(name.c_str(), 5));
    EXPECT_EQ(lh_vrrp_instance_status_get(name.substr(1).c_str(), 5), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_QUIETLY(0, lh_vrrp_instance_info_update_disable(name.c_str(), 5));
    EXPECT_EQ(lh_vrrp_info_update(), 0) << "still followed";
    EXPECT_EQ(lh_vrrp_instance_info_update_disable(name.substr(1).c_str(), 5), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
}

TEST_F(VrrpRegistry, OfTwoNamespacesOfOneShortenedNameTheNewestIsFound)
{
    const std::string first = std::string(31, 'n') + "a";
    const std::string second = std::string(31, 'n') + "b";
    const std::string kept(31, 'n');
    start();
    EXPECT_EQ(lh_vrrp_instance_info_update_enable(first.c_str(), 5), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_enable(second.c_str(), 6), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get(kept.c_str(), 6), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get(kept.c_str(), 5));
    EXPECT_EQ(lh_vrrp_instance_info_update_disable(kept.c_str(), 6), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0) << "the cleanup forgets the newer one";
    EXPECT_EQ(lh_vrrp_instance_status_get(kept.c_str(), 5), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_EQ(lh_vrrp_instance_info_update_disable(kept.c_str(), 5), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
}

TEST_F(VrrpRegistry, TheCallersNameIsCopied)
{
    char name[] = "red";
    start();
    EXPECT_EQ(lh_vrrp_instance_info_update_enable(name, 5), 0);
    name[0] = 'b';
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 5), LH_VRRP_STATUS_UNKNOWN);
}

// Failing allocations -----------------------------------------------------------------------------

TEST_F(VrrpRegistry, AGroupWithoutMemoryIsNotFollowed)
{
    start();
    set_debug_flags(vrrp_dbg);
    Faults faults;
    faults.fail("malloc", ENOMEM);
    EXPECT_FAILS(ENOMEM, lh_vrrp_group_info_update_enable(1));
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("VRRP_DBG <create_vrrp_group> malloc failed Cannot allocate memory");
    EXPECT_FAILS(ENODATA, lh_vrrp_group_status_get(1));
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0);
    faults.fail("malloc", ENOMEM);
    EXPECT_EQ(lh_vrrp_group_info_update_enable(1), 0) << "a followed group needs no memory";
}

TEST_F(VrrpRegistry, ANamespaceWithoutMemoryIsNotFollowed)
{
    start();
    set_debug_flags(vrrp_dbg);
    Faults faults;
    faults.fail("calloc", ENOMEM);
    EXPECT_FAILS(ENOMEM, lh_vrrp_instance_info_update_enable("red", 1));
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("VRRP_DBG <create_vrf_instance> calloc failed Cannot allocate memory");
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 1));
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
}

TEST_F(VrrpRegistry, AnInstanceWithoutMemoryIsNotFollowed)
{
    start();
    set_debug_flags(vrrp_dbg);
    Faults faults;
    faults.fail("malloc", ENOMEM);
    EXPECT_FAILS(ENOMEM, lh_vrrp_instance_info_update_enable("red", 1));
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("VRRP_DBG <create_vrrp_instance> malloc failed Cannot allocate memory");
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("red", 1)) << "its namespace is known";
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 1)) << "until the cleanup";
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
}

TEST_F(VrrpRegistry, AllocationFailuresAreSilentWithoutTheFlag)
{
    start();
    Faults faults;
    faults.fail_allocation(1);
    EXPECT_FAILS(ENOMEM, lh_vrrp_group_info_update_enable(1));
    faults.fail_allocation(1);
    EXPECT_FAILS(ENOMEM, lh_vrrp_instance_info_update_enable("", 1));
    faults.fail_allocation(2);
    EXPECT_FAILS(ENOMEM, lh_vrrp_instance_info_update_enable("", 1));
    EXPECT_NO_LINES();
}

TEST_F(VrrpRegistry, ManyNamespacesAreFollowedAlsoWhenOnlyTheirRecordsGetMemory)
{
    start();
    Faults faults;
    const auto refuse_growth = [](size_t count, size_t size) -> void * {
        if (size > sizeof(void *))
            return calloc(count, size);
        errno = ENOMEM;
        return nullptr;
    };
    faults.replace("calloc", reinterpret_cast<void *>(+refuse_growth));
    for (int i = 0; i < 300; i++)
        EXPECT_EQ(lh_vrrp_instance_info_update_enable(("ns" + std::to_string(i)).c_str(), 1), 0);
    for (int i = 0; i < 300; i++)
        EXPECT_EQ(lh_vrrp_instance_status_get(("ns" + std::to_string(i)).c_str(), 1), 0);
}
