// Every fault of the file watcher.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

#include "lh_inotify.h"
#include "support/fault_sweep.hpp"
#include "watch/watcher.hpp"

using namespace vyt::test;

namespace {

// Lines -------------------------------------------------------------------------------------------

const std::string no_memory_for_file = "INOTIFY_DBG <create_file:#> malloc failed: {error}";
const std::string inode_of_f = "INOTIFY_DBG <check_inode> inode has changed (f)";
const std::string not_read = "INOTIFY_DBG <read_inotify> read failed: {error}";
const std::string no_directory = "INOTIFY_DBG <create_watch_fd> lh_dir_create failed";
const std::string no_mode = "INOTIFY_DBG <create_watch_fd> lh_file_get_mode failed ";

std::string mode_is(const std::string &path, const std::string &mode)
{
    return "INOTIFY_DBG <create_watch_fd> got EACCES, '" + path + "' mode is " + mode;
}

std::string not_armed(const std::string &why)
{
    return "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: " + why;
}

std::string moved(const std::string &from, const std::string &to)
{
    return "INOTIFY_DBG <inotify_state_loop> state " + from + " to " + to + " (f)";
}

// The watcher under test --------------------------------------------------------------------------

// How many attempts to arm are refused from now on, and with what.
unsigned attempts_made;
unsigned attempts_refused;
int refusal;

int add_watch(int fd, const char *path, uint32_t mask)
{
    if (attempts_made > attempts_refused)
        return inotify_add_watch(fd, path, mask);
    errno = refusal;
    return -1;
}

// A watcher in the attempt's directory, which it is released with; no pause is made. The debug lines
// are those of what is tried.
class Watching {
  public:
    explicit Watching(Attempt &a) : watcher(lh_inotify_create()), a_(a)
    {
        EXPECT_NE(watcher, nullptr);
        EXPECT_EQ(chdir(a.directory().c_str()), 0);
        a.faults().replace("usleep", reinterpret_cast<void *>(note_pause));
    }
    ~Watching()
    {
        lh_inotify_free(&watcher);
        EXPECT_EQ(chdir("/"), 0);
    }
    Watching(const Watching &) = delete;
    Watching &operator=(const Watching &) = delete;

    int follow(const std::string &parent_dir, const std::string &name, uint32_t flags = 0)
    {
        return lh_inotify_include_file(watcher, parent_dir.c_str(), name.c_str(), flags, count_call,
                                       &called_);
    }
    int follow(const std::string &name) { return follow(a_.directory(), name); }

    int unfollow(const std::string &name)
    {
        return lh_inotify_exclude_file(watcher, a_.directory().c_str(), name.c_str());
    }

    // Its watch is armed, and nothing is pending.
    void settle(const std::string &name)
    {
        EXPECT_EQ(follow(name), 0);
        later_pass();
        EXPECT_EQ(later_pass(), 0);
    }

    void refuse(unsigned attempts, int error)
    {
        attempts_made = 0;
        attempts_refused = attempts;
        refusal = error;
        a_.faults().before("inotify_add_watch", [](unsigned) { attempts_made++; });
        a_.faults().replace("inotify_add_watch", reinterpret_cast<void *>(add_watch));
    }

    // What the call under test answers, with its debug lines.
    template <class Call>
    auto tried(Call call)
    {
        called_ = 0;
        set_debug_flags(inotify_dbg);
        auto result = a_.faulted(call);
        set_debug_flags(0);
        return result;
    }

    // The pass under test: its result, how often it called back and paused, and how often the next
    // one calls back.
    std::string pass()
    {
        const int result = tried([&] { return lh_inotify_process(watcher); });
        std::string outcome = shown(result);
        if (result != 0)
            outcome += std::string(" ") + strerrorname_np(a_.error());
        outcome += ", called " + shown(called_);
        const auto paused = a_.calls().find("usleep");
        if (paused != a_.calls().end() && paused->second != 0)
            outcome += ", paused " + shown(long(paused->second));
        return outcome + ", then " + shown(later_pass());
    }

    // How often a pass without a fault calls back.
    int later_pass()
    {
        called_ = 0;
        EXPECT_EQ(lh_inotify_process(watcher), 0);
        return called_;
    }

    lh_inotify *watcher;

