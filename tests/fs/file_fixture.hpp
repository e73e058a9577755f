// A file, an empty one, a directory and the links to them, for the tests of what is done with a path.
#pragma once

#include "lh_file.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "support/log_capture.hpp"
#include "support/process.hpp"

namespace vyt::test {

class File : public LogTest {
  protected:
    void SetUp() override
    {
        write_file(plain, "data");
        write_file(empty, "");
        ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
        ASSERT_EQ(symlink(plain.c_str(), link.c_str()), 0);
        ASSERT_EQ(symlink(absent.c_str(), dangling.c_str()), 0);
    }

    TempDir dir;
    const std::string plain = dir / "plain";
    const std::string empty = dir / "empty";
    const std::string folder = dir / "folder";
    const std::string link = dir / "link";
    const std::string dangling = dir / "dangling";
    const std::string absent = dir / "absent";
};

// The line of a failing stat.
inline std::string stat_failed(const char *function, const std::string &path)
{
    return std::string(function) + ": stat '" + path + "' failed";
}

} // namespace vyt::test
