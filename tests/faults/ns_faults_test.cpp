// Every fault of the network and mount namespaces.
#include <cerrno>

#include "lh_netns.h"
#include "ns/netns_fixture.hpp"
#include "support/fault_sweep.hpp"

using namespace vyt::test;

namespace {

// A private /run/netns where this thread's own namespace is called "red".
std::string in_world(Attempt &a, const std::function<std::string()> &call)
{
    World world;
    world.leave_network();
    EXPECT_EQ(mkdir("/run/netns", 0755), 0);
    name_own_namespace("red");
    return a.faulted(call);
}

scenario of_namespaces(const char *function, const std::function<std::string()> &call,
                       const std::string &outcome, const std::vector<rule> &faults)
{
    return {.function = function,
            .body = [call](Attempt &a) { return in_world(a, call); },
            .outcome = outcome,
            .faults = faults};
}

std::string fd_of_red()
{
    const int fd = lh_netns_fd_get("red");
    if (fd < 0)
        return shown(fd);
    close(fd);
    return "a descriptor";
}

const std::string not_formatted = "_lh_snprintf: truncated: ''";

std::vector<rule> no_handle_of(const std::string &name, const std::vector<std::string> &then)
{
    std::vector<std::string> not_formatted_lines = {
        not_formatted, "lh_netns_fd_get: lh_snprintf_buf failed for namespace '" + name + "'"};
    std::vector<std::string> not_opened_lines = {
        "lh_netns_fd_get: open failed for '/var/run/netns/" + name + "', {error}"};
    not_formatted_lines.insert(not_formatted_lines.end(), then.begin(), then.end());
    not_opened_lines.insert(not_opened_lines.end(), then.begin(), then.end());
    return {fails("vsnprintf", "-1", not_formatted_lines).errno_unpromised(),
            fails("open", "-1", not_opened_lines)};
}

std::vector<rule> not_entered(const std::string &name)
{
    auto rules =
        no_handle_of(name, {"lh_netns_set: lh_netns_fd_get failed for namespace '" + name + "'"});
    rules.push_back(fails("syscall", "-1",
                          {"lh_netns_set: syscall failed for namespace '" + name + "', {error}"}));
    rules.push_back(ignored("close"));
    return rules;
}

std::string enter_default(Attempt &a)
{
    World world;
    world.leave_network();
    EXPECT_EQ(mkdir("/run/netns", 0755), 0);
    name_own_namespace("1");
    return shown(a.faulted([] { return lh_netns_set_default(); }));
}

std::string index_of(Attempt &a, const char *name)
{
    const World world;
    write_file("/run/vrfs.map", "blue:3\nred:7\n");
    return shown(a.faulted([&] { return lh_netns_map_get_idx(name); }));
}

std::string own_name()
{
    char name[16] = "untouched";
    const int result = lh_netns_get_current_name(name, sizeof(name));
    return shown(result) + " " + shown(name);
}

const std::string current = "lh_netns_get_current_name: <lh_netns_get_current_name";

// A mount on /sys that may be taken away again: only the machine's root may unmount /sys itself.
std::string set_mounts(Attempt &a)
{
    World world;
    world.leave_network();
    EXPECT_EQ(mount("cover", "/sys", "tmpfs", 0, nullptr), 0);
    return shown(a.faulted([] { return lh_mntns_set("red"); }));
}

const std::string mntns = "lh_mntns_set: <lh_mntns_set> ";

const std::vector<scenario> scenarios = {
    simply(
        "lh_netns_is_default", [] { return shown(lh_netns_is_default("1")); }, "1"),
    simply(
        "lh_netns_eq", [] { return shown(lh_netns_eq("", "1")); }, "1"),
    simply(
        "lh_netns_stringize", [] { return shown(lh_netns_stringize("")); }, "'1'"),
    of_namespaces("lh_netns_fd_get", fd_of_red, "a descriptor", no_handle_of("red", {})),
    of_namespaces(
        "lh_netns_set", [] { return shown(lh_netns_set("red")); }, "0", not_entered("red")),
    {.function = "lh_netns_set_default",
     .body = enter_default,
     .outcome = "0",
     .faults = not_entered("1")},
    // A map that cannot be read on is a map that ends there.
    {.function = "lh_netns_map_get_idx",
     .body = [](Attempt &a) { return index_of(a, "red"); },
     .outcome = "7",
     .faults = {fails("fopen", "-1", {"lh_netns_map_get_idx: failed to open '/var/run/vrfs.map'"}),
                fails("fgets", "-1", {"lh_netns_map_get_idx: no namespace 'red' found'"})
                    .errno_unpromised(),
                ignored("fclose")}},
    {.function = "lh_netns_map_get_idx",
     .way = "of the default",
     .body = [](Attempt &a) { return index_of(a, ""); },
     .outcome = "0"},
    // A directory that cannot be read on is one that ends there, but for its first two entries.
    of_namespaces("lh_netns_get_current_name", own_name, "0 'red'",
                  {fails("stat:1", "-1 'untouched'", {current + "> stat failed: {error}"}),
                   fails("opendir", "-1 'untouched'", {current + "> opendir failed: {error}"}),
                   fails("readdir:1", "-1 'untouched'", {current + "> readdir failed: {error}"}),
                   fails("readdir:2", "-1 'untouched'", {current + "> readdir failed: {error}"}),
                   fails("readdir:3", "0 'untouched'").errno_unpromised(),
                   fails("stat:2", "-1 'untouched'", {current + ":#> stat failed: {error}"}),
                   ignored("closedir")}),
    {.function = "lh_mntns_set",
     .body = set_mounts,
     .outcome = "0",
     .faults = {fails("unshare", "-1", {mntns + "unshare failed: {error}"}),
                fails("mount:1", "-1", {mntns + "\"mount --make-rslave /\" failed: {error}"}),
                fails("umount2", "-1", {mntns + "umount of /sys failed: {error}"}),
                fails("mount:2", "-1", {mntns + "mount of /sys failed: {error}"})}},
};

const bool swept = register_fault_sweep("FaultsOfNamespaces", scenarios);

} // namespace
