#include "lh_list.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

class List : public LogTest {
  protected:
    ~List() override { lh_list_free(&head); }

    void add_back(const std::string &element)
    {
        ASSERT_EQ(lh_list_add_tail(&head, element.data(), element.size()), 1);
    }

    // The elements from the front, after a look at every link in both directions.
    std::deque<std::string> elements() const
    {
        std::deque<std::string> found;
        const lh_list *previous = &head;
        for (const lh_list *link = head.next; link != &head; link = link->next) {
            EXPECT_EQ(link->prev, previous);
            const auto *node = reinterpret_cast<const lh_list_node *>(link);
            found.emplace_back(static_cast<const char *>(node->data), node->size);
            previous = link;
        }
        EXPECT_EQ(head.prev, previous);
        return found;
    }

    const lh_list_node *front() const { return reinterpret_cast<const lh_list_node *>(head.next); }

    using texts = std::deque<std::string>;

    lh_list head = {&head, &head};
};

namespace {

// The popped data as text; it is the caller's to release.
std::string released(void *data, size_t size)
{
    std::string text(static_cast<const char *>(data), size);
    free(data);
    return text;
}

int never_asked(const void *, const void *, size_t)
{
    ADD_FAILURE() << "there is no node to ask about";
    return 1;
}

// What a comparator was asked, and what it answers.
struct question {
    std::string data;
    const void *key;
};
std::vector<question> questions;
std::vector<int> answers;

int scripted(const void *data, const void *key, size_t size)
{
    questions.push_back({std::string(static_cast<const char *>(data), size), key});
    return answers.at(questions.size() - 1);
}

} // namespace

TEST_F(List, TheRecordsHaveTheirLayout)
{
    EXPECT_EQ(offsetof(lh_list, next), 0u);
    EXPECT_EQ(offsetof(lh_list, prev), 8u);
    EXPECT_EQ(sizeof(lh_list), 16u);
    EXPECT_EQ(offsetof(lh_list_node, next), 0u);
    EXPECT_EQ(offsetof(lh_list_node, prev), 8u);
    EXPECT_EQ(offsetof(lh_list_node, data), 16u);
    EXPECT_EQ(offsetof(lh_list_node, size), 24u);
    EXPECT_EQ(sizeof(lh_list_node), 32u);
}

TEST_F(List, FrontAndBack)
{
    EXPECT_EQ(lh_list_add(&head, "a", 1), 1);
    EXPECT_EQ(lh_list_add(&head, "b", 1), 1);
    EXPECT_EQ(lh_list_add_tail(&head, "c", 1), 1);
    EXPECT_EQ(elements(), (texts{"b", "a", "c"}));
    EXPECT_EQ(released(lh_list_pop_back(&head), 1), "c");
    EXPECT_EQ(elements(), (texts{"b", "a"}));
    EXPECT_EQ(released(lh_list_pop_front(&head), 1), "b");
    EXPECT_EQ(elements(), (texts{"a"}));
}

TEST_F(List, TheFirstElementIsBothEndsWhicheverWayItCame)
{
    for (auto *add : {lh_list_add, lh_list_add_tail}) {
        ASSERT_EQ(add(&head, "only", 4), 1);
        EXPECT_EQ(head.next, head.prev);
        EXPECT_EQ(elements(), (texts{"only"}));
        EXPECT_EQ(released(lh_list_pop_back(&head), 4), "only");
        EXPECT_EQ(elements(), texts{});
    }
}

TEST_F(List, AnElementIsACopy)
{
    char data[] = "before";
    ASSERT_EQ(lh_list_add(&head, data, sizeof(data)), 1);
    strcpy(data, "after");
    EXPECT_STREQ(static_cast<const char *>(front()->data), "before");
    EXPECT_EQ(front()->size, sizeof("before"));
}

TEST_F(List, AnElementMayHoldAnyBytes)
{
    std::string bytes;
    for (int i = 0; i < 256; i++)
        bytes.push_back(static_cast<char>(i));
    add_back(bytes);
    EXPECT_EQ(elements(), (texts{bytes}));
    EXPECT_EQ(lh_list_contains(&head, bytes.data()), 1);
}

