#include "lh_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

namespace {

mode_t permissions(const std::string &path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

class FileCopy : public LogTest {
  protected:
    FileCopy() : umask_before(umask(022)) { write_file(src, "0123456789"); }
    ~FileCopy() override { umask(umask_before); }

    const mode_t umask_before;
    TempDir dir;
    const std::string src = dir / "src";
    const std::string dst = dir / "dst";
    const std::string absent = dir / "absent";
    const std::vector<int> before = open_descriptors();
};

} // namespace

// Creating and permissions -----------------------------------------------------------------------

TEST_F(FileCopy, CreateMakesAnEmptyFileWithItsMode)
{
    EXPECT_EQ(lh_file_create(dst.c_str(), 0666), 0);
    EXPECT_EQ(permissions(dst), 0644u);
    EXPECT_EQ(read_file(dst), "");
    EXPECT_EQ(lh_file_create(absent.c_str(), 0600), 0);
    EXPECT_EQ(permissions(absent), 0600u);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileCopy, CreateEmptiesAnExistingFileAndKeepsItsMode)
{
    ASSERT_EQ(chmod(src.c_str(), 0640), 0);
    EXPECT_EQ(lh_file_create(src.c_str(), 0777), 0);
    EXPECT_EQ(read_file(src), "");
    EXPECT_EQ(permissions(src), 0640u);
}

TEST_F(FileCopy, CreateReportsWhatFailed)
{
    EXPECT_EQ(lh_file_create(nullptr, 0644), -1);
    EXPECT_LINES("lh_file_create: PTR_IS_NULL: path");
    errno = 0;
    EXPECT_EQ(lh_file_create(dir.path().c_str(), 0644), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES("lh_file_create: cannot open file '" + dir.path() + "': Is a directory");

    Faults faults;
    static int left_open;
    faults.replace("close", reinterpret_cast<void *>(+[](int fd) {
                       left_open = fd;
                       errno = EIO;
                       return -1;
                   }));
    EXPECT_EQ(lh_file_create(dst.c_str(), 0644), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_LINES("lh_file_create: cannot close file '" + dst + "': Input/output error");
    EXPECT_EQ(faults.calls("close"), 1u);
    close(left_open);
}

TEST_F(FileCopy, PermissionsAreAdded)
{
    ASSERT_EQ(chmod(src.c_str(), 0644), 0);
    EXPECT_EQ(lh_file_permissions_add(src.c_str(), 0111), 0);
    EXPECT_EQ(permissions(src), 0755u);
    EXPECT_EQ(lh_file_permissions_add(src.c_str(), 0), 0);
    EXPECT_EQ(permissions(src), 0755u);
    EXPECT_EQ(lh_file_permissions_add(src.c_str(), 04000), 0);
    EXPECT_EQ(permissions(src), 04755u);
}

TEST_F(FileCopy, PermissionsReportWhatFailed)
{
    EXPECT_EQ(lh_file_permissions_add(nullptr, 0111), -1);
    EXPECT_LINES("lh_file_permissions_add: PTR_IS_NULL: path");
    errno = 0;
    EXPECT_EQ(lh_file_permissions_add(absent.c_str(), 0111), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_file_permissions_add: cannot stat file '" + absent +
                 "': No such file or directory");
    Faults faults;
    faults.fail("chmod", EROFS);
    EXPECT_EQ(lh_file_permissions_add(src.c_str(), 0111), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_LINES("lh_file_permissions_add: cannot chmod file '" + src + "': Read-only file system");
}

// Copy with attributes ---------------------------------------------------------------------------

TEST_F(FileCopy, CopyTakesContentsAndMode)
{
    for (const size_t size : {0u, 1u, 4095u, 4096u, 4097u, 8192u, 100000u}) {
        std::string contents(size, '\0');
        for (size_t i = 0; i < size; i++)
            contents[i] = static_cast<char>(i * 7);
        write_file(src, contents);
        ASSERT_EQ(chmod(src.c_str(), 0600), 0);
        write_file(dst, "what was there before, and longer than some of the copies");
        EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0), 0);
        EXPECT_EQ(read_file(dst), contents) << size;
        EXPECT_EQ(permissions(dst), 0600u);
        EXPECT_EQ(open_descriptors(), before);
    }
}

TEST_F(FileCopy, CopyStopsAtTheFirstShortRead)
{
    struct {
        size_t size;
        unsigned reads;
    } const cases[] = {{0, 1}, {1, 1}, {4095, 1}, {4096, 2}, {4097, 2}, {8192, 3}};
    for (const auto &c : cases) {
        write_file(src, std::string(c.size, 'x'));
        Faults faults;
        EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0), 0);
        EXPECT_EQ(faults.calls("read"), c.reads) << c.size;
    }
}

