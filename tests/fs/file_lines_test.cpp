#include "lh_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

namespace {

using stream = std::unique_ptr<FILE, decltype(&fclose)>;

FILE *left_open;

int refuse_to_close(FILE *file)
{
    left_open = file;
    errno = EIO;
    return EOF;
}

class FileLines : public LogTest {
  protected:
    // The next fclose of the library fails and leaves its stream open, which close_after() closes.
    void fail_to_close(Faults &faults)
    {
        left_open = nullptr;
        faults.replace("fclose", reinterpret_cast<void *>(refuse_to_close));
    }
    void close_after()
    {
        ASSERT_NE(left_open, nullptr);
        fclose(left_open);
    }

    TempDir dir;
    const std::string path = dir / "lines";
    const std::string absent = dir / "absent";
    const std::vector<int> before = open_descriptors();
    const char *const no_format = nullptr;
};

} // namespace

// Appending --------------------------------------------------------------------------------------

TEST_F(FileLines, AppendAddsTheTextAsItIs)
{
    write_file(path, "one\n");
    EXPECT_EQ(lh_file_line_append(path.c_str(), "%s %d\n", "two", 2), 0);
    EXPECT_EQ(lh_file_line_append(path.c_str(), "no newline"), 0);
    EXPECT_EQ(read_file(path), "one\ntwo 2\nno newline");
    EXPECT_EQ(lh_file_line_append(path.c_str(), "%0100000d", 0), 0);
    EXPECT_EQ(read_file(path), "one\ntwo 2\nno newline" + std::string(100000, '0'));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileLines, AppendNeverCreatesTheFile)
{
    EXPECT_EQ(lh_file_line_append(absent.c_str(), "x"), -1);
    EXPECT_LINES("lh_file_line_append: IS_NOT: lh_file_is_exist(path)");
    EXPECT_NE(access(absent.c_str(), F_OK), 0);
}

