// The tracker's records: whose member an instance is, and what the cleanup forgets.
#include "watch/vrrp_fixture.hpp"

using namespace vyt::test;

class VrrpTracker : public TrackerTest {};

// Files that name an instance twice ---------------------------------------------------------------

TEST_F(VrrpTracker, AnInstanceNamedTwiceIsAMemberOnce)
{
    start({1});
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(2, daemon_master, 1) +
                          record(1, daemon_backup, 1)),
              0);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 2);
    EXPECT_EQ(members_of(1), (names{"vrrp.1", "vrrp.2"})) << "where its last record puts it";
    EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_BACKUP);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_BACKUP);
}

TEST_F(VrrpTracker, AThousandRecordsOfOneInstanceAreOneMember)
{
    std::string contents;
    for (int i = 0; i < 1000; i++)
        contents += record(9, i % 4, i % 33);
    start();
    for (uint32_t group = 1; group <= 32; group++)
        EXPECT_EQ(lh_vrrp_group_info_update_enable(group), 0);
    EXPECT_EQ(update_with(contents), 0);
    const uint32_t last = 999 % 33;
    for (uint32_t group = 1; group <= 32; group++)
        EXPECT_EQ(lh_vrrp_group_members_num_get(group), group == last);
    EXPECT_EQ(lh_vrrp_instance_status_get("", 9), 999 % 4 + 1);
}

TEST_F(VrrpTracker, TheLastRecordsGroupHasTheInstance)
{
    start({1, 2});
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(1, daemon_fault, 2)), 0);
    EXPECT_EQ(members_of(1), names{});
    EXPECT_EQ(members_of(2), names{"vrrp.1"});
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER) << "each record is folded";
    EXPECT_EQ(lh_vrrp_group_status_get(2), LH_VRRP_STATUS_FAULT);
    EXPECT_EQ(lh_vrrp_group_info_update_disable(2), 0);
    EXPECT_EQ(members_of(1), names{});
    EXPECT_EQ(lh_vrrp_group_info_update_disable(1), 0);
}

TEST_F(VrrpTracker, AnInstanceOfItsOwnLeavesItsGroupWithARecordOfNone)
{
    start({1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("", 1), 0);
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(1, daemon_backup, 0)), 0);
    EXPECT_EQ(members_of(1), names{});
    EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_BACKUP);
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(1, daemon_fault, 5)), 0);
    EXPECT_EQ(members_of(1), names{}) << "group 5 is not followed, but it is the last one";
    EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_FAULT);
    EXPECT_EQ(lh_vrrp_group_info_update_disable(1), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_FAULT);
}

// A record of a group that nobody follows is not taken for an instance that is only a member.
TEST_F(VrrpTracker, AMemberIsNotMovedByRecordsThatAreNotTaken)
{
    start({1});
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(1, daemon_backup, 0) +
                          record(1, daemon_fault, 5) + record(1, daemon_fault, 33)),
              0);
    EXPECT_EQ(members_of(1), names{"vrrp.1"});
    EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_MASTER);
}

TEST_F(VrrpTracker, ASecondRecordInAStrangeStateKeepsTheFirstOnesStatus)
{
    start({1});
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(1, 9, 1)), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_MASTER);
}

// From reading to reading -------------------------------------------------------------------------

TEST_F(VrrpTracker, AnInstanceMovesBetweenGroups)
{
    start({1, 2});
    for (int round = 0; round < 3; round++) {
        EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(2, daemon_master, 2)), 0);
        EXPECT_EQ(members_of(1), names{"vrrp.1"});
        EXPECT_EQ(members_of(2), names{"vrrp.2"});
        EXPECT_EQ(update_with(record(1, daemon_master, 2) + record(2, daemon_master, 2)), 0);
        EXPECT_EQ(members_of(1), names{});
        EXPECT_EQ(members_of(2), (names{"vrrp.2", "vrrp.1"}));
        EXPECT_EQ(lh_vrrp_group_status_get(1), LH_VRRP_STATUS_UNKNOWN);
    }
}

TEST_F(VrrpTracker, OneIdInTwoNamespacesIsTwoInstances)
{
    start({1});
    EXPECT_EQ(update_with(record(1, daemon_master, 1) + record(1, daemon_backup, 1, "red")), 0);
    EXPECT_EQ(members_of(1), (names{"vrrp.1", "vrrp.1"}));
    EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), LH_VRRP_STATUS_BACKUP);
}

