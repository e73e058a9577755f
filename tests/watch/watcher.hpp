// A watcher under test, the files that it follows, and what the kernel knows of it.
#pragma once

#include "lh_inotify.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

namespace vyt::test {

constexpr uint32_t kernel_file_mask = IN_MODIFY | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t kernel_directory_mask = IN_CREATE | IN_MOVED_TO;

// The watches of an inotify descriptor: inode number and mask.
inline std::multimap<uint64_t, uint32_t> kernel_watches(int fd)
{
    std::multimap<uint64_t, uint32_t> watches;
    std::istringstream info(read_file("/proc/self/fdinfo/" + std::to_string(fd)));
    for (std::string line; std::getline(info, line);) {
        unsigned wd = 0;
        unsigned long inode = 0;
        unsigned device = 0;
        unsigned mask = 0;
        if (sscanf(line.c_str(), "inotify wd:%x ino:%lx sdev:%x mask:%x", &wd, &inode, &device,
                   &mask) == 4)
            watches.emplace(inode, mask);
    }
    return watches;
}

inline uint64_t inode_of(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

inline bool is_readable(int fd)
{
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

inline void make_directory(const std::string &path)
{
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0) << path << ": " << strerror(errno);
}

inline void remove_directory(const std::string &path)
{
    ASSERT_EQ(rmdir(path.c_str()), 0) << path << ": " << strerror(errno);
}

inline void remove_file(const std::string &path)
{
    ASSERT_EQ(unlink(path.c_str()), 0) << path << ": " << strerror(errno);
}

inline void move(const std::string &from, const std::string &to)
{
    ASSERT_EQ(rename(from.c_str(), to.c_str()), 0) << from << ": " << strerror(errno);
}

// One event as the kernel writes it; names are padded with NUL bytes to a multiple of 16.
inline std::string event(int wd, uint32_t mask, const std::string &name = {})
{
    inotify_event header = {};
    header.wd = wd;
    header.mask = mask;
    header.len = name.empty() ? 0 : static_cast<uint32_t>((name.size() / 16 + 1) * 16);
    std::string bytes(reinterpret_cast<const char *>(&header), sizeof(header));
    bytes += name;
    bytes.resize(sizeof(header) + header.len, '\0');
    return bytes;
}

// Stands in for `read`: hands out these buffers one by one, then there is nothing more to read.
inline std::vector<std::string> fed_buffers;

inline ssize_t read_fed_buffers(int, void *data, size_t size)
{
    if (fed_buffers.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const std::string buffer = fed_buffers.front();
    fed_buffers.erase(fed_buffers.begin());
    EXPECT_LE(buffer.size(), size);
    memcpy(data, buffer.data(), buffer.size());
    return static_cast<ssize_t>(buffer.size());
}

// Stands in for `usleep`: the pauses that were asked for, none of which is made.
inline std::vector<useconds_t> pauses;

inline int note_pause(useconds_t length)
{
    pauses.push_back(length);
    return 0;
}

// The numbers that inotify_add_watch gave.
inline std::vector<int> given_watches;

inline int note_watch(int fd, const char *path, uint32_t mask)
{
    given_watches.push_back(inotify_add_watch(fd, path, mask));
    return given_watches.back();
}

inline void count_call(void *count)
{
    ++*static_cast<int *>(count);
}

// A watcher in a directory of its own; arming never waits. Files are told by the path below it.
class WatcherTest : public LogTest {
  protected:
    WatcherTest()
    {
        pauses.clear();
        given_watches.clear();
        fed_buffers.clear();
        calm_faults();
        watcher = lh_inotify_create();
        EXPECT_NE(watcher, nullptr);
    }

    ~WatcherTest() override { lh_inotify_free(&watcher); }

    // No fault is armed; pauses are noted instead of made.
    void calm_faults()
    {
        faults.clear();
        faults.replace("usleep", reinterpret_cast<void *>(note_pause));
    }

    void feed(std::vector<std::string> buffers)
    {
        fed_buffers = std::move(buffers);
        faults.replace("read", reinterpret_cast<void *>(read_fed_buffers));
    }

    // The watch numbers from now on are in given_watches.
    void note_watches()
    {
        given_watches.clear();
        faults.replace("inotify_add_watch", reinterpret_cast<void *>(note_watch));
    }

    // The numbers of the watches that one pass arms, in the order of arming.
    std::vector<int> arm()
    {
        note_watches();
        process();
        return given_watches;
    }

    std::string dir(const std::string &name = {}) const
    {
        return name.empty() ? temp.path() : temp / name;
    }

    void follow_in(const std::string &parent_dir, const std::string &name, uint32_t flags = 0)
    {
        EXPECT_EQ(lh_inotify_include_file(watcher, parent_dir.c_str(), name.c_str(), flags,
                                          count_call, &calls[name]),
                  0);
    }

    void follow(const std::string &name, uint32_t flags = 0) { follow_in(dir(), name, flags); }

    void exclude(const std::string &name)
    {
        EXPECT_EQ(lh_inotify_exclude_file(watcher, dir().c_str(), name.c_str()), 0);
    }

    void process() { EXPECT_EQ(lh_inotify_process(watcher), 0); }

    // One pass; how often the file's callback was called in it.
    int calls_in_pass(const std::string &name)
    {
        calls[name] = 0;
        process();
        return calls[name];
    }

    // The counts start again; they stay where they are, for the callbacks.
    void forget_calls()
    {
        for (auto &[name, count] : calls)
            count = 0;
    }

    // Does this between the pass's look at the inodes and its first read.
    void before_first_read(const std::function<void()> &action)
    {
        faults.before("read", [action, first = faults.calls("read") + 1](unsigned number) {
            if (number == first)
                action();
        });
    }

    int fd() const { return lh_inotify_get_fd(watcher); }
    std::multimap<uint64_t, uint32_t> watches() const { return kernel_watches(fd()); }

    void expect_watches(const std::multimap<uint64_t, uint32_t> &expected)
    {
        EXPECT_EQ(watches(), expected);
    }
    std::pair<const uint64_t, uint32_t> file_watch(const std::string &path) const
    {
        return {inode_of(path), kernel_file_mask};
    }
    std::pair<const uint64_t, uint32_t> directory_watch(const std::string &path) const
    {
        return {inode_of(path), kernel_directory_mask};
    }

    TempDir temp;
    Faults faults;
    std::map<std::string, int> calls;
    lh_inotify *watcher = nullptr;
};

} // namespace vyt::test
