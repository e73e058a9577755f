// Random changes to real files: once the watcher has come to rest, its watches are where they
// belong, and every file's last report came after its last change.
#include "lh_inotify.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <list>
#include <random>

#include "watch/watcher.hpp"

using namespace vyt::test;
namespace fs = std::filesystem;

namespace {

const std::string absent = "(absent)";

std::string contents_of(const std::string &path)
{
    return fs::exists(path) ? read_file(path) : absent;
}

struct followed {
    std::string parent_dir; // as it was included
    std::string name;
    uint32_t flags;
    std::string seen = absent; // what the last report found
    unsigned reports = 0;

    std::string path() const { return parent_dir + "/" + name; }
};

void look(void *file)
{
    auto *f = static_cast<followed *>(file);
    f->seen = contents_of(f->path());
    f->reports++;
}

class Model {
  public:
    Model(lh_inotify *watcher, const std::string &root, unsigned seed)
        : watcher_(watcher), root_(root), random_(seed)
    {}
    ~Model() { release_all(); }

    void step()
    {
        const unsigned choice = below(100);
        if (choice < 12)
            write_in_place();
        else if (choice < 18)
            truncate_file();
        else if (choice < 28)
            replace();
        else if (choice < 36)
            move_file();
        else if (choice < 40)
            link_file();
        else if (choice < 50)
            remove_some(some_path());
        else if (choice < 54)
            remove_some(some_dir());
        else if (choice < 62)
            make_dir();
        else if (choice < 66)
            move_dir();
        else if (choice < 70)
            hold_open();
        else if (choice < 72)
            release_all();
        else if (choice < 80)
            include();
        else if (choice < 83)
            exclude();
        else if (choice < 84)
            restart();
        else
            process();
    }

    void come_to_rest()
    {
        log_ += "\nrest";
        unsigned quiet = 0;
        for (int passes = 0; quiet < 3; passes++) {
            ASSERT_LT(passes, 100) << "the reports do not end";
            const unsigned before = reports();
            process();
            quiet = reports() == before ? quiet + 1 : 0;
        }
    }

    void check()
    {
        std::multimap<uint64_t, uint32_t> expected;
        bool may_look_for_ever = false;
        for (const followed &file : files_) {
            EXPECT_EQ(file.seen, contents_of(file.path())) << file.path();
            const uint64_t inode = inode_of(file.path());
            const uint64_t dir = inode_of(file.parent_dir);
            if (inode != 0 && expected.count(inode) == 0)
                expected.emplace(inode, kernel_file_mask);
            if (inode == 0 && dir != 0 && expected.count(dir) == 0)
                expected.emplace(dir, kernel_directory_mask);
            if (inode == 0 && (file.flags & LH_INOTIFY_CREATE_DIR) != 0) {
                EXPECT_NE(dir, 0u) << file.parent_dir;
            }
            may_look_for_ever |= inode == 0 && dir != 0;
        }
        EXPECT_EQ(kernel_watches(lh_inotify_get_fd(watcher_)), expected);
        // Who looks for a file that came and went takes its directory's watch away and back again,
        // which the kernel tells.
        if (!may_look_for_ever) {
            EXPECT_FALSE(is_readable(lh_inotify_get_fd(watcher_)));
        }
    }

    const std::string &log() const { return log_; }

  private:
    lh_inotify *watcher_;
    std::string root_;
    std::mt19937 random_;
    std::list<followed> files_;
    std::vector<int> held_;
    unsigned made_ = 0;
    std::string log_;

    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    void note(const std::string &what) { log_ += "\n" + what; }
    std::string fresh() { return std::to_string(++made_); }

    std::string some_dir()
    {
        const char *dirs[] = {"/a", "/b", "/b/c"};
        return root_ + dirs[below(3)];
    }
    std::string some_path() { return some_dir() + "/" + "fgh"[below(3)]; }
    std::string outside() { return root_ + "/outside" + fresh(); }

    unsigned reports() const
    {
        unsigned sum = 0;
        for (const followed &file : files_)
            sum += file.reports;
        return sum;
    }

