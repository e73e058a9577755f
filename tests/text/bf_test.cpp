#include "lh_bf.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/block_sizes.hpp"
#include "support/faults.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

namespace {

class Bf : public LogTest {};

struct release_bf {
    void operator()(lh_bf_t *bf) const { lh_bf_free(bf); }
};
using owned_bf = std::unique_ptr<lh_bf_t, release_bf>;

owned_bf make(size_t size, const void *init = nullptr)
{
    owned_bf bf(lh_bf_alloc(init, size));
    EXPECT_NE(bf, nullptr);
    return bf;
}

owned_bf make(const std::vector<unsigned char> &bytes)
{
    return make(bytes.size(), bytes.data());
}

std::vector<unsigned char> bytes_of(const lh_bf_t *bf)
{
    return {bf->base, bf->base + bf->size};
}

std::string bit_string(const lh_bf_t *bf)
{
    char *const str = lh_bf_strdup(bf);
    const std::string result = str != nullptr ? str : "(null)";
    free(str);
    return result;
}

std::string hex_string(const lh_bf_t *bf)
{
    std::vector<char> hex_str(lh_bf_hex_str_size_get(bf), '#');
    EXPECT_EQ(lh_bf_stringize_hex(bf, hex_str.data(), hex_str.size()), 0);
    EXPECT_EQ(hex_str.back(), '\0');
    return hex_str.data();
}

std::vector<unsigned char> random_bytes(std::mt19937 &random, size_t size)
{
    std::vector<unsigned char> bytes(size);
    for (unsigned char &byte : bytes)
        byte = static_cast<unsigned char>(random());
    return bytes;
}

// A bit field the plain way.
std::vector<bool> bools_of(const std::vector<unsigned char> &bytes)
{
    std::vector<bool> bits;
    for (const unsigned char byte : bytes) {
        for (int bit = 0; bit < 8; bit++)
            bits.push_back((byte & 1 << bit) != 0);
    }
    return bits;
}

// Every function that takes a record, with what it returns on failure checked.
struct operation {
    const char *name;
    std::function<void(lh_bf_t *)> call;
};

const std::vector<operation> operations = {
    {"lh_bf_free", [](lh_bf_t *bf) { lh_bf_free(bf); }},
    {"lh_bf_n_bits_get", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_n_bits_get(bf), 0u); }},
    {"lh_bf_bit_out_of_range", [](lh_bf_t *bf) { EXPECT_TRUE(lh_bf_bit_out_of_range(bf, 0)); }},
    {"lh_bf_bit_set", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_bit_set(bf, 0), -1); }},
    {"lh_bf_bit_clear", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_bit_clear(bf, 0), -1); }},
    {"lh_bf_bit_get", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_bit_get(bf, 0, nullptr), -1); }},
    {"lh_bf_str_size_get", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_str_size_get(bf), 0u); }},
    {"lh_bf_strdup", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_strdup(bf), nullptr); }},
    {"lh_bf_hex_str_size_get", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_hex_str_size_get(bf), 0u); }},
    {"lh_bf_stringize_hex",
     [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_stringize_hex(bf, nullptr, 0), -1); }},
    {"lh_bf_hex_str_parse",
     [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_hex_str_parse(bf, nullptr, 0), -1); }},
    {"lh_bf_is_dirty", [](lh_bf_t *bf) { EXPECT_FALSE(lh_bf_is_dirty(bf)); }},
    {"lh_bf_popcount", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_popcount(bf), -1); }},
    {"lh_bf_not", [](lh_bf_t *bf) { EXPECT_EQ(lh_bf_not(bf), -1); }},
};

} // namespace

// The record -------------------------------------------------------------------------------------

