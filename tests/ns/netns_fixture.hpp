// Real network namespaces with handles below a private /run/netns.
#pragma once

#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

namespace vyt::test {

// What the thread is in now: the inode of its namespace of this kind.
inline ino_t namespace_of_thread(const char *kind = "net")
{
    struct stat status = {};
    EXPECT_EQ(stat((std::string("/proc/thread-self/ns/") + kind).c_str(), &status), 0);
    return status.st_ino;
}

inline std::string handle_path(const std::string &name)
{
    return "/run/netns/" + name;
}

// Makes the thread's namespace known under a name.
inline void name_own_namespace(const std::string &name, const char *kind = "net")
{
    write_file(handle_path(name), "");
    const std::string own = std::string("/proc/thread-self/ns/") + kind;
    ASSERT_EQ(mount(own.c_str(), handle_path(name).c_str(), nullptr, MS_BIND, nullptr), 0);
}

// A new namespace with a handle of this name; its inode.
inline ino_t make_namespace(const std::string &name, int kind = CLONE_NEWNET,
                            const char *kind_name = "net")
{
    ino_t inode = 0;
    std::thread([&] {
        ASSERT_EQ(unshare(kind), 0);
        inode = namespace_of_thread(kind_name);
        name_own_namespace(name, kind_name);
    }).join();
    return inode;
}

// A private /run/netns, and namespaces of its own for the thread to start from.
class Netns : public LogTest {
  protected:
    Netns()
    {
        world_.leave_network();
        EXPECT_EQ(unshare(CLONE_NEWUTS), 0);
        EXPECT_EQ(mkdir("/run/netns", 0755), 0);
        descriptors_ = open_descriptors();
    }

    ~Netns() override { EXPECT_EQ(open_descriptors(), descriptors_); }

    World world_;
    Faults faults_;
    std::vector<int> descriptors_;
};

} // namespace vyt::test
