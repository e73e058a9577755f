#include "fuzz/support/fuzz.hpp"

#include <algorithm>
#include <iterator>
#include <poll.h>

#include "lh_process.h"

namespace vyt::fuzz {
namespace {

class EndAtFailure : public ::testing::EmptyTestEventListener {
    void OnTestPartResult(const ::testing::TestPartResult &result) override
    {
        if (result.failed())
            abort();
    }
};

// Which of the first descriptors are open.
std::vector<bool> open_descriptors()
{
    pollfd descriptors[64];
    for (int fd = 0; fd < 64; fd++)
        descriptors[fd] = {fd, 0, 0};
    poll(descriptors, std::size(descriptors), 0);
    std::vector<bool> open;
    for (const pollfd &descriptor : descriptors)
        open.push_back((descriptor.revents & POLLNVAL) == 0);
    return open;
}

} // namespace

unsigned Input::byte()
{
    if (is_empty())
        return 0;
    size_--;
    return *bytes_++;
}

unsigned Input::below(unsigned limit)
{
    const unsigned value = byte();
    return (value >= '0' && value <= '9' ? value - '0' : value) % limit;
}

uint32_t Input::number(size_t size)
{
    uint32_t value = 0;
    for (unsigned shift = 0; shift < 8 * size; shift += 8)
        value |= byte() << shift;
    return value;
}

std::string Input::take(size_t size)
{
    size = std::min(size, size_);
    std::string taken(reinterpret_cast<const char *>(bytes_), size);
    bytes_ += size;
    size_ -= size;
    return taken;
}

std::string Input::some(unsigned limit)
{
    return take(below(limit));
}

std::string Input::line()
{
    const uint8_t *end = std::find(bytes_, bytes_ + size_, '\n');
    std::string line = take(static_cast<size_t>(end - bytes_));
    byte();
    return line;
}

Exact::Exact(const std::string &bytes) : bytes_(new char[bytes.size()]), size_(bytes.size())
{
    memcpy(bytes_.get(), bytes.data(), size_);
}

std::optional<std::string> take_text(char *text)
{
    if (text == nullptr)
        return std::nullopt;
    std::string copy = text;
    free(text);
    return copy;
}

std::vector<std::string> pieces_of(const std::string &bytes, size_t size)
{
    std::vector<std::string> pieces;
    for (size_t at = 0; at < bytes.size(); at += pieces.back().size()) {
        const size_t newline = bytes.find('\n', at);
        const size_t length = newline == std::string::npos ? bytes.size() - at : newline + 1 - at;
        pieces.push_back(bytes.substr(at, std::min(length, size - 1)));
    }
    return pieces;
}

} // namespace vyt::fuzz

using namespace vyt::fuzz;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    ::testing::UnitTest::GetInstance()->listeners().Append(new EndAtFailure);
    lh_process_self_name_get(); // known from now on: an error line makes no system call
    prepare();
    EXPECT_NO_LINES();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto open_before = open_descriptors();
    run(Input(data, size));
    EXPECT_NO_LINES();
    EXPECT_EQ(open_descriptors(), open_before);
    return 0;
}
