#include "lh_inotify.h"

#include <cerrno>

#include "watch/watcher.hpp"

using namespace vyt::test;

class Inotify : public WatcherTest {};

// Null arguments -----------------------------------------------------------------------------------

TEST_F(Inotify, ANullWatcherIsLogged)
{
    lh_inotify_free(nullptr);
    EXPECT_LINES("lh_inotify_free: PTR_IS_NULL: ptr");
    EXPECT_EQ(lh_inotify_get_fd(nullptr), -1);
    EXPECT_LINES("lh_inotify_get_fd: PTR_IS_NULL: ptr");
    EXPECT_EQ(lh_inotify_restart(nullptr), -1);
    EXPECT_LINES("lh_inotify_restart: PTR_IS_NULL: ptr");
    EXPECT_EQ(lh_inotify_process(nullptr), -1);
    EXPECT_LINES("lh_inotify_process: PTR_IS_NULL: ptr");
}

TEST_F(Inotify, IncludeChecksItsPointersInOrder)
{
    EXPECT_EQ(lh_inotify_include_file(nullptr, nullptr, nullptr, 0, nullptr, nullptr), -1);
    EXPECT_LINES("lh_inotify_include_file: PTR_IS_NULL: ptr");
    EXPECT_EQ(lh_inotify_include_file(watcher, nullptr, nullptr, 0, nullptr, nullptr), -1);
    EXPECT_LINES("lh_inotify_include_file: PTR_IS_NULL: parent_dir");
    EXPECT_EQ(lh_inotify_include_file(watcher, "/", nullptr, 0, nullptr, nullptr), -1);
    EXPECT_LINES("lh_inotify_include_file: PTR_IS_NULL: file_name");
}

TEST_F(Inotify, ExcludeChecksItsPointersInOrder)
{
    EXPECT_EQ(lh_inotify_exclude_file(nullptr, nullptr, nullptr), -1);
    EXPECT_LINES("lh_inotify_exclude_file: PTR_IS_NULL: ptr");
    EXPECT_EQ(lh_inotify_exclude_file(watcher, nullptr, nullptr), -1);
    EXPECT_LINES("lh_inotify_exclude_file: PTR_IS_NULL: parent_dir");
    EXPECT_EQ(lh_inotify_exclude_file(watcher, "/", nullptr), -1);
    EXPECT_LINES("lh_inotify_exclude_file: PTR_IS_NULL: file_name");
}

// Making and releasing -----------------------------------------------------------------------------

