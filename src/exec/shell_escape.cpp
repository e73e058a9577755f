#include <array>
#include <cstdint>
#include <string_view>

#include "core/log.hpp"
#include "lh_shell_cmd.h"
#include "lh_str.h"

using namespace vyt;

namespace {

// The escaped characters from '!' to '`', one bit each; the two others stand in the code.
constexpr unsigned char mask_first = 0x21;
constexpr unsigned char mask_last = 0x60;
constexpr uint64_t mask = 0x800000007C0003EB;

constexpr unsigned char last_looked_at = 0x7D;
constexpr size_t set_size = 32;

constexpr bool needs_escape(unsigned char c)
{
    if (c >= mask_first && c <= mask_last && (mask >> (c - mask_first) & 1) != 0)
        return true;
    return c == '\\' || c == '|';
}

// The set in ascending order, terminated; built by the compiler, so that no thread ever sees half
// of it. A set that does not fit does not compile.
constexpr std::array<char, set_size> build_set()
{
    std::array<char, set_size> set = {};
    size_t count = 0;
    for (unsigned char c = mask_first; c <= last_looked_at; c++) {
        if (needs_escape(c))
            set[count++] = static_cast<char>(c);
    }
    return set;
}

constexpr std::array<char, set_size> escape_set = build_set();
static_assert(std::string_view(escape_set.data()) == "!\"$&'()*;<=>?\\`|");

} // namespace

int lh_shell_cmd_chr_need_to_be_escaped(unsigned char c)
{
    return needs_escape(c) ? 1 : 0;
}

int lh_shell_cmd_chrs_need_to_be_escaped_get(const char **chrs)
{
    if (PTR_IS_NULL(chrs))
        return -1;
    *chrs = escape_set.data();
    return 0;
}

int lh_shell_cmd_chrs_escape(const char *str, const char *prefix, const char *chrs, char **out)
{
    return lh_str_insert_str_before_each_of_chrs(str, prefix, chrs, out);
}

int lh_shell_cmd_escaping(const char *str, char **out)
{
    return lh_str_insert_str_before_each_of_chrs(str, "\\", escape_set.data(), out);
}
