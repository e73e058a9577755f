#include "lh_bf.h"

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/errno_saver.hpp"
#include "core/log.hpp"
#include "text/block.hpp"
#include "text/hex.hpp"

// Daemons look into the record: its layout never changes.
static_assert(offsetof(lh_bf_t, base) == 0);
static_assert(offsetof(lh_bf_t, size) == 8);
static_assert(sizeof(lh_bf_t) == 16);

using namespace vyt;

namespace {

// A macro, so that the lines name the record as the caller does: bf, dst or src.
#define BF_IS_INVALID(bf) (PTR_IS_NULL(bf) || PTR_IS_NULL((bf)->base) || IS_EQ((bf)->size, 0u))

template <class Word>
Word load(const unsigned char *at)
{
    Word word;
    memcpy(&word, at, sizeof(word));
    return word;
}

template <class Word>
void store(unsigned char *at, Word word)
{
    memcpy(at, &word, sizeof(word));
}

// Steps over the leading whole 64-bit words, then over the bytes behind them. The step gets the
// offset and a value that says by its type how much to load there.
template <class Step>
void for_each_word(size_t size, Step step)
{
    size_t at = 0;
    for (; size - at >= sizeof(uint64_t); at += sizeof(uint64_t))
        step(at, uint64_t{});
    for (; at < size; at++)
        step(at, uint8_t{});
}

unsigned char bit_mask(size_t bit_num)
{
    return static_cast<unsigned char>(1u << bit_num % 8);
}

// What scanning two characters with "%02x" gives, -1 where that finds no number. Deliberate: a digit
// before something else counts alone, and sscanf's blanks and signs are welcome, for the masks that
// were written by hand.
int scan_pair(const char *digits)
{
    if (const int high = hex_value(digits[0]); high >= 0) {
        const int low = hex_value(digits[1]);
        return low >= 0 ? high << 4 | low : high;
    }
    if (digits[0] == '\0')
        return -1; // the string may end here
    // The C library sets errno to 0 where the text ends.
    const errno_saver saver;
    const char pair[] = {digits[0], digits[1], '\0'};
    unsigned value;
    return sscanf(pair, "%2x", &value) == 1 ? static_cast<int>(value & 0xff) : -1;
}

} // namespace

lh_bf_t *lh_bf_alloc(const void *init, size_t size)
{
    if (IS_EQ(size, 0u))
        return nullptr;
    auto *bf = static_cast<lh_bf_t *>(malloc(sizeof(lh_bf_t)));
    if (PTR_IS_NULL(bf))
        return nullptr;
    // Deliberate: without memory for the bytes the record still comes back, for daemons that look
    // at base themselves.
    bf->base = static_cast<unsigned char *>(calloc(1, size));
    bf->size = size;
    if (init != nullptr && bf->base != nullptr)
        memcpy(bf->base, init, size);
    return bf;
}

void lh_bf_free(lh_bf_t *bf)
{
    // Deliberate: an invalid record is not released, as nobody knows whose it is.
    if (BF_IS_INVALID(bf))
        return;
    free(bf->base);
    free(bf);
}

size_t lh_bf_n_bits_get(const lh_bf_t *bf)
{
    if (BF_IS_INVALID(bf))
        return 0;
    return bf->size * 8;
}

bool lh_bf_bit_out_of_range(const lh_bf_t *bf, size_t bit_num)
{
    if (BF_IS_INVALID(bf))
        return true;
    return IS_MT(bit_num, bf->size * 8 - 1);
}

int lh_bf_bit_set(lh_bf_t *bf, size_t bit_num)
{
    if (BF_IS_INVALID(bf) || lh_bf_bit_out_of_range(bf, bit_num))
        return -1;
    bf->base[bit_num / 8] |= bit_mask(bit_num);
    return 0;
}

int lh_bf_bit_clear(lh_bf_t *bf, size_t bit_num)
{
    if (BF_IS_INVALID(bf) || lh_bf_bit_out_of_range(bf, bit_num))
        return -1;
    bf->base[bit_num / 8] &= static_cast<unsigned char>(~bit_mask(bit_num));
    return 0;
}

