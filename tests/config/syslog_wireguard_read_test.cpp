#include "syslog_wireguard.h"

#include <cstring>
#include <random>
#include <unistd.h>

#include "config/syslog_wireguard_fixture.hpp"
#include "support/faults.hpp"

using namespace vyt::test;

namespace {

class WireguardRead : public WireguardFile {};

} // namespace

TEST_F(WireguardRead, NullFlagsAreLogged)
{
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(nullptr), -1);
    EXPECT_LINES(line_of(reader, "PTR_IS_NULL: flags"));
    EXPECT_EQ(permissions("/mnt/config"), -1) << "nothing is made";
}

TEST_F(WireguardRead, TakesWhatIsSaved)
{
    save_text("");
    for (const uint8_t dbg : {0, 1})
        for (const uint8_t err : {0, 1}) {
            const flags_t saved = {dbg, err};
            ASSERT_EQ(syslog_wireguard_write_flags_to_savefile(&saved, 0), 0);
            flags_t flags = untouched;
            EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0);
            EXPECT_EQ(flags, saved);
        }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardRead, MissingFileIsMadeWithTheDefaults)
{
    flags_t flags = untouched;
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0);
    EXPECT_EQ(flags, (flags_t{0, 1}));
    EXPECT_EQ(read_file(save), defaults);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardRead, GoodLinesAreTaken)
{
    struct {
        const char *text;
        flags_t flags;
    } const cases[] = {
        {"dbg = 1\nerr = 1\n", {1, 1}},
        {"err = 1\ndbg = 1\n", {1, 1}},
        {"dbg = 2\n", {0, 88}},
        {"dbg = -1\n", {0, 88}},
        {"dbg = 10\n", {0, 88}},
        {"dbg = +01\n", {1, 88}},
        {"err = 0\n", {77, 0}},
        {"err = 1", {77, 1}},
        {"dbg = 1\ndbg = 0\n", {0, 88}},
        {"dbg = 0\nerr = 0\ndbg = 1\nerr = 1\ndbg = 0\n", {0, 1}},
        {" \t dbg \t=\t 1\n", {1, 88}},
        {"dbg =1\n", {1, 88}},
        {"dbg = 1 and so on\n", {1, 88}},
        {"dbg = 1\r\n", {1, 88}},
        {"", {77, 88}},
    };
    for (const auto &c : cases) {
        save_text(c.text);
        flags_t flags = untouched;
        EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0) << c.text;
        EXPECT_EQ(flags, c.flags) << c.text;
        EXPECT_EQ(read_file(save), c.text);
    }
}

TEST_F(WireguardRead, BadLinesAreShownWithTheirNewline)
{
    for (const std::string line :
         {"\n", " \n", "dbg\n", "dbg 1\n", "dbg =\n", "dbg = \n", "dbg = x\n", "dbg=1\n",
          "dbg = - 1\n", "debug = 1\n", "dbgxy = 1\n", "= 1\n", "dbg = ", "x ", "\r\n"}) {
        save_text("err = 0\n" + line + "dbg = 1\n");
        flags_t flags = untouched;
        const std::string shown = line.back() == '\n' ? line : line + "dbg = 1\n";
        EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), -1) << line;
        EXPECT_LINES(line_of(reader, "can't parse line: '" + shown + "'"));
        EXPECT_EQ(flags, (flags_t{77, 0})) << "the line before the bad one counts";
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardRead, UnknownMnemonicsAreRefused)
{
    struct {
        const char *line;
        const char *mnemonic;
    } const cases[] = {{"dbgx = 1\n", "dbgx"}, {"DBG = 1\n", "DBG"},   {"x = 0\n", "x"},
                       {"abcd=1\n", "abcd"},   {"dbg= = 1\n", "dbg="}, {"err: = 1\n", "err:"}};
    for (const auto &c : cases) {
        save_text(std::string("dbg = 1\n") + c.line + "err = 1\n");
        flags_t flags = untouched;
        EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), -1) << c.line;
        EXPECT_LINES(
            named_line_of(reader, std::string("invalid mnemonic '") + c.mnemonic + "' in file"));
        EXPECT_EQ(flags, (flags_t{1, 88})) << "the line before the bad one counts";
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(WireguardRead, EveryPieceOf63CharactersIsALine)
{
    // 62 characters and the newline are one piece; of one more, the newline is a line of its own.
    std::string line = "dbg = 1";
    line.resize(62, ' ');
    save_text(line + "\nerr = 0\n");
    flags_t flags = untouched;
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0);
    EXPECT_EQ(flags, (flags_t{1, 0}));

    save_text(line + " \nerr = 0\n");
    flags = untouched;
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), -1);
    EXPECT_LINES(line_of(reader, "can't parse line: '\n'"));
    EXPECT_EQ(flags, (flags_t{1, 88}));

    save_text(line + " err = 0\n");
    flags = untouched;
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0);
    EXPECT_EQ(flags, (flags_t{1, 0}));

    save_text(std::string(63, 'x') + "y\n");
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), -1);
    EXPECT_LINES(line_of(reader, "can't parse line: '" + std::string(63, 'x') + "'"));
}

