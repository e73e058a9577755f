// The VRRP daemon's status file: its format, and a reading of it that nobody's writing can disturb.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "core/errno_saver.hpp"

namespace vyt {

// What is read of a record, in native byte order.
inline constexpr size_t record_size = 576;
inline constexpr size_t vrid_offset = 0;
inline constexpr size_t state_offset = 472;
inline constexpr size_t group_offset = 496;
inline constexpr size_t netns_offset = 521;
inline constexpr size_t netns_room = record_size - netns_offset;
static_assert(netns_room == 55);

struct status_record {
    int32_t vrid;
    int32_t state;
    int32_t group;
    char netns[netns_room + 1]; // terminated, also where the record's is not
};
static_assert(sizeof(status_record) <= record_size);

inline int32_t read_number(const char *at)
{
    int32_t number;
    memcpy(&number, at, sizeof(number));
    return number;
}

inline status_record read_record(const char *bytes)
{
    status_record record;
    record.vrid = read_number(bytes + vrid_offset);
    record.state = read_number(bytes + state_offset);
    record.group = read_number(bytes + group_offset);
    memcpy(record.netns, bytes + netns_offset, netns_room);
    record.netns[netns_room] = '\0';
    return record;
}

// The whole file as it could be read. Deliberate: private memory that the file is read into, not a
// mapping of the file, which raises SIGBUS in the daemon when a writer truncates the file.
class status_file {
  public:
    status_file() = default;
    ~status_file()
    {
        const errno_saver saver;
        if (memory_ != MAP_FAILED)
            munmap(memory_, room_);
    }
    status_file(const status_file &) = delete;
    status_file &operator=(const status_file &) = delete;

    // Up to `size` bytes from the start; false, with errno, when that failed.
    bool read_from(int fd, size_t size)
    {
        memory_ = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory_ == MAP_FAILED)
            return false;
        room_ = size;
        bool at_end = false;
        while (length_ < size && !at_end) {
            const size_t wanted = std::min(size - length_, window_size);
            const ssize_t got = read_window(fd, wanted);
            if (got < 0)
                return false;
            at_end = static_cast<size_t>(got) < wanted;
        }
        return true;
    }

    // Bytes that could be read, also those behind the last whole record.
    size_t length() const { return length_; }
    const status_record &record(size_t index) const { return records()[index]; }

  private:
    // The file goes through a window behind the records that are kept, so that only what is kept
    // touches new memory: a large file costs no more by the record than a small one.
    static constexpr size_t window_size = 64 * record_size;

    // The bytes read, fewer than wanted at the file's end; -1 with errno.
    ssize_t read_window(int fd, size_t wanted)
    {
        status_record *kept = records() + length_ / record_size;
        char *window = reinterpret_cast<char *>(kept);
        size_t filled = 0;
        while (filled < wanted) {
            const ssize_t got = ::read(fd, window + filled, wanted - filled);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                return -1;
            if (got == 0)
                break;
            filled += static_cast<size_t>(got);
        }
        for (size_t index = 0; index < filled / record_size; index++)
            kept[index] = read_record(window + index * record_size);
        length_ += filled;
        return static_cast<ssize_t>(filled);
    }

    status_record *records() const { return static_cast<status_record *>(memory_); }

    void *memory_ = MAP_FAILED;
    size_t room_ = 0;
    size_t length_ = 0;
};

} // namespace vyt
