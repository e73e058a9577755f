// What is in a file, read and written whole or in part.
#include "fs/file_fixture.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>

#include "support/faults.hpp"

using namespace vyt::test;
using ::testing::ElementsAre;
using ::testing::StartsWith;

// A variable: the compiler complains about a literal null where a format is expected.
static const char *const no_format = nullptr;

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

TEST_F(File, TextOfADirectoryCannotBeRead)
{
    struct stat st;
    ASSERT_EQ(stat(dir.path().c_str(), &st), 0);
    if (st.st_size == 0)
        GTEST_SKIP() << "a directory with files in it has a size of 0 on this file system";
    const auto before = open_descriptors();
    char *text = nullptr;
    size_t text_size = 77;
    Faults faults;
    errno = 0;
    EXPECT_EQ(lh_file_text_alloc(dir.path().c_str(), &text, &text_size), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES("lh_file_text_alloc: fread '" + dir.path() + "' failed (21)'Is a directory'");
    EXPECT_EQ(text_size, static_cast<size_t>(st.st_size) + 1);
    EXPECT_EQ(faults.calls("malloc"), 1u);
    EXPECT_THAT(faults.held(), ElementsAre());
    EXPECT_EQ(open_descriptors(), before);
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

TEST_F(File, FirstLineOfNoPathIsTheReasonToo)
{
    char buf[64];
    errno = 0;
    EXPECT_EQ(lh_file_read_line(nullptr, buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_STREQ(buf, strerror(EFAULT));
    EXPECT_EQ(lh_file_read_line(nullptr, buf, 4), -1);
    EXPECT_EQ(buf, std::string(strerror(EFAULT)).substr(0, 3));
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