TEST_F(WireguardRead, FileThatCannotBeOpenedIsReported)
{
    save_text("dbg = 1\n");
    const std::string line =
        line_of(reader, "can't open file '/mnt/config/etc/config/vyt/debug/wireguard.conf'");
    flags_t flags = untouched;
    Faults faults;
    faults.fail("fopen", EACCES);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_LINES(line);
    EXPECT_EQ(flags, untouched);
    EXPECT_EQ(read_file(save), "dbg = 1\n");

    // The first one opens the missing file to write the defaults.
    ASSERT_EQ(unlink(save), 0);
    faults.clear();
    faults.fail("fopen", EMFILE, 2);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_LINES(line);
    EXPECT_EQ(flags, untouched);
    EXPECT_EQ(read_file(save), defaults);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0);
    EXPECT_EQ(flags, (flags_t{0, 1}));
}

TEST_F(WireguardRead, FileThatCannotBeMadeIsReportedByEachStep)
{
    write_file("/mnt/config", "a file in the way");
    flags_t flags = untouched;
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_LINES(
        "lh_dir_create: cannot create '/mnt/config/etc/config/vyt/debug': Not a directory",
        named_line_of(setter, "lh_dir_create failed"),
        line_of(reader, "can't open file '/mnt/config/etc/config/vyt/debug/wireguard.conf'"));
    EXPECT_EQ(flags, untouched);
}

TEST_F(WireguardRead, FileThatCannotBeLookedForIsResetToTheDefaults)
{
    save_text("dbg = 1\nerr = 0\n");
    flags_t flags = untouched;
    Faults faults;
    faults.fail("access", EACCES);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0);
    EXPECT_EQ(flags, (flags_t{0, 1}));
    EXPECT_EQ(read_file(save), defaults);

    ASSERT_EQ(unlink(save), 0);
    ASSERT_EQ(symlink(save, save), 0);
    flags = untouched;
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_LINES(
        named_line_of(setter, "can't create file /mnt/config/etc/config/vyt/debug/wireguard.conf: "
                              "Too many levels of symbolic links"),
        line_of(reader, "can't open file '/mnt/config/etc/config/vyt/debug/wireguard.conf'"));
    EXPECT_EQ(flags, untouched);
}

TEST_F(WireguardRead, DefaultsThatCannotBeWrittenLeaveTheFlags)
{
    flags_t flags = untouched;
    Faults faults;
    faults.fail("fopen", EMFILE);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0) << "an empty file is read";
    EXPECT_LINES(
        line_of(writer, "PTR_IS_NULL: file"),
        named_line_of(writer, "fopen /mnt/config/etc/config/vyt/debug/wireguard.conf failed"));
    EXPECT_EQ(flags, untouched);
}

TEST_F(WireguardRead, ReadingEndsAtAReadErrorAndClosingIsNotLookedAt)
{
    save_text("dbg = 1\nerr = 1\n");
    flags_t flags = untouched;
    Faults faults;
    faults.fail("fgets", EIO, 2);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0);
    EXPECT_EQ(flags, (flags_t{1, 88}));
    faults.clear();
    faults.fail_late("fclose", EIO);
    EXPECT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), 0);
    EXPECT_EQ(flags, (flags_t{1, 1}));
    EXPECT_EQ(open_descriptors(), before);
}

