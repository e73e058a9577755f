// The tracker against a plain oracle: random status files, random calls, everything that a daemon
// can see compared after every step.
#include "watch/vrrp_fixture.hpp"

#include <list>
#include <map>
#include <memory>
#include <random>

using namespace vyt::test;

namespace {

// The oracle --------------------------------------------------------------------------------------

struct model_instance {
    bool enabled = false;
    int vrid;
    int group = 0;
    int status = 0;
};
using instance_ptr = std::shared_ptr<model_instance>;

struct model_namespace {
    std::string name;
    std::map<int, instance_ptr> instances;
};

struct model_group {
    int previous = -1;
    int status = 0;
    std::list<instance_ptr> members;
};

struct file_record {
    int vrid;
    int state;
    int group;
    std::string netns;
};

struct status_contents {
    std::vector<file_record> records;
    size_t stray_bytes = 0; // behind the last record
};

std::string spelled(const std::string &netns)
{
    return netns.empty() ? "1" : netns;
}

class Model {
  public:
    int enable_group(int group)
    {
        groups.try_emplace(group);
        return 0;
    }

    answer disable_group(int group)
    {
        const auto found = groups.find(group);
        if (found == groups.end())
            return {-1, ENODATA};
        const auto members = found->second.members;
        for (const instance_ptr &member : members) {
            if (!member->enabled)
                destroy(member);
        }
        groups.erase(group);
        return {0, 77};
    }

    void enable_instance(const std::string &netns, int vrid)
    {
        make_instance(make_namespace(netns), vrid)->enabled = true;
    }

    void disable_instance(const std::string &netns, int vrid)
    {
        model_namespace *ns = find_namespace(netns);
        if (ns != nullptr && ns->instances.count(vrid) != 0)
            destroy(ns->instances[vrid]);
    }

    answer instance_status(const std::string &netns, int vrid)
    {
        const model_namespace *ns = find_namespace(netns);
        if (ns == nullptr)
            return {-1, 77};
        const auto found = ns->instances.find(vrid);
        return found == ns->instances.end() ? answer{-1, ENODATA}
                                            : answer{found->second->status, 77};
    }

    bool follows_something() const
    {
        bool found = !groups.empty();
        each_instance([&](const instance_ptr &instance) { found |= instance->enabled; });
        return found;
    }

    bool something_is_unknown() const
    {
        bool found = false;
        for (const auto &[number, group] : groups)
            found |= group.status == 0;
        each_instance([&](const instance_ptr &instance) { found |= instance->status == 0; });
        return found;
    }

    // One reading; no contents: no file.
    answer read(const status_contents *contents)
    {
        for (auto &[number, group] : groups) {
            group.previous = group.status;
            group.status = 0;
            group.members.clear();
        }
        each_instance([](const instance_ptr &instance) {
            instance->status = 0;
            instance->group = 0;
        });
        const int error = contents != nullptr ? take(*contents) : 0;
        for (const auto &[number, group] : groups) {
            if (group.previous != group.status)
                lines.push_back("VRRP_DBG VRRP group " + std::to_string(number) +
                                " change status " + text(group.previous) + " to " +
                                text(group.status));
        }
        clean_up();
        return {error == 0 ? 0 : -1, error};
    }

    void clean_up()
    {
        for (model_namespace &ns : namespaces)
            std::erase_if(ns.instances, [](const auto &entry) {
                return !entry.second->enabled && entry.second->group == 0;
            });
        namespaces.remove_if([](const model_namespace &ns) { return ns.instances.empty(); });
    }

    std::map<int, model_group> groups; // the followed ones
    std::vector<std::string> lines;

  private:
    template <class Function>
    void each_instance(Function &&function) const
    {
        for (const model_namespace &ns : namespaces) {
            for (const auto &[vrid, instance] : ns.instances)
                function(instance);
        }
    }

    model_namespace *find_namespace(const std::string &netns)
    {
        for (model_namespace &ns : namespaces) {
            if (ns.name == spelled(netns))
                return &ns;
        }
        return nullptr;
    }

    model_namespace &make_namespace(const std::string &netns)
    {
        if (model_namespace *ns = find_namespace(netns))
            return *ns;
        namespaces.push_front({spelled(netns).substr(0, 31), {}});
        return namespaces.front();
    }

    static instance_ptr make_instance(model_namespace &ns, int vrid)
    {
        instance_ptr &slot = ns.instances[vrid];
        if (slot == nullptr) {
            slot = std::make_shared<model_instance>();
            slot->vrid = vrid;
        }
        return slot;
    }

    void leave_groups(const instance_ptr &instance)
    {
        for (auto &[number, group] : groups)
            group.members.remove(instance);
    }

    void destroy(const instance_ptr &which)
    {
        const instance_ptr instance = which;
        leave_groups(instance);
        for (model_namespace &ns : namespaces)
            std::erase_if(ns.instances,
                          [&](const auto &entry) { return entry.second == instance; });
    }

    int take(const status_contents &contents)
    {
        if (contents.stray_bytes != 0) {
            lines.push_back("read_vrrp_info: IS_NE check failed: remainder (" +
                            std::to_string(contents.stray_bytes) + " != 0) !!!");
            return EIO;
        }
        if (contents.records.empty())
            return ENOENT;
        for (const file_record &record : contents.records)
            take(record);
        return 0;
    }

    void take(const file_record &record)
    {
        if (record.vrid < 1 || record.vrid > 255) {
            lines.push_back("VRRP_DBG <read_vrrp_info> invalid Virtual Router Id " +
                            std::to_string(record.vrid));
            return;
        }
        if (record.group != 0 && (record.group < 1 || record.group > 32)) {
            lines.push_back("VRRP_DBG <read_vrrp_info> invalid VRRP group " +
                            std::to_string(record.group));
            return;
        }
        const auto group = groups.find(record.group);
        instance_ptr instance;
        if (group != groups.end()) {
            instance = make_instance(make_namespace(record.netns), record.vrid);
        } else {
            model_namespace *ns = find_namespace(record.netns);
            if (ns == nullptr || ns->instances.count(record.vrid) == 0 ||
                !ns->instances[record.vrid]->enabled)
                return;
            instance = ns->instances[record.vrid];
        }
        instance->group = record.group;
        if (record.state >= 0 && record.state <= 3)
            instance->status = record.state + 1;
        leave_groups(instance);
        if (group != groups.end()) {
            group->second.members.push_front(instance);
            fold(group->second, *instance, record.state);
        }
    }

    static void fold(model_group &group, const model_instance &instance, int state)
    {
        switch (group.status) {
        case 0: // the first member
            group.status = instance.status;
            break;
        case 2: // backup
            if (state != 1 && state != 2)
                group.status = instance.status;
            break;
        case 3: // master
            if (state != 2)
                group.status = instance.status;
            break;
        default: // init and fault are kept
            break;
        }
    }

    static const char *text(int status)
    {
        const char *const texts[] = {"Unknown", "Init", "Backup", "Master", "Fault"};
        return texts[status];
    }

    std::list<model_namespace> namespaces; // newest first
};

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
