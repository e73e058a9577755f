#include "lh_str.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "core/log.hpp"
#include "text/block.hpp"

using namespace vyt;

namespace {

// The value of a character wherever the sign of char must not show.
unsigned char byte_of(char ch)
{
    return static_cast<unsigned char>(ch);
}

class byte_set {
  public:
    explicit byte_set(const char *chrs)
    {
        for (; *chrs != '\0'; chrs++)
            has_[byte_of(*chrs)] = true;
    }
    bool has(char ch) const { return has_[byte_of(ch)]; }

  private:
    bool has_[256] = {};
};

bool is_printable(const char *function, char ch)
{
    if (isprint(byte_of(ch)))
        return true;
    LOG_ERROR_AS(function, "invalid char: 0x%X", unsigned{byte_of(ch)});
    return false;
}

bool all_printable(const char *function, const char *text)
{
    while (*text != '\0') {
        if (!is_printable(function, *text++))
            return false;
    }
    return true;
}

void convert(char *str, size_t size, int (*convert_byte)(int))
{
    for (char *const end = str + strnlen(str, size); str != end; str++)
        *str = static_cast<char>(convert_byte(byte_of(*str)));
}

} // namespace

size_t lh_str_chr_cnt_get(const char *str, size_t len, char ch)
{
    return static_cast<size_t>(std::count(str, str + len, ch));
}

int lh_str_insert_str(char *dst, size_t size, char *pos, const char *src, size_t src_len)
{
    if (PTR_IS_NULL(dst) || PTR_IS_NULL(pos) || PTR_IS_NULL(src))
        return -1;
    const ptrdiff_t off = pos - dst;
    if (off < 0) {
        LOG_ERROR("invalid pos: %td < %d", off, 0);
        return -1;
    }
    if (static_cast<size_t>(off) >= size) {
        LOG_ERROR("invalid pos: %td > %zu", off, size - 1);
        return -1;
    }
    const size_t n = strnlen(src, src_len);
    const size_t len = strnlen(dst, size);
    if (len == size) {
        LOG_ERROR("'\\0' not found");
        return -1;
    }
    if (n >= size - len) {
        LOG_ERROR("not enough space for insert '%s' into '%s' (%zu + %zu >= %zu)", src, dst, len, n,
                  size);
        return -1;
    }
    // Deliberate: no terminator is written. Callers edit zero-filled buffers, and a byte behind the
    // new end is theirs.
    memmove(pos + n, pos, len - static_cast<size_t>(off));
    memcpy(pos, src, n);
    return 0;
}

int lh_str_insert_chr(char *dst, size_t size, char *pos, char ch)
{
    if (!is_printable(__func__, ch))
        return -1;
    const char src[] = {ch, '\0'}; // terminated: the line about missing room prints all of it
    return lh_str_insert_str(dst, size, pos, src, 1);
}

int lh_str_insert_str_before_each_of_chrs(const char *str, const char *ins, const char *chrs,
                                          char **str_new)
{
    if (PTR_IS_NULL_AS(__func__, str, "dst") || PTR_IS_NULL_AS(__func__, ins, "src") ||
        PTR_IS_NULL(chrs) || PTR_IS_NULL(str_new))
        return -1;
    if (!all_printable(__func__, ins) || !all_printable(__func__, chrs))
        return -1;

    const byte_set set(chrs);
    const char *const end = str + strlen(str);
    const auto c = std::count_if(str, end, [&set](char ch) { return set.has(ch); });
    if (c == 0)
        return 0; // deliberate: no copy, the caller goes on with its own string
    const size_t ins_len = strlen(ins);
    char *_str_new =
        allocate_zeroed_block(static_cast<size_t>(end - str) + 1, static_cast<size_t>(c), ins_len);
    if (PTR_IS_NULL(_str_new))
        return -1;
    char *out = _str_new;
    for (; str != end; str++) {
        if (set.has(*str))
            out = static_cast<char *>(mempcpy(out, ins, ins_len));
        *out++ = *str;
    }
    *str_new = _str_new;
    return 0;
}

void lh_str_replace_symbol(char *str, char from, char to)
{
    if (PTR_IS_NULL(str))
        return;
    if (from == to || from == '\0')
        return;
    // The search goes on at the replaced byte: where that is the terminator now, it ends there.
    while ((str = strchr(str, from)) != nullptr)
        *str = to;
}

void lh_str_toupper(char *str, size_t size)
{
    if (PTR_IS_NULL(str) || IS_EQ(0, size))
        return;
    convert(str, size, toupper);
}

void lh_str_tolower(char *str, size_t size)
{
    if (PTR_IS_NULL(str) || IS_EQ(0, size))
        return;
    convert(str, size, tolower);
}
