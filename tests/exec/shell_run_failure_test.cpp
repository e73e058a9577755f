// The shell runner: every call that can fail is made to.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gmock/gmock.h>
#include <malloc.h>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "exec/shell_run_fixture.hpp"
#include "support/faults.hpp"
#include "support/world.hpp"

using namespace vyt::test;

class ShellRunFailure : public ShellRun {};

TEST_F(ShellRunFailure, ALineThatCannotBeFormattedIsLogged)
{
    for (lh_shell_cmd_run_opts *record : {&opts, static_cast<lh_shell_cmd_run_opts *>(nullptr)}) {
        Faults faults;
        faults.fail_allocation(1);
        EXPECT_EQ(lh_shell_cmd_run(record, "exit %d", 3), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_LINES(line("vasprintf failed"));
        faults.fail_allocation(2);
        EXPECT_EQ(lh_shell_cmd_run(record, "exit %d", 3), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_LINES(line("asprintf failed"));
        EXPECT_EQ(faults.calls("fork"), 0u);
        EXPECT_EQ(faults.calls("timerfd_create"), 0u);
        EXPECT_EQ(lh_shell_cmd_run(record, "exit %d", 0), 0);
        EXPECT_EQ(faults.calls("asprintf"), 2u); // no other allocation than these two
        EXPECT_EQ(faults.calls("malloc"), 0u);
    }
}

TEST_F(ShellRunFailure, AnUnbuiltLineLeavesThePidAlone)
{
    Faults faults;
    faults.fail("vasprintf", ENOMEM);
    EXPECT_EQ(run("exit 3"), -1);
    EXPECT_LINES(line("vasprintf failed"));
    faults.fail("asprintf", ENOMEM);
    EXPECT_EQ(run("exit 3"), -1);
    EXPECT_LINES(line("asprintf failed"));
    EXPECT_EQ(pid, untouched);
}

TEST_F(ShellRunFailure, AFailingForkIsLoggedWithTheLine)
{
    const auto expect_no_child = [&](const std::string &command) {
        EXPECT_EQ(run(command), -1);
        EXPECT_EQ(opts.exit_code, untouched);
        EXPECT_EQ(pid, untouched);
    };
    Faults faults;
    faults.fail("fork", EAGAIN);
    expect_no_child("exit 3");
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_LINES(line("fork failed for 'exit 3'"));

    opts.flags = LH_SHELL_CMD_RUN_SUDO;
    faults.fail("fork", ENOMEM);
    expect_no_child("exit 3");
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES(line("fork failed for '/usr/bin/sudo exit 3'"));

    opts.hide_cmd = 1;
    faults.fail("fork", EAGAIN);
    expect_no_child("exit 3");
    EXPECT_LINES(line("fork failed for '********'"));

    opts.hide_cmd = -1;
    opts.pid = nullptr;
    faults.fail("fork", EAGAIN);
    EXPECT_EQ(run("exit 3"), -1);
    EXPECT_LINES(line("fork failed for '********'"));

    EXPECT_EQ(faults.calls("timerfd_create"), 0u);
    EXPECT_EQ(lh_shell_cmd_run(nullptr, "exit 3"), 3);
    faults.fail("fork", EAGAIN);
    EXPECT_EQ(lh_shell_cmd_run(nullptr, "exit 3"), -1);
    EXPECT_LINES(line("fork failed for 'exit 3'"));
}

// The child of a run whose shell cannot be run returns from the call, too.
class ShellRunWithoutShell : public ShellRun {
  protected:
    // Runs it and answers what the child logged; the child's own end is checked here.
    std::string child_log(lh_shell_cmd_run_opts *record)
    {
        const TempDir dir;
        const std::string log = dir / "log";
        const int result = lh_shell_cmd_run(record, "echo %s", "hello");
        if (getpid() != test_process) {
            std::string text = "errno " + std::to_string(errno) + "\n";
            for (const std::string &logged : take_lines())
                text += logged + "\n";
            if (open_descriptors() != descriptors)
                text += "descriptors differ\n";
            write_file(log, text);
            _exit(result == -1 ? 42 : 43);
        }
        EXPECT_EQ(result, record != nullptr ? 0 : 42);
        EXPECT_EQ(record != nullptr ? record->exit_code : 42, 42);
        return read_file(log);
    }

    // The prefix carries the pid that the name and pid cache had before the fork. Whatever stands
    // between these two parts is the source line.
    static void expect_log(const std::string &log, int error, const std::string &shown)
    {
        using ::testing::EndsWith;
        using ::testing::StartsWith;
        EXPECT_THAT(log, StartsWith("errno " + std::to_string(error) + "\n<" +
                                    program_invocation_short_name + "(" +
                                    std::to_string(test_process) + "):lh_shell_cmd_run:"));
        EXPECT_THAT(log, EndsWith("> <lh_shell_cmd_run> execl failed for '" + shown + "' (" +
                                  strerror(error) + ")\n"));
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);
    }
};

TEST_F(ShellRunWithoutShell, TheChildLogsAndReturns)
{
    OWN_PROCESS();
    const World world;
    ASSERT_EQ(mount("tmpfs", "/bin", "tmpfs", 0, nullptr), 0);
    expect_log(child_log(&opts), ENOENT, "echo hello");
}

TEST_F(ShellRunWithoutShell, TheLineShowsSudoOrIsHidden)
{
    Faults faults;
    faults.fail("execl", EACCES);
    opts.flags = LH_SHELL_CMD_RUN_SUDO;
    expect_log(child_log(&opts), EACCES, "/usr/bin/sudo echo hello");
    faults.fail("execl", E2BIG);
    opts.hide_cmd = 1;
    expect_log(child_log(&opts), E2BIG, "********");
}

TEST_F(ShellRunWithoutShell, AlsoUnsupervised)
{
    Faults faults;
    faults.fail("execl", EACCES);
    expect_log(child_log(nullptr), EACCES, "echo hello");
}

TEST_F(ShellRunWithoutShell, ALineThatTheSystemRefusesIsOne)
{
    const std::string command(200000, 'x');
    const int result = lh_shell_cmd_run(&opts, "%s", command.c_str());
    if (getpid() != test_process)
        _exit(result == -1 && errno == E2BIG ? 42 : 43);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(opts.exit_code, 42);
}

TEST_F(ShellRunFailure, TheLineIsReleasedOnEveryPath)
{
    constexpr size_t line_size = 100000;
    const std::string command = ": " + std::string(line_size, 'x');
    Faults faults;
    opts.hide_cmd = 1; // so that the log catcher keeps no copy
    const auto grows = [&, before = mallinfo2()] {
        const auto now = mallinfo2();
        return now.uordblks + now.hblkhd > before.uordblks + before.hblkhd + line_size / 2;
    };

    EXPECT_EQ(run(command), 0);
    EXPECT_FALSE(grows());
    EXPECT_EQ(lh_shell_cmd_run(nullptr, "%s", command.c_str()), 0);
    EXPECT_FALSE(grows());
    opts.exit_code = untouched;
    const char *calls[] = {"vasprintf", "asprintf", "fork", "waitpid"};
    for (const char *name : calls) {
        faults.fail(name, ENOMEM);
        EXPECT_EQ(run(command), -1);
        EXPECT_FALSE(grows()) << name;
    }
    EXPECT_LINES(line("vasprintf failed"), line("asprintf failed"),
                 line("fork failed for '********'"), line("waitpid failed"));
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);

    faults.fail("execl", ENOENT);
    const int result = lh_shell_cmd_run(&opts, "%s", command.c_str());
    if (getpid() != test_process)
        _exit(result != -1 ? 43 : grows() ? 44 : 42);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(opts.exit_code, 42);
}

