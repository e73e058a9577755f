// Growing strings and checked formatting.
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lh_str.h"
#include "support/block_sizes.hpp"
#include "support/faults.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

namespace {

class StrFormat : public LogTest {};

// A format that the compiler does not see through.
const char *const no_format = nullptr;

} // namespace

// lh_str_add -------------------------------------------------------------------------------------

TEST_F(StrFormat, AddingMakesAndExtendsAString)
{
    char *dst = nullptr;
    EXPECT_EQ(lh_str_add(&dst, "x=%d", 1), 0);
    EXPECT_STREQ(dst, "x=1");
    EXPECT_EQ(lh_str_add(&dst, ",y"), 0);
    EXPECT_STREQ(dst, "x=1,y");
    EXPECT_EQ(lh_str_add(&dst, "%s", ""), 0);
    EXPECT_STREQ(dst, "x=1,y");
    free(dst);
}

TEST_F(StrFormat, AddingMakesTheStringAsLargeAsBothTextsAndTheirEnd)
{
    char *dst = strdup("x=1");
    BlockSizes sizes;
    EXPECT_EQ(lh_str_add(&dst, ",%s", "yz"), 0);
    EXPECT_EQ(sizes.take(), std::vector<size_t>{7});
    EXPECT_EQ(lh_str_add(&dst, "%s", ""), 0);
    EXPECT_EQ(sizes.take(), std::vector<size_t>{7});
    EXPECT_STREQ(dst, "x=1,yz");
    free(dst);
}

TEST_F(StrFormat, AddingFormatsTheSameArgumentsTwice)
{
    char *dst = strdup("");
    std::string expected;
    for (int i = 0; i < 300; i++) {
        ASSERT_EQ(lh_str_add(&dst, "%d:%s:%.2f:%lu ", i, "text", i / 4.0, ULONG_MAX), 0);
        char piece[64];
        snprintf(piece, sizeof(piece), "%d:%s:%.2f:%lu ", i, "text", i / 4.0, ULONG_MAX);
        expected += piece;
    }
    EXPECT_EQ(dst, expected);
    free(dst);
}

TEST_F(StrFormat, AddingWithoutPointers)
{
    EXPECT_EQ(lh_str_add(nullptr, no_format), -1);
    EXPECT_LINES("lh_str_add: PTR_IS_NULL: dst");
    char *dst = strdup("kept");
    EXPECT_EQ(lh_str_add(&dst, no_format), -1);
    EXPECT_LINES("lh_str_add: PTR_IS_NULL: src");
    EXPECT_STREQ(dst, "kept");
    free(dst);
}

TEST_F(StrFormat, AddingTheFirstTextWithoutMemory)
{
    Faults faults;
    char *dst = nullptr;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_str_add(&dst, "x=%d", 1), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(dst, nullptr);
    EXPECT_LINES("lh_str_add: vasprintf failed");
}

