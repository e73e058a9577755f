// The watcher's work for many files: calls per file, which must not grow with the number of files,
// and times per file, which are printed and judged by no one.
#include "lh_inotify.h"

#include <chrono>
#include <filesystem>
#include <functional>

#include "support/world.hpp"
#include "watch/watcher.hpp"

using namespace vyt::test;

namespace {

constexpr int few = 100;
constexpr int many = 10000;

enum class layout { one_directory, one_directory_each };

struct work {
    std::string phase;
    double nanoseconds; // per file
    std::map<std::string, double> calls;
};

const char *const counted[] = {
    "stat",   "access", "inotify_add_watch", "inotify_rm_watch", "read", "usleep", "malloc",
    "calloc", "strdup"};

} // namespace

class WatcherGrowth : public WatcherTest {
  protected:
    World world; // its places are in memory, where making many files is quick
    int files = 0;
    layout where = layout::one_directory;
    std::string root;
    std::vector<work> done;
    int reports = 0;

    std::string parent_dir(int i) const
    {
        return where == layout::one_directory ? root : root + "/d" + std::to_string(i);
    }
    std::string name(int i) const { return "file" + std::to_string(i); }

    void each_file(const std::function<void(const std::string &, const std::string &)> &action)
    {
        for (int i = 0; i < files; i++)
            action(parent_dir(i), name(i));
    }

    void measure(const std::string &phase, int expected_reports,
                 const std::function<void()> &action)
    {
        calm_faults();
        reports = 0;
        const auto start = std::chrono::steady_clock::now();
        action();
        const std::chrono::duration<double, std::nano> time =
            std::chrono::steady_clock::now() - start;
        EXPECT_EQ(reports, expected_reports) << phase;
        work w = {phase, time.count() / files, {}};
        for (const char *call : counted)
            w.calls[call] = static_cast<double>(faults.calls(call)) / files;
        done.push_back(w);
    }

    void include_all()
    {
        each_file([&](const std::string &dir, const std::string &file) {
            EXPECT_EQ(lh_inotify_include_file(watcher, dir.c_str(), file.c_str(), 0, count_call,
                                              &reports),
                      0);
        });
    }

    void exclude_all()
    {
        each_file([&](const std::string &dir, const std::string &file) {
            EXPECT_EQ(lh_inotify_exclude_file(watcher, dir.c_str(), file.c_str()), 0);
        });
    }

    void write_all(const char *text)
    {
        each_file([&](const std::string &dir, const std::string &file) {
            write_file(dir + "/" + file, text);
        });
    }

    std::vector<work> run(int number, layout l)
    {
        files = number;
        where = l;
        root = "/run/" + std::to_string(number);
        done.clear();
        make_directory(root);
        if (where == layout::one_directory_each)
            each_file([](const std::string &dir, const std::string &) { make_directory(dir); });

        measure("include absent", 0, [&] { include_all(); });
        measure("arm directories", 0, [&] { process(); });
        measure("exclude absent", 0, [&] { exclude_all(); });
        include_all();
        process();
        write_all("1");
        measure("files appear", files, [&] { process(); });
        measure("the pass after it", files, [&] { process(); });
        write_all("2");
        measure("files are written", files, [&] { process(); });
        measure("quiet pass", 0, [&] { process(); });
        measure("(stat alone)", 0, [&] { // what a quiet pass cannot do without
            each_file([](const std::string &dir, const std::string &file) {
                EXPECT_NE(inode_of(dir + "/" + file), 0u);
            });
        });
        measure("exclude", 0, [&] { exclude_all(); });
        measure("include present", 0, [&] { include_all(); });
        measure("arm files", files, [&] { process(); });
        measure("restart", 0, [&] { EXPECT_GE(lh_inotify_restart(watcher), 0); });
        measure("arm again", files, [&] { process(); });
        measure("free", 0, [&] { lh_inotify_free(&watcher); });
        watcher = lh_inotify_create();
        std::filesystem::remove_all(root);
        return done;
    }

    void compare(layout l)
    {
        if (atoi(read_file("/proc/sys/fs/inotify/max_user_watches").c_str()) < 2 * many ||
            atoi(read_file("/proc/sys/fs/inotify/max_queued_events").c_str()) < many)
            GTEST_SKIP() << "the kernel allows too few watches or events";
        const auto small = run(few, l);
        const auto large = run(many, l);
        ASSERT_EQ(small.size(), large.size());
        printf("%-20s %12s %12s %7s\n", "ns per file", "100 files", "10,000 files", "ratio");
        for (size_t i = 0; i < small.size(); i++) {
            printf("%-20s %12.0f %12.0f %7.2f\n", small[i].phase.c_str(), small[i].nanoseconds,
                   large[i].nanoseconds, large[i].nanoseconds / small[i].nanoseconds);
            for (const char *call : counted) {
                const double of_few = small[i].calls.at(call);
                const double of_many = large[i].calls.at(call);
                EXPECT_LE(of_many, 2 * of_few) << small[i].phase << ": " << call;
                // What is done once for all files may well become less for each.
                if (of_few >= 0.5) {
                    EXPECT_GE(of_many, of_few / 2) << small[i].phase << ": " << call;
                }
            }
        }
    }
};

TEST_F(WatcherGrowth, FilesOfOneDirectory)
{
    compare(layout::one_directory);
}

TEST_F(WatcherGrowth, OneFileInEachOfManyDirectories)
{
    compare(layout::one_directory_each);
}
