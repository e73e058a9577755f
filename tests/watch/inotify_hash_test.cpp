// Files whose hashes meet in the watcher's indexes.
#include "lh_inotify.h"

#include <functional>
#include <unordered_map>

#include "core/hash_index.hpp"
#include "watch/watcher.hpp"

using namespace vyt::test;

class InotifyHash : public WatcherTest {};

namespace {

using hash_of_name = std::function<uint32_t(const std::string &)>;

// Two names of which the first has the same hash as the second, each by its own function.
std::pair<std::string, std::string> colliding(const hash_of_name &first, const hash_of_name &second)
{
    std::unordered_map<uint32_t, std::string> seen;
    for (int number = 0;; number++) {
        const std::string name = "n" + std::to_string(number);
        if (const auto found = seen.find(second(name)); found != seen.end())
            return {found->second, name};
        seen.emplace(first(name), name);
    }
}

// How the watcher's index hashes a name in a watched directory.
hash_of_name hash_in_watch(int watch)
{
    const uint32_t start = vyt::hash_number(vyt::hash_start, static_cast<uint32_t>(watch));
    return [start](const std::string &name) { return vyt::hash_text(start, name.c_str()); };
}

} // namespace

TEST_F(InotifyHash, FilesWhosePathsHaveOneHashAreToldApart)
{
    const hash_of_name hash = [&](const std::string &name) {
        return vyt::hash_text(vyt::hash_start, (dir(name) + "/f").c_str());
    };
    const auto [one, other] = colliding(hash, hash);
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
    const auto [one, other] = colliding(hash_in_watch(watch), hash_in_watch(watch));
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
    const auto [one, other] = colliding(hash_in_watch(watches[0]), hash_in_watch(watches[1]));
    follow_in(dir("d"), one);
    follow_in(dir("e"), other);
    EXPECT_EQ(arm(), watches);
    write_file(dir("d") + "/" + one, "1");
    process();
    EXPECT_EQ(calls[one], 1);
    EXPECT_EQ(calls[other], 0);
}