TEST_F(FileCopy, CopyTakesAGivenModeWhateverTheUmask)
{
    ASSERT_EQ(chmod(src.c_str(), 0600), 0);
    EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0666), 0);
    EXPECT_EQ(permissions(dst), 0666u);
    umask(0777);
    EXPECT_EQ(lh_copy_file(src.c_str(), absent.c_str(), 0644), 0);
    EXPECT_EQ(permissions(absent), 0644u);
}

TEST_F(FileCopy, CopyTakesTheOwner)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make a file that another user owns";
    ASSERT_EQ(chmod(src.c_str(), 0600), 0);
    ASSERT_EQ(chown(src.c_str(), 1234, 5678), 0);
    EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0), 0);
    struct stat st;
    ASSERT_EQ(stat(dst.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 1234u);
    EXPECT_EQ(st.st_gid, 5678u);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(FileCopy, CopyLosesTheSetIdBitsToTheOwnerThatIsSetLast)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root's writing leaves the bits for the new owner to take away";
    ASSERT_EQ(chmod(src.c_str(), 06755), 0);
    mode_t before_the_owner = 0;
    Faults faults;
    faults.before("fchown", [&](unsigned) { before_the_owner = permissions(dst); });
    EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0), 0);
    EXPECT_EQ(before_the_owner, 06755u);
    EXPECT_EQ(permissions(dst), 0755u);
    EXPECT_EQ(permissions(src), 06755u);
    EXPECT_EQ(read_file(dst), "0123456789");
}

TEST_F(FileCopy, CopyOfAFileOntoItselfEmptiesIt)
{
    EXPECT_EQ(lh_copy_file(src.c_str(), src.c_str(), 0), 0);
    EXPECT_EQ(read_file(src), "");
    write_file(src, "0123456789");
    ASSERT_EQ(symlink(src.c_str(), absent.c_str()), 0);
    EXPECT_EQ(lh_copy_file(src.c_str(), absent.c_str(), 0), 0);
    EXPECT_EQ(read_file(src), "");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileCopy, CopyOfADirectoryLeavesAnEmptyFile)
{
    const std::string folder = dir / "folder";
    ASSERT_EQ(mkdir(folder.c_str(), 0750), 0);
    write_file(dst, "what was there before");
    errno = 0;
    EXPECT_EQ(lh_copy_file(folder.c_str(), dst.c_str(), 0), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES("lh_copy_file: read failed (Is a directory)");
    EXPECT_EQ(read_file(dst), "");
    EXPECT_EQ(permissions(dst), 0750u);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileCopy, CopyGetsTheTimesCrossed)
{
    const utimbuf times = {.actime = 1000000, .modtime = 2000000};
    static utimbuf seen;
    Faults faults;
    faults.replace("utime", reinterpret_cast<void *>(+[](const char *path, const utimbuf *t) {
                       seen = *t;
                       return utime(path, t);
                   }));
    ASSERT_EQ(utime(src.c_str(), &times), 0);
    EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0), 0);
    EXPECT_EQ(seen.actime, 2000000);
    EXPECT_EQ(seen.modtime, 1000000);
    struct stat st;
    ASSERT_EQ(stat(dst.c_str(), &st), 0);
    EXPECT_EQ(st.st_atime, 2000000);
    EXPECT_GT(st.st_mtime, 2000000) << "written after the times were set";
}

TEST_F(FileCopy, CopyNeedsItsArguments)
{
    EXPECT_EQ(lh_copy_file(nullptr, nullptr, 0), -1);
    EXPECT_LINES("lh_copy_file: PTR_IS_NULL: src_fname");
    EXPECT_EQ(lh_copy_file(src.c_str(), nullptr, 0), -1);
    EXPECT_LINES("lh_copy_file: PTR_IS_NULL: dst_fname");
}

