#include "lh_dir.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

namespace {

// -1 for what is no directory.
int permissions(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? st.st_mode & 07777 : -1;
}

class DirCreate : public LogTest {
  protected:
    DirCreate() : umask_before(umask(022)) {}
    ~DirCreate() override { umask(umask_before); }

    int create(const std::string &path, mode_t mode = 0755)
    {
        return lh_dir_create(path.c_str(), &with_parents, mode);
    }

    static std::string cannot_create(const std::string &path, const std::string &why)
    {
        return "lh_dir_create: cannot create '" + path + "': " + why;
    }

    const mode_t umask_before;
    const lh_dir_lookup_opts with_parents = {
        .flags = LH_DIR_DESCEND, .depth = 0, .callback = nullptr};
    const lh_dir_lookup_opts no_flags = {};
    TempDir dir;
    const std::string a = dir / "a";
    const std::string b = a + "/b";
    const std::string c = b + "/c";
};

} // namespace

TEST_F(DirCreate, MakesTheMissingParents)
{
    EXPECT_EQ(create(c), 0);
    for (const std::string &path : {a, b, c})
        EXPECT_EQ(permissions(path), 0755) << path;
    EXPECT_EQ(create(c), 0) << "what is there is fine";
    EXPECT_EQ(create(c, 0700), 0);
    EXPECT_EQ(permissions(c), 0755);
}

TEST_F(DirCreate, ModeIsSubjectToTheUmask)
{
    umask(027);
    EXPECT_EQ(create(b, 0777), 0);
    EXPECT_EQ(permissions(a), 0750);
    EXPECT_EQ(permissions(b), 0750);
}

TEST_F(DirCreate, SlashesMayBeDoubledAndTrail)
{
    EXPECT_EQ(create("/" + dir.path() + "//a///b/c/"), 0);
    EXPECT_EQ(permissions(c), 0755);
    EXPECT_EQ(create("/"), 0);
}

TEST_F(DirCreate, ARelativePathStartsAtTheWorkingDirectory)
{
    EXPECT_EQ(run_in_child([&] {
                  return chdir(dir.path().c_str()) == 0 && create("a/b") == 0 && create("c") == 0
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(permissions(b), 0755);
    EXPECT_EQ(permissions(dir / "c"), 0755);
}

TEST_F(DirCreate, AFileInTheWayIsNoDirectory)
{
    ASSERT_EQ(create(a), 0);
    write_file(b, "");
    for (const std::string &path : {b, c, b + "/"}) {
        errno = 0;
        EXPECT_EQ(create(path), -1);
        EXPECT_EQ(errno, ENOTDIR);
        EXPECT_LINES(cannot_create(path, "Not a directory"));
    }
}

TEST_F(DirCreate, AnEmptyPathCannotBeCreated)
{
    EXPECT_EQ(create(""), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES(cannot_create("", "No such file or directory"));
}

TEST_F(DirCreate, StopsAtTheFirstFailureAndKeepsTheParents)
{
    Faults faults;
    faults.fail("mkdir", EROFS, 2);
    EXPECT_EQ(create(c), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_LINES(cannot_create(c, "Read-only file system"));
    EXPECT_EQ(faults.calls("mkdir"), 2u);
    EXPECT_EQ(permissions(a), 0755);
    faults.fail("mkdir", ENOSPC, 2);
    EXPECT_EQ(create(c), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_LINES(cannot_create(c, "No space left on device"));
    EXPECT_EQ(permissions(b), 0755);
    EXPECT_EQ(create(c), 0);
}

TEST_F(DirCreate, ADirectoryThatSomebodyElseMakesMeanwhileIsFine)
{
    Faults faults;
    faults.before("mkdir", [&](unsigned nth) { mkdir(nth == 1 ? a.c_str() : b.c_str(), 0711); });
    EXPECT_EQ(create(b), 0);
    EXPECT_EQ(faults.calls("mkdir"), 2u);
    EXPECT_EQ(permissions(b), 0711);
}

TEST_F(DirCreate, NeedsAPathAndMemory)
{
    EXPECT_EQ(lh_dir_create(nullptr, nullptr, 0755), -1);
    EXPECT_LINES("lh_dir_create: PTR_IS_NULL: path");
    Faults faults;
    faults.fail_allocation(1);
    EXPECT_EQ(create(a), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES("lh_dir_create: PTR_IS_NULL: buf");
    EXPECT_EQ(permissions(a), -1);
}

// Without the flag -------------------------------------------------------------------------------

TEST_F(DirCreate, WithoutTheFlagAFreshDirectoryIsReportedAsFailed)
{
    struct {
        int error;
        const char *text;
    } const cases[] = {
        {0, "Success"}, {ENOENT, "No such file or directory"}, {EIO, "Input/output error"}};
    for (const auto &stale : cases) {
        errno = stale.error;
        EXPECT_EQ(lh_dir_create(a.c_str(), &no_flags, 0755), -1);
        EXPECT_EQ(errno, stale.error);
        EXPECT_LINES(cannot_create(a, stale.text));
        EXPECT_EQ(permissions(a), 0755) << "it stays created";
        ASSERT_EQ(rmdir(a.c_str()), 0);
    }
}

TEST_F(DirCreate, WithoutTheFlagAnOlderErrorCanMakeItASuccess)
{
    errno = EEXIST;
    EXPECT_EQ(lh_dir_create(a.c_str(), &no_flags, 0755), 0);
    EXPECT_EQ(permissions(a), 0755);
}

TEST_F(DirCreate, WithoutTheFlagAFailedAttemptGoesOnAsWithIt)
{
    errno = 0;
    EXPECT_EQ(lh_dir_create(c.c_str(), &no_flags, 0755), 0);
    EXPECT_EQ(permissions(c), 0755);
    EXPECT_EQ(lh_dir_create(c.c_str(), &no_flags, 0755), 0) << "it is there";
    write_file(c + "/file", "");
    EXPECT_EQ(lh_dir_create((c + "/file").c_str(), &no_flags, 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_LINES(cannot_create(c + "/file", "Not a directory"));
}

TEST_F(DirCreate, OtherFlagsAreNotLookedAt)
{
    lh_dir_lookup_opts opts = {.flags = 0xff, .depth = 9, .callback = nullptr};
    errno = 0;
    EXPECT_EQ(lh_dir_create(a.c_str(), &opts, 0755), 0);
    opts.flags = 0xfe;
    errno = 0;
    EXPECT_EQ(lh_dir_create(b.c_str(), &opts, 0755), -1);
    EXPECT_LINES(cannot_create(b, "Success"));
}