TEST_F(ShellRunFailure, ATimerThatCannotBeMadeEndsTheRun)
{
    const char *names[] = {"timer_max", "timer_progress", "timer_alive_sig",
                           "timer_check_complete"};
    static body nothing = [] { return 0; };
    on_max(milliseconds(60000), &nothing);
    on_progress(milliseconds(60000), &nothing);
    on_alive(milliseconds(60000), &nothing);
    for (unsigned nth = 1; nth <= 4; nth++) {
        Faults faults;
        pid_t child = 0;
        faults.before("timerfd_create", [&](unsigned) { child = pid; });
        faults.fail("timerfd_create", EMFILE, nth);
        expect_failure("exec sleep 60");
        EXPECT_EQ(errno, EMFILE);
        EXPECT_LINES("lh_timer_fd_create: IS_EQ check failed: -1 (-1 == -1) !!!",
                     line(std::string("lh_timer_fd_create ") + names[nth - 1] + " failed"));
        EXPECT_EQ(faults.calls("timerfd_create"), nth);
        EXPECT_EQ(faults.calls("poll"), 0u);
        EXPECT_EQ(open_descriptors(), descriptors);
        end_and_reap(child);
    }
}

TEST_F(ShellRunFailure, ARefusedPeriodEndsTheRunAndItsDescriptorStaysOpen)
{
    const char *names[] = {"timer_max", "timer_progress", "timer_alive_sig",
                           "timer_check_complete"};
    body nothing = [] { return 0; };
    const timespec refused = {.tv_sec = 0, .tv_nsec = 1000000000};
    for (int bad = 0; bad < 4; bad++) {
        const auto period = [&](int i) { return i == bad ? refused : milliseconds(60000); };
        on_max(period(0), &nothing);
        on_progress(period(1), &nothing);
        on_alive(period(2), &nothing);
        on_check(period(3), &nothing);
        Faults faults;
        pid_t child = 0;
        faults.before("timerfd_create", [&](unsigned) { child = pid; });
        expect_failure("exec sleep 60");
        EXPECT_EQ(errno, EINVAL);
        EXPECT_LINES("lh_timer_fd_create: IS_NE check failed: 0 (0 != -1) !!!",
                     line(std::string("lh_timer_fd_create ") + names[bad] + " failed"));
        end_and_reap(child);
        auto now = open_descriptors();
        ASSERT_EQ(now.size(), descriptors.size() + 1);
        descriptors = now;
    }
}

