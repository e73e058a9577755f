#include "fs/file_fixture.hpp"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>

#include "support/faults.hpp"

using namespace vyt::test;

namespace {

using size_type = decltype(stat::st_size);
size_type pretended_size;
ino_t pretended_inode;

int stat_with_pretence(const char *path, struct stat *st)
{
    const int rc = stat(path, st);
    st->st_size = pretended_size;
    st->st_ino = pretended_inode;
    return rc;
}

} // namespace

// Questions about a path -------------------------------------------------------------------------

TEST_F(File, TypesAreThoseOfWhatALinkLeadsTo)
{
    struct {
        std::string path;
        int is_dir, is_reg;
    } const cases[] = {
        {plain, 0, 1}, {empty, 0, 1}, {folder, 1, 0}, {link, 0, 1}, {"/dev/null", 0, 0}};
    for (const auto &c : cases) {
        EXPECT_EQ(lh_file_is_dir(c.path.c_str()), c.is_dir) << c.path;
        EXPECT_EQ(lh_file_is_reg(c.path.c_str()), c.is_reg) << c.path;
        EXPECT_EQ(lh_file_is_lnk(c.path.c_str()), 0) << c.path;
    }
}

TEST_F(File, TypesOfAMissingFileAreLoggedByTheModeQuery)
{
    for (const auto question : {lh_file_is_dir, lh_file_is_lnk, lh_file_is_reg}) {
        for (const std::string &path : {absent, dangling}) {
            errno = 0;
            EXPECT_EQ(question(path.c_str()), 0);
            EXPECT_EQ(errno, ENOENT);
            EXPECT_LINES(stat_failed("lh_file_mode", path));
        }
        EXPECT_EQ(question(nullptr), 0);
        EXPECT_LINES("lh_file_mode: PTR_IS_NULL: path");
    }
}

TEST_F(File, ExistenceFollowsLinksAndIsNotLogged)
{
    for (const std::string &path : {plain, empty, folder, link})
        EXPECT_EQ(lh_file_is_exist(path.c_str()), 1) << path;
    for (const std::string &path : {absent, dangling}) {
        errno = 0;
        EXPECT_EQ(lh_file_is_exist(path.c_str()), 0) << path;
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_file_is_exist(nullptr), 0);
    EXPECT_LINES("lh_file_is_exist: PTR_IS_NULL: path");
}

TEST_F(File, EmptyIsAFileThatIsThereWithoutData)
{
    EXPECT_EQ(lh_file_is_empty(empty.c_str()), 1);
    EXPECT_EQ(lh_file_is_empty(plain.c_str()), 0);
    EXPECT_NO_LINES();
    errno = 0;
    EXPECT_EQ(lh_file_is_empty(absent.c_str()), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES(stat_failed("lh_file_is_empty", absent));
    EXPECT_EQ(lh_file_is_empty(nullptr), 0);
    EXPECT_LINES("lh_file_is_empty: PTR_IS_NULL: path");
}

TEST_F(File, SizeIsZeroForEmptyAbsentAndUnknown)
{
    EXPECT_EQ(lh_file_size_get(plain.c_str()), 4u);
    EXPECT_EQ(lh_file_size_get(link.c_str()), 4u);
    EXPECT_EQ(lh_file_size_get(empty.c_str()), 0u);
    EXPECT_EQ(lh_file_size_get(absent.c_str()), 0u);
    EXPECT_EQ(lh_file_size_get(dangling.c_str()), 0u);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_file_size_get(nullptr), 0u);
    EXPECT_LINES("lh_file_is_exist: PTR_IS_NULL: path");

    Faults faults;
    faults.fail("stat", EOVERFLOW);
    EXPECT_EQ(lh_file_size_get(plain.c_str()), 0u);
    EXPECT_EQ(errno, EOVERFLOW);
    EXPECT_LINES(stat_failed("lh_file_size_get", plain));
}

TEST_F(File, SizeIsNotCutTo32Bits)
{
    ASSERT_EQ(truncate(plain.c_str(), 5000000000), 0);
    EXPECT_EQ(lh_file_size_get(plain.c_str()), 5000000000u);
}

