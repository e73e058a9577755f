// The save file of the WireGuard debug flags. The input is the file.
#include "syslog_wireguard.h"

#include <filesystem>

#include "fuzz/support/fuzz.hpp"
#include "fuzz/support/scan.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::fuzz;

namespace {

const std::string directory = "/mnt/config/etc/config/vyt/debug";
const std::string path = directory + "/wireguard.conf";
constexpr size_t line_size = 64;

struct Answer {
    int result = 0;
    syslog_wireguard_flags_t flags;
    std::vector<std::string> lines = {};
};

// "%4s = %d", line by line.
Answer plain_read(const std::string &contents, syslog_wireguard_flags_t flags)
{
    Answer answer = {.flags = flags};
    const std::string reader = "syslog_wireguard_read_flags_from_savefile: ";
    for (const std::string &piece : pieces_of(contents, line_size)) {
        const std::string line = c_text(piece);
        Scan scan(line);
        const auto mnemonic = scan.word(4);
        scan.skip_blanks();
        const auto value = mnemonic.has_value() && scan.skip('=') ? scan.number() : std::nullopt;
        if (value.has_value() && mnemonic == "dbg") {
            answer.flags.dbg = *value == 1;
        } else if (value.has_value() && mnemonic == "err") {
            answer.flags.err = *value == 1;
        } else {
            answer.result = -1;
            answer.lines.push_back(
                reader + (value.has_value() ? "<syslog_wireguard_read_flags_from_savefile> invalid "
                                              "mnemonic '" +
                                                  *mnemonic + "' in file"
                                            : "can't parse line: '" + line + "'"));
            break;
        }
    }
    return answer;
}

void check_read(const std::string &contents, syslog_wireguard_flags_t flags)
{
    const Answer expected = plain_read(contents, flags);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), expected.result);
    EXPECT_EQ(flags.dbg, expected.flags.dbg);
    EXPECT_EQ(flags.err, expected.flags.err);
    EXPECT_EQ(vyt::test::take_lines(), expected.lines);
}

} // namespace

void vyt::fuzz::prepare()
{
    static const vyt::test::World world;
    std::filesystem::create_directories(directory);
}

void vyt::fuzz::run(Input input)
{
    const std::string contents = input.rest();
    vyt::test::write_file(path, contents);
    check_read(contents, {.dbg = 1, .err = 0});
    check_read(contents, {.dbg = 0, .err = 1});

    // What is saved is read back; only 1 counts as on.
    const auto number = static_cast<uint8_t>(contents.size());
    const syslog_wireguard_flags_t saved = {.dbg = number, .err = 1};
    syslog_wireguard_flags_t loaded = {};
    EXPECT_EQ(syslog_wireguard_write_flags_to_savefile(&saved, 0), 0);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&loaded), 0);
    EXPECT_EQ(loaded.dbg, number == 1);
    EXPECT_EQ(loaded.err, 1);
}
