#include "lh_file.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;
using ::testing::ElementsAre;
using ::testing::StartsWith;

namespace {

class File : public LogTest {
  protected:
    void SetUp() override
    {
        write_file(plain, "data");
        write_file(empty, "");
        ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
        ASSERT_EQ(symlink(plain.c_str(), link.c_str()), 0);
        ASSERT_EQ(symlink(absent.c_str(), dangling.c_str()), 0);
    }

    TempDir dir;
    const std::string plain = dir / "plain";
    const std::string empty = dir / "empty";
    const std::string folder = dir / "folder";
    const std::string link = dir / "link";
    const std::string dangling = dir / "dangling";
    const std::string absent = dir / "absent";
    // A variable: the compiler complains about a literal null where a format is expected.
    const char *const no_format = nullptr;
};

std::string stat_failed(const char *function, const std::string &path)
{
    return std::string(function) + ": stat '" + path + "' failed";
}

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

TEST_F(File, InodeIsItsLow32Bits)
{
    Faults faults;
    pretended_inode = 0x123456789abcdef0;
    pretended_size = 0;
    faults.replace("stat", reinterpret_cast<void *>(stat_with_pretence));
    EXPECT_EQ(lh_file_get_inode(plain.c_str()), 0x9abcdef0u);
}

// Whole-file read --------------------------------------------------------------------------------

TEST_F(File, TextIsTheContentsAndANul)
{
    for (const std::string &contents : {std::string("a"), std::string("ab"),
                                        std::string("a\0b\n", 4), std::string(100000, '\xff')}) {
        write_file(plain, contents);
        char *text = nullptr;
        size_t text_size = 0;
        ASSERT_EQ(lh_file_text_alloc(plain.c_str(), &text, &text_size), 0);
        EXPECT_EQ(text_size, contents.size() + 1);
        EXPECT_EQ(std::string(text, text_size), contents + '\0');
        free(text);
    }
}

TEST_F(File, TextNeedsItsArguments)
{
    char *text;
    size_t text_size;
    EXPECT_EQ(lh_file_text_alloc(nullptr, nullptr, nullptr), -1);
    EXPECT_LINES("lh_file_text_alloc: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_text_alloc(plain.c_str(), nullptr, nullptr), -1);
    EXPECT_LINES("lh_file_text_alloc: PTR_IS_NULL: text");
    EXPECT_EQ(lh_file_text_alloc(plain.c_str(), &text, nullptr), -1);
    EXPECT_LINES("lh_file_text_alloc: PTR_IS_NULL: text_size");
    EXPECT_EQ(lh_file_text_alloc(nullptr, &text, &text_size), -1);
    EXPECT_LINES("lh_file_text_alloc: PTR_IS_NULL: path");
}

TEST_F(File, TextOfNothingIsAFailureThatTouchesNothing)
{
    char mark;
    char *text = &mark;
    size_t text_size = 77;
    for (const std::string &path : {empty, absent}) {
        EXPECT_EQ(lh_file_text_alloc(path.c_str(), &text, &text_size), -1);
        EXPECT_LINES("lh_file_text_alloc: file '" + path + "' is empty");
    }
    Faults faults;
    faults.fail("stat", EACCES);
    EXPECT_EQ(lh_file_text_alloc(plain.c_str(), &text, &text_size), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES(stat_failed("lh_file_size_get", plain),
                 "lh_file_text_alloc: file '" + plain + "' is empty");
    EXPECT_EQ(text, &mark);
    EXPECT_EQ(text_size, 77u);
}

TEST_F(File, TextOfAFileThatCannotBeOpened)
{
    char mark;
    char *text = &mark;
    size_t text_size = 77;
    Faults faults;
    faults.fail("fopen", EACCES);
    EXPECT_EQ(lh_file_text_alloc(plain.c_str(), &text, &text_size), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES("lh_file_text_alloc: PTR_IS_NULL: f",
                 "lh_file_text_alloc: fopen '" + plain + "' failed (13)'Permission denied'");
    EXPECT_EQ(text, &mark);
    EXPECT_EQ(text_size, 77u);
}

TEST_F(File, TextWithoutMemoryForIt)
{
    const auto before = open_descriptors();
    char mark;
    char *text = &mark;
    size_t text_size = 77;
    Faults faults;
    faults.fail("malloc", ENOMEM);
    EXPECT_EQ(lh_file_text_alloc(plain.c_str(), &text, &text_size), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES("lh_file_text_alloc: PTR_IS_NULL: *text");
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(text_size, 5u);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(File, TextOfAFileThatCannotBeRead)
{
    const auto before = open_descriptors();
    char *text = nullptr;
    size_t text_size = 77;
    Faults faults;
    faults.fail("fread", EIO);
    EXPECT_EQ(lh_file_text_alloc(plain.c_str(), &text, &text_size), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_LINES("lh_file_text_alloc: fread '" + plain + "' failed (5)'Input/output error'");
    EXPECT_NE(text, nullptr);
    EXPECT_EQ(text_size, 5u);
    EXPECT_EQ(open_descriptors(), before);

    ASSERT_EQ(lh_file_text_alloc(plain.c_str(), &text, &text_size), 0);
    EXPECT_STREQ(text, "data");
    free(text);
}

TEST_F(File, TextOfAFileThatShrinksIsAFailureAndOneThatGrowsIsCut)
{
    char *text = nullptr;
    size_t text_size = 0;
    Faults faults;
    faults.before("fopen", [&](unsigned) { write_file(plain, "dat"); });
    EXPECT_EQ(lh_file_text_alloc(plain.c_str(), &text, &text_size), -1);
    EXPECT_THAT(take_lines(),
                ElementsAre(StartsWith("lh_file_text_alloc: fread '" + plain + "' failed (")));

    faults.before("fopen", [&](unsigned) { write_file(plain, "data and more"); });
    write_file(plain, "data");
    ASSERT_EQ(lh_file_text_alloc(plain.c_str(), &text, &text_size), 0);
    EXPECT_EQ(text_size, 5u);
    EXPECT_STREQ(text, "data");
    free(text);
}

// First line -------------------------------------------------------------------------------------

TEST_F(File, FirstLineLosesItsNewlineOnly)
{
    struct {
        std::string contents, line;
    } const cases[] = {{"a\r\n", "a\r"},
                       {"", ""},
                       {"\n", ""},
                       {"\nb\n", ""},
                       {"no end", "no end"},
                       {"one\ntwo\n", "one"},
                       {"12345678\n", "12345678"}};
    for (const auto &c : cases) {
        write_file(plain, c.contents);
        char buf[64];
        memset(buf, '#', sizeof(buf));
        EXPECT_EQ(lh_file_read_line(plain.c_str(), buf, sizeof(buf)), 0);
        EXPECT_STREQ(buf, c.line.c_str());
    }
}

TEST_F(File, FirstLineIsCutToTheBuffer)
{
    write_file(plain, "12345678\n");
    for (size_t size = 1; size <= 10; size++) {
        char buf[16];
        memset(buf, '#', sizeof(buf));
        EXPECT_EQ(lh_file_read_line(plain.c_str(), buf, size), 0);
        EXPECT_EQ(std::string(buf), std::string("12345678").substr(0, size - 1));
        EXPECT_EQ(buf[size], '#');
    }
}

TEST_F(File, FirstLineIntoNoRoomWritesNothing)
{
    char buf[] = "#";
    EXPECT_EQ(lh_file_read_line(plain.c_str(), buf, 0), 0);
    EXPECT_EQ(lh_file_read_line(empty.c_str(), buf, 0), 0);
    EXPECT_EQ(lh_file_read_line(absent.c_str(), buf, 0), -1);
    EXPECT_STREQ(buf, "#");
}

TEST_F(File, FirstLineIntoARoomLargerThanAnIntIsRead)
{
    char buf[16];
    EXPECT_EQ(lh_file_read_line(plain.c_str(), buf, SIZE_MAX), 0);
    EXPECT_STREQ(buf, "data");
}

TEST_F(File, FirstLineOfAMissingFileIsTheReason)
{
    char buf[64];
    errno = 0;
    EXPECT_EQ(lh_file_read_line(absent.c_str(), buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(buf, "No such file or directory");
    EXPECT_EQ(lh_file_read_line(absent.c_str(), buf, 8), -1);
    EXPECT_STREQ(buf, "No such");
    EXPECT_NO_LINES();
}

TEST_F(File, FirstLineThatCannotBeReadIsEmpty)
{
    char buf[] = "old";
    EXPECT_EQ(lh_file_read_line(folder.c_str(), buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_NO_LINES();
}

// A buffer out and in ----------------------------------------------------------------------------

TEST_F(File, WriteReplacesTheContents)
{
    const auto before = open_descriptors();
    EXPECT_EQ(lh_file_write(plain.c_str(), "xy", 2), 0);
    EXPECT_EQ(read_file(plain), "xy");
    EXPECT_EQ(lh_file_write(absent.c_str(), "\0\n", 2), 0);
    EXPECT_EQ(read_file(absent), std::string("\0\n", 2));
    const std::string large(1000000, 'L');
    EXPECT_EQ(lh_file_write(plain.c_str(), large.data(), large.size()), 0);
    EXPECT_EQ(read_file(plain), large);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(File, ReadTakesTheStartOfTheFile)
{
    char data[8] = "#######";
    EXPECT_EQ(lh_file_read(plain.c_str(), data, 3), 0);
    EXPECT_STREQ(data, "dat####");
    EXPECT_EQ(lh_file_read(plain.c_str(), data, 4), 0);
    EXPECT_STREQ(data, "data###");
}

TEST_F(File, ReadOfMoreThanThereIsFails)
{
    char data[10];
    EXPECT_EQ(lh_file_read(plain.c_str(), data, sizeof(data)), -1);
    EXPECT_LINES("lh_file_read: IS_NE check failed: nmemb (1 != 0) !!!");
    EXPECT_EQ(lh_file_read(plain.c_str(), data, 5), -1);
    EXPECT_LINES("lh_file_read: IS_NE check failed: nmemb (1 != 0) !!!");
}

TEST_F(File, WritingOrReadingNothingTouchesNothing)
{
    Faults faults;
    char data[] = "#";
    EXPECT_EQ(lh_file_write(plain.c_str(), "x", 0), 0);
    EXPECT_LINES("lh_file_write: IS_EQ check failed: 0 (0 == 0) !!!");
    EXPECT_EQ(read_file(plain), "data");
    EXPECT_EQ(lh_file_write(absent.c_str(), "x", 0), 0);
    EXPECT_LINES("lh_file_write: IS_EQ check failed: 0 (0 == 0) !!!");
    EXPECT_NE(access(absent.c_str(), F_OK), 0);
    EXPECT_EQ(lh_file_read(absent.c_str(), data, 0), 0);
    EXPECT_LINES("lh_file_read: IS_EQ check failed: 0 (0 == 0) !!!");
    EXPECT_STREQ(data, "#");
    EXPECT_EQ(faults.calls("fopen"), 0u);
}

TEST_F(File, WriteAndReadNeedTheirArguments)
{
    char data[1];
    EXPECT_EQ(lh_file_write(nullptr, nullptr, 0), -1);
    EXPECT_LINES("lh_file_write: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_write(plain.c_str(), nullptr, 0), -1);
    EXPECT_LINES("lh_file_write: PTR_IS_NULL: data");
    EXPECT_EQ(lh_file_read(nullptr, data, 1), -1);
    EXPECT_LINES("lh_file_read: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_read(plain.c_str(), nullptr, 0), -1);
    EXPECT_LINES("lh_file_read: PTR_IS_NULL: data");
}

TEST_F(File, WriteAndReadReportAFileThatCannotBeOpened)
{
    char data[1];
    errno = 0;
    EXPECT_EQ(lh_file_read(absent.c_str(), data, 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_file_read: fopen '" + absent + "' failed: No such file or directory");
    errno = 0;
    EXPECT_EQ(lh_file_write(folder.c_str(), "x", 1), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES("lh_file_write: fopen '" + folder + "' failed: Is a directory");
}

TEST_F(File, WriteAndReadReportAFailingTransferAndClose)
{
    const auto before = open_descriptors();
    char data[4];
    Faults faults;
    faults.fail("fwrite", ENOSPC);
    EXPECT_EQ(lh_file_write(plain.c_str(), "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_LINES("lh_file_write: IS_NE check failed: nmemb (1 != 0) !!!");
    write_file(plain, "data");
    faults.fail("fread", EIO);
    EXPECT_EQ(lh_file_read(plain.c_str(), data, 4), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_LINES("lh_file_read: IS_NE check failed: nmemb (1 != 0) !!!");
    EXPECT_EQ(faults.calls("fclose"), 2u);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(lh_file_read(plain.c_str(), data, 4), 0);
}

TEST_F(File, AFullDeviceIsNoticedOnlyByALargeWrite)
{
    EXPECT_EQ(lh_file_write("/dev/full", "x", 1), 0);
    EXPECT_NO_LINES();
    const std::string large(1000000, 'L');
    EXPECT_EQ(lh_file_write("/dev/full", large.data(), large.size()), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_LINES("lh_file_write: IS_NE check failed: nmemb (1 != 0) !!!");
}

// scanf ------------------------------------------------------------------------------------------

TEST_F(File, ScanfGivesTheNumberOfItems)
{
    const auto before = open_descriptors();
    int a = 0;
    char word[8] = "";
    write_file(plain, "7 seven x");
    EXPECT_EQ(lh_file_scanf(plain.c_str(), "%d %7s", &a, word), 2);
    EXPECT_EQ(a, 7);
    EXPECT_STREQ(word, "seven");
    EXPECT_EQ(lh_file_scanf(plain.c_str(), "%d %d", &a, &a), 1);
    EXPECT_EQ(lh_file_scanf(plain.c_str(), "x%d", &a), 0);
    EXPECT_EQ(lh_file_scanf(empty.c_str(), "%d", &a), -1);
    EXPECT_NO_LINES();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(File, ScanfReportsWhatItCannotOpen)
{
    int a;
    EXPECT_EQ(lh_file_scanf(nullptr, no_format), -1);
    EXPECT_LINES("lh_file_scanf: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_scanf(plain.c_str(), no_format), -1);
    EXPECT_LINES("lh_file_scanf: PTR_IS_NULL: fmt");
    errno = 0;
    EXPECT_EQ(lh_file_scanf(absent.c_str(), "%d", &a), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_file_scanf: PTR_IS_NULL: f");
}

TEST_F(File, ScanfKeepsItsResultWhenClosingFails)
{
    int a = 0;
    write_file(plain, "7");
    Faults faults;
    FILE *left_open = nullptr;
    static FILE **place;
    place = &left_open;
    faults.replace("fclose", reinterpret_cast<void *>(+[](FILE *f) {
                       *place = f;
                       errno = EIO;
                       return EOF;
                   }));
    EXPECT_EQ(lh_file_scanf(plain.c_str(), "%d", &a), 1);
    EXPECT_EQ(a, 7);
    EXPECT_LINES("lh_file_scanf: fclose(f) failed");
    ASSERT_NE(left_open, nullptr);
    fclose(left_open);
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
