#include "lh_base64.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
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

class Base64 : public LogTest {};

const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const std::string hex_digits = "0123456789ABCDEF";

// The text that a call allocated, "(null)" for none.
std::string taken(char *text)
{
    const std::string result = text != nullptr ? text : "(null)";
    free(text);
    return result;
}

// A copy to the byte, so that the sanitizer sees a read behind it.
template <class Char>
std::unique_ptr<Char[]> tight(const std::string &bytes)
{
    std::unique_ptr<Char[]> copy(new Char[bytes.size()]);
    memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

std::string encode(const std::string &bytes)
{
    return taken(lh_base64_encode(tight<unsigned char>(bytes).get(), bytes.size()));
}

std::string decode(const std::string &text)
{
    size_t out_len = 4711;
    unsigned char *const bytes = lh_base64_decode(text.c_str(), &out_len);
    if (bytes == nullptr) {
        EXPECT_EQ(out_len, 4711u);
        return "(null)";
    }
    const std::string result(reinterpret_cast<char *>(bytes), out_len);
    free(bytes);
    return result;
}

std::string to_hex(const std::string &text)
{
    return taken(lh_base64_to_hex(tight<char>(text).get(), text.size()));
}

std::string from_hex(const std::string &text)
{
    return taken(lh_hex_to_base64(tight<char>(text).get(), text.size()));
}

// The plain way: texts of "0" and "1", most significant first.
std::string bits_of(unsigned value, int count)
{
    std::string bits;
    for (int bit = count - 1; bit >= 0; bit--)
        bits += (value >> bit & 1) != 0 ? '1' : '0';
    return bits;
}

std::string bits_of_bytes(const std::string &bytes)
{
    std::string bits;
    for (const char byte : bytes)
        bits += bits_of(static_cast<unsigned char>(byte), 8);
    return bits;
}

std::string bits_of_digits(const std::string &text, const std::string &digits, int width)
{
    std::string bits;
    for (const char digit : text)
        bits += bits_of(static_cast<unsigned>(digits.find(digit)), width);
    return bits;
}

// The digits of as many whole groups of bits as there are.
std::string digits_of(const std::string &bits, const std::string &digits, size_t width)
{
    std::string text;
    for (size_t i = 0; i + width <= bits.size(); i += width)
        text += digits[std::stoul(bits.substr(i, width), nullptr, 2)];
    return text;
}

std::string padded_base64(std::string bits)
{
    while (bits.size() % 6 != 0)
        bits += '0';
    std::string text = digits_of(bits, alphabet, 6);
    while (text.size() % 4 != 0)
        text += '=';
    return text;
}

// What lh_base64_decode makes of any text.
std::string plainly_decoded(const std::string &text)
{
    if (text.size() % 4 != 0)
        return "(null)";
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 4) {
        std::string bits;
        for (const char ch : text.substr(i, 4)) {
            if (ch != '=' && alphabet.find(ch) == std::string::npos)
                return "(null)";
            bits += bits_of(ch != '=' ? static_cast<unsigned>(alphabet.find(ch)) : 0, 6);
        }
        for (size_t byte = 0; byte < 3; byte++) {
            if (byte == 0 || text[i + byte + 1] != '=')
                bytes += static_cast<char>(std::stoul(bits.substr(byte * 8, 8), nullptr, 2));
        }
    }
    return bytes;
}

std::string random_text(std::mt19937 &random, size_t length, const std::string &digits)
{
    std::string text(length, '\0');
    for (char &ch : text)
        ch = digits[random() % digits.size()];
    return text;
}

