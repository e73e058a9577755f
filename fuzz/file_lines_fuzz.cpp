// The line functions. The input is the number of a line, the size of the place for it, how many
// lines are skipped from where, a newline, then the file.
#include "lh_file.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "fuzz/support/fuzz.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::fuzz;
using vyt::test::read_file;
using vyt::test::take_lines;

namespace {

using Stream = std::unique_ptr<FILE, decltype(&fclose)>;

const std::string path = "/run/text";
constexpr size_t piece_size = 1024;

Stream open_at(size_t offset)
{
    Stream stream(fopen(path.c_str(), "r"), fclose);
    EXPECT_EQ(fseek(stream.get(), static_cast<long>(offset), SEEK_SET), 0);
    return stream;
}

void check_count(const std::string &contents)
{
    size_t lines = 0;
    EXPECT_EQ(lh_file_lines_num_get(path.c_str(), &lines), 0);
    EXPECT_EQ(lines, 1 + static_cast<size_t>(std::count(contents.begin(), contents.end(), '\n')));
}

// A line of the file; long ones come in pieces, and a NUL ends what is seen of one.
void check_line(const std::string &contents, size_t num, size_t room_size)
{
    Exact room(std::string(room_size, '?'));
    const auto line_size = static_cast<long>(room_size);
    const int result = lh_file_line_get_by_num(path.c_str(), room.data(), line_size, num);
    const auto pieces = pieces_of(contents, piece_size);
    const std::string getter = "lh_file_line_get_by_num: ";
    if (num == 0 || num > pieces.size()) {
        EXPECT_EQ(result, -1);
        if (num == 0)
            EXPECT_LINES(getter + "IS_EQ check failed: 0 (0 == 0) !!!");
        return;
    }
    std::string line = c_text(pieces[num - 1]);
    if (!line.empty() && line.back() == '\n')
        line.pop_back();
    if (room_size < line.size() + 1) {
        EXPECT_EQ(result, -1);
        EXPECT_LINES(getter + "IS_MT check failed: len + 1 (" + std::to_string(line.size() + 1) +
                     " > " + std::to_string(room_size) + ") !!!");
        EXPECT_EQ(room.bytes(), std::string(room_size, '?'));
        return;
    }
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(room.data(), line.c_str());
}

// Round by round, as the format says.
int plain_skip(FILE *stream, unsigned count)
{
    for (; count > 0; count--) {
        if (fscanf(stream, "%*[^\n]\n") == EOF)
            return -1;
    }
    return 0;
}

void check_skipping(size_t offset, unsigned count)
{
    const Stream stream = open_at(offset);
    const Stream plain = open_at(offset);
    const int expected = plain_skip(plain.get(), count);
    EXPECT_EQ(lh_file_skip_lines(stream.get(), count), expected);
    EXPECT_EQ(ftell(stream.get()), ftell(plain.get()));
    if (expected != 0)
        EXPECT_LINES("lh_file_skip_lines: IS_EQ check failed: rc (-1 == -1) !!!",
                     "lh_file_skip_lines: end of file reached");
}

} // namespace

void vyt::fuzz::prepare()
{
    static const vyt::test::World world;
}

void vyt::fuzz::run(Input input)
{
    const size_t num = input.below(256);
    const size_t room_size = input.below(256) * 8 + input.below(8);
    const unsigned count = input.below(256);
    const size_t offset = input.below(256);
    const std::string added = input.line();
    const std::string contents = input.rest();
    vyt::test::write_file(path, contents);

    check_count(contents);
    check_line(contents, num, room_size);
    check_skipping(std::min(offset, contents.size()), count);

    const int appended = lh_file_line_append(path.c_str(), "%s\n", Exact::text(added).data());
    EXPECT_EQ(appended, 0);
    EXPECT_EQ(read_file(path), contents + c_text(added) + "\n");
}
