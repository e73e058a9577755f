#include "lh_select.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

class Select : public LogTest {
  protected:
    Select() { FD_ZERO(&set); }

    void add(const std::vector<int> &members)
    {
        for (int fd : members)
            FD_SET(fd, &set);
    }

    fd_set set;
};

namespace {

std::string dump_of(const fd_set *set, int nfds)
{
    char *text = lh_select_fdset_strdup(set, nfds);
    if (text == nullptr)
        return "no text";
    std::string copy = text;
    free(text);
    return copy;
}

std::string vasprintf_failed = "lh_str_add: vasprintf failed";
std::string realloc_failed = "lh_str_add: PTR_IS_NULL: tmp";

} // namespace

TEST_F(Select, AMissingSetIsLogged)
{
    EXPECT_EQ(lh_select_fdset_strdup(nullptr, 8), nullptr);
    EXPECT_LINES("lh_select_fdset_strdup: PTR_IS_NULL: fdset");
    EXPECT_EQ(lh_select_fdset_fds_cnt_get(nullptr, 8), 0);
    EXPECT_LINES("lh_select_fdset_fds_cnt_get: PTR_IS_NULL: fdset");
    lh_select_fdset_print(nullptr, 8);
    EXPECT_LINES("lh_select_fdset_print: PTR_IS_NULL: fdset");
}

TEST_F(Select, MembersAreListedEachWithABlank)
{
    add({3, 5});
    EXPECT_EQ(dump_of(&set, 6), "3 5 ");
    EXPECT_EQ(lh_select_fdset_fds_cnt_get(&set, 6), 2);
}

TEST_F(Select, ASetWithoutMembersIsNull)
{
    EXPECT_EQ(dump_of(&set, FD_SETSIZE), "(null) ");
    EXPECT_EQ(lh_select_fdset_fds_cnt_get(&set, FD_SETSIZE), 0);
}

TEST_F(Select, OnlyDescriptorsBelowTheLimitAreLookedAt)
{
    add({0, 5, 63, 64, 65, 127, 128, 1023});
    const struct {
        int nfds;
        const char *text;
        int count;
    } cases[] = {
        {INT_MIN, "(null) ", 0},
        {-1, "(null) ", 0},
        {0, "(null) ", 0},
        {1, "0 ", 1},
        {5, "0 ", 1},
        {6, "0 5 ", 2},
        {63, "0 5 ", 2},
        {64, "0 5 63 ", 3},
        {65, "0 5 63 64 ", 4},
        {66, "0 5 63 64 65 ", 5},
        {127, "0 5 63 64 65 ", 5},
        {128, "0 5 63 64 65 127 ", 6},
        {129, "0 5 63 64 65 127 128 ", 7},
        {1023, "0 5 63 64 65 127 128 ", 7},
        {1024, "0 5 63 64 65 127 128 1023 ", 8},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(dump_of(&set, c.nfds), c.text) << c.nfds;
        EXPECT_EQ(lh_select_fdset_fds_cnt_get(&set, c.nfds), c.count) << c.nfds;
    }
}

TEST_F(Select, ASetMayBeLargerThanAnFdSet)
{
    std::vector<uint64_t> words(100, 0);
    words[99] = uint64_t{1} << 63;
    words[16] = 1;
    words[0] = 1;
    const auto *large = reinterpret_cast<const fd_set *>(words.data());
    EXPECT_EQ(dump_of(large, 6400), "0 1024 6399 ");
    EXPECT_EQ(dump_of(large, 6399), "0 1024 ");
    EXPECT_EQ(lh_select_fdset_fds_cnt_get(large, 6400), 3);
}

TEST_F(Select, NoWordBehindTheLastDescriptorIsRead)
{
    // A word of its own allocation: reading on would be an access behind it.
    for (int nfds : {1, 63, 64}) {
        auto *word = static_cast<uint64_t *>(malloc(sizeof(uint64_t)));
        *word = 1;
        const auto *small = reinterpret_cast<const fd_set *>(word);
        EXPECT_EQ(dump_of(small, nfds), "0 ");
        EXPECT_EQ(lh_select_fdset_fds_cnt_get(small, nfds), 1);
        free(word);
    }
}

TEST_F(Select, LooksAtOneDescriptorAfterTheOther)
{
    for (unsigned seed = 1; seed <= 50; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const int chance = 1 << random() % 8; // every set as full as it likes
        FD_ZERO(&set);
        for (int fd = 0; fd < FD_SETSIZE; fd++) {
            if (random() % chance == 0)
                FD_SET(fd, &set);
        }
        for (int round = 0; round < 8; round++) {
            const int nfds = static_cast<int>(random() % (FD_SETSIZE + 1));
            std::string text;
            int count = 0;
            for (int fd = 0; fd < nfds; fd++) {
                if (FD_ISSET(fd, &set)) {
                    text += std::to_string(fd) + " ";
                    count++;
                }
            }
            ASSERT_EQ(dump_of(&set, nfds), count == 0 ? "(null) " : text);
            ASSERT_EQ(lh_select_fdset_fds_cnt_get(&set, nfds), count);
        }
    }
}

TEST_F(Select, ADumpWithoutMemoryIsNull)
{
    add({3, 5, 200});
    const std::string lines[] = {vasprintf_failed, realloc_failed, realloc_failed};
    Faults faults;
    for (unsigned nth = 1; nth <= 3; nth++) {
        faults.fail_allocation(nth);
        errno = 0;
        EXPECT_EQ(lh_select_fdset_strdup(&set, FD_SETSIZE), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(faults.happened());
        EXPECT_LINES(lines[nth - 1]);
        EXPECT_EQ(dump_of(&set, FD_SETSIZE), "3 5 200 ");
    }
    faults.fail_allocation(4);
    EXPECT_EQ(dump_of(&set, FD_SETSIZE), "3 5 200 ");
    EXPECT_FALSE(faults.happened());
}

TEST_F(Select, ADumpOfNothingWithoutMemoryIsNull)
{
    Faults faults;
    faults.fail_allocation(1);
    errno = 0;
    EXPECT_EQ(lh_select_fdset_strdup(&set, 10), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES(vasprintf_failed);
}

TEST_F(Select, PrintingBuildsTheDumpAndWritesNothing)
{
    add({3, 5});
    Faults faults;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    lh_select_fdset_print(&set, 10);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_NO_LINES();
    for (unsigned nth : {1u, 2u}) {
        faults.fail_allocation(nth);
        lh_select_fdset_print(&set, 10);
        EXPECT_TRUE(faults.happened());
        EXPECT_LINES(nth == 1 ? vasprintf_failed : realloc_failed);
    }
}

TEST_F(Select, CountingNeedsNoMemory)
{
    add({3, 5});
    Faults faults;
    faults.fail_allocation(1);
    EXPECT_EQ(lh_select_fdset_fds_cnt_get(&set, 10), 2);
    EXPECT_FALSE(faults.happened());
}
