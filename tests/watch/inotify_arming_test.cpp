// Arming a watch: attempts, refusals, missing directories.
#include "lh_inotify.h"

#include <cerrno>
#include <linux/capability.h>
#include <sys/syscall.h>

#include "watch/watcher.hpp"

using namespace vyt::test;

class Arming : public WatcherTest {};

// Permissions hold for this process from now on, as they do not for root otherwise.
static void obey_permissions()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    ASSERT_EQ(syscall(SYS_capset, &header, none), 0) << strerror(errno);
}

TEST_F(Arming, AFileIsTriedThreeTimesAQuarterSecondApart)
{
    write_file(temp / "f", "1");
    set_debug_flags(inotify_dbg);
    for (unsigned failures = 0; failures <= 2; failures++) {
        follow("f");
        pauses.clear();
        static unsigned left;
        left = failures;
        faults.replace("inotify_add_watch",
                       reinterpret_cast<void *>(+[](int fd, const char *path, uint32_t mask) {
                           if (left == 0)
                               return inotify_add_watch(fd, path, mask);
                           left--;
                           errno = ENOSPC;
                           return -1;
                       }));
        EXPECT_EQ(calls_in_pass("f"), 1);
        EXPECT_EQ(pauses, std::vector<useconds_t>(failures, 250000));
        EXPECT_LINES("INOTIFY_DBG <create_file:#> state INIT to WATCH_FILE (f)");
        exclude("f");
    }
}

TEST_F(Arming, ADirectoryIsTriedNineTimesAQuarterSecondApart)
{
    set_debug_flags(inotify_dbg);
    for (unsigned failures = 0; failures <= 8; failures++) {
        follow("f");
        pauses.clear();
        static unsigned left;
        left = failures;
        faults.replace("inotify_add_watch",
                       reinterpret_cast<void *>(+[](int fd, const char *path, uint32_t mask) {
                           if (left == 0)
                               return inotify_add_watch(fd, path, mask);
                           left--;
                           errno = ENOSPC;
                           return -1;
                       }));
        process();
        EXPECT_EQ(pauses, std::vector<useconds_t>(failures, 250000));
        EXPECT_LINES("INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (f)");
        expect_watches({directory_watch(dir())});
        exclude("f");
    }
}

