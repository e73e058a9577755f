// Blocks of base + count * each bytes from the C allocator, which a caller releases with free().
// Null with ENOMEM where the sum would wrap: no length that a caller gives leads to a short block.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace vyt {

inline bool block_size_wraps(size_t base, size_t count, size_t each, size_t &size)
{
    if (__builtin_mul_overflow(count, each, &size) || __builtin_add_overflow(size, base, &size)) {
        errno = ENOMEM;
        return true;
    }
    return false;
}

inline char *allocate_block(size_t base, size_t count, size_t each)
{
    size_t size;
    return block_size_wraps(base, count, each, size) ? nullptr : static_cast<char *>(malloc(size));
}

inline char *allocate_zeroed_block(size_t base, size_t count, size_t each)
{
    size_t size;
    return block_size_wraps(base, count, each, size) ? nullptr
                                                     : static_cast<char *>(calloc(1, size));
}

} // namespace vyt
