// The VRRP tracker in a private world: status files built record by record, and the tracker stopped
// after every test.
#pragma once

#include "lh_vrrp.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/status_record.hpp"
#include "support/world.hpp"

namespace vyt::test {

using names = std::vector<std::string>;

inline const std::string status_path = "/var/cache/vrrp_data";

enum daemon_state : int { daemon_init, daemon_backup, daemon_master, daemon_fault };

// How the status file comes to hold new contents.
inline void write_in_place(const std::string &contents)
{
    const int fd = open(status_path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(pwrite(fd, contents.data(), contents.size(), 0), ssize_t(contents.size()));
    close(fd);
}

inline void truncate_and_write(const std::string &contents)
{
    write_file(status_path, contents);
}

inline void rename_over(const std::string &contents)
{
    write_file(status_path + ".new", contents);
    ASSERT_EQ(rename((status_path + ".new").c_str(), status_path.c_str()), 0);
}

inline void remove_status_file()
{
    ASSERT_EQ(unlink(status_path.c_str()), 0);
}

// World's /var/cache is where a file system is mounted; here it is a directory that can go away.
inline void make_cache_removable()
{
    ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, "mode=755"), 0);
    ASSERT_EQ(mkdir("/var/cache", 0755), 0);
}

class TrackerTest : public LogTest {
  protected:
    ~TrackerTest() override
    {
        set_debug_flags(0);
        lh_vrrp_info_deinit();
    }

    // The tracker is started and follows these groups; the file is not there yet.
    int start(std::initializer_list<uint32_t> groups = {})
    {
        const int fd = lh_vrrp_info_init();
        EXPECT_GE(fd, 0);
        for (const uint32_t group : groups)
            EXPECT_EQ(lh_vrrp_group_info_update_enable(group), 0);
        return fd;
    }

    // The tracker has read this file, and its watch is on it and quiet.
    void start_with(const std::string &contents, std::initializer_list<uint32_t> groups)
    {
        write_file(status_path, contents);
        start(groups);
        EXPECT_EQ(lh_vrrp_info_update(), 0);
        EXPECT_NO_LINES();
    }

    // Replaces the file and runs a pass.
    static int update_with(const std::string &contents)
    {
        rename_over(contents);
        return lh_vrrp_info_update();
    }

    World world;
};

inline names members_of(uint32_t group)
{
    char slots[512][LH_VRRP_VIFNAME_SIZE];
    const int count = lh_vrrp_group_members_vifname_get(group, slots, 512);
    return names(slots, slots + std::max(count, 0));
}

// What a call answered, and what it left in errno.
struct answer {
    int result;
    int error;
    bool operator==(const answer &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const answer &answer)
{
    return out << answer.result << " with errno " << answer.error;
}

template <class Call>
answer answer_of(int error_before, Call &&call)
{
    errno = error_before;
    const int result = call();
    return {result, errno};
}

} // namespace vyt::test

// The call answers -1 with this errno.
#define EXPECT_FAILS(error, call)                                                                  \
    EXPECT_EQ(::vyt::test::answer_of(0, [&] { return call; }), (::vyt::test::answer{-1, error}))

// The call answers this and leaves errno alone.
#define EXPECT_QUIETLY(result, call)                                                               \
    EXPECT_EQ(::vyt::test::answer_of(77, [&] { return call; }), (::vyt::test::answer{result, 77}))
