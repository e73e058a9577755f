// The backward reader. The input is where reading starts and what the caller's buffer holds, a
// newline, then the file.
#include "lh_file.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "fuzz/support/fuzz.hpp"
#include "support/line_buffer.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::fuzz;
using vyt::test::LineBuffer;
using vyt::test::take_lines;

namespace {

using Stream = std::unique_ptr<FILE, decltype(&fclose)>;

const std::string path = "/run/text";

struct Answer {
    ssize_t length;
    std::string line;
    size_t position; // afterwards
};

// The line that ends before `off`; without one there is no answer.
std::optional<Answer> plain_line_before(const std::string &contents, size_t off)
{
    if (off == 0)
        return std::nullopt;
    const size_t newline = contents.rfind('\n', off - 1);
    const size_t start = newline == std::string::npos ? 0 : newline + 1;
    const size_t end = std::min(contents.find('\n', start), contents.size() - 1) + 1;
    const size_t position = newline == std::string::npos ? 0 : newline;
    if (start == contents.size())
        return Answer{1, "", position};
    return Answer{static_cast<ssize_t>(end - start), contents.substr(start, end - start), position};
}

// Backwards from `off` to the start; the lines as they came.
std::vector<std::string> check_backwards(FILE *stream, const std::string &contents, size_t off,
                                         LineBuffer &buffer)
{
    std::vector<std::string> lines;
    EXPECT_EQ(fseek(stream, static_cast<long>(off), SEEK_SET), 0);
    for (;;) {
        const auto expected = plain_line_before(contents, off);
        const bool is_stale = buffer.line != nullptr && buffer.line[0] != '\0';
        errno = 0;
        const ssize_t length = lh_file_reverse_getline(&buffer.line, &buffer.size, stream);
        if (!expected.has_value()) {
            EXPECT_EQ(length, -1);
            return lines;
        }
        if (expected->line.empty() && is_stale) {
            // The empty end cannot be told from a failure then.
            EXPECT_EQ(length, -1);
            EXPECT_LINES("lh_file_reverse_getline: getline failed: Success");
            return lines;
        }
        EXPECT_EQ(length, expected->length);
        EXPECT_EQ(std::string(buffer.line, expected->line.size()), expected->line);
        EXPECT_EQ(buffer.line[expected->line.size()], '\0');
        EXPECT_EQ(ftell(stream), static_cast<long>(expected->position));
        lines.push_back(expected->line);
        off = expected->position;
    }
}

std::vector<std::string> forward_lines(FILE *stream)
{
    std::vector<std::string> lines;
    LineBuffer buffer;
    rewind(stream);
    for (ssize_t length; (length = getline(&buffer.line, &buffer.size, stream)) != -1;)
        lines.emplace_back(buffer.line, static_cast<size_t>(length));
    return lines;
}

} // namespace

void vyt::fuzz::prepare()
{
    static const vyt::test::World world;
}

void vyt::fuzz::run(Input input)
{
    const size_t start = input.number(2);
    const std::string stale = c_text(input.line());
    const std::string contents = input.rest();
    vyt::test::write_file(path, contents);
    const Stream stream(fopen(path.c_str(), "r"), fclose);

    LineBuffer used(stale);
    check_backwards(stream.get(), contents, std::min(start, contents.size()), used);

    // From the end, the lines are those that are read forwards, the last one first: with the empty
    // one behind a last newline, without an empty first one.
    LineBuffer fresh;
    const auto backwards = check_backwards(stream.get(), contents, contents.size(), fresh);
    auto forwards = forward_lines(stream.get());
    if (!contents.empty() && contents.back() == '\n')
        forwards.emplace_back("");
    if (!contents.empty() && contents.front() == '\n')
        forwards.erase(forwards.begin());
    std::reverse(forwards.begin(), forwards.end());
    EXPECT_EQ(backwards, forwards);
}
