#include "core/list.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <list>
#include <random>
#include <string>
#include <vector>

using namespace vyt;

namespace {

struct record {
    lh_list link;
    int number;
};

// Both directions around the list: the numbers forwards, after the links back were compared.
std::vector<int> numbers(const lh_list &head)
{
    std::vector<int> forwards;
    for (const lh_list *link = head.next; link != &head; link = link->next)
        forwards.push_back(reinterpret_cast<const record *>(link)->number);
    std::vector<int> backwards;
    for (const lh_list *link = head.prev; link != &head; link = link->prev)
        backwards.push_back(reinterpret_cast<const record *>(link)->number);
    std::reverse(backwards.begin(), backwards.end());
    EXPECT_EQ(forwards, backwards);
    return forwards;
}

std::vector<int> walked(const lh_list &head)
{
    std::vector<int> seen;
    for (const record &r : list_of<record>(head))
        seen.push_back(r.number);
    return seen;
}

} // namespace

class List : public ::testing::Test {
  protected:
    List()
    {
        list_init(&head_);
        for (size_t i = 0; i < records_.size(); i++) {
            records_[i].number = static_cast<int>(i);
            list_init(&records_[i].link);
        }
    }

    lh_list head_;
    std::array<record, 50> records_;
};

using Numbers = std::vector<int>;

TEST_F(List, IsEmptyAtFirst)
{
    EXPECT_TRUE(list_is_empty(&head_));
    EXPECT_EQ(numbers(head_), Numbers{});
    EXPECT_EQ(walked(head_), Numbers{});
}

TEST_F(List, TakesRecordsAtBothEndsAndBetween)
{
    list_push_back(&head_, &records_[1].link);
    list_push_back(&head_, &records_[2].link);
    list_push_front(&head_, &records_[0].link);
    list_insert_after(&records_[1].link, &records_[9].link);
    EXPECT_FALSE(list_is_empty(&head_));
    EXPECT_EQ(numbers(head_), (Numbers{0, 1, 9, 2}));
    EXPECT_EQ(walked(head_), (Numbers{0, 1, 9, 2}));
}

TEST_F(List, AnUnlinkedRecordMayBeUnlinkedAgain)
{
    list_push_back(&head_, &records_[0].link);
    list_push_back(&head_, &records_[1].link);
    for (int times = 0; times < 3; times++) {
        list_unlink(&records_[0].link);
        EXPECT_EQ(numbers(head_), (Numbers{1}));
        EXPECT_TRUE(list_is_empty(&records_[0].link));
    }
    list_unlink(&records_[1].link);
    EXPECT_TRUE(list_is_empty(&head_));
}

TEST_F(List, TheCurrentRecordMayBeUnlinkedOnTheWalk)
{
    for (int i = 0; i < 10; i++)
        list_push_back(&head_, &records_[i].link);
    Numbers seen;
    for (record &r : list_of<record>(head_)) {
        seen.push_back(r.number);
        if (r.number % 3 == 0)
            list_unlink(&r.link);
    }
    EXPECT_EQ(seen, (Numbers{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(numbers(head_), (Numbers{1, 2, 4, 5, 7, 8}));
}

TEST_F(List, TheCurrentRecordMayBeReleasedOnTheWalk)
{
    for (int i = 0; i < 10; i++) {
        auto *r = new record{};
        r->number = i;
        list_push_back(&head_, &r->link);
    }
    int sum = 0;
    for (record &r : list_of<record>(head_)) {
        sum += r.number;
        list_unlink(&r.link);
        delete &r;
    }
    EXPECT_EQ(sum, 45);
    EXPECT_TRUE(list_is_empty(&head_));
}

TEST_F(List, BehavesLikeAStandardListUnderAnyOperations)
{
    for (unsigned seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        std::list<int> model;
        list_init(&head_);
        for (record &r : records_)
            list_init(&r.link);
        for (int step = 0; step < 500; step++) {
            const int number = static_cast<int>(random() % records_.size());
            lh_list *link = &records_[number].link;
            list_unlink(link);
            model.remove(number);
            const unsigned what = random() % 4;
            if (what == 0) {
                list_push_front(&head_, link);
                model.push_front(number);
            } else if (what == 1) {
                list_push_back(&head_, link);
                model.push_back(number);
            } else if (what == 2 && !model.empty()) {
                const auto place = std::next(model.begin(), random() % model.size());
                list_insert_after(&records_[*place].link, link);
                model.insert(std::next(place), number);
            }
            ASSERT_EQ(numbers(head_), Numbers(model.begin(), model.end()));
            ASSERT_EQ(walked(head_), Numbers(model.begin(), model.end()));
            ASSERT_EQ(list_is_empty(&head_), model.empty());
        }
    }
}