TEST_F(Bf, EveryOperationChecksTheRecord)
{
    unsigned char byte = 0xff;
    lh_bf_t without_base = {nullptr, 0};
    lh_bf_t without_size = {&byte, 0};
    for (const operation &operation : operations) {
        const std::string prefix = std::string(operation.name) + ": ";
        operation.call(nullptr);
        EXPECT_LINES(prefix + "PTR_IS_NULL: bf");
        operation.call(&without_base);
        EXPECT_LINES(prefix + "PTR_IS_NULL: (bf)->base");
        operation.call(&without_size);
        EXPECT_LINES(prefix + "IS_EQ check failed: (bf)->size (0 == 0) !!!");
    }
    EXPECT_EQ(byte, 0xff);
}

TEST_F(Bf, AndNamesTheRecordThatIsWrong)
{
    unsigned char byte = 0xff;
    lh_bf_t without_base = {nullptr, 1};
    lh_bf_t without_size = {&byte, 0};
    const owned_bf bf = make(1);
    EXPECT_EQ(lh_bf_and(nullptr, nullptr), -1);
    EXPECT_LINES("lh_bf_and: PTR_IS_NULL: dst");
    EXPECT_EQ(lh_bf_and(&without_base, nullptr), -1);
    EXPECT_LINES("lh_bf_and: PTR_IS_NULL: (dst)->base");
    EXPECT_EQ(lh_bf_and(&without_size, nullptr), -1);
    EXPECT_LINES("lh_bf_and: IS_EQ check failed: (dst)->size (0 == 0) !!!");
    EXPECT_EQ(lh_bf_and(bf.get(), nullptr), -1);
    EXPECT_LINES("lh_bf_and: PTR_IS_NULL: src");
    EXPECT_EQ(lh_bf_and(bf.get(), &without_base), -1);
    EXPECT_LINES("lh_bf_and: PTR_IS_NULL: (src)->base");
    EXPECT_EQ(lh_bf_and(bf.get(), &without_size), -1);
    EXPECT_LINES("lh_bf_and: IS_EQ check failed: (src)->size (0 == 0) !!!");
}

TEST_F(Bf, ANewFieldIsClearOrHoldsTheGivenBytes)
{
    EXPECT_EQ(bytes_of(make(3).get()), (std::vector<unsigned char>{0, 0, 0}));
    const std::vector<unsigned char> bytes = {1, 2, 0xff, 0x80};
    const owned_bf bf = make(2, bytes.data());
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{1, 2}));
    EXPECT_NE(bf->base, bytes.data());
}

TEST_F(Bf, AFieldOfNoBytesIsRefused)
{
    EXPECT_EQ(lh_bf_alloc("x", 0), nullptr);
    EXPECT_LINES("lh_bf_alloc: IS_EQ check failed: size (0 == 0) !!!");
}

TEST_F(Bf, WithoutMemoryForTheRecordThereIsNone)
{
    Faults faults;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_bf_alloc("x", 1), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_bf_alloc: PTR_IS_NULL: bf");
    EXPECT_EQ(make(1)->size, 1u);
}

TEST_F(Bf, WithoutMemoryForTheBytesTheRecordHasNone)
{
    Faults faults;
    faults.fail_allocation(2);
    lh_bf_t *const bf = lh_bf_alloc("x", 1);
    EXPECT_TRUE(faults.happened());
    ASSERT_NE(bf, nullptr);
    EXPECT_EQ(bf->base, nullptr);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_bf_bit_set(bf, 0), -1);
    EXPECT_LINES("lh_bf_bit_set: PTR_IS_NULL: (bf)->base");
    lh_bf_free(bf);
    EXPECT_LINES("lh_bf_free: PTR_IS_NULL: (bf)->base");
    free(bf); // it was not released
}

TEST_F(Bf, AnInvalidRecordIsNotReleased)
{
    owned_bf bf = make(2);
    bf->size = 0;
    lh_bf_free(bf.get());
    EXPECT_LINES("lh_bf_free: IS_EQ check failed: (bf)->size (0 == 0) !!!");
    bf->size = 2;
    EXPECT_EQ(lh_bf_bit_set(bf.get(), 15), 0); // still there, as the sanitizer confirms
}

// Bits -------------------------------------------------------------------------------------------

