// A buffer as getline keeps it.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

namespace vyt::test {

struct LineBuffer {
    LineBuffer() = default;
    // One that the caller has allocated and put a text into.
    explicit LineBuffer(const std::string &text) : line(strdup(text.c_str())), size(text.size() + 1)
    {}
    ~LineBuffer() { free(line); }
    LineBuffer(const LineBuffer &) = delete;
    LineBuffer &operator=(const LineBuffer &) = delete;

    char *line = nullptr;
    size_t size = 0;
};

} // namespace vyt::test
