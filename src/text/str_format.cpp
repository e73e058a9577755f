#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "lh_str.h"

using namespace vyt;

namespace {

int format_new(const char *function, char **dst, const char *fmt, va_list args)
{
    if (vasprintf(dst, fmt, args) < 0) {
        LOG_ERROR_AS(function, "vasprintf failed");
        *dst = nullptr;
        return -1;
    }
    return 0;
}

void lose(char **dst)
{
    malloc_ptr<char>{*dst}.reset();
    *dst = nullptr;
}

int format_behind(const char *function, char **dst, const char *fmt, va_list args)
{
    va_list args_to_measure;
    va_copy(args_to_measure, args);
    const int m = vsnprintf(nullptr, 0, fmt, args_to_measure);
    va_end(args_to_measure);
    if (m < 0) {
        LOG_ERROR_AS(function, "vsnprintf failed");
        lose(dst);
        return -1;
    }
    const size_t len = strlen(*dst);
    const size_t room = static_cast<size_t>(m) + 1;
    auto *tmp = static_cast<char *>(realloc(*dst, len + room));
    if (PTR_IS_NULL_AS(function, tmp, "tmp")) {
        // Deliberate: the old text goes too, so a caller never takes half a text for the whole.
        lose(dst);
        return -1;
    }
    vsnprintf(tmp + len, room, fmt, args);
    *dst = tmp;
    return 0;
}

} // namespace

int lh_str_add(char **dst, const char *fmt, ...)
{
    if (PTR_IS_NULL(dst) || PTR_IS_NULL_AS(__func__, fmt, "src"))
        return -1;
    va_list args;
    va_start(args, fmt);
    const int result = *dst == nullptr ? format_new(__func__, dst, fmt, args)
                                       : format_behind(__func__, dst, fmt, args);
    va_end(args);
    return result;
}

int lh_str_vasprintf(char **dst, const char *format, ...)
{
    if (PTR_IS_NULL(dst) || PTR_IS_NULL(format))
        return -1;
    // The old text goes last, so that it may be among the arguments.
    const malloc_ptr<char> old_text(*dst);
    va_list args;
    va_start(args, format);
    const int result = format_new(__func__, dst, format, args);
    va_end(args);
    return result;
}

int _lh_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    if (PTR_IS_NULL(buf) || PTR_IS_NULL(fmt))
        return -1;
    va_list args;
    va_start(args, fmt);
    const int r = vsnprintf(buf, size, fmt, args);
    va_end(args);
    if (r >= 0 && static_cast<size_t>(r) < size)
        return 0;
    if (size != 0)
        buf[size - 1] = '\0';
    LOG_ERROR("truncated: '%s'", size != 0 ? buf : "");
    return -1;
}