TEST_F(Arming, AfterTheLastAttemptAFileFallsBackToItsDirectory)
{
    write_file(temp / "f", "1");
    follow("f");
    set_debug_flags(inotify_dbg);
    static unsigned number;
    number = 0;
    faults.replace("inotify_add_watch",
                   reinterpret_cast<void *>(+[](int fd, const char *path, uint32_t mask) {
                       if (++number == 3)
                           unlink(path); // and gone it is
                       if (number > 3)
                           return inotify_add_watch(fd, path, mask);
                       errno = ENOSPC;
                       return -1;
                   }));
    EXPECT_EQ(calls_in_pass("f"), 0); // a removal in the first pass is not reported
    EXPECT_EQ(pauses.size(), 2u);
    EXPECT_LINES(
        "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: No space left on device",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_FILE to WATCH_DIRECTORY (f)");
    expect_watches({directory_watch(dir())});
}

TEST_F(Arming, AfterTheLastAttemptADirectoryIsLost)
{
    follow("f");
    set_debug_flags(inotify_dbg);
    faults.fail_always("inotify_add_watch", ENOSPC);
    errno = 0;
    process();
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(pauses.size(), 8u);
    EXPECT_EQ(faults.calls("inotify_add_watch"), 9u);
    EXPECT_LINES(
        "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: No space left on device",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
    calm_faults();
    process();
    EXPECT_LINES("INOTIFY_DBG <inotify_state_loop> state LOST_DIRECTORY to WATCH_DIRECTORY (f)");
    expect_watches({directory_watch(dir())});
}

TEST_F(Arming, WhatDoesNotExistIsNotHandedToTheKernel)
{
    follow_in(temp / "missing", "f");
    errno = 0;
    process();
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(pauses, std::vector<useconds_t>(8, 250000));
    EXPECT_EQ(faults.calls("inotify_add_watch"), 0u);
}

TEST_F(Arming, ARefusedWatchTellsTheMode)
{
    ASSERT_EQ(chmod(dir().c_str(), 0750), 0);
    for (const unsigned flags : {0u, inotify_dbg}) {
        follow("f");
        set_debug_flags(flags);
        take_flag_questions();
        faults.fail_always("inotify_add_watch", EACCES);
        errno = 0;
        process();
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(take_flag_questions(), 3u);
        if (flags == 0)
            EXPECT_NO_LINES();
        else
            EXPECT_LINES(
                "INOTIFY_DBG <create_watch_fd> got EACCES, '" + dir() + "' mode is 40750",
                "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Permission denied",
                "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
        exclude("f");
        calm_faults();
    }
}

TEST_F(Arming, ARefusedWatchWithoutAModeSaysSo)
{
    follow("f");
    set_debug_flags(inotify_dbg);
    static int refusals;
    refusals = 0;
    faults.replace("inotify_add_watch", reinterpret_cast<void *>(+[](int, const char *, uint32_t) {
                       refusals++;
                       errno = EACCES;
                       return -1;
                   }));
    faults.replace("stat", reinterpret_cast<void *>(+[](const char *path, struct stat *st) {
                       if (refusals < 9)
                           return stat(path, st);
                       errno = ELOOP;
                       return -1;
                   }));
    errno = 0;
    process();
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES("INOTIFY_DBG <create_watch_fd> lh_file_get_mode failed "
                 "Too many levels of symbolic links",
                 "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Permission denied",
                 "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
}

TEST_F(Arming, WhatCannotBeReachedIsRefusedWithoutAskingTheKernel)
{
    OWN_PROCESS();
    make_directory(temp / "locked");
    make_directory(temp / "locked/d");
    ASSERT_EQ(chmod((temp / "locked").c_str(), 0), 0);
    set_debug_flags(inotify_dbg);
    obey_permissions();
    follow_in(temp / "locked/d", "f");
    EXPECT_LINES("INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (f)");
    errno = 0;
    process();
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(pauses, std::vector<useconds_t>(8, 250000));
    EXPECT_EQ(faults.calls("inotify_add_watch"), 0u);
    EXPECT_LINES("INOTIFY_DBG <create_watch_fd> lh_file_get_mode failed Permission denied",
                 "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Permission denied",
                 "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
    ASSERT_EQ(chmod((temp / "locked").c_str(), 0700), 0);
    process();
    EXPECT_LINES("INOTIFY_DBG <inotify_state_loop> state LOST_DIRECTORY to WATCH_DIRECTORY (f)");
    expect_watches({directory_watch(temp / "locked/d")});
}

TEST_F(Arming, AFileThatMayNotBeWatchedIsTriedFiftyTimesInATurn)
{
    OWN_PROCESS();
    write_file(temp / "f", "1");
    ASSERT_EQ(chmod((temp / "f").c_str(), 0210), 0); // there, but not to be read
    set_debug_flags(inotify_dbg);
    obey_permissions();
    follow("f");
    EXPECT_LINES("INOTIFY_DBG <create_file:#> state INIT to WATCH_FILE (f)");
    EXPECT_EQ(calls_in_pass("f"), 0); // a removal in the first pass is not reported
    std::vector<std::string> expected;
    for (int tries = 0; tries < 50; tries++) {
        expected.push_back("INOTIFY_DBG <create_watch_fd> got EACCES, '" + dir() +
                           "/f' mode is 100210");
        expected.push_back(
            "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Permission denied");
    }
    expected.push_back("INOTIFY_DBG <inotify_state_loop> can't do state transition");
    EXPECT_EQ(take_lines(), expected);
    EXPECT_EQ(faults.calls("inotify_add_watch"), 50u * 3 + 50); // its directory between them
    EXPECT_EQ(pauses, std::vector<useconds_t>(50 * 2, 250000));
}

TEST_F(Arming, AModeOfZeroCountsAsNone)
{
    follow("f");
    set_debug_flags(inotify_dbg);
    faults.fail_always("inotify_add_watch", EACCES);
    faults.replace("stat", reinterpret_cast<void *>(+[](const char *path, struct stat *st) {
                       const int result = stat(path, st);
                       st->st_mode = 0;
                       return result;
                   }));
    process();
    EXPECT_LINES("INOTIFY_DBG <create_watch_fd> lh_file_get_mode failed Success",
                 "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Permission denied",
                 "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
}

TEST_F(Arming, WithoutTheFlagARefusalWithoutAModeIsSilent)
{
    follow("f");
    faults.fail_always("inotify_add_watch", EACCES);
    faults.replace("stat", reinterpret_cast<void *>(+[](const char *path, struct stat *st) {
                       const int result = stat(path, st);
                       st->st_mode = 0;
                       return result;
                   }));
    errno = 0;
    process();
    EXPECT_EQ(errno, EACCES);
    EXPECT_NO_LINES();
}

TEST_F(Arming, AnotherRefusalTellsNoMode)
{
    follow("f");
    set_debug_flags(inotify_dbg);
    faults.fail_always("inotify_add_watch", EPERM);
    process();
    EXPECT_LINES(
        "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Operation not permitted",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
}

TEST_F(Arming, OnlyTheLastAttemptsErrnoCounts)
{
    follow("f");
    set_debug_flags(inotify_dbg);
    static int attempts;
    attempts = 0;
    faults.replace("inotify_add_watch", reinterpret_cast<void *>(+[](int, const char *, uint32_t) {
                       errno = ++attempts < 9 ? EACCES : ENOMEM;
                       return -1;
                   }));
    process();
    EXPECT_LINES(
        "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Cannot allocate memory",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
}

TEST_F(Arming, AWatchNumberThatIsNoneIsNeverDropped)
{
    // The kernel gives no such number; whoever stands in for it may.
    follow("f");
    static int given;
    given = 0;
    faults.replace("inotify_add_watch", reinterpret_cast<void *>(+[](int, const char *, uint32_t) {
                       given++;
                       return -2;
                   }));
    process();
    EXPECT_EQ(given, 1);
    set_debug_flags(inotify_dbg);
    feed({event(-2, IN_IGNORED, "other") + event(-2, IN_IGNORED, "f")});
    errno = 0;
    process();
    EXPECT_EQ(given, 1);
    EXPECT_EQ(faults.calls("inotify_rm_watch"), 0u);
    const auto lines = take_lines(); // the second one tells an errno that nothing has set
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "create_watch_fd: IS_NE check failed: file->watch_fd (-2 != -1) !!!");
    EXPECT_EQ(lines[2],
              "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
    exclude("f");
    process();
}

// Creating the directory ---------------------------------------------------------------------------

TEST_F(Arming, AMissingDirectoryIsCreatedForWhoAsks)
{
    const mode_t umask_before = umask(027);
    follow_in(temp / "a/b/c", "f", LH_INOTIFY_CREATE_DIR);
    EXPECT_EQ(inode_of(temp / "a"), 0u);
    process();
    EXPECT_EQ(umask(umask_before), 027u);
    for (const char *made : {"a", "a/b", "a/b/c"}) {
        struct stat st;
        ASSERT_EQ(stat((temp / made).c_str(), &st), 0) << made;
        EXPECT_EQ(st.st_mode, S_IFDIR | 0777u) << made;
    }
    expect_watches({directory_watch(temp / "a/b/c")});
    EXPECT_TRUE(pauses.empty());
    write_file(temp / "a/b/c/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
}

TEST_F(Arming, OtherFlagsAreIgnored)
{
    follow_in(temp / "a", "f", ~LH_INOTIFY_CREATE_DIR);
    process();
    EXPECT_EQ(inode_of(temp / "a"), 0u);
    follow_in(temp / "b", "f", ~0u);
    process();
    EXPECT_NE(inode_of(temp / "b"), 0u);
}

TEST_F(Arming, AnExistingDirectoryIsLeftAsItIs)
{
    follow("f", LH_INOTIFY_CREATE_DIR);
    faults.fail_always("strdup", ENOMEM); // which creating would need
    process();
    EXPECT_EQ(faults.calls("mkdir"), 0u);
    struct stat st;
    ASSERT_EQ(stat(dir().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777u, 0700u);
}

TEST_F(Arming, ADirectoryThatCannotBeCreatedGivesEperm)
{
    write_file(temp / "plain", "1");
    const std::string parent_dir = temp / "plain/d";
    const mode_t umask_before = umask(031);
    for (const unsigned flags : {0u, inotify_dbg}) {
        follow_in(parent_dir, "f", LH_INOTIFY_CREATE_DIR);
        set_debug_flags(flags);
        take_flag_questions();
        errno = 0;
        process();
        EXPECT_EQ(errno, EPERM);
        EXPECT_TRUE(pauses.empty());
        EXPECT_EQ(take_flag_questions(), 3u);
        const std::string error =
            "lh_dir_create: cannot create '" + parent_dir + "': Not a directory";
        if (flags == 0)
            EXPECT_LINES(error);
        else
            EXPECT_LINES(
                error, "INOTIFY_DBG <create_watch_fd> lh_dir_create failed",
                "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Operation not "
                "permitted",
                "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
        EXPECT_EQ(lh_inotify_exclude_file(watcher, parent_dir.c_str(), "f"), 0);
    }
    EXPECT_EQ(umask(umask_before), 031u);
}

TEST_F(Arming, ADirectoryBelowOneThatMayNotBeSearchedGivesEperm)
{
    OWN_PROCESS();
    make_directory(temp / "locked");
    ASSERT_EQ(chmod((temp / "locked").c_str(), 0), 0);
    set_debug_flags(inotify_dbg);
    obey_permissions();
    follow_in(temp / "locked/d", "f", LH_INOTIFY_CREATE_DIR);
    EXPECT_LINES("INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (f)");
    errno = 0;
    process();
    EXPECT_EQ(errno, EPERM);
    EXPECT_TRUE(pauses.empty());
    EXPECT_EQ(faults.calls("inotify_add_watch"), 0u);
    EXPECT_LINES(
        "lh_dir_create: cannot create '" + (temp / "locked/d") + "': Permission denied",
        "INOTIFY_DBG <create_watch_fd> lh_dir_create failed",
        "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: Operation not permitted",
        "INOTIFY_DBG <inotify_state_loop> state WATCH_DIRECTORY to LOST_DIRECTORY (f)");
    EXPECT_EQ(chmod((temp / "locked").c_str(), 0700), 0);
    EXPECT_EQ(inode_of(temp / "locked/d"), 0u);
}

TEST_F(Arming, WithoutMemoryTheDirectoryIsNotCreated)
{
    follow_in(temp / "d", "f", LH_INOTIFY_CREATE_DIR);
    faults.fail("strdup", ENOMEM);
    errno = 0;
    process();
    EXPECT_EQ(errno, EPERM);
    EXPECT_LINES("lh_dir_create: PTR_IS_NULL: buf");
    process();
    expect_watches({directory_watch(temp / "d")});
}

TEST_F(Arming, AFailingMkdirIsTriedAgainByTheNextPass)
{
    follow_in(temp / "d", "f", LH_INOTIFY_CREATE_DIR);
    faults.fail("mkdir", EROFS);
    process();
    EXPECT_LINES("lh_dir_create: cannot create '" + (temp / "d") + "': Read-only file system");
    process();
    expect_watches({directory_watch(temp / "d")});
}
