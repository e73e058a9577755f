// An index over records that somebody else owns: chains through a member of the record, in buckets
// that double as the records become more. Running out of memory only makes the chains longer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "core/errno_saver.hpp"

namespace vyt {

inline constexpr uint32_t hash_start = 2166136261u;

// FNV-1a, one byte at a time.
constexpr uint32_t hash_byte(uint32_t hash, unsigned char byte)
{
    return (hash ^ byte) * 16777619u;
}

constexpr uint32_t hash_text(uint32_t hash, const char *text)
{
    for (; *text != '\0'; text++)
        hash = hash_byte(hash, static_cast<unsigned char>(*text));
    return hash;
}

constexpr uint32_t hash_number(uint32_t hash, uint32_t number)
{
    for (int shift = 0; shift < 32; shift += 8)
        hash = hash_byte(hash, static_cast<unsigned char>(number >> shift));
    return hash;
}

// A record's place in one index.
template <class Record>
struct hash_link {
    Record *next;
    uint32_t hash;
};

// All zero bytes are an empty index. Records of one hash are found newest first.
template <class Record, hash_link<Record> Record::*Link>
class hash_index {
  public:
    void insert(Record *record, uint32_t hash)
    {
        (record->*Link).hash = hash;
        push(buckets(), capacity(), record);
        if (++count_ > capacity())
            grow();
    }

    // The record must be in the index.
    void remove(Record *record)
    {
        Record **place = &buckets()[(record->*Link).hash & (capacity() - 1)];
        while (*place != record)
            place = &((*place)->*Link).next;
        *place = (record->*Link).next;
        count_--;
    }

    // First record of this hash for which the predicate holds, or null.
    template <class Predicate>
    Record *find(uint32_t hash, Predicate &&matches) const
    {
        return find_from(buckets()[hash & (capacity() - 1)], hash, matches);
    }

    // The next one after a record that was found.
    template <class Predicate>
    Record *find_next(const Record *record, Predicate &&matches) const
    {
        return find_from((record->*Link).next, (record->*Link).hash, matches);
    }

    // Gives the buckets back; the records are not touched. The index is empty then.
    void clear()
    {
        const errno_saver saver;
        free(grown_);
        *this = {};
    }

  private:
    static constexpr size_t first_capacity = 16;

    size_t capacity() const { return grown_ != nullptr ? grown_capacity_ : first_capacity; }
    Record **buckets() { return grown_ != nullptr ? grown_ : first_; }
    Record *const *buckets() const { return grown_ != nullptr ? grown_ : first_; }

    static void push(Record **buckets, size_t capacity, Record *record)
    {
        Record **bucket = &buckets[(record->*Link).hash & (capacity - 1)];
        (record->*Link).next = *bucket;
        *bucket = record;
    }

    template <class Predicate>
    static Record *find_from(Record *record, uint32_t hash, Predicate &&matches)
    {
        while (record != nullptr && !((record->*Link).hash == hash && matches(*record)))
            record = (record->*Link).next;
        return record;
    }

    void grow()
    {
        const errno_saver saver;
        const size_t wanted = capacity() * 2;
        auto **larger = static_cast<Record **>(calloc(wanted, sizeof(Record *)));
        if (larger == nullptr)
            return;
        for (size_t i = 0; i < capacity(); i++)
            push_reversed(larger, wanted, reversed(buckets()[i]));
        free(grown_);
        grown_ = larger;
        grown_capacity_ = wanted;
    }

    // Pushing reverses a chain's order, so it is reversed first: newest stays first.
    static Record *reversed(Record *record)
    {
        Record *chain = nullptr;
        while (record != nullptr) {
            Record *next = (record->*Link).next;
            (record->*Link).next = chain;
            chain = record;
            record = next;
        }
        return chain;
    }

    static void push_reversed(Record **larger, size_t capacity, Record *record)
    {
        while (record != nullptr) {
            Record *next = (record->*Link).next;
            push(larger, capacity, record);
            record = next;
        }
    }

    Record *first_[first_capacity] = {};
    Record **grown_ = nullptr;
    size_t grown_capacity_ = 0;
    size_t count_ = 0;
};

} // namespace vyt
