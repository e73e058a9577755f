#pragma once

#include <cerrno>

namespace vyt {

// Restores errno at the end of its scope.
class errno_saver {
  public:
    errno_saver() : saved_(errno) {}
    ~errno_saver() { errno = saved_; }
    errno_saver(const errno_saver &) = delete;
    errno_saver &operator=(const errno_saver &) = delete;

  private:
    int saved_;
};

} // namespace vyt
