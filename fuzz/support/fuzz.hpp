// What the fuzz targets share. A target defines prepare() and run(); whatever run() expects in vain
// (EXPECT_EQ ...) ends the process, and the fuzzer keeps the input.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/log_capture.hpp"

namespace vyt::fuzz {

// The bytes of one input, taken from the front.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : bytes_(data), size_(size) {}

    bool is_empty() const { return size_ == 0; }
    // The next byte; 0 behind the end.
    unsigned byte();
    // A number below the limit, at most 256, from one byte: a digit stands for itself.
    unsigned below(unsigned limit);
    // So many bytes (up to 4), the lowest first.
    uint32_t number(size_t size);
    // So many bytes, or what is left.
    std::string take(size_t size);
    // A length of at most `limit`, from one byte, then so many bytes.
    std::string some(unsigned limit = 256);
    // Up to the next newline, which goes too.
    std::string line();
    std::string rest() { return take(size_); }

  private:
    const uint8_t *bytes_;
    size_t size_;
};

// Once, before the first input.
void prepare();
// Every line that the library logs must be taken (EXPECT_LINES), and what it opens it must close.
void run(Input input);

// A heap block of exactly these bytes, so that a step beyond either end is seen.
class Exact {
  public:
    explicit Exact(const std::string &bytes);
    // The same with a terminator behind them. What follows a NUL among the bytes stays.
    static Exact text(const std::string &bytes) { return Exact(bytes + '\0'); }

    char *data() { return bytes_.get(); }
    size_t size() const { return size_; }
    unsigned char *unsigned_data() { return reinterpret_cast<unsigned char *>(data()); }
    std::string bytes() const { return std::string(bytes_.get(), size_); }

  private:
    std::unique_ptr<char[]> bytes_;
    size_t size_;
};

// What a C reader sees of the bytes: up to the first NUL.
inline std::string c_text(const std::string &bytes)
{
    return bytes.c_str();
}

// The text of a result that the caller releases; nothing for null.
std::optional<std::string> take_text(char *text);

// Cut into what a row of fgets calls with a buffer of `size` bytes returns.
std::vector<std::string> pieces_of(const std::string &bytes, size_t size);

} // namespace vyt::fuzz
