/* Stand-in for the board's C extensions: bounded copy that always terminates. */
#include <string.h>

size_t strlcpy(char *dst, const char *src, size_t size)
{
    size_t length = strlen(src);
    if (size != 0) {
        size_t copied = length < size ? length : size - 1;
        memcpy(dst, src, copied);
        dst[copied] = '\0';
    }
    return length;
}
