// String editing.
#include "lh_str.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "support/block_sizes.hpp"
#include "support/faults.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

namespace {

class Str : public LogTest {};

struct free_it {
    void operator()(char *text) const { free(text); }
};
using owned = std::unique_ptr<char, free_it>;

// What lh_str_insert_str_before_each_of_chrs builds.
std::string escaped(const std::string &str, const std::string &ins, const std::string &chrs)
{
    std::string result;
    for (const char ch : str) {
        if (chrs.find(ch) != std::string::npos)
            result += ins;
        result += ch;
    }
    return result;
}

// The result of a call that built one, "(none)" when it left its place as it was.
std::string before_each(const char *str, const char *ins, const char *chrs)
{
    char *str_new = nullptr;
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs(str, ins, chrs, &str_new), 0);
    const owned owner(str_new);
    return str_new != nullptr ? str_new : "(none)";
}

std::string random_text(std::mt19937 &random, size_t max_length, const std::string &alphabet)
{
    std::string text(random() % (max_length + 1), '\0');
    for (char &ch : text)
        ch = alphabet[random() % alphabet.size()];
    return text;
}

} // namespace

// lh_str_chr_cnt_get -----------------------------------------------------------------------------

TEST_F(Str, CountingGoesOnBehindANul)
{
    EXPECT_EQ(lh_str_chr_cnt_get("a\0a", 3, 'a'), 2u);
    EXPECT_EQ(lh_str_chr_cnt_get("a\0a", 4, '\0'), 2u);
}

TEST_F(Str, CountingStopsAtTheLength)
{
    EXPECT_EQ(lh_str_chr_cnt_get("aaaa", 3, 'a'), 3u);
    EXPECT_EQ(lh_str_chr_cnt_get("aaaa", 0, 'a'), 0u);
    EXPECT_EQ(lh_str_chr_cnt_get("aaaa", 4, 'b'), 0u);
}

TEST_F(Str, CountingTakesEveryByteValue)
{
    char bytes[512];
    for (int i = 0; i < 512; i++)
        bytes[i] = static_cast<char>(i);
    for (int i = 0; i < 256; i++)
        EXPECT_EQ(lh_str_chr_cnt_get(bytes, sizeof(bytes), static_cast<char>(i)), 2u) << i;
}

// lh_str_insert_str ------------------------------------------------------------------------------

TEST_F(Str, InsertingMovesTheTail)
{
    char buf[10] = "abcd";
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 2, "XY", 2), 0);
    EXPECT_STREQ(buf, "abXYcd");
}

TEST_F(Str, InsertingAtTheStartAndAtTheEnd)
{
    char buf[10] = "abcd";
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf, "X", 1), 0);
    EXPECT_STREQ(buf, "Xabcd");
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 5, "Y", 1), 0);
    EXPECT_STREQ(buf, "XabcdY");
}

TEST_F(Str, InsertingIntoAnEmptyString)
{
    char buf[4] = "";
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf, "abc", 3), 0);
    EXPECT_STREQ(buf, "abc");
}

TEST_F(Str, InsertingNothingChangesNothing)
{
    char buf[] = "abc"; // full: nothing still fits
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 1, "", 5), 0);
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 1, "XYZ", 0), 0);
    EXPECT_STREQ(buf, "abc");
}

TEST_F(Str, InsertingUsesThePartOfTheTextThatTheLengthAndItsNulLeave)
{
    char buf[16] = "ab";
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 1, "XYZ", 2), 0);
    EXPECT_STREQ(buf, "aXYb");
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 1, "1\0002", 3), 0);
    EXPECT_STREQ(buf, "a1XYb");
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 1, "2", SIZE_MAX), 0);
    EXPECT_STREQ(buf, "a21XYb");
}

TEST_F(Str, InsertingFillsTheBufferToTheTerminator)
{
    char buf[10] = "abcd";
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 2, "XYZWV", 5), 0);
    EXPECT_STREQ(buf, "abXYZWVcd");
}

TEST_F(Str, InsertingOneByteTooManyIsRefused)
{
    char buf[10] = "abcd";
    const std::string before(buf, sizeof(buf));
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 2, "XYZWVU", 6), -1);
    EXPECT_LINES("lh_str_insert_str: not enough space for insert 'XYZWVU' into 'abcd' "
                 "(4 + 6 >= 10)");
    EXPECT_EQ(std::string(buf, sizeof(buf)), before);
}

TEST_F(Str, TheLineAboutMissingRoomPrintsTheWholeText)
{
    char buf[6] = "abcd";
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf, "XYZ", 2), -1);
    EXPECT_LINES("lh_str_insert_str: not enough space for insert 'XYZ' into 'abcd' (4 + 2 >= 6)");
    EXPECT_STREQ(buf, "abcd");
}