TEST_F(FileLines, AppendNeedsItsArguments)
{
    EXPECT_EQ(lh_file_line_append(nullptr, no_format, 0), -1);
    EXPECT_LINES("lh_file_line_append: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_line_append(absent.c_str(), no_format, 0), -1);
    EXPECT_LINES("lh_file_line_append: PTR_IS_NULL: fmt");
}

TEST_F(FileLines, AppendOfNothingIsATextThatWasNotWritten)
{
    write_file(path, "one\n");
    EXPECT_EQ(lh_file_line_append(path.c_str(), "%s", ""), -1);
    EXPECT_LINES("lh_file_line_append: IS_NE check failed: 1 (1 != 0) !!!");
    EXPECT_EQ(read_file(path), "one\n");
}

TEST_F(FileLines, AppendReportsEveryFailingStep)
{
    struct {
        const char *call;
        int error;
        const char *line;
    } const cases[] = {
        {"vasprintf", ENOMEM, "IS_EQ check failed: -1 (-1 == -1) !!!"},
        {"fopen", EACCES, "PTR_IS_NULL: f"},
        {"fwrite", ENOSPC, "IS_NE check failed: 1 (1 != 0) !!!"},
    };
    write_file(path, "");
    for (const auto &c : cases) {
        Faults faults;
        faults.fail(c.call, c.error);
        EXPECT_EQ(lh_file_line_append(path.c_str(), "x"), -1);
        EXPECT_EQ(errno, c.error);
        EXPECT_LINES(std::string("lh_file_line_append: ") + c.line);
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_EQ(read_file(path), "");
    }
    EXPECT_EQ(lh_file_line_append(path.c_str(), "x"), 0);
}

TEST_F(FileLines, AppendKeepsItsResultWhenClosingFails)
{
    write_file(path, "");
    Faults faults;
    fail_to_close(faults);
    EXPECT_EQ(lh_file_line_append(path.c_str(), "x"), 0);
    EXPECT_LINES("lh_file_line_append: fclose(f) failed");
    close_after();

    faults.fail("fwrite", ENOSPC);
    EXPECT_EQ(lh_file_line_append(path.c_str(), "x"), -1);
    EXPECT_LINES("lh_file_line_append: IS_NE check failed: 1 (1 != 0) !!!",
                 "lh_file_line_append: fclose(f) failed");
    close_after();
    EXPECT_EQ(lh_file_line_append("/dev/full", "x"), 0) << "only closing finds the device full";
    EXPECT_LINES("lh_file_line_append: fclose(f) failed");
    close_after();
}

TEST_F(FileLines, AppendOfATextThatIsTooLongForPrintfTouchesNothing)
{
    write_file(path, "one\n");
    const std::string wider_than_an_int = "%2147483648d";
    errno = 0;
    EXPECT_EQ(lh_file_line_append(path.c_str(), wider_than_an_int.c_str(), 1), -1);
    EXPECT_EQ(errno, EOVERFLOW);
    EXPECT_LINES("lh_file_line_append: IS_EQ check failed: -1 (-1 == -1) !!!");
    EXPECT_EQ(read_file(path), "one\n");
}

TEST_F(FileLines, AppendToADirectoryCannotOpenIt)
{
    Faults faults;
    errno = 0;
    EXPECT_EQ(lh_file_line_append(dir.path().c_str(), "%s", "x"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES("lh_file_line_append: PTR_IS_NULL: f");
    EXPECT_EQ(faults.held(), std::vector<std::string>{});
}

// What fits in the stream's buffer is found out when it is closed, what does not when it is written.
TEST_F(FileLines, AppendOfMoreThanABufferfulFindsTheDeviceFull)
{
    const std::string large(1 << 20, 'L');
    FILE *const plain = fopen("/dev/full", "a+");
    ASSERT_NE(plain, nullptr);
    ASSERT_EQ(fwrite(large.data(), large.size(), 1, plain), 0u);
    std::vector<std::string> lines{"lh_file_line_append: IS_NE check failed: 1 (1 != 0) !!!"};
    if (fclose(plain) != 0)
        lines.push_back("lh_file_line_append: fclose(f) failed");
    Faults faults;
    errno = 0;
    EXPECT_EQ(lh_file_line_append("/dev/full", "%s", large.c_str()), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(take_lines(), lines);
    EXPECT_EQ(faults.held(), std::vector<std::string>{});
    EXPECT_EQ(open_descriptors(), before);
}

// Counting ---------------------------------------------------------------------------------------

TEST_F(FileLines, CountIsTheNewlinesPlusOne)
{
    struct {
        std::string contents;
        size_t count;
    } const cases[] = {{"", 1},       {"x", 1},    {"x\n", 2},
                       {"a\nb\n", 3}, {"\n\n", 3}, {std::string("\0\n\0", 3), 2}};
    for (const auto &c : cases) {
        write_file(path, c.contents);
        size_t lines_num = 77;
        EXPECT_EQ(lh_file_lines_num_get(path.c_str(), &lines_num), 0);
        EXPECT_EQ(lines_num, c.count) << c.contents;
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileLines, CountIsThatOfTheBytes)
{
    const unsigned seed = 20240607;
    std::mt19937 random(seed);
    const size_t sizes[] = {1, 100, 4095, 4096, 4097, 16383, 16384, 16385, 32768, 50000, 200001};
    for (const size_t size : sizes) {
        const unsigned one_in = 1 + random() % 100;
        std::string contents(size, 'x');
        for (char &byte : contents)
            byte = random() % one_in == 0 ? '\n' : static_cast<char>(random());
        write_file(path, contents);
        const auto newlines = std::count(contents.begin(), contents.end(), '\n');
        size_t lines_num = 0;
        EXPECT_EQ(lh_file_lines_num_get(path.c_str(), &lines_num), 0);
        EXPECT_EQ(lines_num, static_cast<size_t>(newlines) + 1)
            << "seed " << seed << " size " << size;
    }
}

TEST_F(FileLines, CountReportsWhatFailed)
{
    size_t lines_num = 77;
    EXPECT_EQ(lh_file_lines_num_get(nullptr, nullptr), -1);
    EXPECT_LINES("lh_file_lines_num_get: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_lines_num_get(absent.c_str(), nullptr), -1);
    EXPECT_LINES("lh_file_lines_num_get: PTR_IS_NULL: lines_num");
    EXPECT_EQ(lh_file_lines_num_get(absent.c_str(), &lines_num), -1);
    EXPECT_LINES("lh_file_lines_num_get: IS_NOT: lh_file_is_exist(path)");
    write_file(path, "a\n");
    Faults faults;
    faults.fail("fopen", EACCES);
    EXPECT_EQ(lh_file_lines_num_get(path.c_str(), &lines_num), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES("lh_file_lines_num_get: PTR_IS_NULL: f");
    EXPECT_EQ(lines_num, 77u);
    fail_to_close(faults);
    EXPECT_EQ(lh_file_lines_num_get(path.c_str(), &lines_num), 0);
    EXPECT_EQ(lines_num, 2u);
    EXPECT_LINES("lh_file_lines_num_get: fclose(f) failed");
    close_after();
}

TEST_F(FileLines, CountingEndsAtAReadError)
{
    size_t lines_num = 77;
    EXPECT_EQ(lh_file_lines_num_get(dir.path().c_str(), &lines_num), 0);
    EXPECT_EQ(lines_num, 1u);
}

// Line by number ---------------------------------------------------------------------------------

TEST_F(FileLines, LineByNumberLosesItsNewline)
{
    write_file(path, "ab\n\ncd\r\nlast");
    const std::string lines[] = {"ab", "", "cd\r", "last"};
    for (size_t num = 1; num <= 4; num++) {
        char line[16] = "###############";
        EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), num), 0);
        EXPECT_EQ(line, lines[num - 1]);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileLines, LineByNumberNeedsRoom)
{
    write_file(path, "ab\ncd");
    char line[4] = "###";
    EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), line, 2, 2), -1);
    EXPECT_LINES("lh_file_line_get_by_num: IS_MT check failed: len + 1 (3 > 2) !!!");
    EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), line, -5, 1), -1);
    EXPECT_LINES("lh_file_line_get_by_num: IS_MT check failed: len + 1 (3 > -5) !!!");
    EXPECT_STREQ(line, "###");
    EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), line, 3, 2), 0);
    EXPECT_STREQ(line, "cd");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileLines, LineByNumberBehindTheEndIsSilent)
{
    char line[4] = "###";
    for (const char *contents : {"", "ab\ncd", "ab\ncd\n"}) {
        write_file(path, contents);
        EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 3), -1);
        EXPECT_NO_LINES();
    }
    EXPECT_STREQ(line, "###");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileLines, EveryPieceOfALongLineIsALine)
{
    char line[2000];
    write_file(path, std::string(1023, 'a') + "\nnext\n");
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 1), 0);
    EXPECT_EQ(line, std::string(1023, 'a'));
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 2), 0);
    EXPECT_STREQ(line, "") << "the newline that did not fit is a piece of its own";
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 3), 0);
    EXPECT_STREQ(line, "next");

    write_file(path, std::string(1022, 'a') + "\nnext\n");
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 1), 0);
    EXPECT_EQ(line, std::string(1022, 'a'));
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 2), 0);
    EXPECT_STREQ(line, "next");

    write_file(path, std::string(1023, 'a') + "rest\nnext\n");
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 2), 0);
    EXPECT_STREQ(line, "rest");
}

