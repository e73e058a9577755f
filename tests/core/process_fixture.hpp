// What the tests of process names share: paths in /proc, and a made-up file in their place.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <sys/types.h>

namespace vyt::test {

inline std::string proc(int pid, const std::string &file)
{
    return "/proc/" + std::to_string(pid) + "/" + file;
}

// Stands in for `read`: what every file holds.
inline std::string file_contents;

inline ssize_t read_contents(int, void *data, size_t size)
{
    const size_t length = std::min(size, file_contents.size());
    memcpy(data, file_contents.data(), length);
    return static_cast<ssize_t>(length);
}

} // namespace vyt::test
