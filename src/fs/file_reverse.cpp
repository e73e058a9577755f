// Reading a stream backwards, a line at a time.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/errno_saver.hpp"
#include "core/log.hpp"
#include "lh_file.h"

using namespace vyt;

// The symbol getline itself, where an optimising <stdio.h> would call past it: whoever replaces
// getline sees the call.
extern "C" ssize_t read_line(char **line, size_t *size, FILE *file) __asm__("getline");

namespace {

constexpr const char *reader = "lh_file_reverse_getline";

// Small enough that the stream's own buffer serves several blocks and the line itself.
constexpr long block_size = 512;

int seek(FILE *file, long position)
{
    if (fseek(file, position, SEEK_SET) != 0) {
        LOG_ERROR_AS(reader, "fseek failed: %s", strerror(errno));
        return -1;
    }
    return 0;
}

// Finds the last newline before `off` and leaves its position in `off`, 0 when there is none. The
// stream stands at the start of the line then.
int find_line(FILE *file, long &off)
{
    char block[block_size];
    while (off > 0) {
        const long start = std::max(off - block_size, 0L);
        const auto size = static_cast<size_t>(off - start);
        if (seek(file, start) != 0)
            return -1;
        if (fread(block, 1, size, file) != size) {
            LOG_ERROR_AS(reader, "fread failed: (%s)", strerror(errno));
            const errno_saver saver;
            fseek(file, off - 1, SEEK_SET); // at the byte that was wanted first
            return -1;
        }
        if (const void *newline = memrchr(block, '\n', size); newline != nullptr) {
            off = start + (static_cast<const char *>(newline) - block);
            return seek(file, off + 1);
        }
        off = start;
    }
    return seek(file, 0);
}

} // namespace

ssize_t lh_file_reverse_getline(char **line, size_t *size, FILE *file)
{
    if (PTR_IS_NULL(line) || PTR_IS_NULL(size) || PTR_IS_NULL(file))
        return -1;
    long off = ftell(file);
    if (off == -1) {
        LOG_ERROR("ftell failed: %s", strerror(errno));
        return -1;
    }
    if (off == 0 || find_line(file, off) != 0)
        return -1;

    const bool has_block = *line != nullptr && *size != 0;
    ssize_t length = read_line(line, size, file);
    if (length == -1) {
        // A block that getline has just made holds nothing yet, not even the end of a string: there
        // the end of the file tells an empty line from a failure.
        const bool is_empty = has_block ? **line == '\0' : *line != nullptr && feof(file) != 0;
        if (!is_empty) {
            LOG_ERROR("getline failed: %s", strerror(errno));
            return -1;
        }
        **line = '\0';
        length = 1; // the empty line behind the last newline
    }
    return seek(file, off) != 0 ? -1 : length;
}