TEST_F(FileLines, LineByNumberEndsAtANul)
{
    write_file(path, std::string("\0x\nab\0c\nd", 9));
    char line[8];
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 1), 0);
    EXPECT_STREQ(line, "");
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 2), 0);
    EXPECT_STREQ(line, "ab");
    ASSERT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 3), 0);
    EXPECT_STREQ(line, "d");
}

TEST_F(FileLines, LineByNumberReportsWhatFailed)
{
    write_file(path, "ab\n");
    char line[8];
    EXPECT_EQ(lh_file_line_get_by_num(nullptr, nullptr, 0, 0), -1);
    EXPECT_LINES("lh_file_line_get_by_num: PTR_IS_NULL: path");
    EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), nullptr, 0, 0), -1);
    EXPECT_LINES("lh_file_line_get_by_num: PTR_IS_NULL: line");
    EXPECT_EQ(lh_file_line_get_by_num(absent.c_str(), line, sizeof(line), 0), -1);
    EXPECT_LINES("lh_file_line_get_by_num: IS_EQ check failed: 0 (0 == 0) !!!");
    errno = 0;
    EXPECT_EQ(lh_file_line_get_by_num(absent.c_str(), line, sizeof(line), 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_file_line_get_by_num: PTR_IS_NULL: f");
}

TEST_F(FileLines, LineByNumberKeepsItsResultWhenClosingFails)
{
    write_file(path, "ab\n");
    char line[8];
    Faults faults;
    fail_to_close(faults);
    EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 1), 0);
    EXPECT_LINES("lh_file_line_get_by_num: fclose(f) failed");
    close_after();
    EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), line, sizeof(line), 2), -1);
    EXPECT_LINES("lh_file_line_get_by_num: fclose(f) failed");
    close_after();
    EXPECT_EQ(lh_file_line_get_by_num(path.c_str(), line, 1, 1), -1);
    EXPECT_LINES("lh_file_line_get_by_num: IS_MT check failed: len + 1 (3 > 1) !!!",
                 "lh_file_line_get_by_num: fclose(f) failed");
    close_after();
}

// Skipping ---------------------------------------------------------------------------------------

