// Which events reach which files.
#include "lh_inotify.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "watch/watcher.hpp"

using namespace vyt::test;

class InotifyFiles : public WatcherTest {};

// Sharing a watch ----------------------------------------------------------------------------------

TEST_F(InotifyFiles, FilesOfOneDirectoryShareItsWatch)
{
    for (const char *name : {"a", "b", "c"})
        follow(name);
    const auto given = arm();
    ASSERT_EQ(given.size(), 3u);
    EXPECT_EQ(given[0], given[1]);
    EXPECT_EQ(given[0], given[2]);
    expect_watches({directory_watch(dir())});
    write_file(temp / "b", "1");
    process();
    EXPECT_EQ(calls["a"], 0);
    EXPECT_EQ(calls["b"], 1);
    EXPECT_EQ(calls["c"], 0);
    expect_watches({directory_watch(dir()), file_watch(temp / "b")});
}

TEST_F(InotifyFiles, ExcludingOneOfTwoLeavesTheWatchForTheOther)
{
    for (const bool first : {true, false}) {
        follow("a");
        follow("b");
        process();
        const unsigned removed = faults.calls("inotify_rm_watch");
        exclude(first ? "a" : "b");
        EXPECT_EQ(faults.calls("inotify_rm_watch"), removed);
        expect_watches({directory_watch(dir())});
        const std::string left = first ? "b" : "a";
        write_file(temp / left, "1");
        EXPECT_EQ(calls_in_pass(left), 1);
        exclude(left);
        EXPECT_EQ(faults.calls("inotify_rm_watch"), removed + 2); // its directory's and its own
        expect_watches({});
        remove_file(temp / left);
    }
}

TEST_F(InotifyFiles, TheLastOfManyTakesTheWatchAlong)
{
    for (const char *name : {"a", "b", "c", "d"})
        follow(name);
    process();
    for (const char *name : {"b", "a", "d"}) {
        exclude(name);
        expect_watches({directory_watch(dir())});
    }
    EXPECT_EQ(faults.calls("inotify_rm_watch"), 0u);
    exclude("c");
    EXPECT_EQ(faults.calls("inotify_rm_watch"), 1u);
    expect_watches({});
}

TEST_F(InotifyFiles, AFileThatAppearsLeavesTheSharedWatchToTheOthers)
{
    follow("a");
    follow("b");
    process();
    write_file(temp / "a", "1");
    process();
    expect_watches({directory_watch(dir()), file_watch(temp / "a")});
    EXPECT_EQ(faults.calls("inotify_rm_watch"), 0u);
    write_file(temp / "b", "1");
    process();
    expect_watches({file_watch(temp / "a"), file_watch(temp / "b")});
    EXPECT_EQ(faults.calls("inotify_rm_watch"), 1u);
}

TEST_F(InotifyFiles, TheLossOfASharedDirectoryReachesAllItsFiles)
{
    make_directory(temp / "d");
    for (const char *name : {"a", "b", "c"})
        follow_in(temp / "d", name);
    process();
    set_debug_flags(inotify_dbg);
    before_first_read([&] { remove_directory(temp / "d"); });
    process();
    std::vector<std::string> expected;
    for (const char *name : {"a", "b", "c"}) {
        expected.push_back("INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: "
                           "No such file or directory");
        expected.push_back("INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to "
                           "LOST_DIRECTORY (" +
                           std::string(name) + ")");
    }
    EXPECT_EQ(take_lines(), expected);
}

TEST_F(InotifyFiles, OneDirectorySpelledInTwoWaysSharesItsWatch)
{
    follow_in(dir(), "a");
    follow_in(dir() + "/", "b");
    follow_in(dir() + "/.", "c");
    const auto given = arm();
    ASSERT_EQ(given.size(), 3u);
    EXPECT_EQ(given[0], given[1]);
    EXPECT_EQ(given[0], given[2]);
    for (const char *name : {"c", "a", "b"}) {
        write_file(temp / name, "1");
        EXPECT_EQ(calls_in_pass(name), 1);
        process();
    }
}

