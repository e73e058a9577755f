#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lh_netns.h"
#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::test;
using ::testing::ElementsAre;

namespace {

// One line of /proc/self/mountinfo.
struct mounted {
    std::string place;
    std::string propagation; // "shared:1", "master:2 ", nothing for a private mount
    std::string type;
    std::string source;
};

std::vector<mounted> own_mounts()
{
    std::vector<mounted> mounts;
    std::ifstream file("/proc/self/mountinfo");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string word;
        mounted m;
        words >> word >> word >> word >> word >> m.place >> word;
        while (words >> word && word != "-")
            m.propagation += word + " ";
        words >> m.type >> m.source;
        mounts.push_back(m);
    }
    return mounts;
}

// What is mounted on top at this place.
mounted mount_at(const std::string &place)
{
    mounted found;
    for (const mounted &m : own_mounts()) {
        if (m.place == place)
            found = m;
    }
    return found;
}

std::vector<std::string> network_devices()
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator("/sys/class/net"))
        names.push_back(entry.path().filename());
    return names;
}

// A mount on /sys that may be taken away again: only the machine's root may unmount /sys itself.
void cover_sys()
{
    ASSERT_EQ(mount("cover", "/sys", "tmpfs", 0, nullptr), 0);
}

ino_t mount_namespace()
{
    struct stat status = {};
    EXPECT_EQ(stat("/proc/self/ns/mnt", &status), 0);
    return status.st_ino;
}

// The calls that reached the kernel's place, as text. They do nothing.
std::vector<std::string> calls;

int recorded_unshare(int flags)
{
    calls.push_back(flags == CLONE_NEWNS ? "unshare(CLONE_NEWNS)" : "unshare(?)");
    return 0;
}

int recorded_mount(const char *source, const char *target, const char *type, unsigned long flags,
                   const void *data)
{
    calls.push_back("mount(" + std::string(source) + ", " + target + ", " + type + ", " +
                    std::to_string(flags) + ", " + (data == nullptr ? "none" : "some") + ")");
    return 0;
}

int recorded_umount2(const char *target, int flags)
{
    calls.push_back("umount2(" + std::string(target) + ", " + std::to_string(flags) + ")");
    return 0;
}

} // namespace

class Mntns : public LogTest {};

// In a process that has entered a network namespace, as lh_mntns_set wants it.
TEST_F(Mntns, SysShowsTheDevicesOfTheNamespace)
{
    World world;
    cover_sys();
    const ino_t outside = mount_namespace();
    EXPECT_EQ(run_in_child([&] {
                  EXPECT_EQ(unshare(CLONE_NEWNET), 0);
                  EXPECT_EQ(lh_mntns_set("red"), 0);
                  EXPECT_NO_LINES();
                  EXPECT_NE(mount_namespace(), outside);
                  EXPECT_EQ(mount_at("/sys").type, "sysfs");
                  EXPECT_EQ(mount_at("/sys").source, "red");
                  EXPECT_THAT(network_devices(), ElementsAre("lo"));
                  return 0;
              }),
              0);
    EXPECT_EQ(mount_at("/sys").source, "cover");
}

TEST_F(Mntns, EveryOtherMountBecomesASlave)
{
    World world;
    cover_sys();
    ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_SHARED, nullptr), 0);
    EXPECT_EQ(run_in_child([&] {
                  EXPECT_EQ(unshare(CLONE_NEWNET), 0);
                  EXPECT_EQ(lh_mntns_set("red"), 0);
                  for (const mounted &m : own_mounts()) {
                      if (m.place == "/sys")
                          continue;
                      EXPECT_EQ(m.propagation.rfind("master:", 0), 0u) << m.place;
                  }
                  EXPECT_EQ(mount("inside", "/mnt", "tmpfs", 0, nullptr), 0);
                  return 0;
              }),
              0);
    EXPECT_NE(mount_at("/mnt").source, "inside");
}

TEST_F(Mntns, MakesTheseCallsInThisOrder)
{
    Faults faults;
    faults.replace("unshare", reinterpret_cast<void *>(recorded_unshare));
    faults.replace("mount", reinterpret_cast<void *>(recorded_mount));
    faults.replace("umount2", reinterpret_cast<void *>(recorded_umount2));
    calls.clear();
    EXPECT_EQ(lh_mntns_set("red"), 0);
    EXPECT_THAT(calls,
                ElementsAre("unshare(CLONE_NEWNS)",
                            "mount(, /, none, " + std::to_string(MS_REC | MS_SLAVE) + ", none)",
                            "umount2(/sys, " + std::to_string(MNT_DETACH) + ")",
                            "mount(red, /sys, sysfs, 0, none)"));
}

TEST_F(Mntns, ANullOrEmptyNameIsInvalid)
{
    Faults faults;
    for (const char *ns : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_EQ(lh_mntns_set(ns), -1);
        EXPECT_LINES("lh_mntns_set: <lh_mntns_set> invalid namespace");
    }
    EXPECT_EQ(faults.calls("unshare"), 0u);
}

TEST_F(Mntns, EachFailingStepEndsItAndUndoesNothing)
{
    struct step {
        const char *call;
        unsigned nth;
        size_t calls_before;
        const char *line;
    };
    const step steps[] = {
        {"unshare", 1, 0, "unshare failed: Operation not permitted"},
        {"mount", 1, 1, "\"mount --make-rslave /\" failed: Operation not permitted"},
        {"umount2", 1, 2, "umount of /sys failed: Operation not permitted"},
        {"mount", 2, 3, "mount of /sys failed: Operation not permitted"},
    };
    for (const step &s : steps) {
        Faults faults;
        faults.replace("unshare", reinterpret_cast<void *>(recorded_unshare));
        faults.replace("mount", reinterpret_cast<void *>(recorded_mount));
        faults.replace("umount2", reinterpret_cast<void *>(recorded_umount2));
        calls.clear();
        faults.fail(s.call, EPERM, s.nth);
        EXPECT_EQ(lh_mntns_set("red"), -1) << s.line;
        EXPECT_EQ(errno, EPERM) << s.line;
        EXPECT_TRUE(faults.happened());
        EXPECT_EQ(calls.size(), s.calls_before) << s.line;
        EXPECT_LINES(std::string("lh_mntns_set: <lh_mntns_set> ") + s.line);
        EXPECT_EQ(lh_mntns_set("red"), 0) << "after " << s.line;
    }
}
