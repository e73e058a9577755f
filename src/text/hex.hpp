// Hexadecimal digits.
#pragma once

#include <array>
#include <cstdint>

namespace vyt {

constexpr char lower_hex_digits[] = "0123456789abcdef";
constexpr char upper_hex_digits[] = "0123456789ABCDEF";

// The value of every byte as a digit of either case; -1 for what is none.
constexpr std::array<int8_t, 256> hex_values = [] {
    std::array<int8_t, 256> values{};
    values.fill(-1);
    for (int8_t value = 0; value < 16; value++) {
        values[static_cast<uint8_t>(lower_hex_digits[value])] = value;
        values[static_cast<uint8_t>(upper_hex_digits[value])] = value;
    }
    return values;
}();

constexpr int hex_value(char digit)
{
    return hex_values[static_cast<uint8_t>(digit)];
}

// Writes the two lower-case digits of a byte and answers where the next ones go.
inline char *put_hex_byte(char *out, unsigned byte)
{
    *out++ = lower_hex_digits[byte >> 4];
    *out++ = lower_hex_digits[byte & 0xf];
    return out;
}

} // namespace vyt
