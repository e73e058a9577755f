// A made-up kernel for the watcher: it gives overlapping watch numbers, refuses, overflows and
// changes its files while it is asked.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace vyt::test {

inline constexpr uint64_t refused = 13; // the inode that may not be watched

struct object {
    uint64_t inode = 0;
    bool is_directory = false;
};

struct kernel {
    explicit kernel(unsigned seed) : random(seed) {}

    std::map<std::string, object> objects = {
        {"/", {1, true}}, {"/w", {2, true}}, {"/w/a", {3, true}}, {"/w/b", {4, true}}};
    std::mt19937 random;
    std::deque<std::string> buffers;
    int end_of_buffers = EAGAIN; // errno, or 0 for a read of nothing
    bool refuses_descriptors = false;
    bool refuses_directories = false;
    bool real_descriptors = false;  // for who closes them
    std::vector<std::string> calls; // what it was asked to change

    unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }

    const object *find(const std::string &path) const
    {
        std::string plain;
        for (const char c : path) {
            if (c != '/' || plain.empty() || plain.back() != '/')
                plain += c;
        }
        if (plain.size() > 1 && plain.back() == '/')
            plain.pop_back();
        const auto found = objects.find(plain);
        return found == objects.end() ? nullptr : &found->second;
    }

    void put(const std::string &path, uint64_t inode, bool is_directory)
    {
        objects[path] = {inode, is_directory};
    }

    void remove(const std::string &path)
    {
        std::erase_if(objects, [&](const auto &entry) {
            return entry.first == path || entry.first.rfind(path + "/", 0) == 0;
        });
    }

    // Makes a file or directory, replaces it or removes it.
    void change_something(unsigned choice)
    {
        const std::string parent = std::string("/w/") + "abc"[choice % 3];
        const std::string path = parent + "/" + "fgh"[choice / 3 % 3];
        const uint64_t inodes[] = {10, 11, 12, 13, (1ull << 32) + 10, 1ull << 32};
        const uint64_t inode = inodes[choice / 9 % 6];
        switch (choice / 54 % 6) {
        case 0:
            remove(parent);
            break;
        case 1:
            put(parent, inode, true);
            break;
        case 2:
            remove(path);
            break;
        default:
            if (find(parent) != nullptr)
                put(path, inode, false);
        }
    }
};

// The one that is asked.
inline kernel *now;

inline std::string hex(uint32_t number)
{
    std::ostringstream text;
    text << std::hex << number;
    return text.str();
}

inline int kernel_stat(const char *path, struct stat *st)
{
    const object *found = now->find(path);
    if (found == nullptr) {
        errno = ENOENT;
        return -1;
    }
    *st = {};
    st->st_ino = found->inode;
    st->st_mode = found->is_directory ? S_IFDIR | 0755 : S_IFREG | 0644;
    return 0;
}

inline int kernel_access(const char *path, int)
{
    struct stat st;
    return kernel_stat(path, &st);
}

inline DIR *kernel_opendir(const char *path)
{
    const object *found = now->find(path);
    if (found == nullptr || !found->is_directory) {
        errno = ENOENT;
        return nullptr;
    }
    return opendir("/");
}

inline int kernel_mkdir(const char *path, mode_t mode)
{
    now->calls.push_back(std::string("mkdir ") + path + " " + hex(mode));
    if (now->refuses_directories) {
        errno = EROFS;
        return -1;
    }
    now->put(path, 14, true);
    return 0;
}

inline int kernel_init(int flags)
{
    EXPECT_EQ(flags, IN_NONBLOCK);
    now->calls.push_back("init");
    if (now->refuses_descriptors) {
        errno = EMFILE;
        return -1;
    }
    return now->real_descriptors ? open("/dev/null", O_RDONLY) : 0;
}

inline int kernel_add_watch(int fd, const char *path, uint32_t mask)
{
    now->calls.push_back(std::string("add ") + path + " " + hex(mask));
    const unsigned choice = now->below(100);
    const int wd = static_cast<int>(now->below(5)); // unrelated objects share numbers
    const unsigned change = now->below(10000);
    const object *found = now->find(path);
    const uint64_t inode = found != nullptr ? found->inode : 0;
    if (choice % 7 == 0)
        now->change_something(change);
    if (fd == -1)
        errno = EBADF;
    else if (inode == 0 || choice < 5)
        errno = ENOENT;
    else if (inode == refused || choice < 15)
        errno = EACCES;
    else if (choice < 20)
        errno = ENOSPC;
    else
        return choice == 99 && change % 8 == 0 ? -2 : wd;
    return -1;
}

inline int kernel_rm_watch(int, int wd)
{
    now->calls.push_back("rm " + std::to_string(wd));
    if (wd % 2 == 0)
        return 0;
    errno = EINVAL;
    return -1;
}

inline int kernel_usleep(useconds_t length)
{
    now->calls.push_back("sleep " + std::to_string(length));
    return 0;
}

inline ssize_t kernel_read(int fd, void *data, size_t size)
{
    now->calls.push_back("read");
    if (fd == -1 || (now->buffers.empty() && now->end_of_buffers != 0)) {
        errno = fd == -1 ? EBADF : now->end_of_buffers;
        return -1;
    }
    if (now->buffers.empty())
        return 0;
    const std::string buffer = now->buffers.front();
    now->buffers.pop_front();
    EXPECT_LE(buffer.size(), size);
    memcpy(data, buffer.data(), buffer.size());
    return static_cast<ssize_t>(buffer.size());
}

} // namespace vyt::test