TEST_F(StrFormat, AddingWithoutMemoryLosesTheOldText)
{
    Faults faults;
    char *dst = strdup("old");
    faults.fail_allocation(1);
    EXPECT_EQ(lh_str_add(&dst, "x=%d", 1), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(dst, nullptr);
    EXPECT_LINES("lh_str_add: PTR_IS_NULL: tmp");
    EXPECT_EQ(lh_str_add(&dst, "again"), 0);
    EXPECT_STREQ(dst, "again");
    free(dst);
}

TEST_F(StrFormat, AddingWhatCannotBeFormattedLosesTheOldText)
{
    const wchar_t beyond_the_locale[] = {0x20ac, 0};
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    char *dst = nullptr;
    EXPECT_EQ(lh_str_add(&dst, "%ls", beyond_the_locale), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(dst, nullptr);
    EXPECT_LINES("lh_str_add: vasprintf failed");
    dst = strdup("old");
    EXPECT_EQ(lh_str_add(&dst, "%ls", beyond_the_locale), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(dst, nullptr);
    EXPECT_LINES("lh_str_add: vsnprintf failed");
}

// lh_str_vasprintf -------------------------------------------------------------------------------

TEST_F(StrFormat, FormattingANewStringReplacesTheOldOne)
{
    char *dst = nullptr;
    EXPECT_EQ(lh_str_vasprintf(&dst, "x=%d", 1), 0);
    EXPECT_STREQ(dst, "x=1");
    EXPECT_EQ(lh_str_vasprintf(&dst, "%s", "other"), 0);
    EXPECT_STREQ(dst, "other");
    free(dst);
}

TEST_F(StrFormat, TheOldStringMayBeAnArgument)
{
    char *dst = strdup("old");
    EXPECT_EQ(lh_str_vasprintf(&dst, "%s and new", dst), 0);
    EXPECT_STREQ(dst, "old and new");
    free(dst);
}

TEST_F(StrFormat, FormattingANewStringWithoutPointers)
{
    EXPECT_EQ(lh_str_vasprintf(nullptr, no_format), -1);
    EXPECT_LINES("lh_str_vasprintf: PTR_IS_NULL: dst");
    char *dst = strdup("kept");
    EXPECT_EQ(lh_str_vasprintf(&dst, no_format), -1);
    EXPECT_LINES("lh_str_vasprintf: PTR_IS_NULL: format");
    EXPECT_STREQ(dst, "kept");
    free(dst);
}

TEST_F(StrFormat, FormattingANewStringWithoutMemoryLosesTheOldOne)
{
    Faults faults;
    for (char *dst : {static_cast<char *>(nullptr), strdup("old")}) {
        faults.fail_allocation(1);
        EXPECT_EQ(lh_str_vasprintf(&dst, "x=%d", 1), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(faults.happened());
        EXPECT_EQ(dst, nullptr);
        EXPECT_LINES("lh_str_vasprintf: vasprintf failed");
    }
}

// _lh_snprintf -----------------------------------------------------------------------------------

TEST_F(StrFormat, FormattingWhatFits)
{
    char buf[4];
    EXPECT_EQ(_lh_snprintf(buf, sizeof(buf), "%s", "abc"), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(_lh_snprintf(buf, sizeof(buf), "%s", ""), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(_lh_snprintf(buf, 1, "%s", ""), 0);
    EXPECT_STREQ(buf, "");
}

TEST_F(StrFormat, FormattingTooMuchKeepsTheStart)
{
    char buf[5] = "####";
    const char *const four = "abcd";
    EXPECT_EQ(_lh_snprintf(buf, 4, "%s", four), -1);
    EXPECT_LINES("_lh_snprintf: truncated: 'abc'");
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(_lh_snprintf(buf, 1, "%s", four), -1);
    EXPECT_LINES("_lh_snprintf: truncated: ''");
    EXPECT_STREQ(buf, "");
}

TEST_F(StrFormat, FormattingIntoNoBytesWritesNothing)
{
    char room[3] = {'a', 'b', 'c'};
    EXPECT_EQ(_lh_snprintf(room + 1, 0, "%s", "x"), -1);
    EXPECT_LINES("_lh_snprintf: truncated: ''");
    EXPECT_EQ(_lh_snprintf(room + 1, 0, "%s", ""), -1);
    EXPECT_LINES("_lh_snprintf: truncated: ''");
    EXPECT_EQ(std::string(room, 3), "abc");
}

TEST_F(StrFormat, AFormattingErrorCountsAsNotFitting)
{
    Faults faults;
    char buf[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
    faults.fail("vsnprintf", EILSEQ);
    EXPECT_EQ(_lh_snprintf(buf, sizeof(buf), "%d", 1), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("_lh_snprintf: truncated: 'abcde'");
    EXPECT_STREQ(buf, "abcde");
}

TEST_F(StrFormat, FormattingWithoutPointers)
{
    char buf[4] = "abc";
    EXPECT_EQ(_lh_snprintf(nullptr, 4, no_format), -1);
    EXPECT_LINES("_lh_snprintf: PTR_IS_NULL: buf");
    EXPECT_EQ(_lh_snprintf(buf, 4, no_format), -1);
    EXPECT_LINES("_lh_snprintf: PTR_IS_NULL: fmt");
    EXPECT_STREQ(buf, "abc");
}
