// How large the blocks are that the library asks for.
#pragma once

#include <cstdlib>
#include <utility>
#include <vector>

#include "support/faults.hpp"

namespace vyt::test {

// Notes every size while it lives. One at a time.
class BlockSizes {
  public:
    BlockSizes()
    {
        asked_for.clear();
        faults.replace("malloc", reinterpret_cast<void *>(note_malloc));
        faults.replace("calloc", reinterpret_cast<void *>(note_calloc));
        faults.replace("realloc", reinterpret_cast<void *>(note_realloc));
    }

    // Those since the last call of this function, oldest first.
    std::vector<size_t> take() { return std::exchange(asked_for, {}); }

  private:
    static void *note_malloc(size_t size)
    {
        asked_for.push_back(size);
        return malloc(size);
    }
    static void *note_calloc(size_t count, size_t size)
    {
        asked_for.push_back(count * size);
        return calloc(count, size);
    }
    static void *note_realloc(void *block, size_t size)
    {
        asked_for.push_back(size);
        return realloc(block, size);
    }

    static inline std::vector<size_t> asked_for;
    Faults faults;
};

} // namespace vyt::test