TEST_F(VrrpTracker, MembersThatTheFileNamesNoMoreAreForgotten)
{
    start_with(record(1, daemon_master, 1) + record(2, daemon_master, 1) +
                   record(3, daemon_master, 1, "red"),
               {1});
    EXPECT_EQ(update_with(record(2, daemon_master, 1)), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("", 1));
    EXPECT_EQ(lh_vrrp_instance_status_get("", 2), LH_VRRP_STATUS_MASTER);
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 3)) << "its namespace has no other";
}

TEST_F(VrrpTracker, InstancesOfTheirOwnAreKeptWhenTheFileNamesThemNoMore)
{
    start_with(record(1, daemon_master, 1, "red"), {1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("red", 1), 0);
    EXPECT_EQ(update_with(record(2, daemon_master, 1)), 0);
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 1), LH_VRRP_STATUS_UNKNOWN);
    EXPECT_EQ(members_of(1), names{"vrrp.2"});
}

// An instance that is followed both ways is counted for itself only.
TEST_F(VrrpTracker, NothingIsFollowedOnceGroupsAndInstancesAreDisabled)
{
    start_with(record(1, daemon_master, 1) + record(2, daemon_master, 1), {1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("", 1), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("", 2), 0);
    EXPECT_EQ(lh_vrrp_group_info_update_disable(1), 0);
    EXPECT_EQ(lh_vrrp_info_update(), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("", 1), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("", 1));
}

TEST_F(VrrpTracker, DisablingAGroupForgetsItsMembersAtOnce)
{
    start_with(record(1, daemon_master, 1, "red") + record(2, daemon_master, 2, "red"), {1, 2});
    EXPECT_EQ(lh_vrrp_group_info_update_disable(1), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("red", 1));
    EXPECT_EQ(lh_vrrp_instance_status_get("red", 2), LH_VRRP_STATUS_MASTER);
    EXPECT_EQ(lh_vrrp_group_info_update_disable(2), 0);
    EXPECT_FAILS(ENODATA, lh_vrrp_instance_status_get("red", 2)) << "the namespace is still known";
    EXPECT_FAILS(ENODATA, lh_vrrp_info_update());
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("red", 2)) << "until the cleanup";
}

// What a failed reading forgets, the records of an instance of its own survive.
TEST_F(VrrpTracker, ADisabledInstanceIsAMemberAgainAfterTheNextReading)
{
    start_with(record(1, daemon_master, 1), {1});
    EXPECT_EQ(lh_vrrp_instance_info_update_enable("", 1), 0);
    EXPECT_EQ(lh_vrrp_instance_info_update_disable("", 1), 0);
    EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
    EXPECT_EQ(update_with(record(1, daemon_backup, 1)), 0);
    EXPECT_EQ(members_of(1), names{"vrrp.1"});
    EXPECT_EQ(lh_vrrp_instance_status_get("", 1), LH_VRRP_STATUS_BACKUP);
}

TEST_F(VrrpTracker, EveryIdOfManyNamespacesIsToldApart)
{
    std::string contents;
    for (int ns = 0; ns < 40; ns++) {
        for (int vrid = 1; vrid <= 255; vrid++)
            contents += record(vrid, (ns + vrid) % 4, 1 + vrid % 32, "ns" + std::to_string(ns));
    }
    start();
    for (uint32_t group = 1; group <= 32; group++)
        EXPECT_EQ(lh_vrrp_group_info_update_enable(group), 0);
    EXPECT_EQ(update_with(contents), 0);
    for (int ns = 0; ns < 40; ns++) {
        const std::string name = "ns" + std::to_string(ns);
        for (int vrid = 1; vrid <= 255; vrid++)
            ASSERT_EQ(lh_vrrp_instance_status_get(name.c_str(), uint32_t(vrid)),
                      (ns + vrid) % 4 + 1);
    }
    int members = 0;
    for (uint32_t group = 1; group <= 32; group++)
        members += lh_vrrp_group_members_num_get(group);
    EXPECT_EQ(members, 40 * 255);
    EXPECT_EQ(update_with(record(1, daemon_master, 1)), 0);
    EXPECT_QUIETLY(-1, lh_vrrp_instance_status_get("ns7", 1));
}
