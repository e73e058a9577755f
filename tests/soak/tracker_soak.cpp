// Publishers rewrite the status file in every way at full speed, and take it and its directory
// away; the tracker follows. In the calm every group and instance must have its last status.
#include "soak/soak.hpp"

#include "lh_vrrp.h"

#include <array>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "watch/vrrp_fixture.hpp"

namespace vyt::soak {
namespace {

using namespace vyt::test;

constexpr uint32_t groups = 8;
constexpr uint32_t vrids = 40;
constexpr std::array netnss = {"", "red", "blue", "green", "violet"};

struct Instance {
    std::string netns;
    uint32_t vrid;
    uint32_t state;
    uint32_t group; // 0: none
};

// Each instance at most once, so that the last state says all.
std::vector<Instance> random_instances(Random &random)
{
    std::vector<Instance> instances;
    const uint32_t some = 1 + below(random, 4);
    for (const char *netns : netnss)
        for (uint32_t vrid = 1; vrid <= vrids; vrid++)
            if (below(random, 4) < some)
                instances.push_back({netns, vrid, below(random, 4), below(random, groups + 1)});
    // Groups of one mind must occur, too.
    if (below(random, 2) == 0)
        for (Instance &instance : instances)
            instance.state = instance.group % 2 == 0 ? daemon_master : daemon_backup;
    return instances;
}

std::string bytes_of(const std::vector<Instance> &instances)
{
    std::string bytes;
    for (const Instance &i : instances)
        bytes += record(int32_t(i.vrid), int32_t(i.state), int32_t(i.group), i.netns);
    return bytes;
}

int status_of(uint32_t state)
{
    constexpr std::array statuses = {LH_VRRP_STATUS_INIT, LH_VRRP_STATUS_BACKUP,
                                     LH_VRRP_STATUS_MASTER, LH_VRRP_STATUS_FAULT};
    return statuses.at(state);
}

int group_status(const std::vector<Instance> &instances, uint32_t group)
{
    bool members = false;
    bool backup = false;
    for (const Instance &i : instances) {
        if (i.group != group)
            continue;
        if (i.state == daemon_init || i.state == daemon_fault)
            return status_of(i.state);
        members = true;
        backup = backup || i.state == daemon_backup;
    }
    if (!members)
        return LH_VRRP_STATUS_UNKNOWN;
    return backup ? LH_VRRP_STATUS_BACKUP : LH_VRRP_STATUS_MASTER;
}

// One act of a publisher. Others act at the same time, so every call may fail.
void publish(Random &random)
{
    const std::string bytes = bytes_of(random_instances(random));
    const auto write_all = [&](const std::string &path, int flags) {
        const int fd = open(path.c_str(), flags, 0644);
        const size_t half = below(random, uint32_t(bytes.size()) + 1);
        if (fd < 0 || write(fd, bytes.data(), half) < 0 ||
            write(fd, bytes.data() + half, bytes.size() - half) < 0)
            return;
        close(fd);
    };
    const std::string aside = status_path + "." + std::to_string(getpid());
    switch (below(random, 8)) {
    case 0:
        write_all(status_path, O_WRONLY);
        break;
    case 1:
        write_all(status_path, O_WRONLY | O_CREAT | O_TRUNC);
        break;
    case 2:
        unlink(status_path.c_str());
        write_all(status_path, O_WRONLY | O_CREAT | O_EXCL);
        break;
    case 3:
        unlink(status_path.c_str());
        break;
    case 4:
        if (truncate(status_path.c_str(), below(random, 2000)) != 0)
            break; // it is away just now
        break;
    case 5: {
        // The directory goes away whole, whatever others write into it.
        const std::string away = "/var/away." + std::to_string(getpid());
        std::error_code ignored;
        rename("/var/cache", away.c_str());
        std::filesystem::remove_all(away, ignored);
        if (below(random, 2) == 0)
            mkdir("/var/cache", 0755);
        break;
    }
    default:
        write_all(aside, O_WRONLY | O_CREAT | O_TRUNC);
        rename(aside.c_str(), status_path.c_str());
        break;
    }
}

class Tracker : public Scenario {
  public:
    Tracker()
    {
        make_cache_removable();
        // The waits between two tries to arm a watch are left out: a minute then sees what a day
        // would.
        faults_.replace("usleep", reinterpret_cast<void *>(+[](useconds_t) { return 0; }));
        storm_ = std::make_unique<Storm>(3, publish);
        fd_ = lh_vrrp_info_init();
        for (uint32_t group = 1; group <= groups; group++)
            lh_vrrp_group_info_update_enable(group);
        for (const char *netns : netnss)
            for (uint32_t vrid = 1; vrid <= vrids; vrid += 3)
                lh_vrrp_instance_info_update_enable(netns, vrid);
    }

