#include "support/colliding.hpp"

#include <unordered_map>

#include "core/hash_index.hpp"

namespace vyt::test {

std::pair<std::string, std::string> colliding_names(uint32_t first, uint32_t second)
{
    const auto name_of = [](int number) { return "n" + std::to_string(number); };
    std::unordered_map<uint32_t, int> seen; // the number of the name that leads to a hash
    for (int number = 0;; number++) {
        const std::string name = name_of(number);
        if (const auto found = seen.find(hash_text(second, name.c_str())); found != seen.end())
            return {name_of(found->second), name};
        seen.emplace(hash_text(first, name.c_str()), number);
    }
}

} // namespace vyt::test
