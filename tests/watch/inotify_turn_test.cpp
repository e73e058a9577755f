// Whole turns of a file, one scenario after the other, with the lines that tell of them.
#include "lh_inotify.h"

#include <cerrno>

#include "watch/watcher.hpp"

using namespace vyt::test;

// Debug lines are on, and taken before the scenario starts.
class Turn : public WatcherTest {
  protected:
    Turn() { set_debug_flags(inotify_dbg); }

    // Follows the file and lets it settle.
    void settle(const std::string &parent_dir, const std::string &name, uint32_t flags = 0)
    {
        follow_in(parent_dir, name, flags);
        process();
        process();
        take_lines();
        calls[name] = 0;
    }
    void settle(const std::string &name, uint32_t flags = 0) { settle(dir(), name, flags); }

    // Refuses the next attempts to arm this path, as many as there are; the others are granted.
    static void refuse(Faults &faults, const std::string &path, unsigned attempts)
    {
        static std::string refused;
        static unsigned left;
        refused = path;
        left = attempts;
        faults.replace("inotify_add_watch",
                       reinterpret_cast<void *>(+[](int fd, const char *path, uint32_t mask) {
                           if (left == 0 || path != refused)
                               return inotify_add_watch(fd, path, mask);
                           left--;
                           errno = ENOSPC;
                           return -1;
                       }));
    }
};

#define INODE_LINE(name) "INOTIFY_DBG <check_inode> inode has changed (" name ")"
#define STATE_LINE(from, to, name)                                                                 \
    "INOTIFY_DBG <inotify_state_loop> state " from " to " to " (" name ")"
#define ARM_LINE(reason) "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: " reason
#define STOP_LINE "INOTIFY_DBG <inotify_state_loop> can't do state transition"

// WATCH_FILE, from WATCH_FILE.

TEST_F(Turn, PresentFile)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_NO_LINES();
    expect_watches({file_watch(temp / "f")});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, InPlaceWrite)
{
    write_file(temp / "f", "1");
    settle("f");
    write_file(temp / "f", "22");
    EXPECT_TRUE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_NO_LINES();
    EXPECT_FALSE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_EQ(truncate((temp / "f").c_str(), 0), 0);
    EXPECT_EQ(calls_in_pass("f"), 1);
}

TEST_F(Turn, DeletedFile)
{
    write_file(temp / "f", "1");
    settle("f");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(dir())});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, DeleteDuringNotify)
{
    // Too late for the look at the inode: the events alone tell.
    write_file(temp / "f", "1");
    settle("f");
    before_first_read([&] { remove_file(temp / "f"); });
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(dir())});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, MovedAwayFile)
{
    write_file(temp / "f", "1");
    settle("f");
    before_first_read([&] { move(temp / "f", temp / "g"); });
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(dir())});
    write_file(temp / "g", "2"); // no longer the followed file
    EXPECT_EQ(calls_in_pass("f"), 0);
    move(temp / "g", temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, DeleteAndRecreate)
{
    write_file(temp / "f", "1");
    settle("f");
    before_first_read([&] {
        remove_file(temp / "f");
        write_file(temp / "f", "2");
    });
    EXPECT_EQ(calls_in_pass("f"), 1); // removed, then changed: the last one decided
    EXPECT_NO_LINES();
    expect_watches({file_watch(temp / "f")});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, ReplaceByRename)
{
    write_file(temp / "f", "1");
    settle("f");
    write_file(temp / "new", "2");
    move(temp / "new", temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"));
    expect_watches({file_watch(temp / "f")});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, PresentFileThatCannotBeArmedFallsBackAndComesAgain)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    refuse(faults, temp / "f", 3);
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(pauses.size(), 2u);
    EXPECT_LINES(ARM_LINE("No space left on device"));
    expect_watches({file_watch(temp / "f")});
}

TEST_F(Turn, AWriteWithALossIsALoss)
{
    write_file(temp / "f", "1");
    settle("f");
    before_first_read([&] {
        write_file(temp / "f", "2");
        remove_file(temp / "f");
    });
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    EXPECT_EQ(calls_in_pass("f"), 0);
}

// WATCH_DIRECTORY.

