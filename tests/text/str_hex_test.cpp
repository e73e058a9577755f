// A string's bytes as hexadecimal digits, and back.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "lh_str.h"
#include "support/block_sizes.hpp"
#include "support/faults.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

namespace {

class StrHex : public LogTest {};

// The text that a call allocated, "(null)" for none.
std::string taken(char *text)
{
    const std::string result = text != nullptr ? text : "(null)";
    free(text);
    return result;
}

int plain_digit(char ch)
{
    const char *const digits = "0123456789abcdef0123456789ABCDEF";
    const char *const found = ch != '\0' ? strchr(digits, ch) : nullptr;
    return found != nullptr ? static_cast<int>(found - digits) % 16 : -1;
}

} // namespace

TEST_F(StrHex, DecodingTakesBothCasesHighDigitFirst)
{
    unsigned char bytes[3] = {};
    EXPECT_EQ(hex2bin(bytes, "aB", 1), 0);
    EXPECT_EQ(bytes[0], 0xab);
    EXPECT_EQ(hex2bin(bytes, "00fF7e", 3), 0);
    EXPECT_EQ(bytes[0], 0x00);
    EXPECT_EQ(bytes[1], 0xff);
    EXPECT_EQ(bytes[2], 0x7e);
}

TEST_F(StrHex, DecodingNothing)
{
    EXPECT_EQ(hex2bin(nullptr, nullptr, 0), 0);
}

TEST_F(StrHex, DecodingStopsAtWhatIsNoDigitAndKeepsTheBytesBefore)
{
    unsigned char bytes[3] = {1, 2, 3};
    EXPECT_EQ(hex2bin(bytes, "0G", 1), -1);
    EXPECT_EQ(hex2bin(bytes, "G0", 1), -1);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(hex2bin(bytes, "aa5/cc", 3), -1);
    EXPECT_EQ(bytes[0], 0xaa);
    EXPECT_EQ(bytes[1], 2);
    EXPECT_EQ(bytes[2], 3);
}

TEST_F(StrHex, DecodingStopsAtTheEndOfTheString)
{
    unsigned char bytes[2] = {1, 2};
    EXPECT_EQ(hex2bin(bytes, "", 1), -1);
    EXPECT_EQ(hex2bin(bytes, "a", 1), -1);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(hex2bin(bytes, "0a", 2), -1);
    EXPECT_EQ(bytes[0], 0x0a);
    EXPECT_EQ(bytes[1], 2);
}

TEST_F(StrHex, EveryPairOfCharactersDecodesOrNot)
{
    for (int high = 0; high < 256; high++) {
        for (int low = 0; low < 256; low++) {
            const char pair[2] = {static_cast<char>(high), static_cast<char>(low)};
            const int digits[2] = {plain_digit(pair[0]), plain_digit(pair[1])};
            const bool valid = digits[0] >= 0 && digits[1] >= 0;
            unsigned char byte = 0;
            ASSERT_EQ(hex2bin(&byte, pair, 1), valid ? 0 : -1) << high << ' ' << low;
            ASSERT_EQ(byte, valid ? digits[0] * 16 + digits[1] : 0) << high << ' ' << low;
        }
    }
}

TEST_F(StrHex, AStringBecomesLowerCaseDigits)
{
    EXPECT_EQ(taken(lh_str_to_hex("")), "");
    EXPECT_EQ(taken(lh_str_to_hex("A")), "41");
    EXPECT_EQ(taken(lh_str_to_hex("az\n\x7f\x80\xff")), "617a0a7f80ff");
}

TEST_F(StrHex, DigitsBecomeAString)
{
    EXPECT_EQ(taken(lh_hex_to_str("")), "");
    EXPECT_EQ(taken(lh_hex_to_str("617A")), "az");
    EXPECT_EQ(taken(lh_hex_to_str("61007a")), "a");
}

TEST_F(StrHex, AnOddLastDigitIsIgnored)
{
    EXPECT_EQ(taken(lh_hex_to_str("414")), "A");
    EXPECT_EQ(taken(lh_hex_to_str("41!")), "A");
    EXPECT_EQ(taken(lh_hex_to_str("4")), "");
}

TEST_F(StrHex, TheBytesBehindADecodedZeroAreThere)
{
    char *const str = lh_hex_to_str("610062");
    ASSERT_NE(str, nullptr);
    EXPECT_EQ(std::string(str, 4), std::string("a\0b\0", 4));
    free(str);
}

TEST_F(StrHex, WhatIsNoDigitGivesNoString)
{
    EXPECT_EQ(lh_hex_to_str("4x"), nullptr);
    EXPECT_LINES("lh_hex_to_str: hex2bin failed");
    EXPECT_EQ(lh_hex_to_str("41 2"), nullptr);
    EXPECT_LINES("lh_hex_to_str: hex2bin failed");
}

TEST_F(StrHex, WithoutPointers)
{
    EXPECT_EQ(lh_str_to_hex(nullptr), nullptr);
    EXPECT_LINES("lh_str_to_hex: PTR_IS_NULL: str");
    EXPECT_EQ(lh_hex_to_str(nullptr), nullptr);
    EXPECT_LINES("lh_hex_to_str: PTR_IS_NULL: hex");
}

TEST_F(StrHex, BlocksAreAsLargeAsTheTextAndItsEnd)
{
    BlockSizes sizes;
    for (size_t length = 0; length < 40; length++) {
        const std::string text(length, '7');
        EXPECT_EQ(taken(lh_str_to_hex(text.c_str())).size(), 2 * length);
        EXPECT_EQ(sizes.take(), (std::vector<size_t>{2 * length + 1}));
        EXPECT_EQ(taken(lh_hex_to_str(text.c_str())).size(), length / 2);
        EXPECT_EQ(sizes.take(), (std::vector<size_t>{length / 2 + 1}));
    }
}

TEST_F(StrHex, WithoutMemory)
{
    Faults faults;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_str_to_hex("abc"), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_str_to_hex: malloc failed");
    EXPECT_EQ(taken(lh_str_to_hex("abc")), "616263");

    faults.fail_allocation(1);
    EXPECT_EQ(lh_hex_to_str("6162"), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_hex_to_str: malloc failed");
    EXPECT_EQ(taken(lh_hex_to_str("6162")), "ab");
}

TEST_F(StrHex, ThereAndBackAgain)
{
    std::mt19937 random(83);
    for (int round = 0; round < 2000; round++) {
        std::string text(random() % 70, '\0');
        std::string digits;
        for (char &ch : text) {
            const unsigned byte = 1 + random() % 255;
            ch = static_cast<char>(byte);
            char pair[3];
            snprintf(pair, sizeof(pair), "%02x", byte);
            digits += pair;
        }
        ASSERT_EQ(taken(lh_str_to_hex(text.c_str())), digits);
        ASSERT_EQ(taken(lh_hex_to_str(digits.c_str())), text);
    }
}