TEST_F(Str, InsertingDoesNotTerminate)
{
    char buf[10] = "abcd";
    memset(buf + 5, '#', 4); // abcd, NUL, ####, NUL
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf + 4, "XY", 2), 0);
    EXPECT_STREQ(buf, "abcdXY###");
}

TEST_F(Str, InsertingOutsideTheBufferIsRefused)
{
    char room[32] = {};
    char *const dst = room + 8;
    memcpy(dst, "abcd", 5);
    EXPECT_EQ(lh_str_insert_str(dst, 10, dst + 10, "X", 1), -1);
    EXPECT_LINES("lh_str_insert_str: invalid pos: 10 > 9");
    EXPECT_EQ(lh_str_insert_str(dst, 10, dst + 15, "X", 1), -1);
    EXPECT_LINES("lh_str_insert_str: invalid pos: 15 > 9");
    EXPECT_EQ(lh_str_insert_str(dst, 10, dst - 1, "X", 1), -1);
    EXPECT_LINES("lh_str_insert_str: invalid pos: -1 < 0");
    EXPECT_EQ(lh_str_insert_str(dst, 10, dst - 8, "X", 1), -1);
    EXPECT_LINES("lh_str_insert_str: invalid pos: -8 < 0");
    EXPECT_STREQ(dst, "abcd");
}

TEST_F(Str, InsertingIntoNoBytesAtAllIsRefused)
{
    char buf[2] = "a";
    EXPECT_EQ(lh_str_insert_str(buf, 0, buf, "X", 1), -1);
    EXPECT_LINES("lh_str_insert_str: invalid pos: 0 > 18446744073709551615");
    EXPECT_STREQ(buf, "a");
}

TEST_F(Str, InsertingNeedsATerminatedString)
{
    char buf[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(lh_str_insert_str(buf, sizeof(buf), buf, "X", 1), -1);
    EXPECT_LINES("lh_str_insert_str: '\\0' not found");
    EXPECT_EQ(std::string(buf, 4), "abcd");
}

TEST_F(Str, InsertingWithoutPointers)
{
    char buf[4] = "a";
    EXPECT_EQ(lh_str_insert_str(nullptr, 4, nullptr, nullptr, 1), -1);
    EXPECT_LINES("lh_str_insert_str: PTR_IS_NULL: dst");
    EXPECT_EQ(lh_str_insert_str(buf, 4, nullptr, nullptr, 1), -1);
    EXPECT_LINES("lh_str_insert_str: PTR_IS_NULL: pos");
    EXPECT_EQ(lh_str_insert_str(buf, 4, buf, nullptr, 1), -1);
    EXPECT_LINES("lh_str_insert_str: PTR_IS_NULL: src");
    EXPECT_STREQ(buf, "a");
}

TEST_F(Str, InsertingEqualsBuildingTheStringAnew)
{
    std::mt19937 random(81);
    for (int round = 0; round < 20000; round++) {
        SCOPED_TRACE(round);
        const std::string string = random_text(random, 12, "abc");
        const std::string text = random_text(random, 12, "XYZ");
        const size_t off = random() % (string.size() + 1);
        const size_t src_len = random() % 14;
        const size_t size = string.size() + 1 + random() % 14;
        const std::unique_ptr<char[]> buf(new char[size]()); // to the byte, for the sanitizer
        memcpy(buf.get(), string.data(), string.size());

        const std::string taken = text.substr(0, src_len);
        const bool fits = string.size() + taken.size() < size;
        std::string expected = string;
        if (fits)
            expected.insert(off, taken);
        ASSERT_EQ(lh_str_insert_str(buf.get(), size, buf.get() + off, text.c_str(), src_len),
                  fits ? 0 : -1);
        ASSERT_EQ(take_lines().size(), fits ? 0u : 1u);
        ASSERT_EQ(std::string(buf.get()), expected);
    }
}

// lh_str_insert_chr ------------------------------------------------------------------------------

TEST_F(Str, InsertingACharacter)
{
    char buf[6] = "abd";
    EXPECT_EQ(lh_str_insert_chr(buf, sizeof(buf), buf + 2, 'c'), 0);
    EXPECT_STREQ(buf, "abcd");
}

TEST_F(Str, InsertingAnUnprintableCharacterIsRefused)
{
    char buf[6] = "ab";
    EXPECT_EQ(lh_str_insert_chr(buf, sizeof(buf), buf, '\t'), -1);
    EXPECT_LINES("lh_str_insert_chr: invalid char: 0x9");
    EXPECT_EQ(lh_str_insert_chr(buf, sizeof(buf), buf, '\0'), -1);
    EXPECT_LINES("lh_str_insert_chr: invalid char: 0x0");
    EXPECT_EQ(lh_str_insert_chr(buf, sizeof(buf), buf, '\xfe'), -1);
    EXPECT_LINES("lh_str_insert_chr: invalid char: 0xFE");
    EXPECT_STREQ(buf, "ab");
}

TEST_F(Str, TheCharacterIsLookedAtBeforeThePointers)
{
    EXPECT_EQ(lh_str_insert_chr(nullptr, 0, nullptr, '\x7f'), -1);
    EXPECT_LINES("lh_str_insert_chr: invalid char: 0x7F");
    EXPECT_EQ(lh_str_insert_chr(nullptr, 0, nullptr, 'a'), -1);
    EXPECT_LINES("lh_str_insert_str: PTR_IS_NULL: dst");
    char buf[2] = "";
    EXPECT_EQ(lh_str_insert_chr(buf, 2, nullptr, 'a'), -1);
    EXPECT_LINES("lh_str_insert_str: PTR_IS_NULL: pos");
}

TEST_F(Str, InsertingACharacterWithoutRoomNamesTheCharacter)
{
    char buf[4] = "abc";
    EXPECT_EQ(lh_str_insert_chr(buf, sizeof(buf), buf + 1, 'X'), -1);
    EXPECT_LINES("lh_str_insert_str: not enough space for insert 'X' into 'abc' (3 + 1 >= 4)");
    EXPECT_STREQ(buf, "abc");
}

// lh_str_insert_str_before_each_of_chrs ----------------------------------------------------------

TEST_F(Str, EveryCharacterOfTheSetIsPreceded)
{
    EXPECT_EQ(before_each("a'b", "\\", "'"), "a\\'b");
    EXPECT_EQ(before_each("''", "\\", "'"), "\\'\\'");
    EXPECT_EQ(before_each("$a`b\"", "<>", "\"$`"), "<>$a<>`b<>\"");
}

TEST_F(Str, ABuiltStringIsAsLargeAsItsTextAndItsEnd)
{
    BlockSizes sizes;
    EXPECT_EQ(before_each("\'\'", "\\", "\'"), "\\\'\\\'");
    EXPECT_EQ(sizes.take(), std::vector<size_t>{5});
    EXPECT_EQ(before_each("a,b;c", "<->", ";,"), "a<->,b<->;c");
    EXPECT_EQ(sizes.take(), std::vector<size_t>{12});
    EXPECT_EQ(before_each("abc", "\\", "\'"), "(none)");
    EXPECT_EQ(sizes.take(), std::vector<size_t>{});
}

TEST_F(Str, WithoutACharacterOfTheSetNothingIsBuilt)
{
    char mark;
    char *str_new = &mark;
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("abc", "\\", "'", &str_new), 0);
    EXPECT_EQ(str_new, &mark);
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("", "\\", "'", &str_new), 0);
    EXPECT_EQ(str_new, &mark);
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("abc", "\\", "", &str_new), 0);
    EXPECT_EQ(str_new, &mark);
}