TEST_F(Turn, AbsentFile)
{
    follow("f");
    take_lines();
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_NO_LINES();
    expect_watches({directory_watch(dir())});
    write_file(temp / "f", "");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    expect_watches({file_watch(temp / "f")});
}

TEST_F(Turn, AFileThatAppearsIsReportedByTwoPasses)
{
    settle("f");
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_TRUE(is_readable(fd())); // the directory's watch was removed, and the kernel says so
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_FALSE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, MovedInFile)
{
    write_file(temp / "g", "1");
    settle("f");
    move(temp / "g", temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, OtherFilesOfTheDirectoryAreNoMatter)
{
    settle("f");
    write_file(temp / "ff", "1");
    EXPECT_TRUE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_NO_LINES();
}

TEST_F(Turn, AppearedBeforeTheFirstPass)
{
    follow("f");
    take_lines();
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, GoneBeforeTheFirstPass)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
}

TEST_F(Turn, CreatedAndDeletedBetweenPasses)
{
    settle("f");
    write_file(temp / "f", "1");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1); // it cannot be armed any more, so it is reported as removed
    EXPECT_EQ(pauses.size(), 2u);
    EXPECT_LINES(ARM_LINE("No such file or directory"));
    expect_watches({directory_watch(dir())});
    // MODIFIED stays pending, so every pass looks for the file again, until it is there.
    for (int pass = 0; pass < 3; pass++) {
        EXPECT_TRUE(is_readable(fd())); // the directory's watch went and came
        pauses.clear();
        EXPECT_EQ(calls_in_pass("f"), 0); // a removal after a removal
        EXPECT_EQ(pauses.size(), 2u);
        EXPECT_LINES(ARM_LINE("No such file or directory"));
        expect_watches({directory_watch(dir())});
    }
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, ARestartEndsTheSearchForAFileThatCameAndWent)
{
    settle("f");
    write_file(temp / "f", "1");
    remove_file(temp / "f");
    process();
    EXPECT_LINES(ARM_LINE("No such file or directory"));
    EXPECT_GE(lh_inotify_restart(watcher), 0);
    process();
    EXPECT_LINES(INODE_LINE("f"));
    EXPECT_FALSE(is_readable(fd()));
    process();
    EXPECT_NO_LINES();
}

