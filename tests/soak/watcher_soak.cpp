// Thousands of followed files are written, replaced and removed, and their directories with them;
// now and then the kernel's event queue overflows. In the calm the watcher must have told of the
// last contents of every file.
#include "soak/soak.hpp"

#include "lh_inotify.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

namespace vyt::soak {
namespace {

using namespace vyt::test;

constexpr uint32_t directories = 30;
constexpr uint32_t files_each = 100;

std::string dir_of(uint32_t directory)
{
    return "/run/storm/d" + std::to_string(directory);
}

std::string name_of(uint32_t file)
{
    return "f" + std::to_string(file);
}

void write_quietly(const std::string &path, const std::string &text, int flags)
{
    const int fd = open(path.c_str(), flags, 0644);
    if (fd < 0)
        return;
    if (write(fd, text.data(), text.size()) < 0)
        broken("a file in memory cannot be written: errno %d", errno);
    close(fd);
}

// One act of the storm on some file or directory. Others act at the same time.
void disturb(Random &random)
{
    const std::string dir = dir_of(below(random, directories));
    const std::string path = dir + "/" + name_of(below(random, files_each));
    const std::string aside = dir + "/aside" + std::to_string(getpid());
    switch (below(random, 40)) {
    case 0: {
        const std::string away = "/run/storm/away" + std::to_string(getpid());
        std::error_code ignored;
        rename(dir.c_str(), away.c_str());
        if (below(random, 2) == 0)
            mkdir(dir.c_str(), 0755);
        std::filesystem::remove_all(away, ignored);
        break;
    }
    case 1:
        mkdir(dir.c_str(), 0755);
        break;
    case 2:
        chmod(dir.c_str(), 0700);
        break;
    case 3 ... 9:
        unlink(path.c_str());
        break;
    case 10 ... 19:
        write_quietly(path, "storm", O_WRONLY);
        break;
    case 20 ... 29:
        write_quietly(path, "storm", O_WRONLY | O_CREAT | O_TRUNC);
        break;
    default:
        write_quietly(aside, "storm", O_WRONLY | O_CREAT | O_TRUNC);
        rename(aside.c_str(), path.c_str());
        break;
    }
}

struct Followed {
    std::string dir;
    std::string name;
    std::string seen; // contents when the callback was last called
};

void read_again(void *arg)
{
    auto &file = *static_cast<Followed *>(arg);
    char text[32];
    const int fd = open((file.dir + "/" + file.name).c_str(), O_RDONLY);
    const ssize_t size = fd < 0 ? 0 : read(fd, text, sizeof(text));
    file.seen.assign(text, size_t(std::max<ssize_t>(size, 0)));
    if (fd >= 0)
        close(fd);
}

class Watcher : public Scenario {
  public:
    Watcher()
    {
        mkdir("/run/storm", 0755);
        // As in the tracker's soak: no waiting between two tries to arm a watch.
        faults_.replace("usleep", reinterpret_cast<void *>(+[](useconds_t) { return 0; }));
        storm_ = std::make_unique<Storm>(2, disturb);
        watcher_ = lh_inotify_create();
        for (uint32_t d = 0; d < directories; d++)
            for (uint32_t f = 0; f < files_each; f++)
                files_.push_back({dir_of(d), name_of(f), {}});
        for (Followed &file : files_)
            include(file);
    }

    ~Watcher() override { lh_inotify_free(&watcher_); }

    void round(Random &random, Figures &figures) override
    {
        storm_->blow();
        const auto end = Clock::now() + std::chrono::milliseconds(10 + below(random, 200));
        while (Clock::now() < end) {
            pass(figures, 5);
            Followed &file = files_[below(random, uint32_t(files_.size()))];
            lh_inotify_exclude_file(watcher_, file.dir.c_str(), file.name.c_str());
            include(file);
        }
        const bool overflow = below(random, 4) == 0;
        if (overflow)
            flood(figures);
        figures.operations += storm_->calm();
        if (overflow) // what a daemon does when it is in doubt
            restart(figures);
        settle(figures);
    }

    std::string allowed_lines() const override
    {
        return ".*lh_dir_create.*|create_watch_fd: IS_NE check failed: .*";
    }

  private:
    void include(Followed &file)
    {
        const auto directory = uint32_t(&file - files_.data()) / files_each;
        const uint32_t flags = directory % 2 == 0 ? LH_INOTIFY_CREATE_DIR : 0;
        if (lh_inotify_include_file(watcher_, file.dir.c_str(), file.name.c_str(), flags,
                                    read_again, &file) != 0)
            broken("a file cannot be followed: errno %d", errno);
    }

    void pass(Figures &figures, int milliseconds)
    {
        pollfd polled = {lh_inotify_get_fd(watcher_), POLLIN, 0};
        poll(&polled, 1, milliseconds);
        if (lh_inotify_process(watcher_) != 0)
            broken("a pass failed: errno %d", errno);
        figures.passes++;
    }

    void restart(Figures &figures)
    {
        if (lh_inotify_restart(watcher_) < 0)
            broken("the watcher cannot start over: errno %d", errno);
        pass(figures, 0);
    }

    // Fills the queue until no more events go in. The kernel's limit is the machine's, so it is
    // reached by events and not lowered.
    void flood(Figures &figures)
    {
        const auto waiting = [&] {
            int bytes = 0;
            ioctl(lh_inotify_get_fd(watcher_), FIONREAD, &bytes);
            return bytes;
        };
        const std::string dir = dir_of(1);
        for (int before = -1; before < waiting();) {
            before = waiting();
            mkdir(dir.c_str(), 0755);
            for (int i = 0; i < 2000; i++)
                for (const char *name : {"/f0", "/f1", "/other"})
                    write_quietly(dir + name, "flood", O_WRONLY | O_CREAT);
        }
        figures.overflows++;
    }

    void settle(Figures &figures)
    {
        const std::string last = "state " + std::to_string(++generation_);
        for (uint32_t d = 0; d < directories; d++)
            mkdir(dir_of(d).c_str(), 0755);
        for (const Followed &file : files_) {
            const std::string aside = file.dir + "/aside";
            write_quietly(aside, last, O_WRONLY | O_CREAT | O_TRUNC);
            if (rename(aside.c_str(), (file.dir + "/" + file.name).c_str()) != 0)
                broken("the last state cannot be written: errno %d", errno);
        }
        const auto start = Clock::now();
        bool restarted = false;
        for (const Followed &file : files_) {
            while (file.seen != last) {
                const auto waited = Clock::now() - start;
                if (waited > std::chrono::seconds(60))
                    broken("a minute after the storm nobody has told of %s/%s", file.dir.c_str(),
                           file.name.c_str());
                if (waited > std::chrono::seconds(5) && !restarted) {
                    restarted = true;
                    figures.restarts++;
                    restart(figures);
                }
                pass(figures, 10);
            }
        }
    }

    World world_;
    Faults faults_;
    std::unique_ptr<Storm> storm_;
    lh_inotify *watcher_ = nullptr;
    std::vector<Followed> files_;
    uint64_t generation_ = 0;
};

} // namespace

std::unique_ptr<Scenario> make_watcher()
{
    return std::make_unique<Watcher>();
}

} // namespace vyt::soak