TEST_F(Bf, AFieldHasEightBitsForEachByte)
{
    EXPECT_EQ(lh_bf_n_bits_get(make(1).get()), 8u);
    EXPECT_EQ(lh_bf_n_bits_get(make(9).get()), 72u);
}

TEST_F(Bf, ABitBeyondTheFieldIsLogged)
{
    const owned_bf bf = make(2);
    bool value = true;
    EXPECT_FALSE(lh_bf_bit_out_of_range(bf.get(), 0));
    EXPECT_FALSE(lh_bf_bit_out_of_range(bf.get(), 15));
    EXPECT_NO_LINES();
    EXPECT_TRUE(lh_bf_bit_out_of_range(bf.get(), 16));
    EXPECT_LINES("lh_bf_bit_out_of_range: IS_MT check failed: bit_num (16 > 15) !!!");
    EXPECT_EQ(lh_bf_bit_set(bf.get(), 16), -1);
    EXPECT_LINES("lh_bf_bit_out_of_range: IS_MT check failed: bit_num (16 > 15) !!!");
    EXPECT_EQ(lh_bf_bit_clear(bf.get(), 17), -1);
    EXPECT_LINES("lh_bf_bit_out_of_range: IS_MT check failed: bit_num (17 > 15) !!!");
    EXPECT_EQ(lh_bf_bit_get(bf.get(), SIZE_MAX, &value), -1);
    EXPECT_LINES("lh_bf_bit_out_of_range: IS_MT check failed: bit_num "
                 "(18446744073709551615 > 15) !!!");
    EXPECT_TRUE(value);
    EXPECT_FALSE(lh_bf_is_dirty(bf.get()));
}

TEST_F(Bf, ReadingABitNeedsAPlaceForIt)
{
    const owned_bf bf = make(1);
    EXPECT_EQ(lh_bf_bit_get(bf.get(), 99, nullptr), -1);
    EXPECT_LINES("lh_bf_bit_get: PTR_IS_NULL: value");
}

TEST_F(Bf, BitsAreCountedFromTheLeastSignificantOne)
{
    const owned_bf bf = make(2);
    EXPECT_EQ(lh_bf_bit_set(bf.get(), 0), 0);
    EXPECT_EQ(lh_bf_bit_set(bf.get(), 9), 0);
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{0x01, 0x02}));
    EXPECT_EQ(bit_string(bf.get()), "1000000001000000");
    EXPECT_EQ(hex_string(bf.get()), "0102");
    EXPECT_EQ(lh_bf_popcount(bf.get()), 2);
    EXPECT_EQ(lh_bf_bit_clear(bf.get(), 0), 0);
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{0x00, 0x02}));
}

TEST_F(Bf, SettingClearingAndReadingBitsEqualsAnArrayOfBools)
{
    std::mt19937 random(85);
    for (size_t size = 1; size <= 40; size++) {
        const owned_bf bf = make(size);
        std::vector<bool> plain(size * 8, false);
        for (int round = 0; round < 400; round++) {
            const size_t bit = random() % plain.size();
            const bool set = random() % 2 != 0;
            ASSERT_EQ(set ? lh_bf_bit_set(bf.get(), bit) : lh_bf_bit_clear(bf.get(), bit), 0);
            plain[bit] = set;
            const size_t other = random() % plain.size();
            bool value = !plain[other];
            ASSERT_EQ(lh_bf_bit_get(bf.get(), other, &value), 0);
            ASSERT_EQ(value, plain[other]) << size << ' ' << other;
        }
        ASSERT_EQ(bools_of(bytes_of(bf.get())), plain) << size;
    }
}

// Whole fields -----------------------------------------------------------------------------------