TEST_F(FileCopy, CopyOfAMissingFileMakesNone)
{
    errno = 0;
    EXPECT_EQ(lh_copy_file(absent.c_str(), dst.c_str(), 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_copy_file: stat failed (No such file or directory)");
    EXPECT_NE(access(dst.c_str(), F_OK), 0);
}

TEST_F(FileCopy, EveryFailingStepOfACopyIsReported)
{
    struct {
        const char *call;
        unsigned nth;
        std::string line;
    } const cases[] = {
        {"stat", 1, "stat failed (Input/output error)"},
        {"open", 1, "open file " + dst + " failed (Input/output error)"},
        {"utime", 1, "utime failed (Input/output error)"},
        {"fchmod", 1, "fchmod failed (Input/output error)"},
        {"fchown", 1, "fchmod failed (Input/output error)"},
        {"open", 2, "open file " + src + " (Input/output error)"},
        {"read", 1, "read failed (Input/output error)"},
        {"read", 2, "read failed (Input/output error)"},
        {"write", 1, "write failed (Input/output error)"},
        {"write", 2, "write failed (Input/output error)"},
    };
    write_file(src, std::string(5000, 'x'));
    for (const auto &c : cases) {
        Faults faults;
        faults.fail(c.call, EIO, c.nth);
        EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0), -1) << c.call;
        EXPECT_EQ(errno, EIO);
        EXPECT_LINES("lh_copy_file: " + c.line);
        EXPECT_EQ(open_descriptors(), before) << c.call;
        EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0), 0);
    }
}

TEST_F(FileCopy, AFailingCloseOfACopyIsNotNoticed)
{
    Faults faults;
    static std::vector<int> left_open;
    faults.replace("close", reinterpret_cast<void *>(+[](int fd) {
                       left_open.push_back(fd);
                       errno = EIO;
                       return -1;
                   }));
    EXPECT_EQ(lh_copy_file(src.c_str(), dst.c_str(), 0), 0);
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 0), 10);
    EXPECT_EQ(left_open.size(), 4u);
    for (const int fd : left_open)
        close(fd);
    EXPECT_EQ(read_file(dst), "0123456789");
}

// Copy inside the kernel -------------------------------------------------------------------------

TEST_F(FileCopy, FastCopyGivesTheNumberOfBytes)
{
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 0), 10);
    EXPECT_EQ(read_file(dst), "0123456789");
    EXPECT_EQ(permissions(dst), 0644u);
    write_file(src, "");
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 0), 0);
    EXPECT_EQ(read_file(dst), "");
    const std::string large(300000, 'L');
    write_file(src, large);
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 0), 300000);
    EXPECT_EQ(read_file(dst), large);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileCopy, FastCopyCreatesWithTheMode)
{
    umask(002);
    struct {
        mode_t mode, expected;
    } const cases[] = {{0, 0664}, {static_cast<mode_t>(-1), 0664}, {0600, 0600}, {0777, 0775}};
    for (const auto &c : cases) {
        unlink(dst.c_str());
        EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), c.mode, 0), 10);
        EXPECT_EQ(permissions(dst), c.expected) << c.mode;
    }
}

TEST_F(FileCopy, FastCopyFlushesWhenAsked)
{
    Faults faults;
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 0), 10);
    EXPECT_EQ(faults.calls("fsync"), 0u);
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 1), 10);
    EXPECT_EQ(faults.calls("fsync"), 1u);
    faults.fail("fsync", EIO);
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, -1), 10);
    EXPECT_EQ(faults.calls("fsync"), 2u);
    faults.fail("sendfile", EIO);
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 1), -1);
    EXPECT_EQ(faults.calls("fsync"), 2u) << "only after a good copy";
    EXPECT_EQ(take_lines().size(), 1u);
}

TEST_F(FileCopy, FastCopyIsOneCallFromTheStart)
{
    static off_t seen_offset;
    static size_t seen_count;
    Faults faults;
    faults.replace("sendfile", reinterpret_cast<void *>(+[](int, int, off_t *offset, size_t count) {
                       seen_offset = offset != nullptr ? *offset : -1;
                       seen_count = count;
                       return ssize_t{3};
                   }));
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 0), 3);
    EXPECT_EQ(faults.calls("sendfile"), 1u);
    EXPECT_EQ(seen_offset, 0);
    EXPECT_EQ(seen_count, 10u);
}

