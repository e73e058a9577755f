#include "lh_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/line_buffer.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

namespace {

using stream = std::unique_ptr<FILE, decltype(&fclose)>;

struct Answer {
    ssize_t length;
    std::string line; // what the buffer holds, when there is a length
    long position;
    std::string complaint; // the function that failed, if it said so

    bool operator==(const Answer &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Answer &a)
{
    return out << a.length << " '" << a.line << "' at " << a.position << " " << a.complaint;
}

// The plain way, one byte at a time.
ssize_t plain_reverse_getline(LineBuffer &buffer, FILE *file, std::string &complaint)
{
    const auto fail = [&](const char *call) {
        complaint = call;
        return -1;
    };
    long off = ftell(file);
    if (off == -1)
        return fail("ftell");
    if (off == 0)
        return -1;
    for (;;) {
        off--;
        if (fseek(file, off, SEEK_SET) != 0)
            return fail("fseek");
        char byte;
        if (fread(&byte, 1, 1, file) != 1)
            return fail("fread");
        if (byte == '\n')
            break;
        if (off == 0) {
            if (fseek(file, 0, SEEK_SET) != 0)
                return fail("fseek");
            break;
        }
    }
    const bool fresh = buffer.line == nullptr;
    ssize_t length = getline(&buffer.line, &buffer.size, file);
    if (length == -1) {
        if (fresh)
            buffer.line[0] = '\0';
        if (buffer.line[0] != '\0')
            return fail("getline");
        length = 1;
    }
    if (fseek(file, off, SEEK_SET) != 0)
        return fail("fseek");
    return length;
}

Answer plain_answer(LineBuffer &buffer, FILE *file)
{
    Answer answer = {};
    answer.length = plain_reverse_getline(buffer, file, answer.complaint);
    if (answer.length != -1)
        answer.line = std::string(buffer.line, static_cast<size_t>(answer.length));
    answer.position = ftell(file);
    return answer;
}

Answer library_answer(LineBuffer &buffer, FILE *file)
{
    Answer answer = {};
    answer.length = lh_file_reverse_getline(&buffer.line, &buffer.size, file);
    if (answer.length != -1)
        answer.line = std::string(buffer.line, static_cast<size_t>(answer.length));
    answer.position = ftell(file);
    for (const std::string &line : take_lines()) {
        const size_t start = strlen("lh_file_reverse_getline: ");
        answer.complaint += line.substr(start, line.find(' ', start) - start);
    }
    return answer;
}

class FileReverse : public LogTest {
  protected:
    stream open_at_end(const std::string &contents)
    {
        write_file(path, contents);
        stream file(fopen(path.c_str(), "r"), fclose);
        fseek(file.get(), 0, SEEK_END);
        return file;
    }

    TempDir dir;
    const std::string path = dir / "log";
};

} // namespace

TEST_F(FileReverse, ReadsTheLinesFromTheEnd)
{
    const stream file = open_at_end("a\nb\n");
    LineBuffer buffer;
    EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, file.get()), 1);
    EXPECT_STREQ(buffer.line, "");
    EXPECT_EQ(ftell(file.get()), 3);
    EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, file.get()), 2);
    EXPECT_STREQ(buffer.line, "b\n");
    EXPECT_EQ(ftell(file.get()), 1);
    EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, file.get()), 2);
    EXPECT_STREQ(buffer.line, "a\n");
    EXPECT_EQ(ftell(file.get()), 0);
    EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, file.get()), -1);
    EXPECT_NO_LINES();
}

TEST_F(FileReverse, ReadsALastLineWithoutANewline)
{
    const stream file = open_at_end("a\nb");
    LineBuffer buffer;
    EXPECT_EQ(library_answer(buffer, file.get()), (Answer{1, "b", 1, ""}));
    EXPECT_EQ(library_answer(buffer, file.get()), (Answer{2, "a\n", 0, ""}));
    EXPECT_EQ(library_answer(buffer, file.get()), (Answer{-1, "", 0, ""}));
}

TEST_F(FileReverse, AnEmptyFirstLineIsNeverReturned)
{
    const stream file = open_at_end("\nb");
    LineBuffer buffer;
    EXPECT_EQ(library_answer(buffer, file.get()), (Answer{1, "b", 0, ""}));
    EXPECT_EQ(library_answer(buffer, file.get()), (Answer{-1, "", 0, ""}));
}