TEST_F(Bf, WholeFieldOperationsEqualAnArrayOfBools)
{
    std::mt19937 random(86);
    for (int round = 0; round < 3000; round++) {
        SCOPED_TRACE(round);
        const auto bytes = random_bytes(random, 1 + random() % 40);
        const auto other_bytes = random_bytes(random, 1 + random() % 40);
        const owned_bf bf = make(bytes);
        const owned_bf other = make(other_bytes);
        std::vector<bool> plain = bools_of(bytes);
        const std::vector<bool> other_plain = bools_of(other_bytes);

        ASSERT_EQ(lh_bf_popcount(bf.get()), std::count(plain.begin(), plain.end(), true));
        ASSERT_EQ(lh_bf_not(bf.get()), 0);
        plain.flip();
        ASSERT_EQ(bools_of(bytes_of(bf.get())), plain);
        ASSERT_EQ(lh_bf_and(bf.get(), other.get()), 0);
        for (size_t bit = 0; bit < std::min(plain.size(), other_plain.size()); bit++)
            plain[bit] = plain[bit] && other_plain[bit];
        ASSERT_EQ(bools_of(bytes_of(bf.get())), plain);
        ASSERT_EQ(bytes_of(other.get()), other_bytes);
    }
}

TEST_F(Bf, OneBitAnywhereMakesAFieldDirty)
{
    for (size_t size = 1; size <= 20; size++) {
        const owned_bf bf = make(size);
        ASSERT_FALSE(lh_bf_is_dirty(bf.get()));
        ASSERT_EQ(lh_bf_popcount(bf.get()), 0);
        for (size_t bit = 0; bit < size * 8; bit++) {
            ASSERT_EQ(lh_bf_bit_set(bf.get(), bit), 0);
            ASSERT_TRUE(lh_bf_is_dirty(bf.get())) << size << ' ' << bit;
            ASSERT_EQ(lh_bf_popcount(bf.get()), 1);
            ASSERT_EQ(lh_bf_bit_clear(bf.get(), bit), 0);
        }
        ASSERT_EQ(lh_bf_not(bf.get()), 0);
        ASSERT_TRUE(lh_bf_is_dirty(bf.get()));
        ASSERT_EQ(lh_bf_popcount(bf.get()), static_cast<int>(size * 8));
    }
}

TEST_F(Bf, AndLeavesTheBytesBehindAShorterFieldAlone)
{
    const owned_bf dst = make({0xff, 0xff, 0xff, 0xff});
    const owned_bf src = make({0x0f, 0x00});
    EXPECT_EQ(lh_bf_and(dst.get(), src.get()), 0);
    EXPECT_EQ(bytes_of(dst.get()), (std::vector<unsigned char>{0x0f, 0x00, 0xff, 0xff}));
}