TEST_F(ShellRunFailure, AFailingPollEndsTheRun)
{
    Faults faults;
    pid_t child = 0;
    faults.before("poll", [&](unsigned) { child = pid; });
    faults.fail("poll", ENOMEM, 2);
    expect_failure("exec sleep 60");
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES(line(std::string("poll failed: ") + strerror(ENOMEM)));
    end_and_reap(child);
}

TEST_F(ShellRunFailure, WhereChildrenAreReapedByOthersTheirEndIsUnknown)
{
    ASSERT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR);
    int completed = 0;
    body complete = [&] {
        completed++;
        return 0;
    };
    body check = [] {
        errno = E2BIG;
        return 0;
    };
    on_check({}, &check);
    on_complete(&complete);
    expect_failure("exit 3");
    EXPECT_EQ(errno, ECHILD);
    EXPECT_LINES(line("waitpid failed"));
    EXPECT_EQ(completed, 0);
    EXPECT_EQ(lh_shell_cmd_run(nullptr, "exit 3"), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_LINES(line("waitpid failed"));
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(ShellRunFailure, AFailingWaitLeavesTheChildUnreaped)
{
    Faults faults;
    pid_t child = 0;
    body check = [&] {
        child = pid;
        return 0;
    };
    on_check({}, &check);
    faults.fail("waitpid", EINVAL, 2);
    expect_failure("exec sleep 60");
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LINES(line("waitpid failed"));
    end_and_reap(child);
}