TEST_F(InotifyFiles, OfOneNameUnderTwoSpellingsTheFirstIsTold)
{
    // The order of inclusion decides, not the order of arming.
    int first = 0;
    int second = 0;
    EXPECT_EQ(lh_inotify_include_file(watcher, (dir() + "/").c_str(), "f", 0, count_call, &first),
              0);
    EXPECT_EQ(lh_inotify_include_file(watcher, dir().c_str(), "f", 0, count_call, &second), 0);
    process();
    write_file(temp / "f", "1");
    process();
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    expect_watches({directory_watch(dir()), file_watch(temp / "f")});
    // The first one has left the directory's watch: the next event of that name is the second's.
    move(temp / "f", temp / "g");
    move(temp / "g", temp / "f");
    process();
    EXPECT_EQ(second, 1);
}

TEST_F(InotifyFiles, TheFirstInListOrderIsTheFirstIncludedOfThoseThatAreLeft)
{
    std::vector<int> told(3);
    const std::vector<std::string> spellings = {dir(), dir() + "/", dir() + "//"};
    for (size_t i = 0; i < 3; i++)
        EXPECT_EQ(
            lh_inotify_include_file(watcher, spellings[i].c_str(), "f", 0, count_call, &told[i]),
            0);
    process();
    EXPECT_EQ(lh_inotify_exclude_file(watcher, spellings[0].c_str(), "f"), 0);
    EXPECT_EQ(lh_inotify_include_file(watcher, spellings[0].c_str(), "f", 0, count_call, &told[0]),
              0); // now the last one
    process();
    write_file(temp / "f", "1");
    process();
    EXPECT_EQ(told, (std::vector<int>{0, 1, 0}));
}

TEST_F(InotifyFiles, HardLinksShareAWatchAndItsEvents)
{
    write_file(temp / "a", "1");
    ASSERT_EQ(link((temp / "a").c_str(), (temp / "b").c_str()), 0);
    follow("a");
    follow("b");
    const auto given = arm();
    ASSERT_EQ(given.size(), 2u);
    EXPECT_EQ(given[0], given[1]);
    expect_watches({file_watch(temp / "a")});
    forget_calls();
    write_file(temp / "a", "2");
    process();
    EXPECT_EQ(calls["a"], 1);
    EXPECT_EQ(calls["b"], 1);
    remove_file(temp / "a"); // the inode is still there
    forget_calls();
    process();
    EXPECT_EQ(calls["a"], 1);
    EXPECT_EQ(calls["b"], 0);
    expect_watches({directory_watch(dir()), file_watch(temp / "b")});
    write_file(temp / "b", "3");
    EXPECT_EQ(calls_in_pass("b"), 1);
}

TEST_F(InotifyFiles, OneFileUnderTwoDirectoryNamesIsWatchedOnce)
{
    write_file(temp / "f", "1");
    int first = 0;
    int second = 0;
    EXPECT_EQ(lh_inotify_include_file(watcher, dir().c_str(), "f", 0, count_call, &first), 0);
    EXPECT_EQ(lh_inotify_include_file(watcher, (dir() + "/").c_str(), "f", 0, count_call, &second),
              0);
    process();
    expect_watches({file_watch(temp / "f")});
    write_file(temp / "f", "2");
    process();
    EXPECT_EQ(first, 2);
    EXPECT_EQ(second, 2);
    EXPECT_EQ(lh_inotify_exclude_file(watcher, dir().c_str(), "f"), 0);
    write_file(temp / "f", "3");
    process();
    EXPECT_EQ(second, 3);
}

TEST_F(InotifyFiles, AFollowedDirectoryTellsOfItsEntriesByName)
{
    // Events with a name are for the file of that name, whatever its watch is on.
    make_directory(temp / "d");
    write_file(temp / "d/d", "1");
    write_file(temp / "d/e", "1");
    follow("d");
    process();
    forget_calls();
    write_file(temp / "d/e", "2");
    EXPECT_TRUE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("d"), 0);
    write_file(temp / "d/d", "2");
    EXPECT_EQ(calls_in_pass("d"), 1);
}

// Batches ------------------------------------------------------------------------------------------