int lh_bf_bit_get(const lh_bf_t *bf, size_t bit_num, bool *value)
{
    if (BF_IS_INVALID(bf) || PTR_IS_NULL(value) || lh_bf_bit_out_of_range(bf, bit_num))
        return -1;
    *value = (bf->base[bit_num / 8] & bit_mask(bit_num)) != 0;
    return 0;
}

size_t lh_bf_str_size_get(const lh_bf_t *bf)
{
    if (BF_IS_INVALID(bf))
        return 0;
    return bf->size * 8 + 1;
}

char *lh_bf_strdup(const lh_bf_t *bf)
{
    if (BF_IS_INVALID(bf))
        return nullptr;
    char *str = allocate_zeroed_block(1, bf->size, 8);
    if (PTR_IS_NULL(str))
        return nullptr;
    char *out = str;
    for (size_t i = 0; i < bf->size; i++) {
        for (int bit = 0; bit < 8; bit++)
            *out++ = static_cast<char>('0' + (bf->base[i] >> bit & 1));
    }
    return str;
}

size_t lh_bf_hex_str_size_get(const lh_bf_t *bf)
{
    if (BF_IS_INVALID(bf))
        return 0;
    return bf->size * 2 + 1;
}

int lh_bf_stringize_hex(const lh_bf_t *bf, char *hex_str, size_t hex_str_size)
{
    if (BF_IS_INVALID(bf) || PTR_IS_NULL(hex_str) ||
        IS_LT(hex_str_size, lh_bf_hex_str_size_get(bf)))
        return -1;
    for (size_t i = 0; i < bf->size; i++)
        hex_str = put_hex_byte(hex_str, bf->base[i]);
    *hex_str = '\0';
    return 0;
}

size_t lh_bf_size_for_hex_str_get(size_t hex_str_len)
{
    return hex_str_len / 2;
}

int lh_bf_hex_str_parse(lh_bf_t *bf, const char *hex_str, size_t hex_str_len)
{
    if (BF_IS_INVALID(bf) || PTR_IS_NULL(hex_str) || IS_EQ(hex_str_len, 0u) ||
        IS_NE(0, hex_str_len % 2))
        return -1;
    const size_t size = lh_bf_size_for_hex_str_get(hex_str_len);
    if (IS_LT(bf->size, size))
        return -1;
    for (size_t i = 0; i < size; i++) {
        const int byte = scan_pair(hex_str + 2 * i);
        if (byte < 0) {
            LOG_ERROR("sscanf failed");
            return -1;
        }
        bf->base[i] = static_cast<unsigned char>(byte);
    }
    return 0;
}

bool lh_bf_is_dirty(const lh_bf_t *bf)
{
    if (BF_IS_INVALID(bf))
        return false;
    // All bytes are zero when the first one is and each equals the next.
    return bf->base[0] != 0 || memcmp(bf->base, bf->base + 1, bf->size - 1) != 0;
}

int lh_bf_popcount(const lh_bf_t *bf)
{
    if (BF_IS_INVALID(bf))
        return -1;
    size_t count = 0;
    for_each_word(bf->size, [&]<class Word>(size_t at, Word) {
        count += static_cast<size_t>(std::popcount(load<Word>(bf->base + at)));
    });
    return static_cast<int>(count);
}

int lh_bf_and(lh_bf_t *dst, const lh_bf_t *src)
{
    if (BF_IS_INVALID(dst) || BF_IS_INVALID(src))
        return -1;
    // Deliberate: a shorter src leaves the end of dst alone, for masks that cover only some ports.
    for_each_word(std::min(dst->size, src->size), [&]<class Word>(size_t at, Word) {
        const Word both = load<Word>(dst->base + at) & load<Word>(src->base + at);
        store(dst->base + at, both);
    });
    return 0;
}

int lh_bf_not(lh_bf_t *bf)
{
    if (BF_IS_INVALID(bf))
        return -1;
    for_each_word(bf->size, [&]<class Word>(size_t at, Word) {
        store(bf->base + at, static_cast<Word>(~load<Word>(bf->base + at)));
    });
    return 0;
}

int _lh_max_int_get(int first, ...)
{
    int max = first;
    va_list rest;
    va_start(rest, first);
    for (int value = va_arg(rest, int); value != -1; value = va_arg(rest, int))
        max = std::max(max, value);
    va_end(rest);
    return max;
}
