// The tracker and the plain one side by side: every call is made on both, and whatever can be seen of
// it must be the same.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "watch/vrrp_oracle.hpp"

namespace vyt::test {

class TrackerPair {
  public:
    explicit TrackerPair(Faults &faults) : faults_(faults)
    {
        // Arming does not wait for what comes and goes between two passes.
        faults_.replace("usleep", reinterpret_cast<void *>(+[](useconds_t) { return 0; }));
    }

    void enable_group(int group)
    {
        EXPECT_EQ(lh_vrrp_group_info_update_enable(uint32_t(group)), model_.enable_group(group));
    }

    void disable_group(int group)
    {
        EXPECT_EQ(answer_of(77, [&] { return lh_vrrp_group_info_update_disable(uint32_t(group)); })
                      .result,
                  model_.disable_group(group).result);
    }

    void enable_instance(const std::string &netns, int vrid)
    {
        EXPECT_EQ(lh_vrrp_instance_info_update_enable(netns.c_str(), uint32_t(vrid)), 0);
        model_.enable_instance(netns, vrid);
    }

    void disable_instance(const std::string &netns, int vrid)
    {
        EXPECT_EQ(lh_vrrp_instance_info_update_disable(netns.c_str(), uint32_t(vrid)), 0);
        model_.disable_instance(netns, vrid);
    }

    bool has_file() const { return file_.has_value(); }

    void remove_file()
    {
        remove_status_file();
        file_.reset();
        touched_ = true;
    }

    // The bytes, what they say, and how they get there.
    void replace_file(const std::string &bytes, const status_contents &contents,
                      void (*write)(const std::string &))
    {
        write(bytes);
        file_ = contents;
        touched_ = true;
    }

    void update()
    {
        const unsigned opened = faults_.calls("open");
        const bool unknown = model_.something_is_unknown();
        set_debug_flags(vrrp_dbg);
        const answer given = answer_of(77, lh_vrrp_info_update);
        set_debug_flags(0);
        if (!model_.follows_something()) {
            model_.clean_up();
            EXPECT_EQ(given, (answer{-1, ENODATA}));
            EXPECT_EQ(faults_.calls("open"), opened);
            return;
        }
        // A pass reads when the file was touched or something has no status, and at most once more
        // for a file that has just appeared.
        const bool has_read = !file_.has_value() || faults_.calls("open") != opened;
        EXPECT_TRUE(has_read || !(touched_ || unknown));
        EXPECT_TRUE(!has_read || touched_ || unknown || touched_before_);
        touched_before_ = std::exchange(touched_, false);
        if (has_read)
            EXPECT_EQ(given, model_.read(file_.has_value() ? &*file_ : nullptr));
        else
            EXPECT_EQ(given.result, 0);
    }

    // room(n): how many names are asked for where there are n.
    template <class Room>
    void compare(const std::vector<std::string> &netns_pool, const std::vector<int> &vrid_pool,
                 Room &&room)
    {
        EXPECT_EQ(take_lines(), std::exchange(model_.lines, {}));
        for (int group = 1; group <= 32; group++)
            compare_group(group, room);
        for (const std::string &netns : netns_pool) {
            for (const int vrid : vrid_pool)
                EXPECT_EQ(answer_of(77,
                                    [&] {
                                        return lh_vrrp_instance_status_get(netns.c_str(),
                                                                           uint32_t(vrid));
                                    }),
                          model_.instance_status(netns, vrid))
                    << netns << " " << vrid;
        }
    }

  private:
    template <class Room>
    void compare_group(int number, Room &&room)
    {
        SCOPED_TRACE("group " + std::to_string(number));
        const auto group = uint32_t(number);
        const auto found = model_.groups.find(number);
        if (found == model_.groups.end()) {
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
        compare_names(group, expected, room);
    }

    template <class Room>
    void compare_names(uint32_t group, const model_group &expected, Room &&room)
    {
        names all;
        for (const instance_ptr &member : expected.members)
            all.push_back("vrrp." + std::to_string(member->vrid));
        const int count = int(all.size());
        const int max = room(count);
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

    Faults &faults_;
    Model model_;
    std::optional<status_contents> file_;
    bool touched_ = true; // the first pass reads
    bool touched_before_ = false;
};

} // namespace vyt::test
