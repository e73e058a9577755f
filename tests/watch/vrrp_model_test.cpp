// The tracker against a plain oracle: random status files, random calls, everything that a daemon
// can see compared after every step.
#include "watch/vrrp_oracle.hpp"

#include <random>

using namespace vyt::test;

namespace {

// Random steps ------------------------------------------------------------------------------------

const std::vector<std::string> &netns_pool()
{
    static const std::vector<std::string> pool = {
        "",
        "1",
        "red",
        "blue",
        "re",
        std::string(31, 'n'),
        std::string(32, 'n'),
        std::string(31, 'n') + "different",
        std::string(54, 'n'),
        std::string(55, 'n'),
        "11",
    };
    return pool;
}

const std::vector<int> vrid_pool = {1, 2, 3, 4, 5, 100, 254, 255};

class Steps {
  public:
    explicit Steps(unsigned seed) : random(seed)
    {
        // Arming does not wait for what comes and goes between two passes.
        faults.replace("usleep", reinterpret_cast<void *>(+[](useconds_t) { return 0; }));
    }

    void run(int steps)
    {
        for (int step = 0; step < steps && !::testing::Test::HasFailure(); step++) {
            SCOPED_TRACE("step " + std::to_string(step));
            take_one();
            compare();
        }
    }

  private:
    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); }
    bool one_in(int chances) { return below(chances) == 0; }
    template <class Pool>
    const auto &any_of(const Pool &pool)
    {
        return pool[size_t(below(int(pool.size())))];
    }
    int any_group() { return one_in(4) ? 1 + below(32) : 1 + below(4); }

    void take_one()
    {
        switch (below(10)) {
        case 0:
            enable_group();
            break;
        case 1:
            disable_group();
            break;
        case 2:
            enable_instance();
            break;
        case 3:
            disable_instance();
            break;
        case 4:
        case 5:
            change_file();
            break;
        default:
            update();
            break;
        }
    }

    void enable_group()
    {
        const int group = any_group();
        EXPECT_EQ(lh_vrrp_group_info_update_enable(uint32_t(group)), model.enable_group(group));
    }

    void disable_group()
    {
        const int group = any_group();
        EXPECT_EQ(answer_of(77, [&] { return lh_vrrp_group_info_update_disable(uint32_t(group)); })
                      .result,
                  model.disable_group(group).result);
    }

    void enable_instance()
    {
        const std::string &netns = any_of(netns_pool());
        const int vrid = any_of(vrid_pool);
        EXPECT_EQ(lh_vrrp_instance_info_update_enable(netns.c_str(), uint32_t(vrid)), 0);
        model.enable_instance(netns, vrid);
    }

    void disable_instance()
    {
        const std::string &netns = any_of(netns_pool());
        const int vrid = any_of(vrid_pool);
        EXPECT_EQ(lh_vrrp_instance_info_update_disable(netns.c_str(), uint32_t(vrid)), 0);
        model.disable_instance(netns, vrid);
    }

    file_record any_record()
    {
        const int strange[] = {0, 256, -1, -255, INT32_MIN, INT32_MAX, 1000};
        file_record record = {any_of(vrid_pool), below(4), one_in(5) ? 0 : any_group(),
                              any_of(netns_pool())};
        if (one_in(12))
            record.vrid = strange[below(7)];
        if (one_in(12))
            record.state = 4 + below(3) - 2 * 4 * below(2);
        if (one_in(12))
            record.group = one_in(2) ? 33 : strange[1 + below(6)];
        return record;
    }

    status_contents any_contents()
    {
        status_contents contents;
        const int count = one_in(10) ? 0 : one_in(5) ? below(300) : below(12);
        for (int i = 0; i < count; i++)
            contents.records.push_back(any_record());
        if (one_in(12))
            contents.stray_bytes = size_t(1 + below(575));
        return contents;
    }

    static std::string bytes_of(const status_contents &contents)
    {
        std::string bytes;
        for (const auto &[vrid, state, group, netns] : contents.records)
            bytes += record(vrid, state, group, netns);
        return bytes + std::string(contents.stray_bytes, 'x');
    }

    void change_file()
    {
        touched = true;
        if (file.has_value() && one_in(6)) {
            remove_status_file();
            file.reset();
            return;
        }
        file = any_contents();
        if (one_in(2))
            rename_over(bytes_of(*file));
        else
            truncate_and_write(bytes_of(*file));
    }

    void update()
    {
        const unsigned opened = faults.calls("open");
        const bool unknown = model.something_is_unknown();
        set_debug_flags(vrrp_dbg);
        const answer given = answer_of(77, lh_vrrp_info_update);
        set_debug_flags(0);
        if (!model.follows_something()) {
            model.clean_up();
            EXPECT_EQ(given, (answer{-1, ENODATA}));
            EXPECT_EQ(faults.calls("open"), opened);
            return;
        }
        // A pass reads when the file was touched or something has no status, and at most once more
        // for a file that has just appeared.
        const bool has_read = !file.has_value() || faults.calls("open") != opened;
        EXPECT_TRUE(has_read || !(touched || unknown));
        EXPECT_TRUE(!has_read || touched || unknown || touched_before);
        touched_before = std::exchange(touched, false);
        if (has_read)
            EXPECT_EQ(given, model.read(file.has_value() ? &*file : nullptr));
        else
            EXPECT_EQ(given.result, 0);
    }

    void compare()
    {
        EXPECT_EQ(take_lines(), std::exchange(model.lines, {}));
        for (int group = 1; group <= 32; group++)
            compare_group(group);
        for (const std::string &netns : netns_pool()) {
            for (const int vrid : vrid_pool)
                EXPECT_EQ(answer_of(77,
                                    [&] {
                                        return lh_vrrp_instance_status_get(netns.c_str(),
                                                                           uint32_t(vrid));
                                    }),
                          model.instance_status(netns, vrid))
                    << netns << " " << vrid;
        }
    }

    void compare_group(int number)
    {
        SCOPED_TRACE("group " + std::to_string(number));
        const auto group = uint32_t(number);
        const auto found = model.groups.find(number);
        if (found == model.groups.end()) {
            char slot[1][LH_VRRP_VIFNAME_SIZE];
            EXPECT_FAILS(ENODATA, lh_vrrp_group_status_get(group));
            EXPECT_FAILS(ENODATA, lh_vrrp_group_members_num_get(group));
            EXPECT_FAILS(ENODATA, lh_vrrp_group_members_vifname_get(group, slot, 1));
            EXPECT_EQ(lh_vrrp_group_status_is_master(group), 0);
            EXPECT_EQ(lh_vrrp_group_status_is_backup(group), 0);
            return;
        }
        const model_group &expected = found->second;
        EXPECT_QUIETLY(expected.status, lh_vrrp_group_status_get(group));
        EXPECT_EQ(lh_vrrp_group_status_is_master(group), expected.status == 3);
        EXPECT_EQ(lh_vrrp_group_status_is_backup(group), expected.status == 2);
        EXPECT_QUIETLY(int(expected.members.size()), lh_vrrp_group_members_num_get(group));
        compare_names(group, expected);
    }

    void compare_names(uint32_t group, const model_group &expected)
    {
        names all;
        for (const instance_ptr &member : expected.members)
            all.push_back("vrrp." + std::to_string(member->vrid));
        const int count = int(all.size());
        const int max = below(count + 3) - 1;
        const answer answered = max <= 0 && count != 0 ? answer{-1, ENOBUFS}
                                : count > max          ? answer{max <= 0 ? 0 : max + 1, 77}
                                                       : answer{count, 77};
        char slots[512][LH_VRRP_VIFNAME_SIZE];
        EXPECT_EQ(
            answer_of(77, [&] { return lh_vrrp_group_members_vifname_get(group, slots, max); }),
            answered);
        EXPECT_EQ(members_of(group), all);
        if (answered.result > 0) {
            all.resize(size_t(std::min(count, max)));
            EXPECT_EQ(names(slots, slots + std::min(count, max)), all);
        }
    }

    std::mt19937 random;
    Model model;
    Faults faults;
    std::optional<status_contents> file;
    bool touched = true; // the first pass reads
    bool touched_before = false;
};

} // namespace

class VrrpModel : public TrackerTest, public ::testing::WithParamInterface<unsigned> {};

TEST_P(VrrpModel, BehavesAsThePlainOracle)
{
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    start();
    Steps(GetParam()).run(500);
}

INSTANTIATE_TEST_SUITE_P(Seeds, VrrpModel,
                         ::testing::Values(1u, 2u, 3u, 20u, 77u, 1234u, 4711u, 99991u));