TEST_F(FileCopy, FastCopyNeedsItsArguments)
{
    EXPECT_EQ(lh_fast_copy_file(nullptr, nullptr, 0, 0), -1);
    EXPECT_LINES("lh_fast_copy_file: PTR_IS_NULL: src");
    EXPECT_EQ(lh_fast_copy_file(src.c_str(), nullptr, 0, 0), -1);
    EXPECT_LINES("lh_fast_copy_file: PTR_IS_NULL: dst");
}

TEST_F(FileCopy, EveryFailingStepOfAFastCopyIsReported)
{
    struct {
        const char *call;
        std::string line;
    } const cases[] = {
        {"open", "open file " + src + " failed (Input/output error)"},
        {"fstat", "fstat of file '" + src + "' failed (Input/output error)"},
        {"creat", "open file " + dst + " failed (Input/output error)"},
        {"sendfile", "sendfile src:'" + src + "', dst:'" + dst + "' failed (Input/output error)"},
    };
    for (const auto &c : cases) {
        Faults faults;
        faults.fail(c.call, EIO);
        EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 1), -1) << c.call;
        EXPECT_EQ(errno, EIO);
        EXPECT_LINES("lh_fast_copy_file: " + c.line);
        EXPECT_EQ(open_descriptors(), before) << c.call;
        EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 1), 10);
    }
}

// A daemon's own syslog sees the text of the error as %m.
TEST_F(FileCopy, AFastCopyLeavesTheErrorsTextToSyslog)
{
    const std::string prefix = "<%s(%lu):%s:%d> ";
    struct {
        const char *call;
        const char *format;
    } const cases[] = {{"open", "open file %s failed (%m)"},
                       {"fstat", "fstat of file '%s' failed (%m)"},
                       {"creat", "open file %s failed (%m)"},
                       {"sendfile", "sendfile src:'%s', dst:'%s' failed (%m)"}};
    for (const auto &c : cases) {
        Faults faults;
        faults.fail(c.call, EIO);
        EXPECT_EQ(lh_fast_copy_file(src.c_str(), dst.c_str(), 0, 0), -1);
        EXPECT_EQ(last_syslog_format(), prefix + c.format) << c.call;
        EXPECT_EQ(take_lines().size(), 1u);
    }
}

// The program in a command line ------------------------------------------------------------------

TEST_F(FileCopy, BasenameFindsTheLongestPartThatExists)
{
    const std::string spaced = dir / "with space";
    write_file(spaced, "");
    struct {
        std::string path, base, prefix;
    } const cases[] = {
        {"/bin/sh -c true", "sh", "/bin/sh"},
        {"/bin/sh", "sh", "/bin/sh"},
        {src + " -d /tmp", "src", src},
        {src + "/below", "src", src},
        {spaced + " arg", "with space", spaced},
        {dir / "with" + " nothing", dir.path().substr(dir.path().rfind('/') + 1), dir.path()},
        {"nosuch arg", "nosuch arg", "nosuch arg"},
        {"/nosuch/thing", "thing", "/nosuch/thing"},
        {"/nosuch", "nosuch", "/nosuch"},
        {"nosuch", "nosuch", "nosuch"},
        {"", ".", ""},
        {"/", "/", "/"},
        {"//", "/", "//"},
        {dir.path() + "/", dir.path().substr(dir.path().rfind('/') + 1), dir.path()},
        {"nosuch/", "nosuch", "nosuch"},
    };
    for (const auto &c : cases) {
        char base[64];
        char prefix[256];
        const std::string path = c.path;
        EXPECT_EQ(lh_basename(path.c_str(), base, sizeof(base), prefix, sizeof(prefix)), 0);
        EXPECT_STREQ(base, c.base.c_str()) << c.path;
        EXPECT_STREQ(prefix, c.prefix.c_str()) << c.path;
        EXPECT_EQ(path, c.path);
    }
}

TEST_F(FileCopy, BasenameCutsItsResultsToFit)
{
    char base[8] = "#######";
    char prefix[8] = "#######";
    EXPECT_EQ(lh_basename("/bin/sh -c", base, 2, prefix, 5), 0);
    EXPECT_STREQ(base, "s");
    EXPECT_STREQ(prefix, "/bin");
    EXPECT_EQ(base[2], '#');
    EXPECT_EQ(prefix[5], '#');
    strcpy(base, "#######");
    EXPECT_EQ(lh_basename("/bin/sh -c", base, 3, nullptr, 0), 0);
    EXPECT_STREQ(base, "sh");
    strcpy(base, "###");
    strcpy(prefix, "###");
    EXPECT_EQ(lh_basename("/bin/sh -c", base, 0, prefix, 0), 0);
    EXPECT_STREQ(base, "###");
    EXPECT_STREQ(prefix, "###");
}

