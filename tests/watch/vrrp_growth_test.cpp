// What a record costs, in a small status file and in a large one. The times are printed, never
// asserted: ctest -R VrrpGrowth --verbose
#include "watch/vrrp_fixture.hpp"

#include <algorithm>
#include <chrono>

using namespace vyt::test;

class VrrpGrowth : public TrackerTest {
  protected:
    static constexpr int ids = 100;

    static std::string status_file(int namespaces)
    {
        std::string contents;
        for (int ns = 0; ns < namespaces; ns++) {
            for (int vrid = 1; vrid <= ids; vrid++)
                contents += record(vrid, daemon_master, 1, "vrf" + std::to_string(ns));
        }
        return contents;
    }

    // Nanoseconds that a record costs in one pass, the best of several.
    static double pass_cost(int namespaces, int passes)
    {
        double best = 1e9;
        for (int pass = 0; pass < passes; pass++) {
            const int fd = open(status_path.c_str(), O_WRONLY);
            EXPECT_EQ(write(fd, "\x01", 1), 1); // the byte that is there already
            close(fd);
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(lh_vrrp_info_update(), 0);
            const std::chrono::duration<double, std::nano> took =
                std::chrono::steady_clock::now() - start;
            best = std::min(best, took.count() / (namespaces * ids));
        }
        return best;
    }

    static void print_ratio(const char *what, double small, double large)
    {
        printf("%-22s 100 records: %6.0f ns each; 100,000 records: %6.0f ns each; ratio %.2f\n",
               what, small, large, large / small);
    }
};

TEST_F(VrrpGrowth, AFollowedGroupTakesEveryRecord)
{
    double cost[2];
    for (const int large : {0, 1}) {
        const int namespaces = large != 0 ? 1000 : 1;
        rename_over(status_file(namespaces));
        start({1});
        cost[large] = pass_cost(namespaces, large != 0 ? 5 : 500);
        EXPECT_EQ(lh_vrrp_group_members_num_get(1), namespaces * ids);
        EXPECT_EQ(lh_vrrp_group_status_is_master(1), 1);
        lh_vrrp_info_deinit();
    }
    print_ratio("one followed group:", cost[0], cost[1]);
}

TEST_F(VrrpGrowth, AFollowedInstanceTakesItsRecord)
{
    double cost[2];
    for (const int large : {0, 1}) {
        const int namespaces = large != 0 ? 1000 : 1;
        const std::string last = "vrf" + std::to_string(namespaces - 1);
        rename_over(status_file(namespaces));
        start();
        EXPECT_EQ(lh_vrrp_instance_info_update_enable(last.c_str(), ids), 0);
        cost[large] = pass_cost(namespaces, large != 0 ? 5 : 500);
        EXPECT_EQ(lh_vrrp_instance_status_get(last.c_str(), ids), LH_VRRP_STATUS_MASTER);
        lh_vrrp_info_deinit();
    }
    print_ratio("one followed instance:", cost[0], cost[1]);
}

// The first reading makes a record of its own for every member, the last one forgets them all.
TEST_F(VrrpGrowth, MembersComeAndGo)
{
    double cost[2];
    for (const int large : {0, 1}) {
        const int namespaces = large != 0 ? 1000 : 1;
        const std::string contents = status_file(namespaces);
        start({1});
        cost[large] = 1e9;
        for (int round = 0; round < (large != 0 ? 3 : 300); round++) {
            rename_over(contents);
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(lh_vrrp_info_update(), 0);
            EXPECT_EQ(lh_vrrp_group_members_num_get(1), namespaces * ids);
            remove_status_file();
            EXPECT_EQ(lh_vrrp_info_update(), 0);
            EXPECT_EQ(lh_vrrp_group_members_num_get(1), 0);
            const std::chrono::duration<double, std::nano> took =
                std::chrono::steady_clock::now() - start;
            cost[large] = std::min(cost[large], took.count() / (namespaces * ids));
        }
        lh_vrrp_info_deinit();
    }
    print_ratio("coming and going:", cost[0], cost[1]);
}
