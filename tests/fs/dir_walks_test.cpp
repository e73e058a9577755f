#include "lh_dir.h"

#include <cerrno>
#include <climits>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

namespace {

struct Change {
    std::string path;
    unsigned uid, gid;

    bool operator==(const Change &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Change &c)
{
    return out << c.path << " to " << c.uid << ":" << c.gid;
}

std::vector<Change> changes;

int record_chown(const char *path, uid_t uid, gid_t gid)
{
    changes.push_back({path, uid, gid});
    return 0;
}

size_t size_of(const std::string &path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return static_cast<size_t>(st.st_size);
}

class DirWalks : public LogTest {
  protected:
    DirWalks()
    {
        mkdir(start.c_str(), 0755);
        write_file(file, "0123456789");
    }

    TempDir dir;
    const std::string start = dir / "start";
    const std::string file = start + "/file";
    const std::string below = start + "/sub";
    const std::string deep = below + "/deep";
    const std::string absent = dir / "absent";
};

} // namespace

// Size -------------------------------------------------------------------------------------------

TEST_F(DirWalks, SizeIsThatOfTheEntriesAndTheDirectoryItself)
{
    EXPECT_EQ(lh_dir_size(start.c_str()), 10 + size_of(start));
}

TEST_F(DirWalks, SizeCountsEveryDirectoryOnce)
{
    ASSERT_EQ(mkdir(below.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    write_file(deep + "/x", std::string(777, 'x'));
    EXPECT_EQ(lh_dir_size(start.c_str()), 787 + size_of(start) + size_of(below) + size_of(deep));
}

TEST_F(DirWalks, SizeFollowsLinksAndForgivesDanglingOnes)
{
    write_file(dir / "outside", std::string(5000, 'x'));
    ASSERT_EQ(symlink("../outside", (start + "/link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (start + "/dangling").c_str()), 0);
    EXPECT_EQ(lh_dir_size(start.c_str()), 5010 + size_of(start));
    EXPECT_NO_LINES();
}

TEST_F(DirWalks, SizeOfAnEntryThatCannotBeLookedAtIsNothing)
{
    Faults faults;
    faults.fail("stat", EIO);
    EXPECT_EQ(lh_dir_size(start.c_str()), size_of(start));
    EXPECT_LINES("lh_file_size_get: stat '" + file + "' failed");
}

TEST_F(DirWalks, SizeOfWhatCannotBeWalkedIsAllOnes)
{
    EXPECT_EQ(lh_dir_size(absent.c_str()), SIZE_MAX);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_dir_lookup: directory '" + absent + "' not exist",
                 "lh_dir_size: lh_dir_size error");
    EXPECT_EQ(lh_dir_size(nullptr), SIZE_MAX);
    EXPECT_LINES("lh_dir_size: PTR_IS_NULL: path");
}

TEST_F(DirWalks, SizeCallbackAddsToItsTotal)
{
    uint64_t total = UINT64_C(1) << 40;
    EXPECT_EQ(lh_dir_cb_size(file.c_str(), 0, &total), 0);
    EXPECT_EQ(total, (UINT64_C(1) << 40) + 10);
    EXPECT_EQ(lh_dir_cb_size(absent.c_str(), 8, &total), 0);
    EXPECT_EQ(total, (UINT64_C(1) << 40) + 10);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_dir_cb_size(nullptr, 0, nullptr), -1);
    EXPECT_LINES("lh_dir_cb_size: PTR_IS_NULL: path");
    EXPECT_EQ(lh_dir_cb_size(file.c_str(), 0, nullptr), -1);
    EXPECT_LINES("lh_dir_cb_size: PTR_IS_NULL: cookie");
}

// Owner ------------------------------------------------------------------------------------------

TEST_F(DirWalks, OwnerIsChangedFromTheInsideOut)
{
    ASSERT_EQ(mkdir(below.c_str(), 0755), 0);
    write_file(below + "/x", "");
    changes.clear();
    Faults faults;
    faults.replace("chown", reinterpret_cast<void *>(record_chown));
    EXPECT_EQ(lh_dir_chown_recursive(start.c_str(), 1234, UINT_MAX), 0);
    EXPECT_EQ(changes, (std::vector<Change>{{file, 1234, UINT_MAX},
                                            {below + "/x", 1234, UINT_MAX},
                                            {below, 1234, UINT_MAX},
                                            {start, 1234, UINT_MAX}}));
}

TEST_F(DirWalks, OwnerIsReallyChangedAndLinksAreFollowed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    write_file(dir / "outside", "");
    ASSERT_EQ(symlink("../outside", (start + "/link").c_str()), 0);
    EXPECT_EQ(lh_dir_chown_recursive(start.c_str(), 1234, 5678), 0);
    for (const std::string &path : {start, file, dir / "outside"}) {
        struct stat st;
        ASSERT_EQ(lstat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, 1234u) << path;
        EXPECT_EQ(st.st_gid, 5678u) << path;
    }
    struct stat st;
    ASSERT_EQ(lstat((start + "/link").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, geteuid()) << "the link itself keeps its owner";
}

TEST_F(DirWalks, AnEntryThatCannotBeGivenAwayIsIgnored)
{
    Faults faults;
    faults.fail_always("chown", EPERM);
    EXPECT_EQ(lh_dir_chown_recursive(start.c_str(), 1, 1), 0);
    EXPECT_EQ(faults.calls("chown"), 2u);
    EXPECT_NO_LINES();
}

TEST_F(DirWalks, OwnerOfWhatCannotBeWalkedIsAFailure)
{
    EXPECT_EQ(lh_dir_chown_recursive(absent.c_str(), 1, 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_dir_lookup: directory '" + absent + "' not exist",
                 "lh_dir_chown_recursive: lh_dir_chown_recursive error");
    EXPECT_EQ(lh_dir_chown_recursive(nullptr, 1, 1), -1);
    EXPECT_LINES("lh_dir_chown_recursive: PTR_IS_NULL: path");
    Faults faults;
    faults.fail("scandir", EACCES);
    EXPECT_EQ(lh_dir_chown_recursive(start.c_str(), 1, 1), -1);
    EXPECT_LINES("lh_dir_lookup: cannot read directory '" + start + "': Permission denied",
                 "lh_dir_chown_recursive: lh_dir_chown_recursive error");
}

// Free space -------------------------------------------------------------------------------------

TEST_F(DirWalks, FreeSpaceIsCountedInBlocksNotFragments)
{
    Faults faults;
    faults.replace("statvfs", reinterpret_cast<void *>(+[](const char *, struct statvfs *fs) {
                       *fs = {};
                       fs->f_bsize = 65536;
                       fs->f_frsize = 512;
                       fs->f_blocks = 90000000000;
                       fs->f_bfree = 80000000000;
                       fs->f_bavail = 70000000000;
                       return 0;
                   }));
    EXPECT_EQ(lh_get_free_fs_size(start.c_str()), UINT64_C(65536) * 70000000000);
}

TEST_F(DirWalks, FreeSpaceOfARealFileSystem)
{
    const uint64_t size = lh_get_free_fs_size(start.c_str());
    struct statvfs fs;
    ASSERT_EQ(statvfs(start.c_str(), &fs), 0);
    EXPECT_GT(size, 0u);
    EXPECT_LE(size, fs.f_bsize * fs.f_blocks);
}

TEST_F(DirWalks, FreeSpaceOfAMissingPathIsAllOnesWithoutALine)
{
    errno = 0;
    EXPECT_EQ(lh_get_free_fs_size(absent.c_str()), UINT64_MAX);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_get_free_fs_size(nullptr), UINT64_MAX);
    EXPECT_LINES("lh_get_free_fs_size: PTR_IS_NULL: path");
}
