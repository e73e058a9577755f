// Hex text of strings, both ways. The input is taken as bytes, as a string and as hex digits.
#include "lh_str.h"

#include <cstdio>

#include "fuzz/support/fuzz.hpp"

using namespace vyt::fuzz;

namespace {

std::string plain_hex(const std::string &bytes)
{
    std::string hex;
    for (const char byte : bytes) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(byte));
        hex += digits;
    }
    return hex;
}

// The bytes of the leading pairs that are pairs of digits, at most n.
std::string plain_bytes(const std::string &hex, size_t n)
{
    std::string bytes;
    for (size_t at = 0; at < 2 * n && at + 1 < hex.size(); at += 2) {
        if (!isxdigit(static_cast<unsigned char>(hex[at])) ||
            !isxdigit(static_cast<unsigned char>(hex[at + 1])))
            break;
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

// A text of any length into a block of n bytes: it stops at the end of either.
void check_hex2bin(const std::string &hex, size_t n)
{
    const std::string expected = plain_bytes(hex, n);
    const std::string before(n, '\x5a');
    Exact block(before);
    EXPECT_EQ(hex2bin(block.unsigned_data(), Exact::text(hex).data(), n),
              expected.size() == n ? 0 : -1);
    EXPECT_EQ(block.bytes(), expected + before.substr(expected.size()));
}

} // namespace

void vyt::fuzz::prepare() {}

void vyt::fuzz::run(Input input)
{
    const size_t n = input.byte();
    const std::string text = c_text(input.rest());

    const auto hex = take_text(lh_str_to_hex(Exact::text(text).data())).value();
    EXPECT_EQ(hex, plain_hex(text));
    EXPECT_EQ(take_text(lh_hex_to_str(Exact::text(hex).data())), text);

    const size_t k = text.size() / 2;
    const std::string bytes = plain_bytes(text, k);
    const auto decoded = take_text(lh_hex_to_str(Exact::text(text).data()));
    EXPECT_EQ(decoded.has_value(), bytes.size() == k);
    if (decoded.has_value())
        EXPECT_EQ(*decoded, c_text(bytes)); // a decoded zero byte ends it
    else
        EXPECT_LINES("lh_hex_to_str: hex2bin failed");

    check_hex2bin(text, n);
    check_hex2bin(text, k);
}
