// The VRRP status file, as a test looks at it.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace vyt::test {

// One record of the status file, byte by byte.
inline std::string record(const std::string &netns, int32_t vrid, int32_t state, int32_t group)
{
    std::string bytes(576, '\0');
    memcpy(&bytes[0], &vrid, 4);
    memcpy(&bytes[472], &state, 4);
    memcpy(&bytes[496], &group, 4);
    bytes.replace(521, netns.size(), netns);
    return bytes;
}

struct File {
    ino_t inode;
    bool there;
};

inline File look_at(const std::string &path)
{
    struct stat info = {};
    const bool there = stat(path.c_str(), &info) == 0;
    return {info.st_ino, there};
}

} // namespace vyt::test
