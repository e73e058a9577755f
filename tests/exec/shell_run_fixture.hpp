// What the tests of the shell runner share: a record, callbacks with bodies of their own, and the
// children that runs leave behind.
#pragma once

#include <csignal>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "lh_shell_cmd.h"
#include "support/log_capture.hpp"
#include "support/process.hpp"

namespace vyt::test {

inline constexpr int untouched = -7;
inline const pid_t test_process = getpid();

// A line of the runner, as the log catcher shortens it.
inline std::string line(const std::string &message)
{
    return "lh_shell_cmd_run: <lh_shell_cmd_run> " + message;
}

constexpr timespec milliseconds(long ms)
{
    return {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1000000};
}

inline bool has_children()
{
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// A child that has not ended: neither reaped nor a zombie.
inline bool is_running(pid_t child)
{
    siginfo_t info = {};
    return waitid(P_PID, child, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// Waits for a child that the runner has left behind and answers its status.
inline int reap(pid_t child)
{
    int status = 0;
    EXPECT_GT(child, 0);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

inline void end_and_reap(pid_t child)
{
    ASSERT_GT(child, 0);
    EXPECT_TRUE(is_running(child));
    kill(child, SIGKILL);
    EXPECT_EQ(WTERMSIG(reap(child)), SIGKILL);
}

// Waits until the child has become the command's `sleep`: a signal that meets it earlier meets a copy of
// the test, or the shell.
inline void wait_for_sleep(pid_t child)
{
    const std::string name = "/proc/" + std::to_string(child) + "/comm";
    EXPECT_TRUE(wait_until([&] { return read_file(name) == "sleep\n"; }));
}

// A callback with a body of the test's own.
using body = std::function<int()>;

inline int call(void *arg)
{
    return (*static_cast<body *>(arg))();
}

// Every test ends with the descriptors it began with, and without a child.
class ShellRun : public LogTest {
  protected:
    ShellRun()
    {
        opts.pid = &pid;
        opts.exit_code = untouched;
    }

    void TearDown() override
    {
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_FALSE(has_children());
        LogTest::TearDown();
    }

    int run(const std::string &command)
    {
        const int result = lh_shell_cmd_run(&opts, "%s", command.c_str());
        if (getpid() != test_process)
            _exit(98); // the shell could not be run: no second copy of the test goes on
        return result;
    }

    void on_max(timespec period, body *b)
    {
        opts.timer_max_period = period;
        opts.timer_max_cb = call;
        opts.timer_max_cb_arg = b;
    }
    void on_progress(timespec period, body *b)
    {
        opts.timer_progress_period = period;
        opts.timer_progress_cb = call;
        opts.timer_progress_cb_arg = b;
    }
    void on_alive(timespec period, body *b)
    {
        opts.timer_alive_sig_period = period;
        opts.timer_alive_sig_cb = call;
        opts.timer_alive_sig_cb_arg = b;
    }
    void on_check(timespec period, body *b)
    {
        opts.timer_check_complete_period = period;
        opts.timer_check_complete_cb = call;
        opts.timer_check_complete_cb_arg = b;
    }
    void on_complete(body *b)
    {
        opts.on_complete_cb = call;
        opts.on_complete_cb_arg = b;
    }

    // A failing run: result, exit code and published pid; the line is the test's to look at.
    void expect_failure(const std::string &command)
    {
        EXPECT_EQ(run(command), -1);
        EXPECT_EQ(opts.exit_code, untouched);
        EXPECT_EQ(pid, 0);
    }

    lh_shell_cmd_run_opts opts = {};
    int32_t pid = untouched;
    std::vector<int> descriptors = open_descriptors();
};

} // namespace vyt::test
