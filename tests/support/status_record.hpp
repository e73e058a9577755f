// A record of the VRRP status file, byte by byte.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

namespace vyt::test {

constexpr size_t record_size = 576;

// The bytes that are the VRRP daemon's own hold the filler.
inline std::string record(int32_t vrid, int32_t state, int32_t group, const std::string &netns = "",
                          char filler = '\xa5')
{
    std::string bytes(record_size, filler);
    const auto put = [&](size_t offset, int32_t number) {
        memcpy(&bytes[offset], &number, sizeof(number));
    };
    put(0, vrid);
    put(472, state);
    put(496, group);
    // Without a terminator when the name fills its place.
    bytes.replace(521, std::min(netns.size() + 1, size_t{55}), netns.c_str(),
                  std::min(netns.size() + 1, size_t{55}));
    return bytes;
}

} // namespace vyt::test
