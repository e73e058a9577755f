#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

// The index's allocator: counted, and out of memory when it is told to be.
namespace vyt {

static bool out_of_memory;
static unsigned allocations;
static unsigned blocks;

static void *calloc(size_t count, size_t size)
{
    allocations++;
    if (out_of_memory) {
        errno = ENOMEM;
        return nullptr;
    }
    blocks++;
    return ::calloc(count, size);
}

static void free(void *block)
{
    blocks -= block != nullptr;
    errno = EBADF;
    ::free(block);
}

} // namespace vyt

#include "core/hash_index.hpp"

using namespace vyt;

namespace {

struct record {
    int key;
    hash_link<record> link;
};

using index_of_records = hash_index<record, &record::link>;
using Keys = std::vector<int>;

bool any(const record &)
{
    return true;
}

// The keys of all records of a hash, as the index finds them.
Keys found(const index_of_records &index, uint32_t hash)
{
    Keys keys;
    for (const record *r = index.find(hash, any); r != nullptr; r = index.find_next(r, any))
        keys.push_back(r->key);
    return keys;
}

} // namespace

class HashIndex : public ::testing::Test {
  protected:
    HashIndex()
    {
        out_of_memory = false;
        allocations = 0;
        blocks = 0;
    }

    ~HashIndex() override
    {
        index_.clear();
        EXPECT_EQ(blocks, 0u);
    }

    record *insert(int key, uint32_t hash)
    {
        records_.push_back({key, {}});
        index_.insert(&records_.back(), hash);
        return &records_.back();
    }

    std::deque<record> records_;
    index_of_records index_ = {};
};

TEST_F(HashIndex, IsEmptyWhenAllItsBytesAreZero)
{
    const char zeros[sizeof(index_)] = {};
    EXPECT_EQ(memcmp(&index_, zeros, sizeof(index_)), 0);
    EXPECT_EQ(index_.find(0, any), nullptr);
    EXPECT_EQ(index_.find(0xffffffff, any), nullptr);
}

TEST_F(HashIndex, FindsRecordsOfOneHashNewestFirst)
{
    insert(1, 7);
    insert(2, 7 + 16); // another hash in the same bucket
    insert(3, 7);
    insert(4, 7);
    EXPECT_EQ(found(index_, 7), (Keys{4, 3, 1}));
    EXPECT_EQ(found(index_, 7 + 16), (Keys{2}));
    EXPECT_EQ(found(index_, 7 + 32), (Keys{}));
}

TEST_F(HashIndex, ThePredicateChoosesAmongRecordsOfTheHashOnly)
{
    insert(1, 7);
    insert(2, 7 + 16);
    insert(3, 7);
    const auto is_not_three = [](const record &r) { return r.key != 3; };
    const record *r = index_.find(7, is_not_three);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->key, 1);
    EXPECT_EQ(index_.find_next(r, is_not_three), nullptr);
}

TEST_F(HashIndex, RemovesTheFirstTheMiddleAndTheLastOfAChain)
{
    record *a = insert(1, 7);
    record *b = insert(2, 7);
    record *c = insert(3, 7);
    index_.remove(b);
    EXPECT_EQ(found(index_, 7), (Keys{3, 1}));
    index_.remove(a);
    EXPECT_EQ(found(index_, 7), (Keys{3}));
    index_.remove(c);
    EXPECT_EQ(found(index_, 7), (Keys{}));
}

TEST_F(HashIndex, GrowthKeepsNewestFirstAmongEqualHashes)
{
    std::map<uint32_t, Keys> model;
    for (int key = 0; key < 1000; key++) {
        const uint32_t hash = static_cast<uint32_t>(key % 7) * 0x10000003u;
        insert(key, hash);
        model[hash].insert(model[hash].begin(), key);
        for (const auto &[any_hash, keys] : model)
            ASSERT_EQ(found(index_, any_hash), keys) << "after key " << key;
    }
}