TEST_F(Bf, AndWithItselfChangesNothing)
{
    const owned_bf bf = make({1, 2, 3, 4, 5, 6, 7, 8, 9});
    EXPECT_EQ(lh_bf_and(bf.get(), bf.get()), 0);
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(Bf, ABaseAtAnyAddressWillDo)
{
    unsigned char bytes[32];
    for (size_t shift = 0; shift < 8; shift++) {
        memset(bytes, 0xff, sizeof(bytes));
        lh_bf_t bf = {bytes + shift, 17};
        EXPECT_EQ(lh_bf_popcount(&bf), 17 * 8);
        EXPECT_EQ(lh_bf_not(&bf), 0);
        EXPECT_FALSE(lh_bf_is_dirty(&bf));
        EXPECT_EQ(std::count(bytes, bytes + sizeof(bytes), 0xff), 32 - 17);
    }
}

// Text forms -------------------------------------------------------------------------------------

TEST_F(Bf, TheSizesOfTheTexts)
{
    const owned_bf bf = make(3);
    EXPECT_EQ(lh_bf_str_size_get(bf.get()), 25u);
    EXPECT_EQ(lh_bf_hex_str_size_get(bf.get()), 7u);
    EXPECT_EQ(lh_bf_size_for_hex_str_get(6), 3u);
    EXPECT_EQ(lh_bf_size_for_hex_str_get(7), 3u);
    EXPECT_EQ(lh_bf_size_for_hex_str_get(0), 0u);
    EXPECT_EQ(lh_bf_size_for_hex_str_get(SIZE_MAX), SIZE_MAX / 2);
}

TEST_F(Bf, TheTextsEqualThePlainWay)
{
    std::mt19937 random(87);
    for (size_t size = 1; size <= 60; size++) {
        const auto bytes = random_bytes(random, size);
        const owned_bf bf = make(bytes);
        std::string bits, hex;
        for (const bool bit : bools_of(bytes))
            bits += bit ? '1' : '0';
        for (const unsigned char byte : bytes) {
            char digits[3];
            snprintf(digits, sizeof(digits), "%02x", byte);
            hex += digits;
        }
        ASSERT_EQ(bit_string(bf.get()), bits);
        ASSERT_EQ(hex_string(bf.get()), hex);
        const owned_bf copy = make(size);
        ASSERT_EQ(lh_bf_hex_str_parse(copy.get(), hex.c_str(), hex.size()), 0);
        ASSERT_EQ(bytes_of(copy.get()), bytes);
    }
}

TEST_F(Bf, ARecordAndItsTextAreAsLargeAsTheirSizes)
{
    BlockSizes sizes;
    for (const size_t size : {1u, 2u, 7u, 8u, 9u, 512u}) {
        const owned_bf bf = make(size);
        EXPECT_EQ(sizes.take(), (std::vector<size_t>{sizeof(lh_bf_t), size}));
        EXPECT_EQ(bit_string(bf.get()).size() + 1, lh_bf_str_size_get(bf.get()));
        EXPECT_EQ(sizes.take(), std::vector<size_t>{size * 8 + 1});
    }
}

TEST_F(Bf, TheBitStringWithoutMemory)
{
    Faults faults;
    const owned_bf bf = make(1);
    faults.fail_allocation(1);
    EXPECT_EQ(lh_bf_strdup(bf.get()), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(faults.happened());
    EXPECT_LINES("lh_bf_strdup: PTR_IS_NULL: str");
    EXPECT_EQ(bit_string(bf.get()), "00000000");
}

TEST_F(Bf, ASizeWhoseBitStringWouldWrapFindsNoMemory)
{
    unsigned char byte = 0;
    const lh_bf_t bf = {&byte, SIZE_MAX / 8 + 1};
    errno = 0;
    EXPECT_EQ(lh_bf_strdup(&bf), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES("lh_bf_strdup: PTR_IS_NULL: str");
}

TEST_F(Bf, TheHexStringNeedsItsWholeRoom)
{
    const owned_bf bf = make({0xab, 0xcd});
    char hex_str[6] = "#####";
    EXPECT_EQ(lh_bf_stringize_hex(bf.get(), hex_str, 4), -1);
    EXPECT_LINES("lh_bf_stringize_hex: IS_LT check failed: hex_str_size (4 < 5) !!!");
    EXPECT_EQ(lh_bf_stringize_hex(bf.get(), hex_str, 0), -1);
    EXPECT_LINES("lh_bf_stringize_hex: IS_LT check failed: hex_str_size (0 < 5) !!!");
    EXPECT_STREQ(hex_str, "#####");
    EXPECT_EQ(lh_bf_stringize_hex(bf.get(), nullptr, 0), -1);
    EXPECT_LINES("lh_bf_stringize_hex: PTR_IS_NULL: hex_str");
    EXPECT_EQ(lh_bf_stringize_hex(bf.get(), hex_str, 5), 0);
    EXPECT_STREQ(hex_str, "abcd");
    EXPECT_EQ(lh_bf_stringize_hex(bf.get(), hex_str, SIZE_MAX), 0);
    EXPECT_STREQ(hex_str, "abcd");
}

TEST_F(Bf, ParsingKeepsTheBytesBehindTheDigits)
{
    const owned_bf bf = make({1, 2, 3, 4});
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "ff00", 4), 0);
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{0xff, 0x00, 3, 4}));
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "aBCd", 2), 0);
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{0xab, 0x00, 3, 4}));
}

