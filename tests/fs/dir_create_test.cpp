#include "lh_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <random>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

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

// The plain way ----------------------------------------------------------------------------------

namespace {

struct Outcome {
    int result;
    int error; // of a failure
    std::vector<std::string> lines;
    std::vector<std::string> tree;

    bool operator==(const Outcome &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Outcome &outcome)
{
    return out << outcome.result << " errno " << outcome.error
               << ::testing::PrintToString(outcome.lines) << ::testing::PrintToString(outcome.tree);
}

int plainly_make_one(const std::string &path, mode_t mode)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return mkdir(path.c_str(), mode) == 0 || errno == EEXIST ? 0 : -1;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

// What ends before a slash that is not the first of all and not behind another, then the whole.
int plainly_make_all(const std::string &path, mode_t mode)
{
    for (size_t i = 1; i < path.size(); i++) {
        if (path[i] == '/' && path[i - 1] != '/' && plainly_make_one(path.substr(0, i), mode) != 0)
            return -1;
    }
    return plainly_make_one(path, mode);
}

int plainly_create(const std::string &path, bool descend, mode_t mode)
{
    if (!descend && mkdir(path.c_str(), mode) == 0 && errno != EEXIST)
        return -1;
    return plainly_make_all(path, mode);
}

// A small tree so deep below its top that a path of the test cannot leave it. It is planted twice for
// each path, so it grows in memory.
class DirCreatePlainly : public DirCreate {
  protected:
    void plant() const
    {
        std::filesystem::remove_all(top);
        std::filesystem::create_directories(root + "/d/e");
        write_file(root + "/f", "");
        for (const auto &[name, target] :
             {std::pair("to-d", "d"), std::pair("to-f", "f"), std::pair("to-none", "none"),
              std::pair("d/up", ".."), std::pair("loop", "loop")})
            std::filesystem::create_symlink(target, root + "/" + name);
    }

    std::vector<std::string> tree() const
    {
        std::vector<std::string> entries;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(top)) {
            const auto status = entry.symlink_status();
            entries.push_back(entry.path().string() + " " +
                              std::to_string(static_cast<int>(status.type())) + " " +
                              std::to_string(static_cast<unsigned>(status.permissions())));
        }
        std::sort(entries.begin(), entries.end());
        return entries;
    }

    std::string random_path()
    {
        const char *const names[] = {"d",  "e",    "f", "to-d", "to-f", "to-none",
                                     "up", "loop", "x", "y",    ".",    ".."};
        const auto slashes = [&] {
            return std::string(random() % 3 == 0 ? 1 + random() % 3 : 1, '/');
        };
        std::string path = root;
        for (unsigned components = 1 + random() % most_components; components != 0; components--)
            path += slashes() + names[random() % std::size(names)];
        return random() % 4 == 0 ? path + slashes() : path;
    }

    template <class Create>
    Outcome outcome_of(int stale_error, Create create) const
    {
        plant();
        errno = stale_error;
        Outcome outcome = {};
        outcome.result = create();
        outcome.error = outcome.result != 0 ? errno : 0;
        outcome.lines = take_lines();
        outcome.tree = tree();
        return outcome;
    }

    static constexpr unsigned seed = 20250310;
    static constexpr unsigned most_components = 5;
    std::mt19937 random{seed};
    World world;
    const std::string top = "/run/top";
    const std::string root = top + "/1/2/3/4/5";
};

} // namespace

TEST_F(DirCreatePlainly, AnyPathIsCreatedAsStepByStep)
{
    std::set<int> errors;
    for (int round = 0; round < 400; round++) {
        const std::string path = random_path();
        const bool descend = random() % 2 == 0;
        const mode_t mode = random() % 2 == 0 ? 0755 : 0700;
        const int stale_error = random() % 2 == 0 ? EEXIST : EIO;
        Outcome expected =
            outcome_of(stale_error, [&] { return plainly_create(path, descend, mode); });
        if (expected.result != 0)
            expected.lines = {cannot_create(path, strerror(expected.error))};
        const lh_dir_lookup_opts &opts = descend ? with_parents : no_flags;
        ASSERT_EQ(outcome_of(stale_error, [&] { return lh_dir_create(path.c_str(), &opts, mode); }),
                  expected)
            << "seed " << seed << " round " << round << " " << path << " descend " << descend;
        errors.insert(expected.error);
    }
    EXPECT_THAT(errors, ::testing::IsSupersetOf({0, EIO, ENOENT, ENOTDIR, ELOOP}));
}