TEST_F(List, AnElementMayBeEmpty)
{
    ASSERT_EQ(lh_list_add(&head, "ignored", 0), 1);
    ASSERT_EQ(lh_list_add_tail(&head, nullptr, 0), 1);
    EXPECT_EQ(elements(), (texts{"", ""}));
    EXPECT_NE(front()->data, nullptr);
    EXPECT_EQ(lh_list_contains(&head, "any key"), 1);
    void *data = lh_list_pop_front(&head);
    EXPECT_NE(data, nullptr);
    free(data);
    EXPECT_NO_LINES();
}

TEST_F(List, MissingDataIsLogged)
{
    EXPECT_EQ(lh_list_add(&head, nullptr, 1), 0);
    EXPECT_LINES("list_add: PTR_IS_NULL: data");
    EXPECT_EQ(lh_list_add_tail(&head, nullptr, 1), 0);
    EXPECT_LINES("list_add: PTR_IS_NULL: data");
    EXPECT_EQ(elements(), texts{});
}

TEST_F(List, AddingWithoutMemoryChangesNothing)
{
    const char *messages[] = {"list_add: Unable to allocate memory for new entry",
                              "list_add: Unable to allocate memory for new entry data"};
    Faults faults;
    add_back("there");
    for (auto *add : {lh_list_add, lh_list_add_tail}) {
        for (unsigned nth : {1u, 2u}) {
            faults.fail_allocation(nth);
            errno = 0;
            EXPECT_EQ(add(&head, "new", 3), 0);
            EXPECT_EQ(errno, ENOMEM);
            EXPECT_TRUE(faults.happened());
            EXPECT_LINES(messages[nth - 1]);
            EXPECT_EQ(elements(), (texts{"there"}));
        }
        faults.clear();
        EXPECT_EQ(add(&head, "there", 5), 1);
        free(lh_list_pop_back(&head));
    }
}

TEST_F(List, AnImpossibleSizeIsWithoutMemoryToo)
{
    Faults faults;
    // An address sanitizer ends the process for such a size: let the call fail as it does without.
    faults.fail("calloc", ENOMEM, 2);
    EXPECT_EQ(lh_list_add(&head, "x", SIZE_MAX), 0);
    EXPECT_LINES("list_add: Unable to allocate memory for new entry data");
    EXPECT_EQ(elements(), texts{});
}

TEST_F(List, AnEmptyListHasNothing)
{
    EXPECT_EQ(lh_list_empty(&head), 1);
    EXPECT_EQ(lh_list_pop_front(&head), nullptr);
    EXPECT_EQ(lh_list_pop_back(&head), nullptr);
    EXPECT_EQ(lh_list_contains(&head, "a"), 0);
    EXPECT_EQ(lh_list_contains_ex(&head, "a", never_asked), 0);
    lh_list_free(&head);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
    EXPECT_EQ(lh_list_empty(&head), 1);
}

TEST_F(List, ReleasingLeavesAnEmptyListForUse)
{
    for (const char *element : {"a", "bb", "ccc"})
        add_back(element);
    EXPECT_EQ(lh_list_empty(&head), 0);
    lh_list_free(&head);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
    EXPECT_EQ(lh_list_empty(&head), 1);
    add_back("again");
    EXPECT_EQ(elements(), (texts{"again"}));
}

TEST_F(List, ContainsComparesTheNodesBytes)
{
    for (const char *element : {"one", "three", "two"})
        add_back(element);
    EXPECT_EQ(lh_list_contains(&head, "two\0"), 1);
    EXPECT_EQ(lh_list_contains(&head, "three"), 1);
    EXPECT_EQ(lh_list_contains(&head, "threefold"), 1) << "bytes behind the node's size are free";
    EXPECT_EQ(lh_list_contains(&head, "thread"), 0);
    EXPECT_EQ(lh_list_contains(&head, "ONE\0\0"), 0);
}