TEST_F(FileReverse, AnEmptyStreamHasNoLine)
{
    const stream file = open_at_end("");
    LineBuffer buffer;
    EXPECT_EQ(library_answer(buffer, file.get()), (Answer{-1, "", 0, ""}));
    EXPECT_EQ(buffer.line, nullptr);
}

TEST_F(FileReverse, FromTheMiddleOfALineTheWholeLineIsRead)
{
    const stream file = open_at_end("a\nbcdef\ng\n");
    fseek(file.get(), 4, SEEK_SET);
    LineBuffer buffer;
    EXPECT_EQ(library_answer(buffer, file.get()), (Answer{6, "bcdef\n", 1, ""}));
}

TEST_F(FileReverse, TheEmptyLineAtTheEndNeedsAnEmptyBuffer)
{
    {
        const stream file = open_at_end("a\n");
        LineBuffer buffer("");
        EXPECT_EQ(library_answer(buffer, file.get()), (Answer{1, std::string(1, '\0'), 1, ""}));
    }
    // What getline leaves of an older line at the end of a file is the C library's affair.
    const stream file = open_at_end("a\n");
    LineBuffer buffer("older");
    const Answer answer = library_answer(buffer, file.get());
    const stream plain = open_at_end("a\n");
    LineBuffer plain_buffer("older");
    EXPECT_EQ(answer, plain_answer(plain_buffer, plain.get()));
    EXPECT_EQ(answer.complaint, buffer.line[0] == '\0' ? "" : "getline");
}

TEST_F(FileReverse, ABlockWithoutASizeIsNoBuffer)
{
    const stream file = open_at_end("a\n");
    char mark = 'x'; // getline replaces what it believes to have no size
    char *line = &mark;
    size_t size = 0;
    EXPECT_EQ(lh_file_reverse_getline(&line, &size, file.get()), 1);
    EXPECT_NE(line, &mark);
    EXPECT_STREQ(line, "");
    free(line);
}

TEST_F(FileReverse, NeedsItsArguments)
{
    LineBuffer buffer;
    EXPECT_EQ(lh_file_reverse_getline(nullptr, nullptr, nullptr), -1);
    EXPECT_LINES("lh_file_reverse_getline: PTR_IS_NULL: line");
    EXPECT_EQ(lh_file_reverse_getline(&buffer.line, nullptr, nullptr), -1);
    EXPECT_LINES("lh_file_reverse_getline: PTR_IS_NULL: size");
    EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, nullptr), -1);
    EXPECT_LINES("lh_file_reverse_getline: PTR_IS_NULL: file");
}

TEST_F(FileReverse, FailureWithAFreshBlockIsNotTakenForAnEmptyLine)
{
    const stream file = open_at_end("a\nb");
    LineBuffer buffer;
    Faults faults;
    faults.replace("getline", reinterpret_cast<void *>(+[](char **line, size_t *size, FILE *) {
                       *size = 8;
                       *line = static_cast<char *>(calloc(1, *size));
                       errno = ENOMEM;
                       return ssize_t{-1};
                   }));
    EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, file.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES("lh_file_reverse_getline: getline failed: Cannot allocate memory");
}

TEST_F(FileReverse, EveryFailingCallIsReported)
{
    struct {
        const char *call;
        unsigned nth;
        const char *line;
    } const cases[] = {
        {"ftell", 1, "ftell failed: Input/output error"},
        {"fseek", 1, "fseek failed: Input/output error"}, // to the first block
        {"fseek", 2, "fseek failed: Input/output error"}, // to the line
        {"fseek", 3, "fseek failed: Input/output error"}, // to the newline before it
        {"fread", 1, "fread failed: (Input/output error)"},
        {"getline", 1, "getline failed: Input/output error"},
    };
    for (const auto &c : cases) {
        const stream file = open_at_end("a\nb");
        LineBuffer buffer;
        Faults faults;
        faults.fail(c.call, EIO, c.nth);
        EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, file.get()), -1) << c.call;
        EXPECT_TRUE(faults.happened());
        EXPECT_EQ(errno, EIO);
        EXPECT_LINES(std::string("lh_file_reverse_getline: ") + c.line);

        fseek(file.get(), 0, SEEK_END);
        EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, file.get()), 1);
        EXPECT_STREQ(buffer.line, "b");
    }
}

