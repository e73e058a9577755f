// The VRRP daemon's status file. The input is a row of steps: what is followed, what the file comes
// to hold (made of records, or as bytes), and when it is read. The tracker starts empty each time.
//
// Only the kernel's inotify queue serves all inputs, emptied between them: ending one takes the
// kernel longer than a whole run.
#include <sys/inotify.h>

#include "fuzz/support/fuzz.hpp"
#include "watch/vrrp_pair.hpp"

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
    explicit Script(Input input) : input_(input), pair_(*faults) {}

    void run()
    {
        for (int steps = 0; steps < steps_max && !input_.is_empty(); steps++)
            step();
        update();
    }

  private:
    const std::string &any_namespace() { return namespaces()[input_.below(8)]; }
    int any_group() { return 1 + static_cast<int>(input_.below(32)); }
    int any_vrid() { return 1 + static_cast<int>(input_.below(255)); }

    void step()
    {
        switch (input_.below(8)) {
        case 0:
            return pair_.enable_group(any_group());
        case 1:
            return pair_.disable_group(any_group());
        case 2: {
            const std::string &netns = any_namespace();
            return pair_.enable_instance(netns, any_vrid());
        }
        case 3: {
            const std::string &netns = any_namespace();
            return pair_.disable_instance(netns, any_vrid());
        }
        case 4:
            return replace_file(some_records());
        case 5: {
            const size_t size = input_.number(2);
            return replace_file(input_.take(size));
        }
        case 6:
            return pair_.has_file() ? pair_.remove_file() : update();
        default:
            return update();
        }
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

    void replace_file(const std::string &bytes)
    {
        pair_.replace_file(bytes, contents_of(bytes), rename_over);
    }

    void update()
    {
        static const std::vector<int> vrids = {1, 2, 3, 4, 5, 6, 7, 8, 9, 48, 49, 254, 255};
        pair_.update();
        pair_.compare(namespaces(), vrids, [](int count) { return count - 1; });
    }

    Input input_;
    TrackerPair pair_;
};

} // namespace

void vyt::fuzz::prepare()
{
    static const World world;
    static Faults redirected;
    queue = inotify_init1(IN_NONBLOCK);
    redirected.replace("inotify_init1", reinterpret_cast<void *>(open_queue));
    faults = &redirected;
}

void vyt::fuzz::run(Input input)
{
    EXPECT_GE(lh_vrrp_info_init(), 0);
    Script(input).run();
    lh_vrrp_info_deinit();
    unlink(status_path.c_str());
}
