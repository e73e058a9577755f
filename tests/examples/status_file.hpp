// The VRRP status file, as a test looks at it.
#pragma once

#include <string>
#include <sys/stat.h>

#include "support/status_record.hpp"

namespace vyt::test {

// A record as vrrp_publisher writes it: what it has no value for is zero.
inline std::string published(int32_t vrid, int32_t state, int32_t group,
                             const std::string &netns = "")
{
    return record(vrid, state, group, netns, '\0');
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