TEST_F(Str, InsertedTextIsNotLookedAtAgain)
{
    EXPECT_EQ(before_each("a\\b", "\\", "\\"), "a\\\\b");
    EXPECT_EQ(before_each("x", "xx", "x"), "xxx");
}

TEST_F(Str, AnEmptyInsertGivesAPlainCopy)
{
    EXPECT_EQ(before_each("a'b", "", "'"), "a'b");
}

TEST_F(Str, BytesAboveAsciiAreCopied)
{
    EXPECT_EQ(before_each("\xe4'\xff", "\\", "'"), "\xe4\\'\xff");
}

TEST_F(Str, UnprintableCharactersAreRefused)
{
    char mark;
    char *str_new = &mark;
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("a", "a\nb\t", "\x01", &str_new), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: invalid char: 0xA");
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("a", "b", "a\x1f", &str_new), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: invalid char: 0x1F");
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("a", "b", "\xc3", &str_new), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: invalid char: 0xC3");
    EXPECT_EQ(str_new, &mark);
}

TEST_F(Str, TheStringItselfMayHoldUnprintableCharacters)
{
    EXPECT_EQ(before_each("\t'\n", "\\", "'"), "\t\\'\n");
}

TEST_F(Str, BuildingWithoutPointers)
{
    char *str_new = nullptr;
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs(nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: dst");
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("a", nullptr, nullptr, nullptr), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: src");
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("a", "b", nullptr, nullptr), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: chrs");
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("a", "b", "a", nullptr), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: str_new");
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("a", "\n", "a", &str_new), -1);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: invalid char: 0xA");
    EXPECT_EQ(str_new, nullptr);
}

TEST_F(Str, BuildingWithoutMemory)
{
    Faults faults;
    char mark;
    char *str_new = &mark;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs("a'b", "\\", "'", &str_new), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(str_new, &mark);
    EXPECT_LINES("lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: _str_new");
    EXPECT_EQ(before_each("a'b", "\\", "'"), "a\\'b");
}