TEST_F(InotifyFiles, AnEventWithoutANameReachesEveryFileOfItsWatch)
{
    for (const char *name : {"a", "b", "c"})
        follow(name);
    const auto given = arm();
    for (const char *name : {"a", "b", "c"})
        write_file(temp / name, "1");
    forget_calls();
    feed({event(given[0], IN_MODIFY)});
    process();
    EXPECT_EQ(calls, (std::map<std::string, int>{{"a", 1}, {"b", 1}, {"c", 1}}));
}

TEST_F(InotifyFiles, AnEventWithANameReachesOnlyItsFile)
{
    for (const char *name : {"a", "b", "c"})
        follow(name);
    const auto given = arm();
    for (const char *name : {"a", "b", "c"})
        write_file(temp / name, "1");
    feed({event(given[0], IN_CREATE, "b") + event(given[0] + 1000, IN_CREATE, "a") +
          event(given[0], IN_CREATE, "bb")});
    process();
    EXPECT_EQ(calls["a"] + calls["c"], 0);
    EXPECT_EQ(calls["b"], 1);
}

TEST_F(InotifyFiles, TheLastEventOfABatchDecides)
{
    write_file(temp / "f", "1");
    follow("f");
    const int wd = arm().at(0);
    set_debug_flags(inotify_dbg);

    feed({event(wd, IN_IGNORED) + event(wd, IN_MODIFY)});
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(given_watches.size(), 1u); // the loss is forgotten: nothing was armed again

    feed({event(wd, IN_MODIFY), event(wd, IN_ACCESS)}); // over two buffers all the same
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES("INOTIFY_DBG <read_inotify> unexpected events in mask 0x1");

    feed({event(wd, IN_MODIFY) + event(wd, IN_DELETE_SELF)});
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(given_watches.size(), 3u); // directory and file
}