TEST_F(Bf, ParsingChecksItsArgumentsInOrder)
{
    const owned_bf bf = make({1, 2});
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), nullptr, 0), -1);
    EXPECT_LINES("lh_bf_hex_str_parse: PTR_IS_NULL: hex_str");
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "", 0), -1);
    EXPECT_LINES("lh_bf_hex_str_parse: IS_EQ check failed: hex_str_len (0 == 0) !!!");
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "abc", 3), -1);
    EXPECT_LINES("lh_bf_hex_str_parse: IS_NE check failed: 0 (0 != 1) !!!");
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "abcdefa", 7), -1);
    EXPECT_LINES("lh_bf_hex_str_parse: IS_NE check failed: 0 (0 != 1) !!!");
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "abcdef", 6), -1);
    EXPECT_LINES("lh_bf_hex_str_parse: IS_LT check failed: bf->size (2 < 3) !!!");
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{1, 2}));
}

TEST_F(Bf, APairWithoutANumberEndsTheParsing)
{
    const owned_bf bf = make({1, 2, 3});
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "ffz700", 6), -1);
    EXPECT_LINES("lh_bf_hex_str_parse: sscanf failed");
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{0xff, 2, 3}));
}

TEST_F(Bf, AStringShorterThanItsLengthEndsTheParsing)
{
    const owned_bf bf = make({1, 2, 3});
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "ff", 6), -1);
    EXPECT_LINES("lh_bf_hex_str_parse: sscanf failed");
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{0xff, 2, 3}));
}

TEST_F(Bf, ASingleDigitBeforeSomethingElseCounts)
{
    const owned_bf bf = make({1, 2, 3});
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), "7z0xF ", 6), 0);
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{7, 0, 0xf}));
}

TEST_F(Bf, BlanksAndSignsCountAsTheyDoForSscanf)
{
    const owned_bf bf = make({1, 2, 3, 4});
    EXPECT_EQ(lh_bf_hex_str_parse(bf.get(), " 5+6-1\tf", 8), 0);
    EXPECT_EQ(bytes_of(bf.get()), (std::vector<unsigned char>{5, 6, 0xff, 0xf}));
}

TEST_F(Bf, EveryPairIsReadAsSscanfReadsIt)
{
    const owned_bf bf = make(1);
    for (int first = 0; first < 256; first++) {
        for (int second = 0; second < 256; second++) {
            const char pair[3] = {static_cast<char>(first), static_cast<char>(second), '\0'};
            unsigned value = 0;
            const bool reads = sscanf(pair, "%02x", &value) == 1;
            errno = ENOTTY;
            ASSERT_EQ(lh_bf_hex_str_parse(bf.get(), pair, 2), reads ? 0 : -1)
                << first << ' ' << second;
            ASSERT_EQ(errno, ENOTTY) << first << ' ' << second;
            ASSERT_EQ(take_lines().size(), reads ? 0u : 1u);
            if (reads) {
                ASSERT_EQ(bf->base[0], value & 0xff) << first << ' ' << second;
            }
        }
    }
}

// _lh_max_int_get --------------------------------------------------------------------------------

TEST(MaxInt, TheLargestUpToTheTerminator)
{
    EXPECT_EQ(_lh_max_int_get(3, 7, 5, -1), 7);
    EXPECT_EQ(_lh_max_int_get(3, 7, 5, -1, 99), 7);
    EXPECT_EQ(_lh_max_int_get(9, 7, 5, -1), 9);
    EXPECT_EQ(_lh_max_int_get(4, -1), 4);
    EXPECT_EQ(_lh_max_int_get(0, 1, INT_MAX, 2, -1), INT_MAX);
}

TEST(MaxInt, TheFirstIsNeverTheTerminator)
{
    EXPECT_EQ(_lh_max_int_get(-1, 4, -1), 4);
    EXPECT_EQ(_lh_max_int_get(-1, -1), -1);
    EXPECT_EQ(_lh_max_int_get(-1, -5, -1), -1);
}

TEST(MaxInt, NegativeNumbersAreComparedAsSigned)
{
    EXPECT_EQ(_lh_max_int_get(-7, -3, -5, -1), -3);
    EXPECT_EQ(_lh_max_int_get(INT_MIN, -2, -1), -2);
    EXPECT_EQ(_lh_max_int_get(-7, 0, -1), 0);
}
