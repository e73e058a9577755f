// Every fault of closing descriptors, of the process's identity and of pid files.
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "lh_close.h"
#include "lh_process.h"
#include "support/fault_sweep.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

namespace {

const std::string own_name = program_invocation_short_name;
const std::string not_opened =
    "[7] <lh_process_name_get_by_pid:#> cannot open proc file for pid={pid}";
const std::string not_read = "<lh_process_name_get_by_pid:#> read '/proc/{pid}/cmdline' failed";
const std::string not_named = "<lh_process_self_name_get:#> lh_process_name_get_by_pid failed";

std::string own_thread()
{
    prctl(PR_SET_NAME, "worker");
    return shown(lh_process_name_get_by_itid(getpid(), getpid()));
}

// What the library does with a program `pidof` that stands before the real one. Deliberately the
// stream stays open at the end of every call that started the program.
std::string pid_by_name(Attempt &a, const std::string &script)
{
    write_file(a.path("pidof"), "#!/bin/sh\n" + script + "\n");
    chmod(a.path("pidof").c_str(), 0700);
    const std::string before = getenv("PATH");
    setenv("PATH", (a.directory() + ":" + before).c_str(), 1);
    const int pid = a.faulted([] { return lh_process_pid_get_by_name("any"); });
    setenv("PATH", before.c_str(), 1);
    std::string left;
    for (void *stream : a.faults().held_by("popen")) {
        a.faults().given_back(stream);
        pclose(static_cast<FILE *>(stream));
        left += " and a stream";
    }
    return shown(pid) + left;
}

const std::vector<scenario> scenarios = {
    {.function = "lh_close",
     .body =
         [](Attempt &a) {
             int fd = open("/dev/null", O_RDONLY);
             const int number = fd;
             const int result = a.faulted([&] { return lh_close(&fd); });
             return shown(result) + (fd == -1 ? " marked" : fd == number ? " left" : " lost");
         },
     .outcome = "0 marked",
     .faults = {fails("close", "-1 left", {"lh_close: close(*fd) failed"})}},

    {.function = "lh_process_self_pid_get",
     .body =
         [](Attempt &a) {
             const int pid = a.faulted([] { return lh_process_self_pid_get(); });
             return shown(pid == getpid());
         },
     .outcome = "1",
     .cold = true},

    {.function = "lh_process_self_name_get",
     .way = "at the first call",
     .body = [](Attempt &a) { return shown(a.faulted([] { return lh_process_self_name_get(); })); },
     .outcome = shown(own_name),
     .faults = {fails("open", "''", {not_opened, not_named}).errno_unpromised(),
                fails("read", "''", {not_read, not_named}).errno_unpromised(), ignored("close")},
     .cold = true},
    {.function = "lh_process_self_name_get",
     .way = "at a later call",
     .body = [](Attempt &a) { return shown(a.faulted([] { return lh_process_self_name_get(); })); },
     .outcome = shown(own_name)},

    {.function = "lh_process_name_get_by_pid",
     .body =
         [](Attempt &a) {
             return shown(a.faulted([] { return lh_process_name_get_by_pid(getpid()); }));
         },
     .outcome = shown(own_name),
     .faults = {fails("open", "''", {not_opened}), fails("read", "''", {not_read}),
                ignored("close")}},

    {.function = "lh_process_name_get_by_itid",
     .body = [](Attempt &a) { return a.faulted(own_thread); },
     .outcome = "'worker'",
     .faults = {fails("open", "''"),
                fails(
                    "read", "''",
                    {"<lh_process_name_get_by_itid:#> read '/proc/{pid}/task/{pid}/comm' failed"}),
                ignored("close")}},

    {.function = "lh_process_create_pid_file",
     .body =
         [](Attempt &a) {
             const std::string path = a.path("pid");
             const int result = a.faulted([&] { return lh_process_create_pid_file(path.c_str()); });
             const bool written = read_file(path) == std::to_string(getpid());
             return shown(result) + (written ? " written" : " empty");
         },
     .outcome = "0 written",
     .faults = {ignored("unlink"),
                fails("fopen", "-1 empty", {"lh_process_create_pid_file: PTR_IS_NULL: f"}),
                fails("fprintf", "-1 empty", {"lh_process_create_pid_file: fprintf failed"}),
                // Whether the pid reached the disk is not looked at.
                ignored("fclose")}},

    {.function = "lh_read_pid_file",
     .body =
         [](Attempt &a) {
             write_file(a.path("pid"), "1234");
             return shown(a.faulted([&] { return lh_read_pid_file(a.path("pid").c_str()); }));
         },
     .outcome = "1234",
     .faults = {fails("fopen", "-1", {"lh_read_pid_file: failed to open pidfile '{dir}/pid'"}),
                fails("__isoc99_fscanf", "-1",
                      {"lh_read_pid_file: failed to read pid from pidfile"}),
                ignored("fclose")}},

    {.function = "lh_process_pid_get_by_name",
     .body = [](Attempt &a) { return pid_by_name(a, "echo 5"); },
     .outcome = "5 and a stream",
     .faults = {fails("snprintf", "-1", {"lh_process_pid_get_by_name: snprintf failed"})
                    .with({EOVERFLOW}),
                fails("popen", "-1", {"lh_process_pid_get_by_name: cannot get pid"}),
                fails("fgets", "-1 and a stream",
                      {"lh_process_pid_get_by_name: cannot parse pid"})}},

    {.function = "lh_process_reload_board",
     .body =
         [](Attempt &a) {
             signal(SIGRTMIN, SIG_IGN);
             set_alive_mgr_pid(getpid());
             return shown(a.faulted([] { return lh_process_reload_board(); }));
         },
     .outcome = "0",
     .faults = {fails("get_alive_mgr_pid", "-1",
                      {"lh_process_reload_board: get_alive_mgr_pid failed"}),
                fails("kill", "-1", {"lh_process_reload_board: kill failed"})}},
};

const bool swept = register_fault_sweep("FaultsOfCore", scenarios);

} // namespace
