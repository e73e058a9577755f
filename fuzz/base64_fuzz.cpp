// Base64 both ways, and between Base64 and hex. The input is taken as bytes and as text.
#include "lh_base64.h"

#include "fuzz/support/fuzz.hpp"

using namespace vyt::fuzz;

namespace {

const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const std::string hex_digits = "0123456789ABCDEF";

std::string bits_of(size_t value, int count)
{
    std::string bits;
    for (int bit = count - 1; bit >= 0; bit--)
        bits += value >> bit & 1 ? '1' : '0';
    return bits;
}

size_t value_of(const std::string &bits)
{
    return bits.empty() ? 0 : std::stoul(bits, nullptr, 2);
}

std::string padded(std::string text)
{
    text.resize((text.size() + 3) / 4 * 4, '=');
    return text;
}

// Characters of six bits; the last one is filled up with zeros.
std::string base64_of_bits(std::string bits)
{
    std::string text;
    bits.resize((bits.size() + 5) / 6 * 6, '0');
    for (size_t at = 0; at < bits.size(); at += 6)
        text += alphabet[value_of(bits.substr(at, 6))];
    return padded(text);
}

std::string plain_encode(const std::string &bytes)
{
    std::string bits;
    for (const char byte : bytes)
        bits += bits_of(static_cast<unsigned char>(byte), 8);
    return base64_of_bits(bits);
}

// Padding counts as zero bits wherever it stands; in a group's last two places it takes a byte away.
std::optional<std::string> plain_decode(const std::string &text)
{
    std::string bytes;
    if (text.size() % 4 != 0 || text.find_first_not_of(alphabet + "=") != std::string::npos)
        return std::nullopt;
    for (size_t at = 0; at < text.size(); at += 4) {
        std::string bits;
        for (size_t i = at; i < at + 4; i++)
            bits += bits_of(text[i] == '=' ? 0 : alphabet.find(text[i]), 6);
        bytes += static_cast<char>(value_of(bits.substr(0, 8)));
        if (text[at + 2] != '=')
            bytes += static_cast<char>(value_of(bits.substr(8, 8)));
        if (text[at + 3] != '=')
            bytes += static_cast<char>(value_of(bits.substr(16, 8)));
    }
    return bytes;
}

std::optional<std::string> plain_to_hex(const std::string &text)
{
    std::string bits;
    for (const char ch : text.substr(0, text.find('='))) {
        if (ch == '\0' || alphabet.find(ch) == std::string::npos)
            return std::nullopt;
        bits += bits_of(alphabet.find(ch), 6);
    }
    std::string hex;
    for (size_t at = 0; at + 4 <= bits.size(); at += 4)
        hex += hex_digits[value_of(bits.substr(at, 4))];
    return hex;
}

std::optional<std::string> plain_from_hex(const std::string &text)
{
    std::string bits;
    for (const char ch : text) {
        const size_t value = hex_digits.find(static_cast<char>(toupper(ch)));
        if (value == std::string::npos)
            return std::nullopt;
        bits += bits_of(value, 4);
    }
    return base64_of_bits(bits);
}

std::optional<std::string> decoded(const std::string &text)
{
    size_t length = 0;
    unsigned char *bytes = lh_base64_decode(Exact::text(text).data(), &length);
    if (bytes == nullptr)
        return std::nullopt;
    std::string copy(reinterpret_cast<char *>(bytes), length);
    free(bytes);
    return copy;
}

} // namespace

void vyt::fuzz::prepare() {}

void vyt::fuzz::run(Input input)
{
    const std::string bytes = input.rest();

    const auto encoded =
        take_text(lh_base64_encode(Exact(bytes).unsigned_data(), bytes.size())).value();
    EXPECT_EQ(encoded, plain_encode(bytes));
    EXPECT_EQ(decoded(encoded), bytes);

    EXPECT_EQ(decoded(c_text(bytes)), plain_decode(c_text(bytes)));

    const auto hex = take_text(lh_base64_to_hex(Exact(bytes).data(), bytes.size()));
    EXPECT_EQ(hex, plain_to_hex(bytes));
    if (!hex.has_value())
        EXPECT_LINES("lh_base64_to_hex: string is not base64");

    const auto base64 = take_text(lh_hex_to_base64(Exact(bytes).data(), bytes.size()));
    EXPECT_EQ(base64, plain_from_hex(bytes));
    if (!base64.has_value())
        EXPECT_LINES("lh_hex_to_base64: string is not HEX");
}