TEST_F(Str, BuildingEqualsPrecedingOneByOne)
{
    std::mt19937 random(82);
    for (int round = 0; round < 20000; round++) {
        const std::string str = random_text(random, 30, "abc\\'\"$ \xff");
        const std::string ins = random_text(random, 3, "a\\'x");
        const std::string chrs = random_text(random, 4, "a\\'\"$ ");
        SCOPED_TRACE("'" + str + "' '" + ins + "' '" + chrs + "'");
        const bool some = str.find_first_of(chrs) != std::string::npos;
        ASSERT_EQ(before_each(str.c_str(), ins.c_str(), chrs.c_str()),
                  some ? escaped(str, ins, chrs) : "(none)");
    }
}

// lh_str_replace_symbol --------------------------------------------------------------------------

TEST_F(Str, ReplacingEveryOccurrence)
{
    char str[] = "a-b--c-";
    lh_str_replace_symbol(str, '-', '_');
    EXPECT_STREQ(str, "a_b__c_");
    lh_str_replace_symbol(str, 'x', 'y');
    EXPECT_STREQ(str, "a_b__c_");
    char high[] = "\xff-\xff";
    lh_str_replace_symbol(high, '\xff', '\x80');
    EXPECT_STREQ(high, "\x80-\x80");
}

TEST_F(Str, ReplacingByNulCutsAtTheFirst)
{
    char str[] = "ab-cd-e";
    lh_str_replace_symbol(str, '-', '\0');
    EXPECT_EQ(std::string(str, sizeof(str)), std::string("ab\0cd-e\0", 8));
}

TEST_F(Str, ReplacingACharacterByItselfOrTheTerminatorChangesNothing)
{
    char str[] = "abc";
    lh_str_replace_symbol(str, 'b', 'b');
    lh_str_replace_symbol(str, '\0', 'x');
    lh_str_replace_symbol(str, '\0', '\0');
    EXPECT_EQ(std::string(str, sizeof(str)), std::string("abc\0", 4));
}

TEST_F(Str, ReplacingInNoString)
{
    lh_str_replace_symbol(nullptr, 'a', 'b');
    EXPECT_LINES("lh_str_replace_symbol: PTR_IS_NULL: str");
    lh_str_replace_symbol(nullptr, 'a', 'a');
    EXPECT_LINES("lh_str_replace_symbol: PTR_IS_NULL: str");
}

// lh_str_toupper, lh_str_tolower -----------------------------------------------------------------

TEST_F(Str, ConvertingStopsAtTheSize)
{
    char str[] = "abc";
    lh_str_toupper(str, 2);
    EXPECT_STREQ(str, "ABc");
    lh_str_tolower(str, 1);
    EXPECT_STREQ(str, "aBc");
}

TEST_F(Str, ConvertingStopsAtTheNul)
{
    char str[] = "ab\0cd";
    lh_str_toupper(str, sizeof(str));
    EXPECT_EQ(std::string(str, sizeof(str)), std::string("AB\0cd\0", 6));
    char upper[] = "AB\0CD";
    lh_str_tolower(upper, SIZE_MAX);
    EXPECT_EQ(std::string(upper, sizeof(upper)), std::string("ab\0CD\0", 6));
}

TEST_F(Str, ConvertingChangesLettersOnly)
{
    char bytes[256] = {};
    char same[256] = {};
    for (int i = 1; i < 256; i++)
        bytes[i - 1] = same[i - 1] = static_cast<char>(i);
    lh_str_toupper(bytes, sizeof(bytes));
    for (int i = 1; i < 256; i++) {
        const int expected = i >= 'a' && i <= 'z' ? i - 'a' + 'A' : i;
        EXPECT_EQ(static_cast<unsigned char>(bytes[i - 1]), expected);
    }
    lh_str_tolower(same, sizeof(same));
    for (int i = 1; i < 256; i++) {
        const int expected = i >= 'A' && i <= 'Z' ? i - 'A' + 'a' : i;
        EXPECT_EQ(static_cast<unsigned char>(same[i - 1]), expected);
    }
}

TEST_F(Str, ConvertingNothing)
{
    char str[] = "aB";
    lh_str_toupper(str, 0);
    EXPECT_LINES("lh_str_toupper: IS_EQ check failed: 0 (0 == 0) !!!");
    lh_str_tolower(str, 0);
    EXPECT_LINES("lh_str_tolower: IS_EQ check failed: 0 (0 == 0) !!!");
    EXPECT_STREQ(str, "aB");
    lh_str_toupper(nullptr, 0);
    EXPECT_LINES("lh_str_toupper: PTR_IS_NULL: str");
    lh_str_tolower(nullptr, 0);
    EXPECT_LINES("lh_str_tolower: PTR_IS_NULL: str");
}