namespace {

// What a line is: blanks, a mnemonic of up to four other characters, blanks, "=", blanks, a number.
class plain_line {
  public:
    explicit plain_line(const std::string &text) : text_(text)
    {
        skip_blanks();
        while (at_ < text_.size() && mnemonic.size() < 4 && !is_blank(text_[at_]))
            mnemonic += text_[at_++];
        skip_blanks();
        if (mnemonic.empty() || !take("="))
            return;
        skip_blanks();
        const bool negative = take("-");
        if (!negative)
            take("+");
        std::string digits;
        while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9')
            digits += text_[at_++];
        good = !digits.empty();
        digits.erase(0, digits.find_first_not_of('0'));
        on = !negative && digits == "1";
    }

    bool good = false;
    bool on = false;
    std::string mnemonic;

  private:
    static bool is_blank(char c) { return c != '\0' && strchr(" \t\n\v\f\r", c) != nullptr; }
    void skip_blanks()
    {
        while (at_ < text_.size() && is_blank(text_[at_]))
            at_++;
    }
    bool take(const char *word)
    {
        if (text_.compare(at_, strlen(word), word) != 0)
            return false;
        at_ += strlen(word);
        return true;
    }

    std::string text_;
    size_t at_ = 0;
};

// A file's text in the pieces that are read: up to a newline, at most 63 characters.
std::vector<std::string> pieces_of(const std::string &text)
{
    std::vector<std::string> pieces;
    for (size_t at = 0; at < text.size(); at += pieces.back().size()) {
        const std::string rest = text.substr(at, 63);
        pieces.push_back(rest.substr(
            0, rest.find('\n') == std::string::npos ? rest.size() : rest.find('\n') + 1));
    }
    return pieces;
}

struct expectation {
    int result = 0;
    flags_t flags = untouched;
    std::vector<std::string> lines;
};

expectation plain_read(const std::string &text)
{
    expectation expected;
    for (const std::string &piece : pieces_of(text)) {
        const std::string shown = piece.c_str(); // a NUL ends what is looked at
        const plain_line line(shown);
        if (!line.good) {
            expected.result = -1;
            expected.lines = {line_of(reader, "can't parse line: '" + shown + "'")};
            return expected;
        }
        if (line.mnemonic != "dbg" && line.mnemonic != "err") {
            expected.result = -1;
            expected.lines = {
                named_line_of(reader, "invalid mnemonic '" + line.mnemonic + "' in file")};
            return expected;
        }
        (line.mnemonic == "dbg" ? expected.flags.dbg : expected.flags.err) = line.on;
    }
    return expected;
}

std::string random_text(std::mt19937 &random)
{
    const auto below = [&random](unsigned n) { return random() % n; };
    static const std::string good[] = {"dbg = 1\n", "dbg = 0\n", "err = 1\n",
                                       "err = 0\n", "dbg = 2\n", "err = -1\n"};
    static const std::string words[] = {"dbg",
                                        "err",
                                        "dbgx",
                                        "errors",
                                        " ",
                                        "  ",
                                        "\t",
                                        "=",
                                        "=",
                                        "= ",
                                        "1",
                                        "1",
                                        "0",
                                        "-",
                                        "+",
                                        "2",
                                        "\n",
                                        "\n",
                                        "\r",
                                        "x",
                                        std::string(1, '\0'),
                                        std::string(50, ' ')};
    std::string text;
    for (unsigned n = below(6); n > 0; n--)
        text += good[below(std::size(good))];
    if (below(3) != 0) {
        for (unsigned n = below(8); n > 0; n--)
            text += words[below(std::size(words))];
        for (unsigned n = below(4); n > 0; n--)
            text += good[below(std::size(good))];
    }
    return text;
}

} // namespace

TEST_F(WireguardRead, RandomFilesAreReadAsThePlainRulesSay)
{
    constexpr unsigned seed = 20240305;
    std::mt19937 random(seed);
    unsigned failures = 0;
    constexpr unsigned rounds = 3000;
    for (unsigned round = 0; round < rounds; round++) {
        const std::string text = random_text(random);
        SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round) + ":\n" +
                     text);
        save_text(text);
        const expectation expected = plain_read(text);
        flags_t flags = untouched;
        ASSERT_EQ(syslog_wireguard_read_flags_from_savefile(&flags), expected.result);
        ASSERT_EQ(flags, expected.flags);
        ASSERT_EQ(take_lines(), expected.lines);
        failures += expected.result != 0;
    }
    EXPECT_GT(failures, rounds / 10) << "the files are mostly good ones";
    EXPECT_LT(failures, rounds * 9 / 10) << "the files are mostly bad ones";
    EXPECT_EQ(open_descriptors(), before);
}