TEST_F(Inotify, TheDescriptorIsNonBlockingAndNotCloseOnExec)
{
    ASSERT_GE(fd(), 0);
    EXPECT_NE(fcntl(fd(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd(), F_GETFD) & FD_CLOEXEC, 0);
    char target[64] = {};
    ASSERT_GT(readlink(("/proc/self/fd/" + std::to_string(fd())).c_str(), target, 63), 0);
    EXPECT_STREQ(target, "anon_inode:inotify");
    EXPECT_TRUE(watches().empty());
}

TEST_F(Inotify, FreeClosesTheDescriptorAndClearsThePointer)
{
    const auto before = open_descriptors();
    lh_inotify *other = lh_inotify_create();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(open_descriptors().size(), before.size() + 1);
    write_file(temp / "here", "1");
    EXPECT_EQ(lh_inotify_include_file(other, dir().c_str(), "here", 0, nullptr, nullptr), 0);
    EXPECT_EQ(lh_inotify_include_file(other, dir().c_str(), "absent", 0, nullptr, nullptr), 0);
    EXPECT_EQ(lh_inotify_process(other), 0);
    const unsigned removed = faults.calls("inotify_rm_watch");
    lh_inotify_free(&other);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(faults.calls("inotify_rm_watch"), removed + 2);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Inotify, FreeOfAPointerToNullDoesNothing)
{
    set_debug_flags(inotify_dbg);
    lh_inotify *none = nullptr;
    lh_inotify_free(&none);
    EXPECT_EQ(none, nullptr);
    EXPECT_NO_LINES();
}

TEST_F(Inotify, FreeAfterAFailedRestartClosesNothing)
{
    lh_inotify *other = lh_inotify_create();
    faults.fail("inotify_init1", EMFILE);
    EXPECT_EQ(lh_inotify_restart(other), -1);
    const unsigned closes = faults.calls("close");
    lh_inotify_free(&other);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(faults.calls("close"), closes);
}

TEST_F(Inotify, TheDescriptorMayBeZero)
{
    OWN_PROCESS();
    close(STDIN_FILENO);
    lh_inotify_free(&watcher);
    watcher = lh_inotify_create();
    ASSERT_EQ(fd(), 0);
    follow("f");
    process();
    write_file(temp / "f", "1");
    EXPECT_TRUE(is_readable(0));
    EXPECT_EQ(calls_in_pass("f"), 1);
    faults.fail("inotify_init1", EMFILE);
    EXPECT_EQ(lh_inotify_restart(watcher), -1);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    for (int restarts = 0; restarts < 2; restarts++) {
        EXPECT_EQ(lh_inotify_restart(watcher), 0);
        EXPECT_EQ(calls_in_pass("f"), 1);
        expect_watches({file_watch(temp / "f")});
    }
    lh_inotify_free(&watcher);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
}

TEST_F(Inotify, CreateWithoutMemoryGivesNull)
{
    const auto before = open_descriptors();
    for (const unsigned flags : {0u, inotify_dbg}) {
        set_debug_flags(flags);
        take_flag_questions();
        faults.fail("malloc", ENOMEM);
        errno = 0;
        EXPECT_EQ(lh_inotify_create(), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(faults.happened());
        EXPECT_EQ(take_flag_questions(), 1u);
        if (flags == 0)
            EXPECT_NO_LINES();
        else
            EXPECT_LINES("INOTIFY_DBG <lh_inotify_create> malloc failed: Cannot allocate memory");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Inotify, CreateWithoutADescriptorGivesNull)
{
    for (const unsigned flags : {0u, inotify_dbg}) {
        set_debug_flags(flags);
        take_flag_questions();
        faults.fail("inotify_init1", EMFILE);
        errno = 0;
        EXPECT_EQ(lh_inotify_create(), nullptr);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_EQ(take_flag_questions(), 1u);
        if (flags == 0)
            EXPECT_NO_LINES();
        else
            EXPECT_LINES(
                "INOTIFY_DBG <lh_inotify_create> inotify_init1 failed: Too many open files");
    }
}

// Including and excluding ----------------------------------------------------------------------------

TEST_F(Inotify, IncludeDecidesTheFirstStateAndArmsNothing)
{
    write_file(temp / "here", "1");
    set_debug_flags(inotify_dbg);
    follow("here");
    EXPECT_LINES("INOTIFY_DBG <create_file:#> state INIT to WATCH_FILE (here)");
    follow("absent");
    EXPECT_LINES("INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (absent)");
    EXPECT_EQ(faults.calls("inotify_add_watch"), 0u);
    EXPECT_TRUE(watches().empty());
    EXPECT_EQ(calls["here"] + calls["absent"], 0);
}

TEST_F(Inotify, TheFirstPassArmsTheWatches)
{
    write_file(temp / "here", "1");
    make_directory(temp / "d");
    follow("here");
    follow_in(temp / "d", "absent");
    process();
    expect_watches({file_watch(temp / "here"), directory_watch(temp / "d")});
    EXPECT_EQ(calls["here"], 1);
    EXPECT_EQ(calls["absent"], 0);
}

TEST_F(Inotify, TheKernelIsAskedForTheWholeMasks)
{
    static std::vector<std::pair<std::string, uint32_t>> asked;
    asked.clear();
    faults.replace("inotify_add_watch",
                   reinterpret_cast<void *>(+[](int, const char *path, uint32_t mask) {
                       asked.emplace_back(path, mask);
                       return static_cast<int>(asked.size());
                   }));
    write_file(temp / "here", "1");
    follow("here");
    follow_in(dir() + "/", "absent");
    process();
    const std::vector<std::pair<std::string, uint32_t>> expected = {{dir("here"), 0x8C02},
                                                                    {dir() + "/", 0x20008180}};
    EXPECT_EQ(asked, expected);
}

TEST_F(Inotify, IncludingTwiceFailsWithEexistAndNoLine)
{
    set_debug_flags(inotify_dbg);
    follow("f");
    take_lines();
    take_flag_questions();
    errno = 0;
    EXPECT_EQ(lh_inotify_include_file(watcher, dir().c_str(), "f", 1, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_NO_LINES();
    EXPECT_EQ(take_flag_questions(), 0u);
}

TEST_F(Inotify, ASlashAtTheEndMakesAnotherDirectory)
{
    follow_in(dir(), "f");
    follow_in(dir() + "/", "f");
    follow_in(dir() + "//", "f");
    EXPECT_EQ(lh_inotify_include_file(watcher, (dir() + "/").c_str(), "f", 0, nullptr, nullptr),
              -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(lh_inotify_exclude_file(watcher, (dir() + "/").c_str(), "f"), 0);
    follow_in(dir() + "/", "f");
}

TEST_F(Inotify, TheSameTextSplitDifferentlyIsAnotherFile)
{
    make_directory(temp / "a");
    write_file(temp / "a/f", "1");
    follow_in(dir(), "a/f");
    follow_in(dir("a"), "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(calls["a/f"], 1);
    expect_watches({file_watch(temp / "a/f")});
}

TEST_F(Inotify, ThePathIsLookedUpWithADoubledSlash)
{
    static std::vector<std::string> looked;
    looked.clear();
    faults.replace("access", reinterpret_cast<void *>(+[](const char *path, int mode) {
                       looked.push_back(path);
                       EXPECT_EQ(mode, F_OK);
                       return access(path, mode);
                   }));
    follow_in(dir() + "/", "f");
    EXPECT_EQ(looked, std::vector<std::string>{dir() + "//f"});
}

TEST_F(Inotify, TheCallersTextsAreCopied)
{
    std::string parent_dir = dir();
    std::string name = "f";
    EXPECT_EQ(lh_inotify_include_file(watcher, parent_dir.c_str(), name.c_str(), 0, count_call,
                                      &calls["f"]),
              0);
    parent_dir.assign(parent_dir.size(), 'x');
    name = "y";
    process();
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
}

TEST_F(Inotify, ReleasingWhatWasHalfMadeKeepsErrno)
{
    // Not every C library's free leaves it alone.
    faults.replace("free", reinterpret_cast<void *>(+[](void *block) {
                       free(block);
                       errno = EDOM;
                   }));
    for (unsigned nth = 2; nth <= 3; nth++) {
        faults.fail_allocation(nth);
        EXPECT_EQ(lh_inotify_include_file(watcher, "/", "f", 0, nullptr, nullptr), -1);
        EXPECT_EQ(errno, ENOMEM);
    }
    faults.fail("inotify_init1", EMFILE);
    EXPECT_EQ(lh_inotify_create(), nullptr);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_LINES("create_file: PTR_IS_NULL: file->parent_dir");
}

TEST_F(Inotify, EachFailingAllocationOfIncludeIsReported)
{
    const std::vector<std::string> lines = {
        "INOTIFY_DBG <create_file:#> malloc failed: Cannot allocate memory",
        "create_file: PTR_IS_NULL: file->parent_dir",
        "INOTIFY_DBG <create_file:#> malloc failed: Cannot allocate memory",
    };
    for (const unsigned flags : {0u, inotify_dbg}) {
        for (unsigned nth = 1; nth <= 3; nth++) {
            set_debug_flags(flags);
            take_flag_questions();
            faults.fail_allocation(nth);
            errno = 0;
            EXPECT_EQ(lh_inotify_include_file(watcher, dir().c_str(), "f", 0, nullptr, nullptr),
                      -1);
            EXPECT_EQ(errno, ENOMEM);
            EXPECT_TRUE(faults.happened()) << nth;
            EXPECT_EQ(take_flag_questions(), nth == 2 ? 0u : 1u);
            if (flags != 0 || nth == 2)
                EXPECT_LINES(lines[nth - 1]);
            else
                EXPECT_NO_LINES();
        }
    }
    set_debug_flags(0);
    faults.fail_allocation(4);
    follow("f"); // nothing of the failed ones is left behind, and no fourth allocation is made
    EXPECT_FALSE(faults.happened());
}

TEST_F(Inotify, IncludeAllocatesWithTheCallsThatItsLinesName)
{
    for (unsigned nth = 1; nth <= 2; nth++) {
        faults.fail("malloc", ENOMEM, nth);
        EXPECT_EQ(lh_inotify_include_file(watcher, "/", "f", 0, nullptr, nullptr), -1);
        EXPECT_TRUE(faults.happened());
    }
    faults.fail("strdup", ENOMEM);
    EXPECT_EQ(lh_inotify_include_file(watcher, "/", "f", 0, nullptr, nullptr), -1);
    EXPECT_LINES("create_file: PTR_IS_NULL: file->parent_dir");
}

TEST_F(Inotify, ManyFilesNeedNoMemoryBeyondTheirOwn)
{
    faults.fail_always("calloc", ENOMEM);
    for (int i = 0; i < 200; i++)
        follow("f" + std::to_string(i));
    process();
    for (int i = 0; i < 200; i++)
        write_file(temp / ("f" + std::to_string(i)), "1");
    process();
    for (int i = 0; i < 200; i++) {
        EXPECT_EQ(calls["f" + std::to_string(i)], 1) << i;
        exclude("f" + std::to_string(i));
    }
    expect_watches({});
}

TEST_F(Inotify, ExcludingAnUnknownFileSucceeds)
{
    set_debug_flags(inotify_dbg);
    EXPECT_EQ(lh_inotify_exclude_file(watcher, "/nowhere", "f"), 0);
    EXPECT_NO_LINES();
}

TEST_F(Inotify, ExcludeDropsTheWatchAndForgetsTheFile)
{
    write_file(temp / "f", "1");
    follow("f");
    process();
    set_debug_flags(inotify_dbg);
    exclude("f");
    EXPECT_NO_LINES();
    expect_watches({});
    write_file(temp / "f", "2");
    EXPECT_EQ(calls_in_pass("f"), 0);
    set_debug_flags(0);
    follow("f");
    EXPECT_EQ(calls_in_pass("f"), 1);
}

TEST_F(Inotify, ExcludeNeedsTheSpellingThatWasIncluded)
{
    follow("f");
    process();
    EXPECT_EQ(lh_inotify_exclude_file(watcher, (dir() + "/").c_str(), "f"), 0);
    expect_watches({directory_watch(dir())});
}

TEST_F(Inotify, ANullCallbackIsNotCalled)
{
    EXPECT_EQ(lh_inotify_include_file(watcher, dir().c_str(), "f", 0, nullptr, nullptr), 0);
    process();
    write_file(temp / "f", "1");
    set_debug_flags(inotify_dbg);
    process();
    EXPECT_LINES("INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to WATCH_FILE (f)");
}

TEST_F(Inotify, CallbacksComeInTheOrderOfInclusion)
{
    static std::string order;
    order.clear();
    for (const char *name : {"b", "c", "a"}) {
        write_file(temp / name, "1");
        EXPECT_EQ(lh_inotify_include_file(
                      watcher, dir().c_str(), name, 0,
                      [](void *arg) { order += static_cast<const char *>(arg); },
                      const_cast<char *>(name)),
                  0);
    }
    process();
    EXPECT_EQ(order, "bca");
    write_file(temp / "a", "2");
    write_file(temp / "b", "2");
    process();
    EXPECT_EQ(order, "bcaba");
}

// Starting over ------------------------------------------------------------------------------------

TEST_F(Inotify, RestartGivesANewDescriptorAndTheNextPassArmsAgain)
{
    const auto before = open_descriptors();
    write_file(temp / "here", "1");
    make_directory(temp / "d");
    follow("here");
    follow_in(temp / "d", "absent");
    process();
    set_debug_flags(inotify_dbg);
    const int again = lh_inotify_restart(watcher);
    EXPECT_GE(again, 0);
    EXPECT_EQ(again, fd());
    EXPECT_EQ(open_descriptors().size(), before.size());
    EXPECT_NE(fcntl(again, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(again, F_GETFD) & FD_CLOEXEC, 0);
    expect_watches({});
    EXPECT_NO_LINES();
    EXPECT_EQ(calls_in_pass("here"), 1); // removed, then changed: the last one decided
    EXPECT_EQ(calls["absent"], 0);
    // A dropped watch took its inode along, which the pass notices.
    EXPECT_LINES("INOTIFY_DBG <check_inode> inode has changed (here)",
                 "INOTIFY_DBG <check_inode> inode has changed (absent)");
    expect_watches({file_watch(temp / "here"), directory_watch(temp / "d")});
    EXPECT_EQ(calls_in_pass("here"), 0);
}

TEST_F(Inotify, RestartFindsAFileThatAppearedMeanwhile)
{
    follow("f");
    process();
    write_file(temp / "f", "1");
    EXPECT_GE(lh_inotify_restart(watcher), 0);
    EXPECT_EQ(calls_in_pass("f"), 1);
    expect_watches({file_watch(temp / "f")});
    EXPECT_EQ(calls_in_pass("f"), 0); // found without an event, so nothing stays pending
}

TEST_F(Inotify, RestartDropsASharedWatchOnce)
{
    follow("a");
    follow("b");
    process();
    EXPECT_GE(lh_inotify_restart(watcher), 0);
    EXPECT_EQ(faults.calls("inotify_rm_watch"), 1u);
    process();
    expect_watches({directory_watch(dir())});
}

TEST_F(Inotify, AFailedRestartLeavesNoDescriptor)
{
    write_file(temp / "f", "1");
    follow("f");
    process();
    const auto before = open_descriptors();
    set_debug_flags(inotify_dbg);
    faults.fail("inotify_init1", ENFILE);
    errno = 0;
    EXPECT_EQ(lh_inotify_restart(watcher), -1);
    EXPECT_EQ(errno, ENFILE);
    EXPECT_LINES(
        "INOTIFY_DBG <lh_inotify_restart> inotify_init1 failed: Too many open files in system");
    EXPECT_EQ(fd(), -1);
    EXPECT_EQ(open_descriptors().size(), before.size() - 1);
    errno = 0;
    EXPECT_EQ(lh_inotify_process(watcher), -1);
    EXPECT_EQ(errno, EIO);
    // The dropped watch took its inode along, which the pass notices before it reads.
    EXPECT_LINES("INOTIFY_DBG <check_inode> inode has changed (f)",
                 "INOTIFY_DBG <read_inotify> read failed: Bad file descriptor");
    EXPECT_EQ(calls["f"], 1);

    EXPECT_GE(lh_inotify_restart(watcher), 0);
    set_debug_flags(0);
    EXPECT_EQ(calls_in_pass("f"), 1);
    expect_watches({file_watch(temp / "f")});
}

// Reading ------------------------------------------------------------------------------------------

TEST_F(Inotify, AFailedReadFailsThePassAndNoFileHasItsTurn)
{
    write_file(temp / "f", "1");
    for (const unsigned flags : {0u, inotify_dbg}) {
        for (const int error : {EINTR, EINVAL, EBADF, EIO}) {
            follow("f");
            take_lines();
            set_debug_flags(flags);
            take_flag_questions();
            faults.fail("read", error);
            errno = 0;
            calls["f"] = 0;
            EXPECT_EQ(lh_inotify_process(watcher), -1);
            EXPECT_EQ(errno, EIO);
            EXPECT_EQ(calls["f"], 0);
            EXPECT_EQ(take_flag_questions(), 1u);
            expect_watches({});
            if (flags == 0)
                EXPECT_NO_LINES();
            else
                EXPECT_LINES(std::string("INOTIFY_DBG <read_inotify> read failed: ") +
                             strerror(error));
            EXPECT_EQ(calls_in_pass("f"), 1); // what was pending still is
            exclude("f");
            take_lines();
        }
    }
}

TEST_F(Inotify, AReadThatFailsLaterFailsThePassToo)
{
    follow("f");
    process();
    write_file(temp / "f", "1");
    faults.fail("read", EIO, 2);
    EXPECT_EQ(lh_inotify_process(watcher), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(calls["f"], 0);
    EXPECT_EQ(calls_in_pass("f"), 1); // the events that were read are not lost
}

TEST_F(Inotify, AnEmptyReadEndsTheReading)
{
    write_file(temp / "f", "1");
    follow("f");
    feed({""});
    const unsigned reads = faults.calls("read");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(faults.calls("read"), reads + 1);
}

TEST_F(Inotify, ReadsAskForAWholeBuffer)
{
    static size_t asked;
    faults.replace("read", reinterpret_cast<void *>(+[](int, void *, size_t size) -> ssize_t {
                       asked = size;
                       return 0;
                   }));
    process();
    EXPECT_EQ(asked, 4112u);
}

// Debug lines --------------------------------------------------------------------------------------

TEST_F(Inotify, WithTheFlagOffEveryLineCostsOneQuestion)
{
    const auto run = [&](const std::string &name) {
        calm_faults();
        const std::string d = temp / name;
        follow_in(d, "f"); // create_file's state line
        process();         // create_watch_fd failed; state
        make_directory(d);
        process(); // state
        write_file(d + "/f", "1");
        process(); // state
        process(); // nothing
        remove_file(d + "/f");
        process(); // inode; state
        feed({event(-1, IN_Q_OVERFLOW) + event(-1, 0)});
        follow_in(d + "/", "f"); // create_file's state line
        process();               // unexpected events, twice
        calm_faults();
        EXPECT_EQ(lh_inotify_exclude_file(watcher, d.c_str(), "f"), 0);
        EXPECT_EQ(lh_inotify_exclude_file(watcher, (d + "/").c_str(), "f"), 0);
        return take_flag_questions();
    };
    take_flag_questions();
    EXPECT_EQ(run("off"), 10u);
    EXPECT_NO_LINES();
    set_debug_flags(vrrp_dbg); // another flag is no matter of the watcher's
    EXPECT_EQ(run("other"), 10u);
    EXPECT_NO_LINES();
    set_debug_flags(inotify_dbg);
    set_debug_answer(0x4200); // only the low byte counts
    EXPECT_EQ(run("low_byte"), 10u);
    EXPECT_NO_LINES();
    set_debug_answer(0x4280);
    EXPECT_EQ(run("on"), 10u);
    EXPECT_LINES(
        "INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (f)",
        "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: No such file or directory",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)",
        "INOTIFY_DBG <inotify_state_loop> state LOST_DIRECTORY to WATCH_DIRECTORY (f)",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to WATCH_FILE (f)",
        "INOTIFY_DBG <check_inode> inode has changed (f)",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_FILE to WATCH_DIRECTORY (f)",
        "INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (f)",
        "INOTIFY_DBG <read_inotify> unexpected events in mask 0x4000",
        "INOTIFY_DBG <read_inotify> unexpected events in mask 0x0");
}