TEST_F(FileLines, SkippingTakesTheWhiteSpaceBehindALine)
{
    struct {
        std::string contents;
        unsigned n;
        long position;
    } const cases[] = {{"a\n\n\nb", 1, 4},  {"a\nb\nc\n", 2, 4}, {"a\n  \t b\n", 1, 6},
                       {"a b c\nd", 1, 6},  {"a\nb\n", 0, 0},    {"a\nb", 2, 3},
                       {"a", 1, 1},         {"a\n", 1, 2},       {"\nb\nc", 1, 0},
                       {"\nb\nc", 1000, 0}, {"\n", 7, 0},        {"", 0, 0}};
    for (const auto &c : cases) {
        write_file(path, c.contents);
        const stream f(fopen(path.c_str(), "r"), fclose);
        EXPECT_EQ(lh_file_skip_lines(f.get(), c.n), 0) << c.contents;
        EXPECT_EQ(ftell(f.get()), c.position) << c.contents;
    }
}

TEST_F(FileLines, SkippingBehindTheEndIsLogged)
{
    for (const char *contents : {"", "a\nb", "a\nb\n"}) {
        write_file(path, contents);
        const stream f(fopen(path.c_str(), "r"), fclose);
        EXPECT_EQ(lh_file_skip_lines(f.get(), 3), -1);
        EXPECT_LINES("lh_file_skip_lines: IS_EQ check failed: rc (-1 == -1) !!!",
                     "lh_file_skip_lines: end of file reached");
    }
    EXPECT_EQ(lh_file_skip_lines(nullptr, 1), -1);
    EXPECT_LINES("lh_file_skip_lines: PTR_IS_NULL: f");
}

TEST_F(FileLines, SkippingInAStreamThatCannotBeReadIsTakenForItsEnd)
{
    write_file(path, "a\nb\n");
    const stream f(fopen(path.c_str(), "a"), fclose);
    errno = 0;
    EXPECT_EQ(lh_file_skip_lines(f.get(), 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_LINES("lh_file_skip_lines: IS_EQ check failed: rc (-1 == -1) !!!",
                 "lh_file_skip_lines: end of file reached");
    EXPECT_EQ(lh_file_skip_lines(f.get(), 0), 0);
}

TEST_F(FileLines, SkippingTellsTheStreamThatItsEndIsReached)
{
    struct {
        unsigned n;
        bool at_end;
    } const cases[] = {{0, false}, {1, false}, {2, true}, {3, true}};
    write_file(path, "a\nb");
    for (const auto &c : cases) {
        const stream f(fopen(path.c_str(), "r"), fclose);
        EXPECT_EQ(lh_file_skip_lines(f.get(), c.n), c.n <= 2 ? 0 : -1);
        EXPECT_EQ(feof(f.get()) != 0, c.at_end) << c.n;
        EXPECT_EQ(ferror(f.get()), 0);
        take_lines();
    }
}

TEST_F(FileLines, SkippingReportsAnyOtherResult)
{
    write_file(path, "a\nb\n");
    const stream f(fopen(path.c_str(), "r"), fclose);
    Faults faults;
    faults.replace("__isoc99_fscanf", reinterpret_cast<void *>(+[](FILE *, const char *, va_list) {
                       errno = EILSEQ;
                       return 3;
                   }));
    EXPECT_EQ(lh_file_skip_lines(f.get(), 1), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_LINES("lh_file_skip_lines: IS_NE check failed: rc (3 != 0) !!!",
                 "lh_file_skip_lines: fscanf failed: Invalid or incomplete multibyte or wide "
                 "character");
}

// The plain way, round by round: the library may leave out rounds that do nothing.
TEST_F(FileLines, SkippingIsFscanf)
{
    const unsigned seed = 4711;
    std::mt19937 random(seed);
    for (int round = 0; round < 2000; round++) {
        std::string contents(random() % 12, ' ');
        for (char &byte : contents)
            byte = "ab\n\n \t"[random() % 6];
        const long start = static_cast<long>(random() % (contents.size() + 1));
        const unsigned n = random() % 5;
        write_file(path, contents);
        const stream f(fopen(path.c_str(), "r"), fclose);
        const stream plain(fopen(path.c_str(), "r"), fclose);
        fseek(f.get(), start, SEEK_SET);
        fseek(plain.get(), start, SEEK_SET);
        int expected = 0;
        for (unsigned i = 0; i < n && expected == 0; i++)
            expected = fscanf(plain.get(), "%*[^\n]\n");
        EXPECT_EQ(lh_file_skip_lines(f.get(), n), expected)
            << "seed " << seed << " round " << round;
        EXPECT_EQ(ftell(f.get()), ftell(plain.get())) << "seed " << seed << " round " << round;
        EXPECT_EQ(feof(f.get()) != 0, feof(plain.get()) != 0)
            << "seed " << seed << " round " << round;
        EXPECT_EQ(take_lines().size(), expected == 0 ? 0u : 2u);
    }
}
