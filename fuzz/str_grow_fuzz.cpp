// Strings that grow, and formatting into a fixed place. The input is a row of edits, each an
// operation, the shape of what is written, and its parts.
#include "lh_str.h"

#include <algorithm>

#include "fuzz/support/fuzz.hpp"

using namespace vyt::fuzz;

namespace {

// What one edit writes. The format is one of a few: daemons write them, nobody from outside does.
struct Parts {
    unsigned shape;
    int number;
    std::string text;

    std::string written() const
    {
        switch (shape) {
        case 0:
            return text;
        case 1:
            return text + "=" + std::to_string(number);
        case 2:
            return text.substr(0, 5);
        case 3:
            return "100%";
        default:
            return "";
        }
    }
};

template <class Call>
int call_with(const Parts &parts, Call &&call)
{
    switch (parts.shape) {
    case 0:
        return call("%s", parts.text.c_str(), 0);
    case 1:
        return call("%s=%d", parts.text.c_str(), parts.number);
    case 2:
        return call("%.5s", parts.text.c_str(), 0);
    case 3:
        return call("100%%", "", 0);
    default:
        return call("", "", 0);
    }
}

void check_fixed(const Parts &parts, size_t size)
{
    const std::string written = parts.written();
    Exact room(std::string(size, '?'));
    const int result = call_with(parts, [&](const char *format, const char *text, int number) {
        return _lh_snprintf(room.data(), size, format, text, number);
    });
    EXPECT_EQ(result, written.size() < size ? 0 : -1);
    const std::string kept = written.substr(0, size - 1);
    EXPECT_EQ(std::string(room.data()), kept);
    if (result != 0)
        EXPECT_LINES("_lh_snprintf: truncated: '" + kept + "'");
}

} // namespace

void vyt::fuzz::prepare() {}

void vyt::fuzz::run(Input input)
{
    char *grown = nullptr;
    std::string plain;
    while (!input.is_empty()) {
        const unsigned operation = input.below(3);
        const unsigned size = input.byte();
        const Parts parts = {input.below(5), static_cast<int>(input.number(4)),
                             c_text(input.some())};
        if (operation == 0) {
            EXPECT_EQ(call_with(parts,
                                [&](const char *format, const char *text, int number) {
                                    return lh_str_add(&grown, format, text, number);
                                }),
                      0);
            plain += parts.written();
        } else if (operation == 1) {
            EXPECT_EQ(call_with(parts,
                                [&](const char *format, const char *text, int number) {
                                    return lh_str_vasprintf(&grown, format, text, number);
                                }),
                      0);
            plain = parts.written();
        } else {
            check_fixed(parts, 1 + size);
            continue;
        }
        EXPECT_STREQ(grown, plain.c_str());
    }
    free(grown);
}