std::string random_bytes(std::mt19937 &random, size_t length)
{
    std::string bytes(length, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

} // namespace

// Encoding ---------------------------------------------------------------------------------------

TEST_F(Base64, EncodingPadsToFourCharacters)
{
    EXPECT_EQ(encode(""), "");
    EXPECT_EQ(encode("f"), "Zg==");
    EXPECT_EQ(encode("fo"), "Zm8=");
    EXPECT_EQ(encode("foo"), "Zm9v");
    EXPECT_EQ(encode("foobar"), "Zm9vYmFy");
    EXPECT_EQ(encode("\xff"), "/w==");
    EXPECT_EQ(encode("\xfb\xef\xbe"), "++++");
    EXPECT_EQ(encode(std::string(3, '\0')), "AAAA");
}

TEST_F(Base64, EncodingEqualsThePlainWay)
{
    std::mt19937 random(1);
    for (size_t length = 0; length < 300; length++) {
        const std::string bytes = random_bytes(random, length);
        ASSERT_EQ(encode(bytes), padded_base64(bits_of_bytes(bytes))) << length;
    }
}

TEST_F(Base64, EncodingThenDecodingGivesTheBytes)
{
    std::mt19937 random(2);
    for (size_t length = 0; length < 300; length++) {
        const std::string bytes = random_bytes(random, length);
        ASSERT_EQ(decode(encode(bytes)), bytes) << length;
    }
}

TEST_F(Base64, EncodingAsksForFourCharactersAGroupAndTheEnd)
{
    BlockSizes sizes;
    const std::pair<size_t, size_t> cases[] = {{0, 1}, {1, 5},   {2, 5},   {3, 5},
                                               {4, 9}, {57, 77}, {58, 81}, {3000, 4001}};
    for (const auto &[length, size] : cases) {
        encode(std::string(length, 'x'));
        EXPECT_EQ(sizes.take(), std::vector<size_t>{size}) << length;
    }
}

TEST_F(Base64, EncodingWithoutBytes)
{
    EXPECT_EQ(lh_base64_encode(nullptr, 0), nullptr);
    EXPECT_LINES("lh_base64_encode: PTR_IS_NULL: in");
}

TEST_F(Base64, EncodingWithoutMemory)
{
    Faults faults;
    const unsigned char byte = 0x66;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_base64_encode(&byte, 1), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_base64_encode: PTR_IS_NULL: out");
    EXPECT_EQ(encode("f"), "Zg==");
}

// Decoding ---------------------------------------------------------------------------------------

TEST_F(Base64, DecodingGivesBytesAndTheirNumber)
{
    size_t out_len = 0;
    unsigned char *const bytes = lh_base64_decode("Zg==", &out_len);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(out_len, 1u);
    EXPECT_EQ(bytes[0], 0x66);
    free(bytes);
    EXPECT_EQ(decode("Zm8="), "fo");
    EXPECT_EQ(decode("Zm9v"), "foo");
    EXPECT_EQ(decode("++++////"), "\xfb\xef\xbe\xff\xff\xff");
}

TEST_F(Base64, DecodingNothingGivesABlockOfNoBytes)
{
    size_t out_len = 1;
    unsigned char *const bytes = lh_base64_decode("", &out_len);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(out_len, 0u);
    bytes[0] = 1; // there is one byte
    free(bytes);
}

TEST_F(Base64, DecodingAsksForTheBytesButForOneAtLeast)
{
    BlockSizes sizes;
    const std::pair<const char *, size_t> cases[] = {
        {"", 1},     {"Zm9v", 3},     {"Zm8=", 2},     {"Zg==", 1},     {"====", 1},
        {"A=A=", 2}, {"=AAA", 3},     {"Zm9vZm9v", 6}, {"Zm9vZm8=", 5}, {"Zm9vZg==", 4},
        {"A=*=", 2}, {"Zg==Zm9v", 6}, {"Zg======", 4}};
    for (const auto &[text, size] : cases) {
        decode(text);
        EXPECT_EQ(sizes.take(), std::vector<size_t>{size}) << text;
    }
    decode("Zg=");
    EXPECT_EQ(sizes.take(), std::vector<size_t>{});
}

TEST_F(Base64, DecodingNeedsNoPlaceForTheNumber)
{
    unsigned char *const bytes = lh_base64_decode("Zm9v", nullptr);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(memcmp(bytes, "foo", 3), 0);
    free(bytes);
}

TEST_F(Base64, DecodingFailsSilentlyOnWhatIsNoBase64)
{
    EXPECT_EQ(decode("Zg="), "(null)");
    EXPECT_EQ(decode("Z"), "(null)");
    EXPECT_EQ(decode("Zm9vZm"), "(null)");
    EXPECT_EQ(decode("Zg=*"), "(null)");
    EXPECT_EQ(decode("Zm9v*m9v"), "(null)");
    EXPECT_EQ(decode("Z\xc3\xa4g"), "(null)");
    EXPECT_EQ(decode("Zm9-"), "(null)");
    EXPECT_EQ(decode("Zm9v\n\n\n\n"), "(null)");
    EXPECT_NO_LINES();
}

TEST_F(Base64, DecodingTakesPaddingAnywhere)
{
    EXPECT_EQ(decode("===="), std::string(1, '\0'));
    EXPECT_EQ(decode("Zg==Zm9v"), "ffoo");
    EXPECT_EQ(decode("Zm8=Zm8="), "fofo");
    EXPECT_EQ(decode("=m9v"), "\x02oo");
    EXPECT_EQ(decode("Z=9v"), "d\x0fo");
    EXPECT_EQ(decode("Zm=v"), "f\x2f");
}

TEST_F(Base64, DecodingEqualsThePlainWayForAnyText)
{
    std::mt19937 random(3);
    const std::string characters = alphabet + "====" + "*";
    for (int round = 0; round < 30000; round++) {
        const std::string text = random_text(random, random() % 20, characters);
        ASSERT_EQ(decode(text), plainly_decoded(text)) << text;
    }
}

TEST_F(Base64, DecodingLooksAtEveryByteValue)
{
    for (int byte = 1; byte < 256; byte++) {
        for (size_t place = 0; place < 4; place++) {
            std::string text = "AAAA";
            text[place] = static_cast<char>(byte);
            ASSERT_EQ(decode(text), plainly_decoded(text)) << byte << ' ' << place;
        }
    }
}

TEST_F(Base64, DecodingWithoutText)
{
    size_t out_len = 7;
    EXPECT_EQ(lh_base64_decode(nullptr, &out_len), nullptr);
    EXPECT_EQ(out_len, 7u);
    EXPECT_LINES("lh_base64_decode: PTR_IS_NULL: in");
}

TEST_F(Base64, DecodingWithoutMemory)
{
    Faults faults;
    size_t out_len = 7;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_base64_decode("Zg==", &out_len), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(out_len, 7u);
    EXPECT_LINES("lh_base64_decode: PTR_IS_NULL: out");
    EXPECT_EQ(decode("Zg=="), "f");
}

// Base64 to hexadecimal --------------------------------------------------------------------------

TEST_F(Base64, EveryFourBitsBecomeADigit)
{
    EXPECT_EQ(to_hex(""), "");
    EXPECT_EQ(to_hex("/w=="), "FF0");
    EXPECT_EQ(to_hex("Zm9v"), "666F6F");
    EXPECT_EQ(to_hex("AA=="), "000");
    EXPECT_EQ(to_hex("AAA="), "0000");
    EXPECT_EQ(to_hex("A"), "0");
    EXPECT_EQ(to_hex("///"), "FFFF");
}

TEST_F(Base64, PaddingEndsTheText)
{
    EXPECT_EQ(to_hex("="), "");
    EXPECT_EQ(to_hex("/w=*\n"), "FF0");
    EXPECT_EQ(taken(lh_base64_to_hex("Zm9v****", 4)), "666F6F");
}

TEST_F(Base64, WhatIsNoBase64IsLogged)
{
    for (const char *text : {"Z-==", "*", "Zm9v ", "Zm9\xff"}) {
        EXPECT_EQ(lh_base64_to_hex(text, strlen(text)), nullptr);
        EXPECT_LINES("lh_base64_to_hex: string is not base64");
    }
    EXPECT_EQ(lh_base64_to_hex("Zm9v", 5), nullptr); // the NUL
    EXPECT_LINES("lh_base64_to_hex: string is not base64");
}

TEST_F(Base64, OnlyTheAlphabetAndPaddingAreBase64)
{
    for (int byte = 0; byte < 256; byte++) {
        const char ch = static_cast<char>(byte);
        const bool in_alphabet = ch != '\0' && alphabet.find(ch) != std::string::npos;
        char *const hex = lh_base64_to_hex(&ch, 1);
        EXPECT_EQ(hex != nullptr, in_alphabet || ch == '=') << byte;
        EXPECT_EQ(take_lines().size(), hex == nullptr ? 1u : 0u) << byte;
        free(hex);
    }
}

TEST_F(Base64, HexOfBase64EqualsThePlainWay)
{
    std::mt19937 random(4);
    for (size_t length = 0; length < 300; length++) {
        const std::string text = random_text(random, length, alphabet);
        const std::string hex = digits_of(bits_of_digits(text, alphabet, 6), hex_digits, 4);
        ASSERT_EQ(to_hex(text), hex) << text;
        ASSERT_EQ(to_hex(text + "=" + text), hex) << text;
    }
}

TEST_F(Base64, HexOfBase64AsksForTheWholeLength)
{
    BlockSizes sizes;
    const std::pair<std::string, size_t> cases[] = {{"", 7},      {"Z", 7},      {"Zm9", 7},
                                                    {"Zm9v", 13}, {"Zm9vZ", 13}, {"=AAAAAAA", 19}};
    for (const auto &[text, size] : cases) {
        to_hex(text);
        EXPECT_EQ(sizes.take(), std::vector<size_t>{size}) << text;
    }
}

TEST_F(Base64, HexWithoutText)
{
    EXPECT_EQ(lh_base64_to_hex(nullptr, 4), nullptr);
    EXPECT_LINES("lh_base64_to_hex: PTR_IS_NULL: in");
}

TEST_F(Base64, HexWithoutMemory)
{
    Faults faults;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_base64_to_hex("Zm9v", 4), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_base64_to_hex: PTR_IS_NULL: out");
    EXPECT_EQ(to_hex("Zm9v"), "666F6F");
}

// Hexadecimal to Base64 --------------------------------------------------------------------------

TEST_F(Base64, EverySixBitsBecomeACharacter)
{
    EXPECT_EQ(from_hex(""), "");
    EXPECT_EQ(from_hex("ff"), "/w==");
    EXPECT_EQ(from_hex("fF"), "/w==");
    EXPECT_EQ(from_hex("00"), "AA==");
    EXPECT_EQ(from_hex("000000"), "AAAA");
    EXPECT_EQ(from_hex("0"), "A===");
    EXPECT_EQ(from_hex("666f6F"), "Zm9v");
    EXPECT_EQ(taken(lh_hex_to_base64("ffzz", 2)), "/w==");
}

TEST_F(Base64, WhatIsNoHexIsLogged)
{
    for (const char *text : {"fg", "0x", " 0", "00\xff", "=="}) {
        EXPECT_EQ(lh_hex_to_base64(text, strlen(text)), nullptr);
        EXPECT_LINES("lh_hex_to_base64: string is not HEX");
    }
    EXPECT_EQ(lh_hex_to_base64("00", 3), nullptr); // the NUL
    EXPECT_LINES("lh_hex_to_base64: string is not HEX");
}

TEST_F(Base64, OnlyTheDigitsAreHex)
{
    const std::string digits = "0123456789abcdefABCDEF";
    for (int byte = 0; byte < 256; byte++) {
        const char ch = static_cast<char>(byte);
        char *const text = lh_hex_to_base64(&ch, 1);
        EXPECT_EQ(text != nullptr, ch != '\0' && digits.find(ch) != std::string::npos) << byte;
        EXPECT_EQ(take_lines().size(), text == nullptr ? 1u : 0u) << byte;
        free(text);
    }
}

TEST_F(Base64, Base64OfHexEqualsThePlainWay)
{
    std::mt19937 random(5);
    for (size_t length = 0; length < 300; length++) {
        std::string text = random_text(random, length, hex_digits);
        const std::string base64 = padded_base64(bits_of_digits(text, hex_digits, 4));
        ASSERT_EQ(from_hex(text), base64) << text;
        for (char &ch : text)
            ch = static_cast<char>(tolower(ch));
        ASSERT_EQ(from_hex(text), base64) << text;
    }
}

TEST_F(Base64, Base64OfHexAsksForFourThirdsOfTheBytesAndTheEnd)
{
    BlockSizes sizes;
    const std::pair<size_t, size_t> cases[] = {{0, 8},  {1, 9},   {2, 9},     {3, 10},
                                               {5, 12}, {6, 12},  {7, 13},    {8, 13},
                                               {9, 14}, {12, 16}, {600, 408}, {601, 409}};
    for (const auto &[length, size] : cases) {
        from_hex(std::string(length, '7'));
        EXPECT_EQ(sizes.take(), std::vector<size_t>{size}) << length;
    }
}

TEST_F(Base64, Base64WithoutDigits)
{
    EXPECT_EQ(lh_hex_to_base64(nullptr, 2), nullptr);
    EXPECT_LINES("lh_hex_to_base64: PTR_IS_NULL: in");
}

TEST_F(Base64, Base64WithoutMemory)
{
    Faults faults;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_hex_to_base64("ff", 2), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_hex_to_base64: PTR_IS_NULL: out");
    EXPECT_EQ(from_hex("ff"), "/w==");
}

// Sizes ------------------------------------------------------------------------------------------

static size_t smallest_request;

static void *refusing_malloc(size_t size)
{
    smallest_request = std::min(smallest_request, size);
    errno = ENOMEM;
    return nullptr;
}

TEST_F(Base64, ALengthThatNoTextCanHaveNeverAsksForAShortBlock)
{
    Faults faults;
    faults.replace("malloc", reinterpret_cast<void *>(refusing_malloc));
    smallest_request = SIZE_MAX;
    const unsigned char byte = 0;
    const char *const text = "0000";
    for (const size_t len : {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX - 2, SIZE_MAX / 4 * 3,
                             SIZE_MAX / 3 * 2 + 1, SIZE_MAX / 2 + 1}) {
        SCOPED_TRACE(len);
        errno = 0;
        EXPECT_EQ(lh_base64_encode(&byte, len), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_LINES("lh_base64_encode: PTR_IS_NULL: out");
        errno = 0;
        EXPECT_EQ(lh_base64_to_hex(text, len), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_LINES("lh_base64_to_hex: PTR_IS_NULL: out");
        errno = 0;
        EXPECT_EQ(lh_hex_to_base64(text, len), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_LINES("lh_hex_to_base64: PTR_IS_NULL: out");
    }
    EXPECT_GE(smallest_request, SIZE_MAX / 3);
    EXPECT_GT(faults.calls("malloc"), 0u);
}
