#include "lh_dir.h"

#include <cerrno>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

namespace {

class DirRm : public LogTest {
  protected:
    DirRm() { fill(); }

    void fill()
    {
        for (const std::string &path : {start, below, outside})
            mkdir(path.c_str(), 0755);
        for (const std::string &path : {start + "/a", below + "/b", outside + "/o"})
            write_file(path, "");
    }

    static bool is_there(const std::string &path)
    {
        struct stat st;
        return lstat(path.c_str(), &st) == 0;
    }

    TempDir dir;
    const std::string start = dir / "start";
    const std::string below = start + "/below";
    const std::string outside = dir / "outside";
    const std::string absent = dir / "absent";
    const std::vector<int> before = open_descriptors();
};

struct Removal {
    int (*remove)(const char *path);
    std::string name, step;
};

const Removal removals[] = {{lh_dir_rm, "lh_dir_rm", "remove_dir"},
                            {lh_dir_clear, "lh_dir_clear", "remove_file"}};

} // namespace

TEST_F(DirRm, RemovesTheTree)
{
    EXPECT_EQ(lh_dir_rm(start.c_str()), 0);
    EXPECT_FALSE(is_there(start));
    EXPECT_TRUE(is_there(outside + "/o"));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DirRm, ClearingKeepsTheDirectoryItself)
{
    EXPECT_EQ(lh_dir_clear(start.c_str()), 0);
    EXPECT_TRUE(is_there(start));
    EXPECT_FALSE(is_there(start + "/a"));
    EXPECT_FALSE(is_there(below));
    EXPECT_EQ(lh_dir_clear(start.c_str()), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DirRm, ASingleFileIsItsOwnTree)
{
    EXPECT_EQ(lh_dir_clear((start + "/a").c_str()), 0);
    EXPECT_TRUE(is_there(start + "/a"));
    EXPECT_EQ(lh_dir_rm((start + "/a").c_str()), 0);
    EXPECT_FALSE(is_there(start + "/a"));
}

TEST_F(DirRm, ATreeDeeperThanItsDescriptorsIsRemoved)
{
    std::string deep = below;
    for (int level = 0; level < 40; level++) {
        deep += "/d";
        ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
        write_file(deep + "/f", "");
    }
    EXPECT_EQ(lh_dir_clear(start.c_str()), 0);
    EXPECT_FALSE(is_there(below));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DirRm, LinksAreFollowed)
{
    for (const Removal &removal : removals) {
        fill();
        ASSERT_EQ(symlink(outside.c_str(), (start + "/link").c_str()), 0);
        ASSERT_EQ(symlink("nowhere", (start + "/dangling").c_str()), 0);
        EXPECT_EQ(removal.remove(start.c_str()), 0) << removal.name;
        EXPECT_FALSE(is_there(start + "/link"));
        EXPECT_FALSE(is_there(start + "/dangling"));
        EXPECT_FALSE(is_there(outside + "/o")) << "what the link led to is gone";
        EXPECT_TRUE(is_there(outside)) << "but not the directory";
    }
}

TEST_F(DirRm, AMissingPathIsAFailureWithoutALine)
{
    for (const Removal &removal : removals) {
        errno = 0;
        EXPECT_EQ(removal.remove(absent.c_str()), -1) << removal.name;
        EXPECT_EQ(errno, ENOENT);
        EXPECT_NO_LINES();
        EXPECT_EQ(removal.remove(nullptr), -1);
        EXPECT_LINES(removal.name + ": PTR_IS_NULL: path");
    }
}

TEST_F(DirRm, AFailingRemovalEndsTheWalk)
{
    for (const Removal &removal : removals) {
        fill();
        ASSERT_EQ(unlink((start + "/a").c_str()), 0);
        Faults faults;
        faults.fail("remove", EBUSY, 2);
        EXPECT_EQ(removal.remove(start.c_str()), -1) << removal.name;
        EXPECT_EQ(errno, EBUSY);
        EXPECT_LINES(removal.step + ": cannot remove '" + below + "': Device or resource busy");
        EXPECT_EQ(faults.calls("remove"), 2u);
        EXPECT_FALSE(is_there(below + "/b"));
        EXPECT_TRUE(is_there(below));
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_EQ(removal.remove(start.c_str()), 0);
    }
}

TEST_F(DirRm, AFailingWalkIsPassedOn)
{
    for (const Removal &removal : removals) {
        Faults faults;
        faults.fail("nftw", EMFILE);
        EXPECT_EQ(removal.remove(start.c_str()), -1) << removal.name;
        EXPECT_EQ(errno, EMFILE);
        EXPECT_NO_LINES();
        EXPECT_TRUE(is_there(start + "/a"));
    }
}

TEST_F(DirRm, TheWalkGoesChildrenFirstWithSixteenDescriptors)
{
    static int descriptors;
    static int flags;
    for (const Removal &removal : removals) {
        descriptors = flags = -1;
        Faults faults;
        faults.replace(
            "nftw", reinterpret_cast<void *>(+[](const char *, __nftw_func_t, int most, int how) {
                descriptors = most;
                flags = how;
                return 5;
            }));
        EXPECT_EQ(removal.remove(start.c_str()), 5) << removal.name;
        EXPECT_EQ(descriptors, 16);
        EXPECT_EQ(flags, FTW_DEPTH);
    }
}

TEST_F(DirRm, AStepWithoutItsRecordsEndsTheWalk)
{
    static int missing;
    const std::string names[] = {"fpath", "sb", "ftwbuf"};
    for (const Removal &removal : removals) {
        for (missing = 0; missing < 3; missing++) {
            Faults faults;
            faults.replace(
                "nftw",
                reinterpret_cast<void *>(+[](const char *path, __nftw_func_t step, int, int) {
                    struct stat st = {};
                    struct FTW walk = {.base = 0, .level = 1};
                    return step(missing == 0 ? nullptr : path, missing == 1 ? nullptr : &st, FTW_F,
                                missing == 2 ? nullptr : &walk);
                }));
            EXPECT_EQ(removal.remove((start + "/a").c_str()), -1);
            EXPECT_LINES(removal.step + ": PTR_IS_NULL: " + names[missing]);
            EXPECT_TRUE(is_there(start + "/a"));
        }
    }
}