  private:
    Attempt &a_;
    int called_ = 0;
};

// Making, starting over, including -----------------------------------------------------------------

std::string create(Attempt &a)
{
    set_debug_flags(inotify_dbg);
    lh_inotify *watcher = a.faulted(lh_inotify_create);
    const std::string outcome = shown(static_cast<const void *>(watcher));
    lh_inotify_free(&watcher);
    return outcome;
}

// One file is watched, one through its directory.
std::string release(Attempt &a)
{
    Watching w(a);
    write_file(a.path("f"), "1");
    w.settle("f");
    w.settle("absent");
    return w.tried([&] {
        lh_inotify_free(&w.watcher);
        return shown(static_cast<const void *>(w.watcher));
    });
}

std::string descriptor(Attempt &a)
{
    Watching w(a);
    const int fd = w.tried([&] { return lh_inotify_get_fd(w.watcher); });
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
}

// After a failed restart the next one works.
std::string restart(Attempt &a)
{
    Watching w(a);
    write_file(a.path("f"), "1");
    w.settle("f");
    const int fd = w.tried([&] { return lh_inotify_restart(w.watcher); });
    EXPECT_EQ(lh_inotify_get_fd(w.watcher), fd);
    if (fd == -1) {
        errno = 0;
        EXPECT_EQ(lh_inotify_process(w.watcher), -1);
        EXPECT_EQ(errno, EIO);
        EXPECT_GE(lh_inotify_restart(w.watcher), 0);
    }
    return (fd >= 0 ? "a descriptor, then " : "-1, then ") + shown(w.later_pass());
}

// A file that was not included can be, and the next pass reports it. Some are followed before it.
std::string include(Attempt &a, bool present, int others)
{
    Watching w(a);
    for (int i = 0; i < others; i++)
        EXPECT_EQ(w.follow("other" + std::to_string(i)), 0);
    if (present)
        write_file(a.path("f"), "1");
    const int result = w.tried([&] { return w.follow("f"); });
    EXPECT_TRUE(result == 0 || w.follow("f") == 0);
    for (int i = 0; i < others; i++) {
        EXPECT_EQ(w.follow("other" + std::to_string(i)), -1);
        EXPECT_EQ(errno, EEXIST);
    }
    return shown(result) + ", then " + shown(w.later_pass());
}

std::string include_again(Attempt &a)
{
    Watching w(a);
    EXPECT_EQ(w.follow("f"), 0);
    const int result = w.tried([&] { return w.follow("f"); });
    return shown(result) + " " + strerrorname_np(a.error());
}

std::vector<scenario> of_including()
{
    const std::string first = "INOTIFY_DBG <create_file:#> state INIT to WATCH_FILE (f)";
    const std::string elsewhere = "INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (f)";
    const std::vector<rule> no_memory = {
        fails("malloc", "-1, then 1", {no_memory_for_file}),
        fails("strdup", "-1, then 1", {"create_file: PTR_IS_NULL: file->parent_dir"})};
    const auto with = [](std::vector<rule> rules, const std::vector<rule> &more) {
        rules.insert(rules.end(), more.begin(), more.end());
        return rules;
    };
    // A file that cannot be looked at is taken for one that is absent: the first pass finds it.
    const std::vector<rule> of_present = with(
        no_memory, {fails("access", "0, then 1", {elsewhere}).errno_unpromised(), ignored("stat")});
    return {
        {.function = "lh_inotify_include_file",
         .way = "a present file",
         .body = [](Attempt &a) { return include(a, true, 0); },
         .outcome = "0, then 1",
         .lines = {first},
         .faults = of_present},
        {.function = "lh_inotify_include_file",
         .way = "an absent file",
         .body = [](Attempt &a) { return include(a, false, 0); },
         .outcome = "0, then 0",
         .lines = {elsewhere},
         .faults = {fails("malloc", "-1, then 0", {no_memory_for_file}),
                    fails("strdup", "-1, then 0", {"create_file: PTR_IS_NULL: file->parent_dir"}),
                    ignored("access"), ignored("stat")}},
        // More room for finding them is a help, no need.
        {.function = "lh_inotify_include_file",
         .way = "a seventeenth file",
         .body = [](Attempt &a) { return include(a, true, 16); },
         .outcome = "0, then 1",
         .lines = {first},
         .faults = with(of_present, {ignored("calloc")})},
        {.function = "lh_inotify_include_file",
         .way = "a followed file",
         .body = include_again,
         .outcome = "-1 EEXIST"}};
}

// A file that is written, and two that share their directory's watch, one of which appears.
std::string exclude(Attempt &a, const std::string &name)
{
    Watching w(a);
    write_file(a.path("f"), "1");
    for (const char *file : {"f", "absent", "missing"})
        w.settle(file);
    const int result = w.tried([&] { return w.unfollow(name); });
    write_file(a.path("f"), "2");
    write_file(a.path("missing"), "2");
    const std::string outcome = shown(result) + ", then " + shown(w.later_pass());
    EXPECT_EQ(w.follow(name), 0);
    return outcome;
}

// Passes ------------------------------------------------------------------------------------------

// No file has its turn; the next pass makes up for it.
rule unread(const std::string &then, std::vector<std::string> lines = {})
{
    lines.push_back(not_read);
    return gives("read", "-1 EIO, called 0, then " + then, lines);
}

scenario of_pass(const char *way, const std::function<std::string(Attempt &)> &body,
                 const std::string &outcome, const std::vector<std::string> &lines,
                 const std::vector<rule> &faults)
{
    return {.function = "lh_inotify_process",
            .way = way,
            .body = body,
            .outcome = outcome,
            .lines = lines,
            .faults = faults};
}

const std::string no_space = strerror(ENOSPC);
const std::string no_access = strerror(EACCES);
const std::string no_file = strerror(ENOENT);

// A present file's first pass, in which the first attempts to arm a watch are refused.
std::string first_pass(Attempt &a, unsigned refused, int error)
{
    Watching w(a);
    write_file(a.path("f"), "1");
    EXPECT_EQ(chmod(a.path("f").c_str(), 0640), 0);
    EXPECT_EQ(w.follow("f"), 0);
    w.refuse(refused, error);
    return w.pass();
}

std::vector<scenario> of_present_files()
{
    const std::string mode = mode_is("{dir}/f", "100640");
    const std::string good = "0, called 1, then 0";
    const std::string waited = "0, called 1, paused 1, then 0";
    const std::string waited_twice = "0, called 1, paused 2, then 0";
    const std::string waited_thrice = "0, called 1, paused 3, then 0";
    // A file that cannot be armed at once is looked for through its directory, and found there.
    const std::vector<std::string> no_room = {not_armed(no_space)};
    const std::vector<std::string> closed = {mode, not_armed(no_access)};
    const std::vector<std::string> other = {not_armed("{error}")};
    std::vector<std::string> closed_and_lost = closed;
    closed_and_lost.push_back(moved("WATCH_FILE", "WATCH_DIRECTORY"));
    return {
        of_pass("a present file", [](Attempt &a) { return first_pass(a, 0, 0); }, good, {},
                {gives("stat:1", good, {inode_of_f}), unread("1"), gives("stat:2", waited),
                 gives("inotify_add_watch", waited)}),
        of_pass("a file at its last attempt", [](Attempt &a) { return first_pass(a, 2, ENOSPC); },
                waited_twice, {},
                {gives("stat:1", waited_twice, {inode_of_f}), unread("1"),
                 gives("stat:2", waited_twice, no_room), gives("stat:3", waited_twice, no_room),
                 gives("stat:4", waited_twice, closed).with({EACCES}),
                 gives("stat:4", waited_twice, other),
                 gives("inotify_add_watch:3", waited_twice, closed).with({EACCES}),
                 gives("inotify_add_watch:3", waited_twice, other), ignored("inotify_add_watch"),
                 ignored("usleep")}),
        of_pass("a refused file", [](Attempt &a) { return first_pass(a, 3, EACCES); }, waited_twice,
                closed,
                {gives("stat:1", waited_thrice, {inode_of_f}), unread("1"),
                 gives("stat:2", waited_thrice, closed), gives("stat:3", waited_thrice, closed),
                 gives("stat:4", waited_thrice, closed).with({EACCES}),
                 gives("stat:4", waited_thrice, other),
                 gives("stat:5", waited_twice, {no_mode + "{error}", not_armed(no_access)}),
                 gives("stat:6", waited_thrice, closed), gives("stat:7", waited_thrice, closed),
                 ignored("inotify_add_watch:3").with({EACCES}),
                 gives("inotify_add_watch:3", waited_twice, other),
                 gives("inotify_add_watch:4", waited_thrice, closed),
                 gives("inotify_add_watch:5", waited_thrice, closed), ignored("inotify_add_watch"),
                 gives("access", "0, called 0, paused 2, then 0", closed_and_lost),
                 ignored("inotify_rm_watch"), ignored("usleep")}),
    };
}

// A file of this directory that is absent; the flags are those of including it.
std::string absent_pass(Attempt &a, const std::string &parent_dir, uint32_t flags = 0,
                        unsigned refused = 0)
{
    Watching w(a);
    EXPECT_EQ(w.follow(parent_dir, "f", flags), 0);
    w.refuse(refused, ENOSPC);
    return w.pass();
}

// The directory and its parent are made by this pass, or else by the next one.
std::string pass_that_makes_directories(Attempt &a)
{
    const std::string outcome = absent_pass(a, "p/d", LH_INOTIFY_CREATE_DIR);
    struct stat st;
    EXPECT_EQ(stat(a.path("p/d").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0777u);
    return outcome;
}

std::string pass_after_the_directory_came(Attempt &a)
{
    Watching w(a);
    EXPECT_EQ(w.follow("d", "f"), 0);
    EXPECT_EQ(w.later_pass(), 0);
    EXPECT_EQ(mkdir("d", 0755), 0);
    return w.pass();
}

std::vector<scenario> of_directories()
{
    const std::string good = "0, called 0, then 0";
    const std::string waited = "0, called 0, paused 1, then 0";
    const std::string waited_long = "0, called 0, paused 8, then 0";
    const std::string lost = moved("WATCH_DIRECTORY", "LOST_DIRECTORY");
    const std::string not_permitted = not_armed(strerror(EPERM));
    const std::string not_made = "lh_dir_create: cannot create 'p/d': {error}";
    const std::string mode = mode_is("{dir}", "40700");
    const std::vector<std::string> no_room = {not_armed(no_space), lost};
    return {
        of_pass("an absent file", [](Attempt &a) { return absent_pass(a, a.directory()); }, good,
                {},
                {gives("stat:1", good, {inode_of_f}), unread("0"), gives("stat:2", waited),
                 gives("inotify_add_watch", waited), ignored("access")}),
        of_pass("a directory to be made", pass_that_makes_directories, good, {},
                {unread("0"), ignored("opendir"),
                 gives("strdup", good,
                       {"lh_dir_create: PTR_IS_NULL: buf", no_directory, not_permitted, lost}),
                 gives("mkdir", good, {not_made, no_directory, not_permitted, lost}),
                 gives("stat:4", waited), ignored("stat"), gives("inotify_add_watch", waited),
                 ignored("access")}),
        of_pass("a directory that need not be made",
                [](Attempt &a) { return absent_pass(a, ".", LH_INOTIFY_CREATE_DIR); }, good, {},
                {gives("stat:1", good, {inode_of_f}), unread("0"), ignored("opendir"),
                 ignored("closedir"), gives("stat:2", waited), gives("inotify_add_watch", waited),
                 ignored("access")}),
        of_pass("a missing directory", [](Attempt &a) { return absent_pass(a, "gone"); },
                waited_long, {not_armed(no_file), lost},
                {unread("0"),
                 gives("stat:10", waited_long, {no_mode + no_file, not_armed(no_access), lost})
                     .with({EACCES}),
                 gives("stat:10", waited_long, {not_armed("{error}"), lost}), ignored("stat"),
                 ignored("usleep")}),
        of_pass("a directory at its last attempt",
                [](Attempt &a) { return absent_pass(a, a.directory(), 0, 8); }, waited_long, {},
                {gives("stat:1", waited_long, {inode_of_f}), unread("0"),
                 gives("stat:10", waited_long, {mode, not_armed(no_access), lost}).with({EACCES}),
                 gives("stat:10", waited_long, {not_armed("{error}"), lost}),
                 gives("stat", waited_long, no_room),
                 gives("inotify_add_watch:9", waited_long, {mode, not_armed(no_access), lost})
                     .with({EACCES}),
                 gives("inotify_add_watch:9", waited_long, {not_armed("{error}"), lost}),
                 ignored("inotify_add_watch"), ignored("usleep"), ignored("access")}),
        of_pass("a directory that came again", pass_after_the_directory_came, good,
                {moved("LOST_DIRECTORY", "WATCH_DIRECTORY")},
                {unread("0"), gives("stat", waited, {moved("LOST_DIRECTORY", "WATCH_DIRECTORY")}),
                 gives("inotify_add_watch", waited, {moved("LOST_DIRECTORY", "WATCH_DIRECTORY")}),
                 ignored("access")}),
    };
}

std::string pass_after(Attempt &a, bool present,
                       const std::function<void(const std::string &)> &event)
{
    Watching w(a);
    if (present)
        write_file(a.path("f"), "1");
    w.settle("f");
    event(a.path("f"));
    return w.pass();
}

void write_it(const std::string &path)
{
    write_file(path, "22");
}

// Sixteen files wait in the directory when one more is armed.
std::string pass_of_many(Attempt &a)
{
    Watching w(a);
    for (int i = 1; i <= 16; i++)
        EXPECT_EQ(w.follow("f" + std::to_string(i)), 0);
    EXPECT_EQ(w.later_pass(), 0);
    EXPECT_EQ(w.follow("f"), 0);
    const std::string outcome = w.pass();
    write_file(a.path("f"), "1");
    for (int i = 1; i <= 16; i++)
        write_file(a.path("f" + std::to_string(i)), "1");
    return outcome + ", then " + shown(w.later_pass());
}

scenario of_many()
{
    const std::string good = "0, called 0, then 0, then 17";
    const std::string waited = "0, called 0, paused 1, then 0, then 17";
    std::vector<rule> rules = {unread("0, then 17"),     ignored("calloc"),
                               ignored("access"),        gives("stat:17", good, {inode_of_f}),
                               gives("stat:18", waited), gives("inotify_add_watch", waited)};
    for (int i = 1; i <= 16; i++) {
        const std::string number = std::to_string(i);
        rules.push_back(gives("stat:" + number, good,
                              {"INOTIFY_DBG <check_inode> inode has changed (f" + number + ")"}));
    }
    return of_pass("a seventeenth file", pass_of_many, good, {}, rules);
}

std::vector<scenario> of_events()
{
    const std::string appears = moved("WATCH_DIRECTORY", "WATCH_FILE");
    const std::string vanishes = moved("WATCH_FILE", "WATCH_DIRECTORY");
    // Deliberate: what appears is reported twice, for a daemon that saw it half full.
    const std::string waited = "0, called 1, paused 1, then 1";
    const std::string vanished = "0, called 1, paused 1, then 0";
    return {
        of_pass("a file that appeared", [](Attempt &a) { return pass_after(a, false, write_it); },
                "0, called 1, then 1", {appears},
                {gives("stat:1", "0, called 1, then 0", {inode_of_f, appears}), unread("1"),
                 ignored("inotify_rm_watch"), gives("stat:2", waited, {appears}),
                 gives("inotify_add_watch", waited, {appears})}),
        of_pass("a file that was written", [](Attempt &a) { return pass_after(a, true, write_it); },
                "0, called 1, then 0", {},
                {gives("stat", "0, called 1, then 0", {inode_of_f}), unread("1")}),
        of_pass("a file that vanished", [](Attempt &a) { return pass_after(a, true, remove_file); },
                "0, called 1, then 0", {inode_of_f, vanishes},
                {ignored("stat:1"), ignored("inotify_rm_watch"), unread("1", {inode_of_f}),
                 gives("stat:2", vanished, {inode_of_f, vanishes}),
                 gives("inotify_add_watch", vanished, {inode_of_f, vanishes}), ignored("access")}),
    };
}

const std::vector<scenario> others = {
    {.function = "lh_inotify_create",
     .body = create,
     .outcome = "set",
     .faults = {fails("malloc", "null", {"INOTIFY_DBG <lh_inotify_create> malloc failed: {error}"}),
                fails("inotify_init1", "null",
                      {"INOTIFY_DBG <lh_inotify_create> inotify_init1 failed: {error}"})}},
    {.function = "lh_inotify_free",
     .body = release,
     .outcome = "null",
     .faults = {ignored("inotify_rm_watch"), ignored("close")}},
    {.function = "lh_inotify_get_fd", .body = descriptor, .outcome = "anon_inode:inotify"},
    {.function = "lh_inotify_restart",
     .body = restart,
     .outcome = "a descriptor, then 1",
     .faults = {ignored("inotify_rm_watch"), ignored("close"),
                fails("inotify_init1", "-1, then 1",
                      {"INOTIFY_DBG <lh_inotify_restart> inotify_init1 failed: {error}"})}},
    {.function = "lh_inotify_exclude_file",
     .way = "with a watch of its own",
     .body = [](Attempt &a) { return exclude(a, "f"); },
     .outcome = "0, then 1",
     .faults = {ignored("inotify_rm_watch")}},
    {.function = "lh_inotify_exclude_file",
     .way = "with a shared watch",
     .body = [](Attempt &a) { return exclude(a, "absent"); },
     .outcome = "0, then 2"},
    {.function = "lh_inotify_exclude_file",
     .way = "of an unknown file",
     .body = [](Attempt &a) { return exclude(a, "unknown"); },
     .outcome = "0, then 2"},
};

std::vector<scenario> all()
{
    std::vector<scenario> joined = others;
    for (const auto &some : {of_including(), of_present_files(), of_directories(), of_events()})
        joined.insert(joined.end(), some.begin(), some.end());
    joined.push_back(of_many());
    return joined;
}

const bool swept = register_fault_sweep("FaultsOfWatchers", all());

} // namespace