TEST_F(FileCopy, BasenameNeedsItsArguments)
{
    char base[8];
    EXPECT_EQ(lh_basename(nullptr, nullptr, 0, nullptr, 0), -1);
    EXPECT_LINES("lh_basename: PTR_IS_NULL: path");
    EXPECT_EQ(lh_basename("/bin/sh", nullptr, 0, base, sizeof(base)), -1);
    EXPECT_LINES("lh_basename: PTR_IS_NULL: base");
}

TEST_F(FileCopy, BasenameWithoutMemoryTakesTheWholeText)
{
    Faults faults;
    faults.fail_allocation(1);
    char base[32];
    char prefix[32];
    EXPECT_EQ(lh_basename("/bin/sh -c true", base, sizeof(base), prefix, sizeof(prefix)), 0);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_basename: PTR_IS_NULL: copy_path");
    EXPECT_STREQ(base, "sh -c true");
    EXPECT_STREQ(prefix, "/bin/sh -c true");
}

// The plain way, with the C library's own basename, which cuts what it is given.
namespace {

struct Program {
    std::string base;
    std::string prefix;
};

Program plain_program(const std::string &path)
{
    std::string copy = path;
    while (access(copy.c_str(), F_OK) != 0) {
        const size_t cut = copy.find_last_of(" /");
        if (cut == std::string::npos) {
            copy = path;
            break;
        }
        copy.erase(cut);
    }
    const std::string base = basename(copy.data());
    return {base, copy.c_str()};
}

// A buffer full of marks, into which the text was copied as far as the size lets it.
std::string filled(size_t room, const std::string &text, size_t size)
{
    std::string buffer(room, '#');
    if (size != 0) {
        const std::string copied = text.substr(0, size - 1) + '\0';
        buffer.replace(0, copied.size(), copied);
    }
    return buffer;
}

std::string random_command(std::mt19937 &random, const std::string &root)
{
    const char *const words[] = {"sbin",     "prog", "two words", "two", "words", "link",
                                 "dangling", "-d",   "x",         ".",   "..",    ""};
    const char *const gaps[] = {" ", "/", "/", "/", "//", "  ", " /", "/ "};
    const char *const starts[] = {"", "/", "//", " ", "./", "../"};
    std::string path = random() % 3 != 0 ? root + "/" : starts[random() % std::size(starts)];
    for (size_t count = random() % 6; count != 0; count--) {
        path += words[random() % std::size(words)];
        if (count != 1 || random() % 2 == 0)
            path += gaps[random() % std::size(gaps)];
    }
    return path;
}

} // namespace

TEST_F(FileCopy, BasenameOfAnyCommandIsThatOfCuttingItPartByPart)
{
    const unsigned seed = 99017;
    const std::string root = dir / "a b";
    const std::string sbin = root + "/sbin";
    ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(sbin.c_str(), 0755), 0);
    for (const std::string &file : {sbin + "/prog", sbin + "/two words", root + "/two"})
        write_file(file, "");
    ASSERT_EQ(symlink("sbin", (root + "/link").c_str()), 0);
    ASSERT_EQ(symlink("none", (root + "/dangling").c_str()), 0);
    std::mt19937 random(seed);
    for (int round = 0; round < 5000; round++) {
        const std::string path = random_command(random, root);
        const Program program = plain_program(path);
        std::string base(300, '#');
        std::string prefix(300, '#');
        const size_t base_size = random() % (random() % 2 == 0 ? 12 : base.size());
        const size_t prefix_size = random() % (random() % 2 == 0 ? 80 : prefix.size());
        const bool with_prefix = random() % 8 != 0;
        ASSERT_EQ(lh_basename(path.c_str(), base.data(), base_size,
                              with_prefix ? prefix.data() : nullptr, prefix_size),
                  0);
        const std::string where = "seed " + std::to_string(seed) + " '" + path + "'";
        ASSERT_EQ(base, filled(base.size(), program.base, base_size)) << where;
        ASSERT_EQ(prefix, filled(prefix.size(), program.prefix, with_prefix ? prefix_size : 0))
            << where;
    }
}
