// Names that the library's hash cannot tell apart.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace vyt::test {

// Two different names: behind what has the hash `first`, the one leads to the same hash as the other
// does behind what has the hash `second`.
std::pair<std::string, std::string> colliding_names(uint32_t first, uint32_t second);

} // namespace vyt::test