    void write_in_place()
    {
        const std::string path = some_path();
        note("write " + path);
        const int flags = O_WRONLY | O_CREAT | (below(2) == 0 ? O_TRUNC : O_APPEND);
        const int fd = open(path.c_str(), flags, 0644);
        if (fd == -1)
            return;
        const std::string text = fresh() + ",";
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
    }

    void truncate_file()
    {
        const std::string path = some_path();
        note("truncate " + path);
        const int done = truncate(path.c_str(), 0); // where there is one
        (void)done;
    }

    void replace()
    {
        const std::string path = some_path();
        const std::string aside = outside();
        note("replace " + path);
        write_file(aside, fresh());
        rename(aside.c_str(), path.c_str());
    }

    void move_file()
    {
        const std::string from = some_path();
        const std::string to = below(3) == 0 ? outside() : some_path();
        note("move " + from + " " + to);
        rename(from.c_str(), to.c_str());
    }

    void link_file()
    {
        const std::string from = some_path();
        const std::string to = some_path();
        note("link " + from + " " + to);
        const int done = link(from.c_str(), to.c_str()); // where it can be
        (void)done;
    }

    void remove_some(const std::string &path)
    {
        note("remove " + path);
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }

    void make_dir()
    {
        const std::string path = some_dir();
        note("mkdir " + path);
        mkdir(path.c_str(), 0755);
    }

    void move_dir()
    {
        const std::string from = some_dir();
        const std::string to = below(2) == 0 ? outside() : some_dir();
        note("move " + from + " " + to);
        rename(from.c_str(), to.c_str());
    }

    void hold_open()
    {
        const std::string path = some_path();
        note("hold " + path);
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd != -1)
            held_.push_back(fd);
    }

    void release_all()
    {
        note("release");
        for (const int fd : held_)
            close(fd);
        held_.clear();
    }

    // One file is followed under one spelling at a time: of several, one is told of an appearance.
    std::list<followed>::iterator find(const std::string &plain_path)
    {
        return std::find_if(files_.begin(), files_.end(), [&](const followed &file) {
            return fs::path(file.path()).lexically_normal() == plain_path;
        });
    }

    void include()
    {
        const std::string dir = some_dir();
        const std::string name(1, "fgh"[below(3)]);
        const char *spellings[] = {"", "/", "//", "/."};
        const std::string parent_dir = dir + spellings[below(4)];
        const uint32_t flags = below(3) == 0 ? LH_INOTIFY_CREATE_DIR : 0;
        if (find(dir + "/" + name) != files_.end())
            return;
        note("include " + parent_dir + " " + name + (flags != 0 ? " create" : ""));
        files_.push_back({parent_dir, name, flags});
        EXPECT_EQ(lh_inotify_include_file(watcher_, parent_dir.c_str(), name.c_str(), flags, look,
                                          &files_.back()),
                  0);
    }

    void exclude()
    {
        const auto file = find(some_path());
        if (file == files_.end())
            return;
        note("exclude " + file->path());
        EXPECT_EQ(lh_inotify_exclude_file(watcher_, file->parent_dir.c_str(), file->name.c_str()),
                  0);
        files_.erase(file);
    }

    void restart()
    {
        note("restart");
        EXPECT_GE(lh_inotify_restart(watcher_), 0);
    }

    void process()
    {
        note("process");
        EXPECT_EQ(lh_inotify_process(watcher_), 0);
    }
};

} // namespace

class InotifyModel : public WatcherTest, public ::testing::WithParamInterface<unsigned> {};

TEST_P(InotifyModel, EveryWatchIsWhereItBelongsAndNoChangeIsMissed)
{
    for (unsigned seed = GetParam() * 4; seed < GetParam() * 4 + 4; seed++) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const std::string root = temp / ("run" + std::to_string(seed));
        make_directory(root);
        lh_inotify *own = lh_inotify_create();
        {
            Model model(own, root, seed);
            for (int step = 0; step < 600 && !HasFailure(); step++) {
                model.step();
                if (step % 12 != 11)
                    continue;
                model.come_to_rest();
                model.check();
            }
            if (HasFailure())
                ADD_FAILURE() << model.log();
        }
        lh_inotify_free(&own);
        if (HasFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, InotifyModel, ::testing::Range(0u, 6u));
