// Every fault of walking, creating and removing directories.
#include <cerrno>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "lh_dir.h"
#include "support/fault_sweep.hpp"

using namespace vyt::test;

namespace {

// A directory "start" with a file "a" and a subdirectory "b" that holds a file "c".
void make_tree(const Attempt &a)
{
    EXPECT_EQ(mkdir(a.path("start").c_str(), 0755), 0);
    EXPECT_EQ(mkdir(a.path("start/b").c_str(), 0755), 0);
    write_file(a.path("start/a"), "0123456789");
    write_file(a.path("start/b/c"), "01234");
}

off_t size_of(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string left(const Attempt &a, const std::vector<std::string> &names)
{
    std::string text;
    for (const std::string &name : names) {
        if (size_of(a.path(name)) >= 0)
            text += " " + name.substr(name.rfind('/') + 1);
    }
    return ", left" + (text.empty() ? " nothing" : text);
}

std::string left_of_tree(const Attempt &a)
{
    return left(a, {"start", "start/a", "start/b", "start/b/c"});
}

// The walk ----------------------------------------------------------------------------------------

constexpr uint8_t removing = LH_DIR_DESCEND | LH_DIR_CALLBACK | LH_DIR_REMOVE;
constexpr uint8_t removing_what_goes = removing | LH_DIR_KEEP_GOING;

int note(const char *path, unsigned char, void *cookie)
{
    const std::string text = path;
    *static_cast<std::string *>(cookie) += " " + text.substr(text.rfind('/') + 1);
    return 0;
}

std::string walk(Attempt &a, uint8_t flags)
{
    make_tree(a);
    std::string seen = ", saw";
    lh_dir_lookup_opts opts = {.flags = flags, .depth = 0, .callback = note};
    const int result =
        a.faulted([&] { return lh_dir_lookup(a.path("start").c_str(), &opts, &seen); });
    return shown(result) + seen + left_of_tree(a);
}

const std::string walker = "lh_dir_lookup: ";
const std::string not_there = walker + "directory '{dir}/start' not exist";
const std::string no_walk_of_b = walker + "failed to read '{dir}/start/b' directory";

std::string not_listed(const std::string &directory)
{
    return walker + "cannot read directory '{dir}/" + directory + "': {error}";
}

std::string not_named(const std::string &entry)
{
    return walker + "print file name error '{dir}/" + entry + "'";
}

std::string not_removed(const std::string &what)
{
    return walker + "cannot execute remove action " + what;
}

const std::vector<scenario> walks = {
    {.function = "lh_dir_lookup",
     .way = "that removes",
     .body = [](Attempt &a) { return walk(a, removing); },
     .outcome = "0, saw a c b start, left nothing",
     .faults =
         {fails("opendir", "-1, saw, left start a b c", {not_there}), ignored("closedir"),
          fails("scandir:1", "-1, saw, left start a b c", {not_listed("start")}),
          fails("asprintf:1", "-1, saw, left start a b c", {not_named("start/a")}),
          fails("unlink:1", "-1, saw a, left start a b c", {not_removed("on file {dir}/start/a")}),
          fails("asprintf:2", "-1, saw a, left start b c", {not_named("start/b")}),
          fails("scandir:2", "-1, saw a, left start b c", {not_listed("start/b"), no_walk_of_b}),
          fails("asprintf:3", "-1, saw a, left start b c", {not_named("start/b/c"), no_walk_of_b}),
          fails("unlink:2", "-1, saw a c, left start b c",
                {not_removed("on file {dir}/start/b/c"), no_walk_of_b}),
          fails("rmdir:1", "-1, saw a c b, left start b",
                {not_removed("with directory {dir}/start/b")}),
          // Deliberate: the line about the start directory names none.
          fails("rmdir:2", "-1, saw a c b start, left start",
                {not_removed("with directory (null)")})}},
    // It goes on where a removal fails, but not where a directory cannot be walked.
    {.function = "lh_dir_lookup",
     .way = "that removes and keeps going",
     .body = [](Attempt &a) { return walk(a, removing_what_goes); },
     .outcome = "0, saw a c b start, left nothing",
     .faults =
         {fails("opendir", "0, saw, left start a b c").errno_unpromised(), ignored("closedir"),
          fails("scandir:1", "-1, saw, left start a b c", {not_listed("start")}),
          fails("asprintf:1", "-1, saw, left start a b c", {not_named("start/a")}),
          fails("unlink:1", "0, saw a c b start, left start a").errno_unpromised(),
          fails("asprintf:2", "-1, saw a, left start b c", {not_named("start/b")}),
          fails("scandir:2", "-1, saw a, left start b c", {not_listed("start/b"), no_walk_of_b}),
          fails("asprintf:3", "-1, saw a, left start b c", {not_named("start/b/c"), no_walk_of_b}),
          fails("unlink:2", "0, saw a c b start, left start b c").errno_unpromised(),
          fails("rmdir:1", "0, saw a c b start, left start b").errno_unpromised(),
          fails("rmdir:2", "0, saw a c b start, left start").errno_unpromised()}},
};

// What is built on it -----------------------------------------------------------------------------

// What a walk of the whole tree that changes nothing makes of the faults that end it.
std::vector<rule> with_walk_of_tree(const std::string &outcome, const std::string &line,
                                    std::vector<rule> rules)
{
    for (const rule &more :
         {fails("opendir", outcome, {not_there, line}), ignored("closedir"),
          fails("scandir:1", outcome, {not_listed("start"), line}),
          fails("asprintf:1", outcome, {not_named("start/a"), line}),
          fails("asprintf:2", outcome, {not_named("start/b"), line}),
          fails("scandir:2", outcome, {not_listed("start/b"), no_walk_of_b, line}),
          fails("asprintf:3", outcome, {not_named("start/b/c"), no_walk_of_b, line})})
        rules.push_back(more);
    return rules;
}

std::string add_size(Attempt &a)
{
    write_file(a.path("file"), "data");
    uint64_t total = 10;
    const int result = a.faulted([&] { return lh_dir_cb_size(a.path("file").c_str(), 8, &total); });
    return shown(result) + ", " + shown(static_cast<long>(total));
}

// How much a directory itself counts is the file system's affair.
std::string size_of_tree(Attempt &a)
{
    make_tree(a);
    const size_t size = a.faulted([&] { return lh_dir_size(a.path("start").c_str()); });
    if (size == SIZE_MAX)
        return "all ones";
    const off_t b = size_of(a.path("start/b"));
    const off_t start = size_of(a.path("start"));
    const off_t missing = 10 + 5 + b + start - static_cast<off_t>(size);
    if (missing == b || missing == start)
        return "all but a directory";
    return missing == 0 ? "all" : "all but " + shown(missing);
}

std::string not_measured(const std::string &entry)
{
    return "lh_file_size_get: stat '{dir}/start" + entry + "' failed";
}

std::string change_owner(Attempt &a)
{
    make_tree(a);
    const int result = a.faulted(
        [&] { return lh_dir_chown_recursive(a.path("start").c_str(), geteuid(), getegid()); });
    if (result != 0)
        return shown(result);
    return shown(result) + ", " + shown(a.calls().at("chown")) + " asked for";
}

const std::vector<scenario> built_on_walks = {
    {.function = "lh_dir_cb_size",
     .body = add_size,
     .outcome = "0, 14",
     .faults = {fails("access", "0, 10").errno_unpromised(),
                fails("stat", "0, 10", {"lh_file_size_get: stat '{dir}/file' failed"})
                    .errno_unpromised()}},
    {.function = "lh_dir_size",
     .body = size_of_tree,
     .outcome = "all",
     .faults = with_walk_of_tree(
         "all ones", "lh_dir_size: lh_dir_size error",
         {fails("access:1", "all but 10").errno_unpromised(),
          fails("access:2", "all but 5").errno_unpromised(),
          fails("access", "all but a directory").errno_unpromised(),
          fails("stat:1", "all but 10", {not_measured("/a")}).errno_unpromised(),
          fails("stat:2", "all but 5", {not_measured("/b/c")}).errno_unpromised(),
          fails("stat:3", "all but a directory", {not_measured("/b")}).errno_unpromised(),
          fails("stat:4", "all but a directory", {not_measured("")}).errno_unpromised()})},
    // An owner that could not be changed keeps none of the others.
    {.function = "lh_dir_chown_recursive",
     .body = change_owner,
     .outcome = "0, 4 asked for",
     .faults = with_walk_of_tree("-1", "lh_dir_chown_recursive: lh_dir_chown_recursive error",
                                 {ignored("chown")})},
};

// One directory -----------------------------------------------------------------------------------

// Below the current directory, so that all parents are the test's own.
std::string create(Attempt &a, const char *path, uint8_t flags)
{
    EXPECT_EQ(chdir(a.directory().c_str()), 0);
    const lh_dir_lookup_opts opts = {.flags = flags, .depth = 0, .callback = nullptr};
    const int result = a.faulted([&] {
        errno = 0;
        return lh_dir_create(path, &opts, 0755);
    });
    return shown(result) + left(a, {"a", "a/b"});
}

std::string create_again(Attempt &a)
{
    EXPECT_EQ(mkdir(a.path("a").c_str(), 0755), 0);
    EXPECT_EQ(mkdir(a.path("a/b").c_str(), 0755), 0);
    return create(a, "a/b", LH_DIR_DESCEND);
}

// A tree that is one line, so that nothing depends on the order of its entries.
std::string remove_with(Attempt &a, int (*remove)(const char *))
{
    EXPECT_EQ(mkdir(a.path("start").c_str(), 0755), 0);
    EXPECT_EQ(mkdir(a.path("start/b").c_str(), 0755), 0);
    write_file(a.path("start/b/c"), "");
    const int result = a.faulted([&] { return remove(a.path("start").c_str()); });
    return shown(result) + left_of_tree(a);
}

std::string not_removed_by(const std::string &step, const std::string &entry)
{
    return step + ": cannot remove '{dir}/" + entry + "': {error}";
}

const std::vector<std::string> not_created = {"lh_dir_create: cannot create 'a/b': {error}"};
const std::vector<std::string> no_buffer = {"lh_dir_create: PTR_IS_NULL: buf"};

const std::vector<scenario> directories = {
    {.function = "lh_dir_is_exist",
     .body =
         [](Attempt &a) {
             return shown(a.faulted([&] { return lh_dir_is_exist(a.directory().c_str()); }));
         },
     .outcome = "1",
     .faults = {fails("opendir", "0"), ignored("closedir")}},
    // What cannot be looked at is made, and made meanwhile is as good as made.
    {.function = "lh_dir_create",
     .body = [](Attempt &a) { return create(a, "a/b", LH_DIR_DESCEND); },
     .outcome = "0, left a b",
     .faults = {fails("strdup", "-1, left nothing", no_buffer), ignored("stat"),
                fails("mkdir:2", "0, left a").with({EEXIST}).errno_unpromised(),
                fails("mkdir:1", "-1, left nothing", not_created),
                fails("mkdir:2", "-1, left a", not_created)}},
    {.function = "lh_dir_create",
     .way = "where it is already",
     .body = create_again,
     .outcome = "0, left a b",
     .faults = {fails("strdup", "-1, left a b", no_buffer), ignored("stat")}},
    // Deliberate: a fresh directory is reported as failed, with whatever errno held.
    {.function = "lh_dir_create",
     .way = "without the flag",
     .body = [](Attempt &a) { return create(a, "a", 0); },
     .outcome = "-1, left a",
     .lines = {"lh_dir_create: cannot create 'a': Success"},
     .faults = {fails("mkdir", "0, left a").errno_unpromised()}},
    {.function = "lh_get_free_fs_size",
     .body =
         [](Attempt &a) {
             const uint64_t size =
                 a.faulted([&] { return lh_get_free_fs_size(a.directory().c_str()); });
             return std::string(size == UINT64_MAX ? "all ones" : "a size");
         },
     .outcome = "a size",
     .faults = {fails("statvfs", "all ones")}},
    {.function = "lh_dir_rm",
     .body = [](Attempt &a) { return remove_with(a, lh_dir_rm); },
     .outcome = "0, left nothing",
     .faults = {fails("nftw", "-1, left start b c"),
                fails("remove:1", "-1, left start b c",
                      {not_removed_by("remove_dir", "start/b/c")}),
                fails("remove:2", "-1, left start b", {not_removed_by("remove_dir", "start/b")}),
                fails("remove:3", "-1, left start", {not_removed_by("remove_dir", "start")})}},
    {.function = "lh_dir_clear",
     .body = [](Attempt &a) { return remove_with(a, lh_dir_clear); },
     .outcome = "0, left start",
     .faults = {fails("nftw", "-1, left start b c"),
                fails("remove:1", "-1, left start b c",
                      {not_removed_by("remove_file", "start/b/c")}),
                fails("remove:2", "-1, left start b", {not_removed_by("remove_file", "start/b")})}},
};

const bool swept = register_fault_sweep("FaultsOfDirectories", walks) &&
                   register_fault_sweep("FaultsOfDirectories", built_on_walks) &&
                   register_fault_sweep("FaultsOfDirectories", directories);

} // namespace