TEST_F(Turn, DisappearingDirectory)
{
    make_directory(temp / "d");
    settle(temp / "d", "f");
    remove_directory(temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_EQ(pauses.size(), 8u);
    EXPECT_LINES(INODE_LINE("f"), ARM_LINE("No such file or directory"),
                 STATE_LINE("WATCH_DIRECTORY", "LOST_DIRECTORY", "f"));
    expect_watches({});
}

TEST_F(Turn, DisappearingDirectoryDuringNotify)
{
    make_directory(temp / "d");
    settle(temp / "d", "f");
    before_first_read([&] { remove_directory(temp / "d"); });
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(ARM_LINE("No such file or directory"),
                 STATE_LINE("WATCH_DIRECTORY", "LOST_DIRECTORY", "f"));
}

TEST_F(Turn, DisappearingDirectoryIsCreatedAgain)
{
    make_directory(temp / "d");
    settle(temp / "d", "f", LH_INOTIFY_CREATE_DIR);
    remove_directory(temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"));
    expect_watches({directory_watch(temp / "d")});
    write_file(temp / "d/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, ReplacedDirectory)
{
    make_directory(temp / "d");
    settle(temp / "d", "f");
    move(temp / "d", temp / "old");
    make_directory(temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"));
    expect_watches({directory_watch(temp / "d")});
    write_file(temp / "old/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_NO_LINES();
    move(temp / "old/f", temp / "d/f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, AWatchOnADirectoryThatSaysModifiedMovesToTheFile)
{
    note_watches();
    settle("f");
    ASSERT_EQ(given_watches.size(), 1u);
    write_file(temp / "f", "1");
    feed({event(given_watches[0], IN_MODIFY)});
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

// LOST_DIRECTORY.

TEST_F(Turn, NonExistentDirectory)
{
    follow_in(temp / "d", "f");
    take_lines();
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(ARM_LINE("No such file or directory"),
                 STATE_LINE("WATCH_DIRECTORY", "LOST_DIRECTORY", "f"));
    pauses.clear();
    EXPECT_EQ(calls_in_pass("f"), 0); // every pass tries again
    EXPECT_EQ(pauses.size(), 8u);
    EXPECT_LINES(ARM_LINE("No such file or directory"));
    make_directory(temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(STATE_LINE("LOST_DIRECTORY", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(temp / "d")});
}

TEST_F(Turn, NonExistentDirectoryThatComesWithTheFile)
{
    settle(temp / "d", "f");
    make_directory(temp / "d");
    write_file(temp / "d/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("LOST_DIRECTORY", "WATCH_FILE", "f"));
    expect_watches({file_watch(temp / "d/f")});
    EXPECT_EQ(calls_in_pass("f"), 0); // found without an event, so nothing stays pending
}

TEST_F(Turn, DirectoryChain)
{
    settle(temp / "a/b/c", "f", LH_INOTIFY_CREATE_DIR);
    expect_watches({directory_watch(temp / "a/b/c")});
    remove_directory(temp / "a/b/c");
    remove_directory(temp / "a/b");
    remove_directory(temp / "a");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"));
    expect_watches({directory_watch(temp / "a/b/c")});
    write_file(temp / "a/b/c/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, MoveParent)
{
    make_directory(temp / "d");
    write_file(temp / "d/f", "1");
    settle(temp / "d", "f");
    move(temp / "d", temp / "away");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"), ARM_LINE("No such file or directory"),
                 STATE_LINE("WATCH_FILE", "LOST_DIRECTORY", "f"));
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(ARM_LINE("No such file or directory"));
    move(temp / "away", temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("LOST_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, MoveParentIntoADirectoryThatIsCreatedAgain)
{
    make_directory(temp / "d");
    write_file(temp / "d/f", "1");
    settle(temp / "d", "f", LH_INOTIFY_CREATE_DIR);
    move(temp / "d", temp / "away");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(temp / "d")});
}

TEST_F(Turn, ALostDirectoryWithAnotherEventStops)
{
    settle(temp / "d", "f");
    feed({event(-1, IN_MODIFY)});
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(STOP_LINE);
    EXPECT_EQ(calls_in_pass("f"), 0); // the event is still pending
    EXPECT_LINES(STOP_LINE);
    set_debug_flags(0);
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_NO_LINES();
    set_debug_flags(inotify_dbg);
    EXPECT_GE(lh_inotify_restart(watcher), 0);
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(ARM_LINE("No such file or directory"));
}

// WATCH_FILE, from WATCH_DIRECTORY.

TEST_F(Turn, AppearedFileThatCannotBeArmedComesBackThroughItsDirectory)
{
    settle("f");
    write_file(temp / "f", "1");
    refuse(faults, temp / "f", 3);
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(ARM_LINE("No space left on device"),
                 STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(pauses.size(), 2u);
}

TEST_F(Turn, AFileThatCanNeverBeArmedEndsTheTurnAfterAHundredSteps)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    refuse(faults, temp / "f", 1000);
    EXPECT_EQ(calls_in_pass("f"), 0); // removed, which the first pass does not report
    std::vector<std::string> expected(50, ARM_LINE("No space left on device"));
    expected.push_back(STOP_LINE);
    EXPECT_EQ(take_lines(), expected);
    EXPECT_EQ(pauses.size(), 100u);
    calm_faults();
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"));
}

TEST_F(Turn, AStepBeforeTheHundredthStillCounts)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    refuse(faults, temp / "f", 49 * 3); // 98 steps; the 99th arms
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(take_lines(), std::vector<std::string>(49, ARM_LINE("No space left on device")));
}

// Reporting ----------------------------------------------------------------------------------------

TEST_F(Turn, ARemovalRightAfterARemovalIsNotReported)
{
    write_file(temp / "f", "1");
    settle("f");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    write_file(temp / "f", "2");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"),
                 ARM_LINE("No such file or directory"));
}

TEST_F(Turn, ARemovalIsReportedAgainAfterAPassWithoutAReport)
{
    write_file(temp / "f", "1");
    settle("f");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(calls_in_pass("f"), 0);
    write_file(temp / "f", "2");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"),
                 ARM_LINE("No such file or directory"));
}

TEST_F(Turn, ARemovalAfterAChangeIsReported)
{
    settle("f");
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    write_file(temp / "f", "2");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"), INODE_LINE("f"),
                 STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"),
                 STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}