TEST_F(InotifyFiles, ARealBatchIsDecidedByItsLastEvent)
{
    make_directory(temp / "d");
    follow_in(temp / "d", "f");
    process();
    set_debug_flags(inotify_dbg);
    before_first_read([&] {
        write_file(temp / "d/f", "1");
        remove_file(temp / "d/f");
        remove_directory(temp / "d");
    });
    EXPECT_EQ(calls_in_pass("f"), 0); // the appearance is overwritten by the loss
    EXPECT_LINES(
        "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: No such file or directory",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
}

TEST_F(InotifyFiles, EveryBitOfAMaskIsRead)
{
    struct {
        uint32_t mask;
        int first;  // calls in the pass
        int second; // and in the one after it
    } const cases[] = {
        {IN_MODIFY, 1, 0},
        {IN_MODIFY | IN_DELETE_SELF, 1, 0},
        {IN_MODIFY | IN_IGNORED | IN_ISDIR, 1, 0},
        {IN_CREATE, 1, 0}, // an appearance of what is there takes MODIFIED along
        {IN_MOVED_TO, 1, 0},
        {IN_CREATE | IN_IGNORED, 1, 0},
        {IN_DELETE_SELF, 1, 0},
        {IN_MOVE_SELF, 1, 0},
        {IN_IGNORED, 1, 0},
        {IN_IGNORED | IN_UNMOUNT, 1, 0},
    };
    write_file(temp / "f", "1");
    follow("f");
    note_watches();
    process();
    for (const auto &c : cases) {
        feed({event(given_watches.back(), c.mask)});
        EXPECT_EQ(calls_in_pass("f"), c.first) << std::hex << c.mask;
        EXPECT_EQ(calls_in_pass("f"), c.second) << std::hex << c.mask;
    }
    set_debug_flags(inotify_dbg);
    feed({event(given_watches.back(), IN_UNMOUNT | IN_ISDIR | IN_OPEN)});
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES("INOTIFY_DBG <read_inotify> unexpected events in mask 0x40002020");
}

TEST_F(InotifyFiles, ALongNameFillsABuffer)
{
    const std::string longest(NAME_MAX, 'n');
    follow(longest);
    process();
    write_file(temp / longest, "1");
    EXPECT_EQ(calls_in_pass(longest), 1);
    const std::string padded(4095, 'n'); // the longest name field that a buffer holds
    feed({event(1, IN_CREATE, padded)});
    EXPECT_EQ(event(1, IN_CREATE, padded).size(), 4112u);
    process();
}

// What stands behind the bytes that were read is left from an earlier buffer.

TEST_F(InotifyFiles, AHeaderThatIsCutOffIsNoEvent)
{
    for (const char *name : {"a", "b"}) {
        write_file(temp / name, "1");
        follow(name);
    }
    const auto given = arm();
    forget_calls();
    feed({event(given[0], IN_MODIFY), event(given[1], IN_MODIFY).substr(0, 4)});
    process();
    EXPECT_EQ(calls, (std::map<std::string, int>{{"a", 1}, {"b", 0}}));
}

TEST_F(InotifyFiles, ANameThatIsCutOffIsNoEvent)
{
    follow("f");
    const int wd = arm().at(0);
    write_file(temp / "f", "1");
    const std::string whole = event(wd, IN_CREATE, "f");
    feed({event(wd + 1000, IN_CREATE, "f"), whole.substr(0, sizeof(inotify_event))});
    EXPECT_EQ(calls_in_pass("f"), 0);
    feed({event(wd + 1000, IN_CREATE, "f"), whole.substr(0, whole.size() - 1)});
    EXPECT_EQ(calls_in_pass("f"), 0);
    feed({whole});
    EXPECT_EQ(calls_in_pass("f"), 1);
}

TEST_F(InotifyFiles, ANameWithoutAnEndEndsTheBuffer)
{
    const std::string name(20, 'n');
    follow(name);
    follow("f");
    const int wd = arm().at(0);
    write_file(temp / name, "1");
    write_file(temp / "f", "1");
    std::string open_name = event(wd, IN_CREATE, name).substr(0, sizeof(inotify_event) + 16);
    const uint32_t len = 16;
    memcpy(&open_name[offsetof(inotify_event, len)], &len, sizeof(len));
    forget_calls();
    feed({event(wd + 1000, IN_CREATE, name), open_name, open_name + event(wd, IN_CREATE, "f")});
    process();
    EXPECT_EQ(calls, (std::map<std::string, int>{{name, 0}, {"f", 0}}));
}

TEST_F(InotifyFiles, ALengthThatNoKernelGivesLeadsToTheNextEventAllTheSame)
{
    follow("f");
    const int wd = arm().at(0);
    write_file(temp / "f", "1");
    std::string odd = event(wd, IN_CREATE, "g").substr(0, sizeof(inotify_event) + 5);
    const uint32_t len = 5;
    memcpy(&odd[offsetof(inotify_event, len)], &len, sizeof(len));
    feed({odd + event(wd, IN_CREATE, "f")});
    EXPECT_EQ(calls_in_pass("f"), 1);
}

TEST_F(InotifyFiles, APassReadsAHundredBuffers)
{
    write_file(temp / "f", "1");
    follow("f");
    const int wd = arm().at(0);
    std::vector<std::string> buffers(99, event(wd + 1, IN_MODIFY));
    buffers.push_back(event(wd, IN_MODIFY));
    buffers.push_back(event(wd, IN_MODIFY));
    feed(buffers);
    const unsigned reads = faults.calls("read");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(faults.calls("read"), reads + 100);
    EXPECT_EQ(fed_buffers.size(), 1u); // the rest waits for the next pass
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(faults.calls("read"), reads + 102);
    EXPECT_EQ(calls_in_pass("f"), 0);
}

// Overflow -----------------------------------------------------------------------------------------

TEST_F(InotifyFiles, AnOverflowClearsWhatIsPendingForFilesWithoutAWatch)
{
    write_file(temp / "here", "1");
    follow("here");
    process();
    follow_in(temp / "missing", "lost");
    process();     // armed, and lost
    follow("new"); // not armed yet
    set_debug_flags(inotify_dbg);
    forget_calls();
    feed({event(-1, IN_Q_OVERFLOW)});
    process();
    EXPECT_LINES("INOTIFY_DBG <read_inotify> unexpected events in mask 0x4000",
                 "INOTIFY_DBG <read_inotify> unexpected events in mask 0x4000");
    process(); // neither is tried again
    EXPECT_NO_LINES();
    expect_watches({file_watch(temp / "here")});

    make_directory(temp / "missing");
    write_file(temp / "missing/lost", "1");
    calm_faults();
    EXPECT_GE(lh_inotify_restart(watcher), 0);
    process();
    EXPECT_EQ(calls["lost"], 1);
    expect_watches(
        {file_watch(temp / "here"), file_watch(temp / "missing/lost"), directory_watch(dir())});
    take_lines();
}

TEST_F(InotifyFiles, AnOverflowLeavesWatchedFilesAlone)
{
    write_file(temp / "f", "1");
    follow("f");
    const int wd = arm().at(0);
    set_debug_flags(inotify_dbg);
    feed({event(wd, IN_MODIFY) + event(-1, IN_Q_OVERFLOW)});
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_NO_LINES();
}

TEST_F(InotifyFiles, ANamedEventWithoutAWatchIsForTheFirstFileOfThatName)
{
    follow("a");
    follow("b");
    set_debug_flags(inotify_dbg);
    feed({event(-1, IN_Q_OVERFLOW, "b") + event(-1, IN_Q_OVERFLOW, "c")});
    process();
    EXPECT_LINES("INOTIFY_DBG <read_inotify> unexpected events in mask 0x4000");
    expect_watches({directory_watch(dir())}); // a's; b is left out
    write_file(temp / "b", "1");
    process();
    EXPECT_EQ(calls["b"], 0);
}

TEST_F(InotifyFiles, TheKernelsOwnOverflow)
{
    const std::string limit = read_file("/proc/sys/fs/inotify/max_queued_events");
    const int events = atoi(limit.c_str());
    if (events <= 0 || events > 200000)
        GTEST_SKIP() << "the kernel queues " << limit;
    write_file(temp / "a", "");
    write_file(temp / "b", "");
    follow("a");
    follow("b");
    follow_in(temp / "missing", "lost");
    process();
    set_debug_flags(inotify_dbg);
    forget_calls();
    const int a = open((temp / "a").c_str(), O_WRONLY);
    const int b = open((temp / "b").c_str(), O_WRONLY);
    for (int i = 0; i < events + 10; i++) // in turns: equal neighbours would be merged
        ASSERT_EQ(write(i % 2 == 0 ? a : b, "x", 1), 1);
    close(a);
    close(b);
    // The first pass may leave the overflow to the next one.
    std::vector<std::string> lines;
    while (is_readable(fd())) {
        process();
        for (const std::string &line : take_lines())
            lines.push_back(line);
    }
    EXPECT_GE(calls["a"], 1);
    EXPECT_GE(calls["b"], 1);
    const std::string overflow = "INOTIFY_DBG <read_inotify> unexpected events in mask 0x4000";
    EXPECT_EQ(std::count(lines.begin(), lines.end(), overflow), 1);
    process();
    EXPECT_NO_LINES(); // the lost directory is no longer tried
    EXPECT_GE(lh_inotify_restart(watcher), 0);
    forget_calls();
    process();
    EXPECT_EQ(calls["a"], 1);
    EXPECT_EQ(calls["b"], 1);
    EXPECT_LINES(
        "INOTIFY_DBG <check_inode> inode has changed (a)",
        "INOTIFY_DBG <check_inode> inode has changed (b)",
        "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: No such file or directory");
}

// Open files ---------------------------------------------------------------------------------------

TEST_F(InotifyFiles, AnUnlinkedOpenFileGivesNoEventUntilItIsClosed)
{
    write_file(temp / "f", "1");
    follow("f");
    process();
    const int open_fd = open((temp / "f").c_str(), O_RDONLY);
    ASSERT_GE(open_fd, 0);
    remove_file(temp / "f");
    EXPECT_FALSE(is_readable(fd()));
    close(open_fd);
    EXPECT_TRUE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 1);
}

TEST_F(InotifyFiles, APassNoticesAnUnlinkedOpenFile)
{
    write_file(temp / "f", "1");
    follow("f");
    process();
    const int open_fd = open((temp / "f").c_str(), O_RDONLY);
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    expect_watches({directory_watch(dir())});
    close(open_fd);
    EXPECT_EQ(calls_in_pass("f"), 0);
}
