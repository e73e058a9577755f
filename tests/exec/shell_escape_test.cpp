#include "lh_shell_cmd.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "support/faults.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

namespace {

const std::string escape_set = "\x21\x22\x24\x26\x27\x28\x29\x2A\x3B\x3C\x3D\x3E\x3F\x5C\x60\x7C";

// The escaped copy, nothing where the value needs none.
std::optional<std::string> escaped(const std::string &value)
{
    char *out = nullptr;
    EXPECT_EQ(lh_shell_cmd_escaping(value.c_str(), &out), 0);
    if (out == nullptr)
        return std::nullopt;
    std::string copy = out;
    free(out);
    return copy;
}

// The same, one character after the other.
std::optional<std::string> escaped_plainly(const std::string &value)
{
    std::string copy;
    for (const char c : value) {
        if (escape_set.find(c) != std::string::npos)
            copy += '\\';
        copy += c;
    }
    return copy != value ? std::optional(copy) : std::nullopt;
}

std::string random_value(std::mt19937 &random, const std::string &alphabet)
{
    std::string value;
    for (size_t length = random() % 40; length > 0; length--)
        value += alphabet[random() % alphabet.size()];
    return value;
}

std::string characters(int first, int last)
{
    std::string all;
    for (int c = first; c <= last; c++)
        all += static_cast<char>(c);
    return all;
}

std::string output_of(const std::string &command)
{
    std::string output;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return "popen failed";
    for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe))
        output += static_cast<char>(c);
    EXPECT_EQ(pclose(pipe), 0);
    return output;
}

} // namespace

class ShellEscape : public LogTest {};

TEST_F(ShellEscape, ExactlySixteenCharactersAreEscaped)
{
    for (int c = 0; c <= 255; c++) {
        const bool is_in_set = c != 0 && escape_set.find(static_cast<char>(c)) != std::string::npos;
        EXPECT_EQ(lh_shell_cmd_chr_need_to_be_escaped(static_cast<unsigned char>(c)),
                  is_in_set ? 1 : 0)
            << c;
    }
}

TEST_F(ShellEscape, TheSetIsInAscendingOrder)
{
    const char *chrs = nullptr;
    EXPECT_EQ(lh_shell_cmd_chrs_need_to_be_escaped_get(&chrs), 0);
    EXPECT_STREQ(chrs, escape_set.c_str());
    EXPECT_STREQ(chrs, "!\"$&'()*;<=>?\\`|");
}

TEST_F(ShellEscape, TheSetIsKept)
{
    const char *first = nullptr;
    const char *second = nullptr;
    EXPECT_EQ(lh_shell_cmd_chrs_need_to_be_escaped_get(&first), 0);
    EXPECT_EQ(lh_shell_cmd_chrs_need_to_be_escaped_get(&second), 0);
    EXPECT_EQ(first, second);
}

TEST_F(ShellEscape, NowhereToPutTheSetIsLogged)
{
    EXPECT_EQ(lh_shell_cmd_chrs_need_to_be_escaped_get(nullptr), -1);
    EXPECT_LINES("lh_shell_cmd_chrs_need_to_be_escaped_get: PTR_IS_NULL: chrs");
}

TEST_F(ShellEscape, ABackslashGoesInFront)
{
    EXPECT_EQ(escaped("a;b"), "a\\;b");
    EXPECT_EQ(escaped("$(rm -rf /)"), "\\$\\(rm -rf /\\)");
    EXPECT_EQ(escaped("\\"), "\\\\");
    EXPECT_EQ(escaped("\\\\"), "\\\\\\\\");
    EXPECT_EQ(escaped("a b\nc|"), "a b\nc\\|");
    EXPECT_EQ(escaped(escape_set), "\\!\\\"\\$\\&\\'\\(\\)\\*\\;\\<\\=\\>\\?\\\\\\`\\|");
}

TEST_F(ShellEscape, EveryCharacterAlone)
{
    for (int c = 1; c <= 255; c++) {
        const std::string value(1, static_cast<char>(c));
        EXPECT_EQ(escaped(value), escaped_plainly(value)) << c;
    }
}