TEST_F(HashIndex, GrowsWhenTheRecordsBecomeMoreThanTheBuckets)
{
    for (int key = 0; key < 16; key++)
        insert(key, key);
    EXPECT_EQ(allocations, 0u);
    insert(16, 16);
    EXPECT_EQ(allocations, 1u);
    for (int key = 17; key < 32; key++)
        insert(key, key);
    EXPECT_EQ(allocations, 1u);
    insert(32, 32);
    EXPECT_EQ(allocations, 2u);
    EXPECT_EQ(blocks, 1u) << "the outgrown buckets are given back";
    for (int key = 33; key < 1024; key++)
        insert(key, key);
    EXPECT_EQ(allocations, 6u);
    insert(1024, 1024);
    EXPECT_EQ(allocations, 7u);
}

TEST_F(HashIndex, RemovedRecordsDoNotMakeItGrow)
{
    for (int key = 0; key < 1000; key++)
        index_.remove(insert(key, key));
    EXPECT_EQ(allocations, 0u);
}

TEST_F(HashIndex, WithoutMemoryEverythingIsStillFound)
{
    out_of_memory = true;
    for (int key = 0; key < 200; key++)
        insert(key, key / 2);
    EXPECT_GT(allocations, 0u);
    EXPECT_EQ(blocks, 0u);
    for (int key = 0; key < 200; key += 2)
        EXPECT_EQ(found(index_, key / 2), (Keys{key + 1, key}));
    out_of_memory = false;
    insert(200, 100);
    EXPECT_EQ(blocks, 1u) << "it grows as soon as there is memory again";
    for (int key = 0; key < 200; key += 2)
        EXPECT_EQ(found(index_, key / 2), (Keys{key + 1, key}));
    EXPECT_EQ(found(index_, 100), (Keys{200}));
}

TEST_F(HashIndex, ErrnoIsKept)
{
    for (const bool failing : {true, false}) {
        out_of_memory = failing;
        for (int key = 0; key < 40; key++) {
            errno = ENOTTY;
            insert(key, key);
            ASSERT_EQ(errno, ENOTTY) << key;
        }
    }
    EXPECT_GT(blocks, 0u);
    errno = ENOTTY;
    index_.clear();
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(HashIndex, IsEmptyAndUsableAfterClearing)
{
    for (int key = 0; key < 100; key++)
        insert(key, 5);
    index_.clear();
    EXPECT_EQ(blocks, 0u);
    EXPECT_EQ(found(index_, 5), (Keys{}));
    EXPECT_EQ(records_[3].key, 3);
    for (int key = 100; key < 150; key++)
        insert(key, 5);
    EXPECT_EQ(found(index_, 5).size(), 50u);
}

TEST_F(HashIndex, BehavesLikeAMapOfListsUnderAnyOperations)
{
    for (unsigned seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        std::vector<record> pool(400);
        std::vector<bool> in(pool.size());
        std::map<uint32_t, Keys> model;
        index_.clear();
        // Few hashes make long chains, many make growth; some share their low bits.
        const uint32_t hashes = seed % 2 == 0 ? 5 : 300;
        for (int step = 0; step < 4000; step++) {
            out_of_memory = random() % 3 == 0;
            const auto key = static_cast<int>(random() % pool.size());
            record *r = &pool[key];
            r->key = key;
            if (in[key]) {
                Keys &keys = model[r->link.hash];
                keys.erase(std::find(keys.begin(), keys.end(), key));
                index_.remove(r);
            } else {
                const uint32_t hash = random() % hashes * (random() % 2 == 0 ? 1 : 0x01000000);
                model[hash].insert(model[hash].begin(), key);
                index_.insert(r, hash);
            }
            in[key] = !in[key];
            ASSERT_EQ(found(index_, r->link.hash), model[r->link.hash]) << "step " << step;
        }
        for (const auto &[hash, keys] : model)
            ASSERT_EQ(found(index_, hash), keys);
        index_.clear(); // the pool goes
    }
}

TEST(Hash, IsFnv1a)
{
    EXPECT_EQ(hash_text(hash_start, ""), 0x811c9dc5u);
    EXPECT_EQ(hash_text(hash_start, "a"), 0xe40c292cu);
    EXPECT_EQ(hash_text(hash_start, "foobar"), 0xbf9cf968u);
}

TEST(Hash, BytesAreUnsignedAndNumbersLowestByteFirst)
{
    EXPECT_EQ(hash_text(hash_start, "\xff"), hash_byte(hash_start, 0xff));
    EXPECT_EQ(hash_number(hash_start, 0x64636261), hash_text(hash_start, "abcd"));
}