TEST_F(List, ContainsAsksTheComparatorFromTheFrontUntilItAnswers)
{
    for (const char *element : {"one", "", "three", "four"})
        add_back(element);
    const char key[] = "key";
    questions.clear();
    answers = {0, 0, 5};
    EXPECT_EQ(lh_list_contains_ex(&head, key, scripted), 5);
    ASSERT_EQ(questions.size(), 3u);
    EXPECT_EQ(questions[0].data, "one");
    EXPECT_EQ(questions[1].data, "");
    EXPECT_EQ(questions[2].data, "three");
    for (const question &q : questions)
        EXPECT_EQ(q.key, key);

    questions.clear();
    answers = {0, 0, 0, 0};
    EXPECT_EQ(lh_list_contains_ex(&head, key, scripted), 0);
    EXPECT_EQ(questions.size(), 4u);
}

TEST_F(List, TheComparatorsAnswerComesBackAsItsLowByte)
{
    add_back("first");
    add_back("second");
    const struct {
        int answer, result;
    } cases[] = {{1, 1}, {255, 255}, {-1, 255}, {257, 1}, {0x7f02, 2}};
    for (const auto &c : cases) {
        questions.clear();
        answers = {c.answer, 3};
        EXPECT_EQ(lh_list_contains_ex(&head, "key", scripted), c.result) << c.answer;
        EXPECT_EQ(questions.size(), 1u) << "the first match ends the search";
    }
    for (const int no_match : {256, INT32_MIN}) { // what a bool leaves above its byte
        questions.clear();
        answers = {no_match, no_match};
        EXPECT_EQ(lh_list_contains_ex(&head, "key", scripted), 0) << no_match;
        questions.clear();
        answers = {no_match, 3};
        EXPECT_EQ(lh_list_contains_ex(&head, "key", scripted), 3) << no_match;
    }
}

TEST_F(List, MissingArgumentsOfTheSearchAreLogged)
{
    add_back("element");
    EXPECT_EQ(lh_list_contains(&head, nullptr), 0);
    EXPECT_LINES("lh_list_contains: PTR_IS_NULL: key");
    EXPECT_EQ(lh_list_contains_ex(&head, nullptr, nullptr), 0);
    EXPECT_LINES("lh_list_contains_ex: PTR_IS_NULL: key");
    questions.clear();
    answers = {1};
    EXPECT_EQ(lh_list_contains_ex(&head, nullptr, scripted), 0);
    EXPECT_LINES("lh_list_contains_ex: PTR_IS_NULL: key");
    EXPECT_TRUE(questions.empty());
    EXPECT_EQ(lh_list_contains_ex(&head, "key", nullptr), 0);
    EXPECT_LINES("lh_list_contains_ex: PTR_IS_NULL: cmp");
}

TEST_F(List, BehavesAsADequeOfTexts)
{
    for (unsigned seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        texts oracle;
        for (int step = 0; step < 500; step++) {
            std::string element(random() % 4, '\0');
            for (char &c : element)
                c = static_cast<char>(random() % 3);
            switch (random() % 6) {
            case 0:
                ASSERT_EQ(lh_list_add(&head, element.data(), element.size()), 1);
                oracle.push_front(element);
                break;
            case 1:
                ASSERT_EQ(lh_list_add_tail(&head, element.data(), element.size()), 1);
                oracle.push_back(element);
                break;
            case 2:
                if (void *data = lh_list_pop_front(&head)) {
                    ASSERT_FALSE(oracle.empty());
                    ASSERT_EQ(released(data, oracle.front().size()), oracle.front());
                    oracle.pop_front();
                }
                break;
            case 3:
                if (void *data = lh_list_pop_back(&head)) {
                    ASSERT_FALSE(oracle.empty());
                    ASSERT_EQ(released(data, oracle.back().size()), oracle.back());
                    oracle.pop_back();
                }
                break;
            case 4: {
                element.resize(4, '\1'); // as long as the longest element
                bool found = false;
                for (const std::string &have : oracle)
                    found = found || element.compare(0, have.size(), have) == 0;
                ASSERT_EQ(lh_list_contains(&head, element.data()), found);
                break;
            }
            default:
                if (random() % 20 == 0) {
                    lh_list_free(&head);
                    oracle.clear();
                }
            }
            ASSERT_EQ(elements(), oracle);
            ASSERT_EQ(lh_list_empty(&head), oracle.empty());
        }
        lh_list_free(&head);
    }
}
