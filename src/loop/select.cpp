#include "lh_select.h"

#include <bit>
#include <cstdint>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "lh_str.h"

using namespace vyt;

namespace {

constexpr unsigned word_bits = 64;
static_assert(sizeof(fd_mask) * 8 == word_bits);

unsigned looked_at(int nfds)
{
    return nfds > 0 ? static_cast<unsigned>(nfds) : 0;
}

// One word of the set without the bits from `count` on. Bit 0 is descriptor `first`, a multiple of
// the word's bits. The set may be larger than an fd_set.
uint64_t members_from(const fd_set *fdset, unsigned first, unsigned count)
{
    const auto *words = reinterpret_cast<const uint64_t *>(fdset);
    const unsigned rest = count - first;
    const uint64_t mask = rest < word_bits ? (uint64_t{1} << rest) - 1 : ~uint64_t{0};
    return words[first / word_bits] & mask;
}

} // namespace

char *lh_select_fdset_strdup(const fd_set *fdset, int nfds)
{
    if (PTR_IS_NULL(fdset))
        return nullptr;
    char *text = nullptr;
    const unsigned count = looked_at(nfds);
    for (unsigned first = 0; first < count; first += word_bits) {
        for (uint64_t bits = members_from(fdset, first, count); bits != 0; bits &= bits - 1) {
            if (lh_str_add(&text, "%u ", first + std::countr_zero(bits)) != 0)
                return nullptr;
        }
    }
    if (text == nullptr && lh_str_add(&text, "(null) ") != 0)
        return nullptr;
    return text;
}

int lh_select_fdset_fds_cnt_get(const fd_set *fdset, int nfds)
{
    if (PTR_IS_NULL(fdset))
        return 0;
    int members = 0;
    const unsigned count = looked_at(nfds);
    for (unsigned first = 0; first < count; first += word_bits)
        members += std::popcount(members_from(fdset, first, count));
    return members;
}

void lh_select_fdset_print(const fd_set *fdset, int nfds)
{
    if (PTR_IS_NULL(fdset))
        return;
    // Deliberate: the text goes nowhere, for the daemons that still call this.
    malloc_ptr<char>{lh_select_fdset_strdup(fdset, nfds)}.reset();
}
