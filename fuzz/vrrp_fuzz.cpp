// The VRRP daemon's status file. The input is a row of steps: what is followed, what the file comes
// to hold (made of records, or as bytes), and when it is read. The tracker starts empty each time.
//
// Only the kernel's inotify queue serves all inputs, emptied between them: ending one takes the
// kernel longer than a whole run.
#include "watch/vrrp_oracle.hpp"

#include <sys/inotify.h>

#include "fuzz/support/fuzz.hpp"

using namespace vyt::fuzz;
using namespace vyt::test;

namespace {

Faults *faults; // made with the world: the library's links stay redirected

int queue = -1;

int open_queue(int)
{
    char block[4096];
    while (read(queue, block, sizeof(block)) > 0)
        ;
    return fcntl(queue, F_DUPFD, 0);
}

int no_pause(useconds_t)
{
    return 0;
}

const std::vector<std::string> &namespaces()
{
    static const std::vector<std::string> all = {
        "",
        "1",
        "red",
        "blue",
        std::string(31, 'n'),
        std::string(32, 'n'),
        std::string(54, 'n'),
        std::string(55, 'n'),
    };
    return all;
}

int32_t number_at(const std::string &bytes, size_t offset)
{
    int32_t number;
    memcpy(&number, bytes.data() + offset, sizeof(number));
    return number;
}

// What the file says, for the oracle.
status_contents contents_of(const std::string &file)
{
    status_contents contents;
    contents.stray_bytes = file.size() % record_size;
    for (size_t at = 0; at + record_size <= file.size(); at += record_size) {
        const std::string bytes = file.substr(at, record_size);
        contents.records.push_back({number_at(bytes, 0), number_at(bytes, 472),
                                    number_at(bytes, 496), c_text(bytes.substr(521))});
    }
    return contents;
}

constexpr int steps_max = 50; // more of them only take longer

class Script {
  public:
    explicit Script(Input input) : input_(input) {}

    void run()
    {
        for (int steps = 0; steps < steps_max && !input_.is_empty(); steps++)
            step();
        update();
    }

  private:
    const std::string &any_namespace() { return namespaces()[input_.below(8)]; }
    uint32_t any_group() { return 1 + input_.below(32); }
    uint32_t any_vrid() { return 1 + input_.below(255); }

    void step()
    {
        switch (input_.below(8)) {
        case 0:
            return enable_group();
        case 1:
            return disable_group();
        case 2:
            return enable_instance();
        case 3:
            return disable_instance();
        case 4:
            return replace_file(some_records());
        case 5: {
            const size_t size = input_.number(2);
            return replace_file(input_.take(size));
        }
        case 6:
            return remove_file();
        default:
            return update();
        }
    }

    void enable_group()
    {
        const uint32_t group = any_group();
        EXPECT_EQ(lh_vrrp_group_info_update_enable(group),
                  model_.enable_group(static_cast<int>(group)));
    }

    void disable_group()
    {
        const uint32_t group = any_group();
        EXPECT_EQ(lh_vrrp_group_info_update_disable(group),
                  model_.disable_group(static_cast<int>(group)).result);
    }

    void enable_instance()
    {
        const std::string &netns = any_namespace();
        const uint32_t vrid = any_vrid();
        EXPECT_EQ(lh_vrrp_instance_info_update_enable(netns.c_str(), vrid), 0);
        model_.enable_instance(netns, static_cast<int>(vrid));
    }

    void disable_instance()
    {
        const std::string &netns = any_namespace();
        const uint32_t vrid = any_vrid();
        EXPECT_EQ(lh_vrrp_instance_info_update_disable(netns.c_str(), vrid), 0);
        model_.disable_instance(netns, static_cast<int>(vrid));
    }

    // Numbers a little beyond their ranges, too.
    std::string some_records()
    {
        std::string file;
        for (unsigned count = input_.below(20); count > 0; count--) {
            const int vrid = static_cast<int>(input_.byte()) + (input_.below(16) == 15 ? 1 : 0);
            const int state = static_cast<int>(input_.below(6)) - 1;
            const int group = static_cast<int>(input_.below(35)) - 1;
            file += record(vrid, state, group, any_namespace());
        }
        return file;
    }

    void replace_file(const std::string &contents)
    {
        rename_over(contents);
        file_ = contents;
        touched_ = true;
    }

    void remove_file()
    {
        if (file_.has_value())
            remove_status_file();
        touched_ = touched_ || file_.has_value();
        file_.reset();
    }

    void update()
    {
        const unsigned opened = faults->calls("open");
        const bool unknown = model_.something_is_unknown();
        const answer given = answer_of(77, lh_vrrp_info_update);
        const bool has_opened = faults->calls("open") != opened;
        if (!model_.follows_something()) {
            model_.clean_up();
            EXPECT_EQ(given, (answer{-1, ENODATA}));
            EXPECT_FALSE(has_opened);
            return;
        }
        // What changed is read, and what has no status yet; a file that has just appeared may be
        // read once more.
        const bool has_read = !file_.has_value() || has_opened;
        EXPECT_TRUE(has_read || !(touched_ || unknown));
        EXPECT_TRUE(!has_read || touched_ || unknown || touched_before_);
        touched_before_ = std::exchange(touched_, false);
        if (has_read) {
            const auto contents =
                file_.has_value() ? std::optional(contents_of(*file_)) : std::nullopt;
            EXPECT_EQ(given, model_.read(contents.has_value() ? &*contents : nullptr));
        } else {
            EXPECT_EQ(given.result, 0);
        }
        compare();
    }

    void compare()
    {
        EXPECT_EQ(take_lines(), std::exchange(model_.lines, {}));
        for (int group = 1; group <= 32; group++)
            compare_group(group);
        for (const std::string &netns : namespaces()) {
            for (const int vrid : {1, 2, 3, 4, 5, 6, 7, 8, 9, 48, 49, 254, 255})
                EXPECT_EQ(answer_of(77,
                                    [&] {
                                        return lh_vrrp_instance_status_get(
                                            netns.c_str(), static_cast<uint32_t>(vrid));
                                    }),
                          model_.instance_status(netns, vrid));
        }
    }

    void compare_group(int number)
    {
        const auto group = static_cast<uint32_t>(number);
        const auto found = model_.groups.find(number);
        if (found == model_.groups.end()) {
            EXPECT_FAILS(ENODATA, lh_vrrp_group_status_get(group));
            return;
        }
        names members;
        for (const instance_ptr &member : found->second.members)
            members.push_back("vrrp." + std::to_string(member->vrid));
        EXPECT_QUIETLY(found->second.status, lh_vrrp_group_status_get(group));
        EXPECT_QUIETLY(static_cast<int>(members.size()), lh_vrrp_group_members_num_get(group));
        EXPECT_EQ(members_of(group), members);
    }

    Input input_;
    Model model_;
    std::optional<std::string> file_;
    bool touched_ = true; // the first pass reads
    bool touched_before_ = false;
};

} // namespace

void vyt::fuzz::prepare()
{
    static const World world;
    static Faults redirected;
    queue = inotify_init1(IN_NONBLOCK);
    redirected.replace("inotify_init1", reinterpret_cast<void *>(open_queue));
    // Arming does not wait for what comes and goes between two passes.
    redirected.replace("usleep", reinterpret_cast<void *>(no_pause));
    faults = &redirected;
    set_debug_flags(vrrp_dbg);
}

void vyt::fuzz::run(Input input)
{
    EXPECT_GE(lh_vrrp_info_init(), 0);
    Script(input).run();
    lh_vrrp_info_deinit();
    unlink(status_path.c_str());
}