TEST_F(FileReverse, AStreamWithoutAPositionIsReported)
{
    const stream pipe(popen("true", "r"), pclose);
    LineBuffer buffer;
    EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, pipe.get()), -1);
    EXPECT_EQ(errno, ESPIPE);
    EXPECT_LINES("lh_file_reverse_getline: ftell failed: Illegal seek");
}

TEST_F(FileReverse, AStreamThatCannotBeReadIsLeftAtTheByteThatWasWanted)
{
    for (const std::string &contents :
         {std::string("a"), std::string("a\nb"), std::string("a\n"), std::string(2000, 'x')}) {
        const stream file(fopen(path.c_str(), "w"), fclose);
        fputs(contents.c_str(), file.get());
        LineBuffer buffer;
        errno = 0;
        EXPECT_EQ(lh_file_reverse_getline(&buffer.line, &buffer.size, file.get()), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_LINES("lh_file_reverse_getline: fread failed: (Bad file descriptor)");
        EXPECT_EQ(ftell(file.get()), static_cast<long>(contents.size()) - 1);
        EXPECT_EQ(buffer.line, nullptr);
    }
}

TEST_F(FileReverse, BehindTheEndThereIsNothingToRead)
{
    const stream file = open_at_end("a\nb");
    for (const long position : {4L, 10L, 513L, 5000L}) {
        fseek(file.get(), position, SEEK_SET);
        LineBuffer buffer;
        errno = 0;
        EXPECT_EQ(library_answer(buffer, file.get()), (Answer{-1, "", position - 1, "fread"}));
    }
}

// From random places of random files, with every kind of buffer and stream buffering, the answers
// are those of reading a byte at a time.
TEST_F(FileReverse, AnswersAsAByteAtATimeDoes)
{
    const unsigned seed = 77001;
    std::mt19937 random(seed);
    for (int round = 0; round < 400; round++) {
        const unsigned one_in = 1u << random() % 12;
        std::string contents(random() % (random() % 4 == 0 ? 6000 : 40), ' ');
        for (char &byte : contents)
            byte = random() % one_in == 0 ? '\n' : "abc\0\r\xff"[random() % 6];
        write_file(path, contents);
        const stream file(fopen(path.c_str(), "r"), fclose);
        const stream plain(fopen(path.c_str(), "r"), fclose);
        if (random() % 4 == 0)
            setvbuf(file.get(), nullptr, _IONBF, 0);
        long start = static_cast<long>(contents.size());
        if (random() % 2 == 0)
            start = static_cast<long>(random() % (contents.size() + 3));
        fseek(file.get(), start, SEEK_SET);
        fseek(plain.get(), start, SEEK_SET);
        LineBuffer buffer;
        LineBuffer plain_buffer;
        for (size_t call = 0; call <= contents.size() + 1; call++) {
            const Answer expected = plain_answer(plain_buffer, plain.get());
            ASSERT_EQ(library_answer(buffer, file.get()), expected)
                << "seed " << seed << " round " << round << " call " << call;
            if (expected.length == -1)
                break;
        }
    }
}

TEST_F(FileReverse, LinesOfAnyLengthAreFoundBlockByBlock)
{
    for (const size_t length : {510u, 511u, 512u, 513u, 1023u, 1024u, 1025u, 100000u}) {
        const std::string line(length, 'x');
        const stream file = open_at_end("first\n" + line + "\n" + line);
        LineBuffer buffer;
        Faults faults;
        const auto size = static_cast<ssize_t>(length);
        EXPECT_EQ(library_answer(buffer, file.get()), (Answer{size, line, 6 + size, ""}));
        EXPECT_EQ(library_answer(buffer, file.get()), (Answer{size + 1, line + "\n", 5, ""}));
        EXPECT_EQ(library_answer(buffer, file.get()), (Answer{6, "first\n", 0, ""}));
        EXPECT_LE(faults.calls("fread"), 2 * (length / 512 + 2) + 1) << "not a byte at a time";
    }
}