TEST_F(File, InodeAndModeAreSilent)
{
    struct stat st;
    ASSERT_EQ(stat(plain.c_str(), &st), 0);
    EXPECT_EQ(lh_file_get_inode(plain.c_str()), static_cast<unsigned>(st.st_ino));
    EXPECT_EQ(lh_file_get_inode(link.c_str()), static_cast<unsigned>(st.st_ino));
    ASSERT_EQ(chmod(plain.c_str(), 0640), 0);
    EXPECT_EQ(lh_file_get_mode(plain.c_str()), static_cast<unsigned>(S_IFREG | 0640));
    EXPECT_EQ(lh_file_get_mode(folder.c_str()), static_cast<unsigned>(S_IFDIR | 0755));
    for (const auto question : {lh_file_get_inode, lh_file_get_mode}) {
        errno = 0;
        EXPECT_EQ(question(absent.c_str()), 0u);
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_NO_LINES();
}

TEST_F(File, InodeAndModeOfNoPathAreZeroAndSilent)
{
    for (const auto question : {lh_file_get_inode, lh_file_get_mode}) {
        errno = 0;
        EXPECT_EQ(question(nullptr), 0u);
        EXPECT_EQ(errno, EFAULT);
    }
    EXPECT_NO_LINES();
}

TEST_F(File, InodeIsItsLow32Bits)
{
    Faults faults;
    pretended_inode = 0x123456789abcdef0;
    pretended_size = 0;
    faults.replace("stat", reinterpret_cast<void *>(stat_with_pretence));
    EXPECT_EQ(lh_file_get_inode(plain.c_str()), 0x9abcdef0u);
}

// Removal ----------------------------------------------------------------------------------------

TEST_F(File, RemovingRemovesTheLinkNotItsTarget)
{
    EXPECT_EQ(lh_file_rm(link.c_str()), 0);
    EXPECT_NE(access(link.c_str(), F_OK), 0);
    EXPECT_EQ(lh_file_rm_nocheck(dangling.c_str()), 0);
    EXPECT_EQ(lh_file_rm(plain.c_str()), 0);
    EXPECT_EQ(lh_file_rm_nocheck(empty.c_str()), 0);
    for (const std::string &path : {link, dangling, plain, empty}) {
        struct stat st;
        EXPECT_EQ(lstat(path.c_str(), &st), -1) << path;
    }
}

TEST_F(File, RemovingAnAbsentFileIsSilent)
{
    Faults faults;
    EXPECT_EQ(lh_file_rm(absent.c_str()), -1);
    EXPECT_EQ(lh_file_rm(dangling.c_str()), -1);
    EXPECT_EQ(faults.calls("unlink"), 0u);
    errno = 0;
    EXPECT_EQ(lh_file_rm_nocheck(absent.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NO_LINES();
}

TEST_F(File, RemovingPassesTheErrorOn)
{
    errno = 0;
    EXPECT_EQ(lh_file_rm(folder.c_str()), -1);
    EXPECT_EQ(errno, EISDIR);
    Faults faults;
    faults.fail("unlink", EBUSY);
    EXPECT_EQ(lh_file_rm(plain.c_str()), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_file_rm(nullptr), -1);
    EXPECT_LINES("lh_file_rm: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_rm_nocheck(nullptr), -1);
    EXPECT_LINES("lh_file_rm_nocheck: PTR_IS_NULL: path");
}

// Line endings -----------------------------------------------------------------------------------

namespace {

std::string command_run;
int command_status;

int record_command(const char *command)
{
    command_run = command;
    return command_status;
}

class LineEndings : public File {
  protected:
    LineEndings()
    {
        command_run.clear();
        command_status = 0;
        faults.replace("system", reinterpret_cast<void *>(record_command));
    }

    Faults faults;
};

} // namespace

TEST_F(LineEndings, AreConvertedByTheProgramUnderThePreparedName)
{
    EXPECT_EQ(lh_file_convert_to_unix_format(plain.c_str(), "a\\ b"), 0);
    EXPECT_EQ(command_run, "dos2unix -q a\\ b");
}

TEST_F(LineEndings, NeedTheirArguments)
{
    EXPECT_EQ(lh_file_convert_to_unix_format(nullptr, nullptr), -1);
    EXPECT_LINES("lh_file_convert_to_unix_format: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_convert_to_unix_format(absent.c_str(), nullptr), -1);
    EXPECT_LINES("lh_file_convert_to_unix_format: PTR_IS_NULL: prepared_path");
    EXPECT_EQ(faults.calls("system"), 0u);
}

TEST_F(LineEndings, OfAnAbsentFileAreNotConverted)
{
    EXPECT_EQ(lh_file_convert_to_unix_format(absent.c_str(), plain.c_str()), -1);
    EXPECT_LINES("lh_file_convert_to_unix_format: IS_NOT: lh_file_is_exist(path)");
    EXPECT_EQ(faults.calls("system"), 0u);
}

TEST_F(LineEndings, CommandHoldsAtMost511Characters)
{
    const std::string fits(499, 'n');
    EXPECT_EQ(lh_file_convert_to_unix_format(plain.c_str(), fits.c_str()), 0);
    EXPECT_EQ(command_run, "dos2unix -q " + fits);
    EXPECT_NO_LINES();

    const std::string too_long(500, 'n');
    EXPECT_EQ(lh_file_convert_to_unix_format(plain.c_str(), too_long.c_str()), -1);
    EXPECT_LINES("_lh_snprintf: truncated: 'dos2unix -q " + fits + "'");
    EXPECT_EQ(faults.calls("system"), 1u);
}

TEST_F(LineEndings, AnyOtherStatusIsAFailure)
{
    for (const int status : {256, -1, 9, 127 << 8}) {
        command_status = status;
        EXPECT_EQ(lh_file_convert_to_unix_format(plain.c_str(), plain.c_str()), -1);
        EXPECT_LINES("lh_file_convert_to_unix_format: system(cmd) failed");
    }
}

TEST_F(LineEndings, AreConvertedByTheRealProgram)
{
    if (access("/usr/bin/dos2unix", X_OK) != 0)
        GTEST_SKIP() << "dos2unix is not installed";
    faults.clear();
    const std::string path = folder + "/dos text";
    write_file(path, "one\r\ntwo\r\n\r\nlast");
    EXPECT_EQ(lh_file_convert_to_unix_format(path.c_str(), ("'" + path + "'").c_str()), 0);
    EXPECT_EQ(read_file(path), "one\ntwo\n\nlast");
}

TEST_F(LineEndings, AreLeftAloneWhereTheProgramIsMissing)
{
    faults.clear();
    const std::string path_before = getenv("PATH");
    setenv("PATH", folder.c_str(), 1);
    const int saved_errors = dup(STDERR_FILENO);
    const int silence = open("/dev/null", O_WRONLY);
    dup2(silence, STDERR_FILENO);
    EXPECT_EQ(lh_file_convert_to_unix_format(plain.c_str(), plain.c_str()), -1);
    dup2(saved_errors, STDERR_FILENO);
    close(saved_errors);
    close(silence);
    setenv("PATH", path_before.c_str(), 1);
    EXPECT_LINES("lh_file_convert_to_unix_format: system(cmd) failed");
    EXPECT_EQ(read_file(plain), "data");
}

TEST_F(LineEndings, AreNotKnownToBeConvertedWhenEndsOfChildrenAreIgnored)
{
    OWN_PROCESS();
    faults.clear();
    const std::string converter = folder + "/dos2unix";
    write_file(converter, "#!/bin/sh\nexit 0\n");
    ASSERT_EQ(chmod(converter.c_str(), 0755), 0);
    setenv("PATH", folder.c_str(), 1);
    EXPECT_EQ(lh_file_convert_to_unix_format(plain.c_str(), plain.c_str()), 0);
    ASSERT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR); // the kernel keeps no status for system() then
    errno = 0;
    EXPECT_EQ(lh_file_convert_to_unix_format(plain.c_str(), plain.c_str()), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(faults.calls("system"), 2u);
    EXPECT_LINES("lh_file_convert_to_unix_format: system(cmd) failed");
}
