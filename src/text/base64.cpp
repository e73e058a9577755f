#include "lh_base64.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "text/block.hpp"
#include "text/hex.hpp"

using namespace vyt;

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char padding = '=';

// The value of every byte as a character of Base64; padding counts as 0, -1 is what is none.
constexpr std::array<int8_t, 256> values = [] {
    std::array<int8_t, 256> result{};
    result.fill(-1);
    for (int8_t value = 0; value < 64; value++)
        result[static_cast<uint8_t>(alphabet[value])] = value;
    result[static_cast<uint8_t>(padding)] = 0;
    return result;
}();

int value_of(char ch)
{
    return values[static_cast<uint8_t>(ch)];
}

// Writes the four characters of 24 bits and answers where the next ones go.
char *put_group(char *out, unsigned bits)
{
    for (int shift = 18; shift >= 0; shift -= 6)
        *out++ = alphabet[bits >> shift & 0x3f];
    return out;
}

// How many pieces of this size it takes for so many bytes or digits.
size_t pieces_of(size_t len, size_t piece)
{
    return len / piece + (len % piece != 0);
}

size_t count_padding(const char *in, size_t n)
{
    if (n == 0 || in[n - 1] != padding)
        return 0;
    return in[n - 2] == padding ? 2 : 1;
}

} // namespace

char *lh_base64_encode(const unsigned char *in, size_t len)
{
    if (PTR_IS_NULL(in))
        return nullptr;
    char *out = allocate_block(1, pieces_of(len, 3), 4);
    if (PTR_IS_NULL(out))
        return nullptr;
    char *end = out;
    for (; len >= 3; len -= 3, in += 3)
        end = put_group(end, unsigned{in[0]} << 16 | unsigned{in[1]} << 8 | in[2]);
    if (len != 0) {
        end = put_group(end, unsigned{in[0]} << 16 | (len == 2 ? unsigned{in[1]} << 8 : 0));
        memset(end - (3 - len), padding, 3 - len);
    }
    *end = '\0';
    return out;
}

unsigned char *lh_base64_decode(const char *in, size_t *out_len)
{
    if (PTR_IS_NULL(in))
        return nullptr;
    const size_t n = strlen(in);
    if (n % 4 != 0)
        return nullptr;
    const size_t size = n / 4 * 3 - count_padding(in, n);
    auto *out = static_cast<unsigned char *>(malloc(size != 0 ? size : 1));
    if (PTR_IS_NULL(out))
        return nullptr;
    malloc_ptr<unsigned char> block(out);
    for (const char *const end = in + n; in != end; in += 4) {
        const int group[] = {value_of(in[0]), value_of(in[1]), value_of(in[2]), value_of(in[3])};
        if ((group[0] | group[1] | group[2] | group[3]) < 0)
            return nullptr;
        // Deliberate: padding is accepted anywhere, for the peers that write it there.
        *out++ = static_cast<unsigned char>(group[0] << 2 | group[1] >> 4);
        if (in[2] != padding)
            *out++ = static_cast<unsigned char>(group[1] << 4 | group[2] >> 2);
        if (in[3] != padding)
            *out++ = static_cast<unsigned char>(group[2] << 6 | group[3]);
    }
    if (out_len != nullptr)
        *out_len = static_cast<size_t>(out - block.get());
    return block.release(); // the caller's now
}

char *lh_base64_to_hex(const char *in, size_t len)
{
    if (PTR_IS_NULL(in))
        return nullptr;
    char *out = allocate_block(7, len / 4, 6);
    if (PTR_IS_NULL(out))
        return nullptr;
    malloc_ptr<char> text(out);
    unsigned bits = 0;
    unsigned unused = 0;
    for (; len != 0 && *in != padding; len--, in++) {
        const int value = value_of(*in);
        if (value < 0) {
            LOG_ERROR("string is not base64");
            return nullptr;
        }
        bits = bits << 6 | static_cast<unsigned>(value);
        // Deliberate: a padded group's filler bits give a digit too, as its readers expect.
        for (unused += 6; unused >= 4; unused -= 4)
            *out++ = upper_hex_digits[bits >> (unused - 4) & 0xf];
    }
    *out = '\0';
    return text.release(); // the caller's now
}

char *lh_hex_to_base64(const char *in, size_t len)
{
    if (PTR_IS_NULL(in))
        return nullptr;
    const size_t bytes = pieces_of(len, 2);
    char *out = allocate_block(8, bytes + bytes / 3, 1);
    if (PTR_IS_NULL(out))
        return nullptr;
    malloc_ptr<char> text(out);
    unsigned bits = 0;
    unsigned unused = 0;
    for (; len != 0; len--, in++) {
        const int value = hex_value(*in);
        if (value < 0) {
            LOG_ERROR("string is not HEX");
            return nullptr;
        }
        bits = bits << 4 | static_cast<unsigned>(value);
        unused += 4;
        if (unused >= 6) {
            unused -= 6;
            *out++ = alphabet[bits >> unused & 0x3f];
        }
    }
    if (unused != 0)
        *out++ = alphabet[bits << (6 - unused) & 0x3f];
    while ((out - text.get()) % 4 != 0)
        *out++ = padding;
    *out = '\0';
    return text.release(); // the caller's now
}
