// Files whose hashes meet in the watcher's indexes.
#include "lh_inotify.h"

#include "core/hash_index.hpp"
#include "support/colliding.hpp"
#include "watch/watcher.hpp"

using namespace vyt::test;

class InotifyHash : public WatcherTest {};

namespace {

// What the watcher's index has hashed of a file before it comes to its name: the directory's watch.
uint32_t hash_of_watch(int watch)
{
    return vyt::hash_number(vyt::hash_start, static_cast<uint32_t>(watch));
}

} // namespace

TEST_F(InotifyHash, FilesWhosePathsHaveOneHashAreToldApart)
{
    const uint32_t hash = vyt::hash_text(vyt::hash_start, (temp / "").c_str());
    const auto [one, other] = colliding_names(hash, hash); // and so whatever stands behind them
    for (const std::string &name : {one, other}) {
        make_directory(dir(name));
        follow_in(dir(name), "f"); // neither is taken for the other, which is followed already
    }
    process();
    write_file(dir(one) + "/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(lh_inotify_exclude_file(watcher, dir(one).c_str(), "f"), 0);
    expect_watches({directory_watch(dir(other))});
}

TEST_F(InotifyHash, FilesOfOneDirectoryWhoseNamesHaveOneHashAreToldApart)
{
    follow("first");
    const int watch = arm().at(0);
    const auto [one, other] = colliding_names(hash_of_watch(watch), hash_of_watch(watch));
    follow(one);
    follow(other);
    EXPECT_EQ(arm(), (std::vector<int>{watch, watch}));
    for (const std::string &name : {one, other}) {
        forget_calls();
        write_file(temp / name, "1");
        process();
        EXPECT_EQ(calls[one], name == one);
        EXPECT_EQ(calls[other], name == other);
        process();
    }
}

TEST_F(InotifyHash, FilesOfTwoDirectoriesWhoseNamesHaveOneHashAreToldApart)
{
    make_directory(dir("d"));
    make_directory(dir("e"));
    follow_in(dir("d"), "first");
    follow_in(dir("e"), "first");
    const auto watches = arm();
    ASSERT_EQ(watches.size(), 2u);
    const auto [one, other] = colliding_names(hash_of_watch(watches[0]), hash_of_watch(watches[1]));
    follow_in(dir("d"), one);
    follow_in(dir("e"), other);
    EXPECT_EQ(arm(), watches);
    write_file(dir("d") + "/" + one, "1");
    process();
    EXPECT_EQ(calls[one], 1);
    EXPECT_EQ(calls[other], 0);
}
