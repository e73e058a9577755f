// What the tests of the settings in the debug directory share: a world without that directory, and
// what the functions that make it and a file of default settings in it have in common.
#pragma once

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

namespace vyt::test {

inline constexpr const char *debug_dir = "/mnt/config/etc/config/vyt/debug";

class DebugDirTest : public LogTest {
  protected:
    // Makes the settings: 0 when they are there.
    using set_default = int (*)(int force);

    DebugDirTest() : umask_before(umask(022)) {}
    ~DebugDirTest() override { umask(umask_before); }

    // The mode's permissions; -1 when there is nothing.
    static int permissions(const std::string &path)
    {
        struct stat st;
        return stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
    }

    static void expect_full_modes_without_a_umask(set_default set, const char *file)
    {
        umask(0);
        EXPECT_EQ(set(0), 0);
        EXPECT_EQ(permissions("/mnt/config"), 0777);
        EXPECT_EQ(permissions("/mnt/config/etc"), 0777);
        EXPECT_EQ(permissions(debug_dir), 0777);
        EXPECT_EQ(permissions(file), 0666);
    }

    // A file stands where the directory would; `line` is what the function adds to the reason.
    static void expect_obstacle_is_reported(set_default set, const std::string &line)
    {
        write_file("/mnt/config", "a file in the way");
        for (const int force : {0, 1}) {
            EXPECT_EQ(set(force), 1);
            EXPECT_EQ(errno, ENOTDIR);
            EXPECT_LINES("lh_dir_create: cannot create '/mnt/config/etc/config/vyt/debug': "
                         "Not a directory",
                         line);
        }
    }

    static void expect_failing_steps_are_reported(set_default set, const std::string &line)
    {
        struct {
            const char *call;
            int error;
            const char *line;
        } const steps[] = {
            {"strdup", ENOMEM, "PTR_IS_NULL: buf"},
            {"mkdir", EROFS,
             "cannot create '/mnt/config/etc/config/vyt/debug': Read-only file system"},
        };
        for (const auto &step : steps) {
            Faults faults;
            faults.fail(step.call, step.error);
            EXPECT_EQ(set(0), 1) << step.call;
            EXPECT_EQ(errno, step.error);
            EXPECT_LINES(std::string("lh_dir_create: ") + step.line, line);
            EXPECT_EQ(faults.calls("chmod"), 0u);
        }
        EXPECT_EQ(set(0), 0);
    }

    const mode_t umask_before;
    World world;
    const std::vector<int> before = open_descriptors();
};

} // namespace vyt::test
