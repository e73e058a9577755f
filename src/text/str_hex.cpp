#include <cstdlib>
#include <cstring>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "lh_str.h"
#include "text/block.hpp"
#include "text/hex.hpp"

using namespace vyt;

int hex2bin(unsigned char *dst, const char *hex, size_t n)
{
    for (; n != 0; n--, hex += 2) {
        const int high = hex_value(hex[0]);
        if (high < 0)
            return -1; // before the second digit is read: the text may end here
        const int low = hex_value(hex[1]);
        if (low < 0)
            return -1;
        *dst++ = static_cast<unsigned char>(high << 4 | low);
    }
    return 0;
}

char *lh_str_to_hex(const char *str)
{
    if (PTR_IS_NULL(str))
        return nullptr;
    char *hex = allocate_block(1, strlen(str), 2);
    if (hex == nullptr) {
        LOG_ERROR("malloc failed");
        return nullptr;
    }
    char *out = hex;
    for (; *str != '\0'; str++)
        out = put_hex_byte(out, static_cast<unsigned char>(*str));
    *out = '\0';
    return hex;
}

char *lh_hex_to_str(const char *hex)
{
    if (PTR_IS_NULL(hex))
        return nullptr;
    const size_t k = strlen(hex) / 2;
    malloc_ptr<char> str(static_cast<char *>(malloc(k + 1)));
    if (!str) {
        LOG_ERROR("malloc failed");
        return nullptr;
    }
    if (hex2bin(reinterpret_cast<unsigned char *>(str.get()), hex, k) != 0) {
        LOG_ERROR("hex2bin failed");
        return nullptr;
    }
    str.get()[k] = '\0';
    return str.release(); // the caller's now
}