TEST_F(ShellEscape, WithNothingToEscapeTheResultStaysUntouched)
{
    char mark;
    for (const char *value :
         {"", "abc", " ", "\n", "\t\r\v\f", "#%+,-./:@[]{}^_~", "0189azAZ", "\x7f\x80\xff"}) {
        char *out = &mark;
        EXPECT_EQ(lh_shell_cmd_escaping(value, &out), 0) << value;
        EXPECT_EQ(out, &mark) << value;
    }
}

TEST_F(ShellEscape, RandomValuesAgreeWithThePlainWay)
{
    const unsigned seed = 20240611;
    std::mt19937 random(seed);
    const std::string alphabets[] = {characters(1, 255), escape_set + "ab ", escape_set};
    for (int i = 0; i < 20000; i++) {
        const std::string value = random_value(random, alphabets[i % 3]);
        ASSERT_EQ(escaped(value), escaped_plainly(value)) << "seed " << seed << ", case " << i;
    }
}

TEST_F(ShellEscape, AShellGivesTheValueBack)
{
    const unsigned seed = 20240612;
    std::mt19937 random(seed);
    // Without the opening brace, which some shells expand.
    const std::string alphabet = characters('!', 'z') + "|}~";
    for (int round = 0; round < 20; round++) {
        // No file name expansion: brackets are not escaped. A letter in front, because neither is
        // the hash of a comment nor a tilde.
        std::string command = "set -f; printf '%s\\n'";
        std::string expected;
        for (int i = 0; i < 100; i++) {
            const std::string value = "v" + random_value(random, alphabet);
            command += " " + escaped(value).value_or(value);
            expected += value + "\n";
        }
        ASSERT_EQ(output_of(command), expected) << "seed " << seed << ", round " << round;
    }
}

TEST_F(ShellEscape, NullArgumentsAreLogged)
{
    char *out = nullptr;
    EXPECT_EQ(lh_shell_cmd_escaping(nullptr, &out), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: dst");
    EXPECT_EQ(lh_shell_cmd_escaping("a;b", nullptr), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: str_new");
    EXPECT_EQ(out, nullptr);
}

TEST_F(ShellEscape, WithoutMemoryTheResultStaysUntouched)
{
    Faults faults;
    char mark;
    char *out = &mark;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_shell_cmd_escaping("a;b", &out), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: _str_new");
    EXPECT_EQ(out, &mark);
    EXPECT_EQ(escaped("a;b"), "a\\;b");
}

TEST_F(ShellEscape, AnySetAndPrefixCanBeChosen)
{
    char *out = nullptr;
    EXPECT_EQ(lh_shell_cmd_chrs_escape("a-b c", "<>", "- ", &out), 0);
    EXPECT_STREQ(out, "a<>-b<> c");
    free(out);
    out = nullptr;
    EXPECT_EQ(lh_shell_cmd_chrs_escape("a-b c", "<>", "xyz", &out), 0);
    EXPECT_EQ(out, nullptr);
}

TEST_F(ShellEscape, ChosenSetsAreCheckedInArgumentOrder)
{
    char *out = nullptr;
    const struct {
        const char *str, *prefix, *chrs;
        char **out;
        const char *message;
    } cases[] = {
        {nullptr, nullptr, nullptr, nullptr, "PTR_IS_NULL: dst"},
        {"a", nullptr, nullptr, nullptr, "PTR_IS_NULL: src"},
        {"a", "b", nullptr, nullptr, "PTR_IS_NULL: chrs"},
        {"a", "b", "a", nullptr, "PTR_IS_NULL: str_new"},
        {"a", "\t", "a", &out, "invalid char: 0x9"},
        {"a", "b", "a\n", &out, "invalid char: 0xA"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(lh_shell_cmd_chrs_escape(c.str, c.prefix, c.chrs, c.out), -1);
        EXPECT_LINES(std::string("lh_str_insert_str_before_each_of_chrs: ") + c.message);
        EXPECT_EQ(out, nullptr);
    }
}
