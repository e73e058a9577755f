// Owned handles: every exit path releases what it opened, and errno survives the release.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

#include "core/errno_saver.hpp"

namespace vyt {

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    // Hands the descriptor over: the caller closes it, or says why it stays open.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            const errno_saver saver;
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

struct file_closer {
    void operator()(FILE *file) const
    {
        const errno_saver saver;
        ::fclose(file);
    }
};

struct dir_closer {
    void operator()(DIR *dir) const
    {
        const errno_saver saver;
        ::closedir(dir);
    }
};

struct malloc_deleter {
    void operator()(void *block) const
    {
        const errno_saver saver;
        ::free(block);
    }
};

using unique_file = std::unique_ptr<FILE, file_closer>;
using unique_dir = std::unique_ptr<DIR, dir_closer>;
// A block of the C allocator, which a caller may be given with release().
template <class T>
using malloc_ptr = std::unique_ptr<T, malloc_deleter>;

} // namespace vyt
