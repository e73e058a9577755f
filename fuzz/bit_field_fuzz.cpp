// Bit fields and their two texts. The input is a field's size, the hex text that is read into it,
// a newline, then edits: each an operation and a number.
#include "lh_bf.h"

#include <cstdio>

#include "fuzz/support/fuzz.hpp"

using namespace vyt::fuzz;

namespace {

using Bytes = std::vector<unsigned char>;
using Field = std::unique_ptr<lh_bf_t, decltype(&lh_bf_free)>;

// A plain field: its bytes, as the daemons see them.
Bytes bytes_of(const lh_bf_t *bf)
{
    return Bytes(bf->base, bf->base + bf->size);
}

Field field_of(const Bytes &bytes)
{
    return Field(lh_bf_alloc(bytes.data(), bytes.size()), lh_bf_free);
}

// A pair of characters as "%02x" scans it; nothing where it finds no number.
std::optional<unsigned char> plain_pair(const std::string &pair)
{
    static const char *const format = "%02x";
    unsigned value = 0;
    if (sscanf(pair.c_str(), format, &value) != 1)
        return std::nullopt;
    return static_cast<unsigned char>(value);
}

std::string check_text(const std::string &expression, const std::string &relation, size_t value,
                       size_t bound)
{
    return " check failed: " + expression + " (" + std::to_string(value) + relation +
           std::to_string(bound) + ") !!!";
}

// What parsing leaves in the field and says; a failure keeps the bytes that were stored before.
std::vector<std::string> plain_parse(Bytes &bytes, const std::string &text)
{
    const std::string parser = "lh_bf_hex_str_parse: ";
    if (text.empty())
        return {parser + "IS_EQ" + check_text("hex_str_len", " == ", 0, 0)};
    if (text.size() % 2 != 0)
        return {parser + "IS_NE" + check_text("0", " != ", 0, 1)};
    if (bytes.size() < text.size() / 2)
        return {parser + "IS_LT" + check_text("bf->size", " < ", bytes.size(), text.size() / 2)};
    for (size_t i = 0; i < text.size() / 2; i++) {
        const auto value = plain_pair(text.substr(2 * i, 2));
        if (!value.has_value())
            return {parser + "sscanf failed"};
        bytes[i] = *value;
    }
    return {};
}

void check_parse(lh_bf_t *bf, Bytes &plain, const std::string &text)
{
    const auto lines = plain_parse(plain, text);
    EXPECT_EQ(lh_bf_hex_str_parse(bf, Exact(text).data(), text.size()), lines.empty() ? 0 : -1);
    EXPECT_EQ(bytes_of(bf), plain);
    EXPECT_EQ(vyt::test::take_lines(), lines);
}

// Both texts say the field, and the hex text gives it back.
void check_texts(const lh_bf_t *bf, const Bytes &plain)
{
    std::string bits;
    std::string hex;
    int count = 0;
    for (const unsigned char byte : plain) {
        for (int bit = 0; bit < 8; bit++) {
            bits += byte >> bit & 1 ? '1' : '0';
            count += byte >> bit & 1;
        }
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    EXPECT_EQ(lh_bf_str_size_get(bf), bits.size() + 1);
    EXPECT_EQ(take_text(lh_bf_strdup(bf)), bits);
    EXPECT_EQ(lh_bf_popcount(bf), count);
    EXPECT_EQ(lh_bf_is_dirty(bf), count != 0);

    Exact room(std::string(hex.size() + 1, '?'));
    EXPECT_EQ(lh_bf_hex_str_size_get(bf), room.size());
    EXPECT_EQ(lh_bf_stringize_hex(bf, room.data(), room.size()), 0);
    EXPECT_EQ(room.bytes(), hex + '\0');
    EXPECT_EQ(lh_bf_size_for_hex_str_get(hex.size()), plain.size());
    const Field copy(lh_bf_alloc(nullptr, plain.size()), lh_bf_free);
    EXPECT_EQ(lh_bf_hex_str_parse(copy.get(), Exact(hex).data(), hex.size()), 0);
    EXPECT_EQ(bytes_of(copy.get()), plain);
}

// One bit of the field: what the call made of it, or the line for a bit that it does not have.
void check_bit(lh_bf_t *bf, Bytes &plain, unsigned operation, size_t bit)
{
    const bool has = bit < plain.size() * 8;
    const int expected = has ? 0 : -1;
    const auto mask = static_cast<unsigned char>(1u << bit % 8);
    bool value = false;
    if (operation == 0) {
        EXPECT_EQ(lh_bf_bit_set(bf, bit), expected);
        if (has)
            plain[bit / 8] |= mask;
    } else if (operation == 1) {
        EXPECT_EQ(lh_bf_bit_clear(bf, bit), expected);
        if (has)
            plain[bit / 8] &= static_cast<unsigned char>(~mask);
    } else {
        EXPECT_EQ(lh_bf_bit_get(bf, bit, &value), expected);
        EXPECT_EQ(value, has && (plain[bit / 8] & mask) != 0);
    }
    if (!has)
        EXPECT_LINES("lh_bf_bit_out_of_range: IS_MT" +
                     check_text("bit_num", " > ", bit, plain.size() * 8 - 1));
}

void edit(lh_bf_t *bf, Bytes &plain, Input &input)
{
    const unsigned operation = input.below(6);
    if (operation <= 2) {
        check_bit(bf, plain, operation, input.number(2));
    } else if (operation == 3) {
        EXPECT_EQ(lh_bf_not(bf), 0);
        for (unsigned char &byte : plain)
            byte = static_cast<unsigned char>(~byte);
    } else if (operation == 4) {
        const std::string other = input.some(40);
        const Bytes bytes(other.begin(), other.end());
        if (bytes.empty())
            return;
        const Field mask = field_of(bytes);
        EXPECT_EQ(lh_bf_and(bf, mask.get()), 0);
        for (size_t i = 0; i < std::min(bytes.size(), plain.size()); i++)
            plain[i] &= bytes[i];
    } else {
        check_parse(bf, plain, input.some(80));
    }
}

} // namespace

void vyt::fuzz::prepare() {}

void vyt::fuzz::run(Input input)
{
    const size_t size = 1 + input.below(64);
    Bytes plain(size);
    const Field bf = field_of(plain);
    check_parse(bf.get(), plain, input.line());
    check_texts(bf.get(), plain);
    while (!input.is_empty())
        edit(bf.get(), plain, input);
    EXPECT_EQ(bytes_of(bf.get()), plain);
    check_texts(bf.get(), plain);
}
