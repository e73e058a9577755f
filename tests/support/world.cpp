#include "support/world.hpp"

#include <cerrno>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace vyt::test {
namespace {

void must(bool done, const std::string &what)
{
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

void write_line(const char *path, const std::string &line)
{
    std::ofstream file(path);
    file << line;
    file.close();
    must(file.good(), path);
}

void become_root_of_a_user_namespace()
{
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    must(unshare(CLONE_NEWUSER) == 0, "unshare(CLONE_NEWUSER)");
    write_line("/proc/self/setgroups", "deny");
    write_line("/proc/self/uid_map", "0 " + uid + " 1");
    write_line("/proc/self/gid_map", "0 " + gid + " 1");
}

void mount_empty(const char *place)
{
    must(mount("tmpfs", place, "tmpfs", 0, "mode=755") == 0, std::string("tmpfs on ") + place);
}

} // namespace

World::World()
{
    if (geteuid() != 0)
        become_root_of_a_user_namespace();
    must(unshare(CLONE_NEWNS) == 0, "unshare(CLONE_NEWNS)");
    must(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    for (const char *place : {"/mnt", "/var/cache", "/run"})
        mount_empty(place);
}

void World::make_proc_writable()
{
    const std::string real = "/run/real-proc";
    must(mkdir(real.c_str(), 0755) == 0, real);
    must(mount("/proc", real.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind of /proc");
    mount_empty("/proc");
    for (const std::string &name :
         {std::string("self"), std::string("thread-self"), std::string("mounts"),
          std::string("sys"), std::to_string(getpid())})
        must(symlink((real + "/" + name).c_str(), ("/proc/" + name).c_str()) == 0, name);
}

void World::cover_tmp()
{
    mount_empty("/tmp");
}

void World::leave_network()
{
    must(unshare(CLONE_NEWNET) == 0, "unshare(CLONE_NEWNET)");
}

} // namespace vyt::test