    ~Tracker() override { lh_vrrp_info_deinit(); }

    void round(Random &random, Figures &figures) override
    {
        storm_->blow();
        const auto end = Clock::now() + std::chrono::milliseconds(10 + below(random, 150));
        while (Clock::now() < end) {
            pass(figures, 10);
            for (uint32_t group = 1; group <= groups; group++)
                if (const int status = lh_vrrp_group_status_get(group); status < -1 || status > 4)
                    broken("group %u has the status %d", group, status);
        }
        figures.operations += storm_->calm();
        settle(random_instances(random), figures);
        // The records that are kept for instances are the same at the end of every round.
        settle({{"", 1, daemon_master, 1}}, figures);
        // Names that have been in the file only for a while must not be remembered.
        if (below(random, 10) == 0)
            restart(figures);
        figures.restarts += late_;
        late_ = 0;
    }

    std::string allowed_lines() const override
    {
        return "read_vrrp_info: IS_NE check failed: remainder .*"
               "|.*lh_file_size_get.*|.*lh_dir_create.*|create_watch_fd: IS_NE check failed: .*";
    }

  private:
    void pass(Figures &figures, int milliseconds)
    {
        pollfd polled = {fd_, POLLIN, 0};
        poll(&polled, 1, milliseconds);
        lh_vrrp_info_update();
        figures.passes++;
    }

    void restart(Figures &figures)
    {
        fd_ = lh_vrrp_info_restart();
        if (fd_ < 0)
            broken("the tracker cannot start over: errno %d", errno);
        pass(figures, 0);
    }

    // The first status that is not as the file says.
    static std::string difference(const std::vector<Instance> &instances)
    {
        for (uint32_t group = 1; group <= groups; group++)
            if (const int status = lh_vrrp_group_status_get(group);
                status != group_status(instances, group))
                return "group " + std::to_string(group) + " is " +
                       lh_vrrp_status_stringize(status) + " and not " +
                       lh_vrrp_status_stringize(group_status(instances, group));
        std::map<std::pair<std::string, uint32_t>, int> statuses;
        for (const Instance &i : instances)
            statuses[{i.netns, i.vrid}] = status_of(i.state);
        for (const char *netns : netnss)
            for (uint32_t vrid = 1; vrid <= vrids; vrid += 3)
                if (const int status = lh_vrrp_instance_status_get(netns, vrid);
                    status != statuses[{netns, vrid}])
                    return std::string("instance ") + netns + ":" + std::to_string(vrid) + " is " +
                           lh_vrrp_status_stringize(status);
        return {};
    }

    void settle(const std::vector<Instance> &instances, Figures &figures)
    {
        mkdir("/var/cache", 0755);
        write_file(status_path + ".last", bytes_of(instances));
        if (rename((status_path + ".last").c_str(), status_path.c_str()) != 0)
            broken("the last state cannot be written: errno %d", errno);
        const auto start = Clock::now();
        bool restarted = false;
        while (!difference(instances).empty()) {
            const auto waited = Clock::now() - start;
            if (waited > std::chrono::seconds(60))
                broken("a minute after the storm %s", difference(instances).c_str());
            if (waited > std::chrono::seconds(5) && !restarted) {
                restarted = true;
                late_++;
                restart(figures);
            }
            pass(figures, 20);
        }
    }

    World world_;
    Faults faults_;
    std::unique_ptr<Storm> storm_;
    int fd_ = -1;
    uint64_t late_ = 0;
};

} // namespace

std::unique_ptr<Scenario> make_tracker()
{
    return std::make_unique<Tracker>();
}

} // namespace vyt::soak
