// The shell runner with real children.
#include "lh_shell_cmd.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <malloc.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::test;

namespace {

constexpr int untouched = -7;
const pid_t test_process = getpid();

// A line of the runner, as the log catcher shortens it.
std::string line(const std::string &message)
{
    return "lh_shell_cmd_run: <lh_shell_cmd_run> " + message;
}

constexpr timespec milliseconds(long ms)
{
    return {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1000000};
}

bool has_children()
{
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// A child that has not ended: neither reaped nor a zombie.
bool is_running(pid_t child)
{
    siginfo_t info = {};
    return waitid(P_PID, child, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// Waits for a child that the runner has left behind and answers its status.
int reap(pid_t child)
{
    int status = 0;
    EXPECT_GT(child, 0);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

void end_and_reap(pid_t child)
{
    ASSERT_GT(child, 0);
    EXPECT_TRUE(is_running(child));
    kill(child, SIGKILL);
    EXPECT_EQ(WTERMSIG(reap(child)), SIGKILL);
}

// A callback with a body of the test's own.
using body = std::function<int()>;

int call(void *arg)
{
    return (*static_cast<body *>(arg))();
}

std::vector<itimerspec> armed;

int recorded_settime(int fd, int flags, const itimerspec *spec, itimerspec *old)
{
    armed.push_back(*spec);
    return timerfd_settime(fd, flags, spec, old);
}

} // namespace

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

TEST_F(ShellRun, TheExitCodeIsStored)
{
    for (const int code : {0, 1, 3, 127, 128, 255}) {
        opts.exit_code = untouched;
        pid = untouched;
        EXPECT_EQ(lh_shell_cmd_run(&opts, "exit %d", code), 0);
        EXPECT_EQ(opts.exit_code, code);
        EXPECT_EQ(pid, 0);
    }
}

TEST_F(ShellRun, AZeroedRecordIsEnough)
{
    opts = {};
    EXPECT_EQ(run("exit 5"), 0);
    EXPECT_EQ(opts.exit_code, 5);
}

TEST_F(ShellRun, ACommandThatDoesNotExistIsTheShellsFailure)
{
    opts.flags = LH_SHELL_CMD_RUN_CLOSE_STDERR;
    EXPECT_EQ(run("/nonexistent/program"), 0);
    EXPECT_EQ(opts.exit_code, 127);
}

TEST_F(ShellRun, TheLineGoesToTheShellAsItWasFormatted)
{
    const TempDir dir;
    const std::string seen = dir / "seen";
    const std::string command = "cat /proc/$$/cmdline >" + seen + "; : '%d $HOME'; exit 0";
    EXPECT_EQ(run(command), 0);
    EXPECT_EQ(opts.exit_code, 0);
    EXPECT_EQ(read_file(seen), std::string("sh\0-c\0", 6) + command + '\0');
}

TEST_F(ShellRun, ALineMayBeLong)
{
    EXPECT_EQ(run(": " + std::string(100000, 'x') + "; exit 9"), 0);
    EXPECT_EQ(opts.exit_code, 9);
}

TEST_F(ShellRun, OutputsAreClosedOnDemand)
{
    const char *command = "a=0; [ -L /proc/$$/fd/1 ] && a=1; [ -L /proc/$$/fd/2 ] && a=$((a+2)); "
                          "exit $a";
    EXPECT_EQ(run(command), 0);
    ASSERT_EQ(opts.exit_code, 3);
    opts.flags = LH_SHELL_CMD_RUN_CLOSE_STDOUT;
    EXPECT_EQ(run(command), 0);
    EXPECT_EQ(opts.exit_code, 2);
    opts.flags = LH_SHELL_CMD_RUN_CLOSE_STDERR;
    EXPECT_EQ(run(command), 0);
    EXPECT_EQ(opts.exit_code, 1);
    opts.flags = LH_SHELL_CMD_RUN_CLOSE_STDOUT | LH_SHELL_CMD_RUN_CLOSE_STDERR;
    EXPECT_EQ(run(command), 0);
    EXPECT_EQ(opts.exit_code, 0);
}

TEST_F(ShellRun, TheFlagsHaveFixedBits)
{
    EXPECT_EQ(LH_SHELL_CMD_RUN_SUDO, 1);
    EXPECT_EQ(LH_SHELL_CMD_RUN_CLOSE_STDOUT, 2);
    EXPECT_EQ(LH_SHELL_CMD_RUN_CLOSE_STDERR, 4);
}

TEST_F(ShellRun, OtherFlagBitsMeanNothing)
{
    opts.flags = ~uint64_t{7};
    EXPECT_EQ(run("[ -L /proc/$$/fd/1 ] && [ -L /proc/$$/fd/2 ] && exit 6"), 0);
    EXPECT_EQ(opts.exit_code, 6);
}

TEST_F(ShellRun, TheChildInheritsDescriptorsButNotItsTimers)
{
    const TempDir dir;
    const std::string seen = dir / "seen";
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(run("[ -L /proc/$$/fd/" + std::to_string(ends[0]) +
                  " ] || exit 1; ls -l /proc/$$/fd >" + seen),
              0);
    EXPECT_EQ(opts.exit_code, 0);
    EXPECT_EQ(read_file(seen).find("timerfd"), std::string::npos);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ShellRun, WithSudoTheLineIsPrefixed)
{
    OWN_PROCESS();
    const World world;
    // A place for programs with the shell and a sudo that records its words.
    ASSERT_EQ(mkdir("/run/bin", 0755), 0);
    std::filesystem::copy_file("/bin/sh", "/run/bin/sh");
    write_file("/run/bin/sudo", "#!/bin/sh\nfor w in \"$0\" \"$@\"; do echo \"<$w>\"; done "
                                ">>/run/words\nexec \"$@\"\n");
    chmod("/run/bin/sudo", 0755);
    ASSERT_EQ(mount("/run/bin", "/usr/bin", nullptr, MS_BIND, nullptr), 0);

    opts.flags = LH_SHELL_CMD_RUN_SUDO;
    EXPECT_EQ(lh_shell_cmd_run(&opts, "sh -c 'exit %d' 'a  b' c; exit $(($?+1))", 11), 0);
    EXPECT_EQ(opts.exit_code, 12);
    EXPECT_EQ(read_file("/run/words"), "</usr/bin/sudo>\n<sh>\n<-c>\n<exit 11>\n<a  b>\n<c>\n");
}

TEST_F(ShellRun, ANullFormatIsLogged)
{
    Faults faults;
    const char *fmt = nullptr;
    EXPECT_EQ(lh_shell_cmd_run(&opts, fmt), -1);
    EXPECT_LINES("lh_shell_cmd_run: PTR_IS_NULL: fmt");
    EXPECT_EQ(lh_shell_cmd_run(nullptr, fmt), -1);
    EXPECT_LINES("lh_shell_cmd_run: PTR_IS_NULL: fmt");
    EXPECT_EQ(faults.calls("fork"), 0u);
    EXPECT_EQ(pid, untouched);
}

TEST_F(ShellRun, ALineThatCannotBeFormattedIsLogged)
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

TEST_F(ShellRun, AnUnbuiltLineLeavesThePidAlone)
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

TEST_F(ShellRun, AFailingForkIsLoggedWithTheLine)
{
    Faults faults;
    faults.fail("fork", EAGAIN);
    expect_failure("exit 3");
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_LINES(line("fork failed for 'exit 3'"));

    opts.flags = LH_SHELL_CMD_RUN_SUDO;
    faults.fail("fork", ENOMEM);
    expect_failure("exit 3");
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES(line("fork failed for '/usr/bin/sudo exit 3'"));

    opts.hide_cmd = 1;
    faults.fail("fork", EAGAIN);
    expect_failure("exit 3");
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

TEST_F(ShellRun, BetweenForkAndShellThereIsNothingButClosing)
{
    Faults faults;
    const std::vector<const char *> calls = {"malloc",         "calloc",   "realloc", "vasprintf",
                                             "asprintf",       "snprintf", "read",    "poll",
                                             "timerfd_create", "waitpid",  "kill"};
    std::vector<unsigned> at_fork;
    unsigned closed_at_fork = 0;
    faults.before("fork", [&](unsigned) {
        at_fork.clear();
        for (const char *name : calls)
            at_fork.push_back(faults.calls(name));
        closed_at_fork = faults.calls("close");
    });
    faults.before("execl", [&](unsigned) {
        if (faults.calls("close") - closed_at_fork != 2)
            _exit(97);
        for (size_t i = 0; i < calls.size(); i++) {
            if (faults.calls(calls[i]) != at_fork[i])
                _exit(static_cast<int>(i) + 1);
        }
    });
    opts.flags = LH_SHELL_CMD_RUN_CLOSE_STDOUT | LH_SHELL_CMD_RUN_CLOSE_STDERR;
    EXPECT_EQ(run("exit 50"), 0);
    EXPECT_EQ(opts.exit_code, 50);
}

TEST_F(ShellRun, TheLineIsReleasedOnEveryPath)
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

TEST_F(ShellRun, PeriodsAreTakenInOrderAndHaveDefaults)
{
    Faults faults;
    faults.replace("timerfd_settime", reinterpret_cast<void *>(recorded_settime));
    body nothing = [] { return 0; };
    const auto expect_armed = [](std::vector<timespec> periods) {
        ASSERT_EQ(armed.size(), periods.size());
        for (size_t i = 0; i < periods.size(); i++) {
            EXPECT_EQ(armed[i].it_value.tv_sec, periods[i].tv_sec) << i;
            EXPECT_EQ(armed[i].it_value.tv_nsec, periods[i].tv_nsec) << i;
            EXPECT_EQ(armed[i].it_interval.tv_sec, periods[i].tv_sec) << i;
            EXPECT_EQ(armed[i].it_interval.tv_nsec, periods[i].tv_nsec) << i;
        }
        armed.clear();
    };

    EXPECT_EQ(run("exit 0"), 0);
    expect_armed({{0, 10000000}});

    on_progress({}, &nothing);
    EXPECT_EQ(run("exit 0"), 0);
    expect_armed({{0, 500000000}, {0, 10000000}});

    on_max({100, 1}, &nothing);
    on_progress({200, 2}, &nothing);
    on_alive({300, 3}, &nothing);
    on_check({0, 4000000}, &nothing);
    EXPECT_EQ(run("exit 0"), 0);
    expect_armed({{100, 1}, {200, 2}, {300, 3}, {0, 4000000}});

    // Nanoseconds alone are a period, and so are seconds alone.
    on_max({0, 900000000}, nullptr);
    opts.timer_max_cb = nullptr;
    on_progress({0, 800000000}, &nothing);
    on_alive({7, 0}, &nothing);
    EXPECT_EQ(run("exit 0"), 0);
    expect_armed({{0, 900000000}, {0, 800000000}, {7, 0}, {0, 4000000}});

    // Without a callback there is no progress and no liveness timer, whatever their periods say.
    opts.timer_progress_cb = nullptr;
    opts.timer_alive_sig_cb = nullptr;
    opts.timer_check_complete_cb = nullptr;
    opts.timer_max_period = {};
    EXPECT_EQ(run("exit 0"), 0);
    expect_armed({{0, 4000000}});
}

TEST_F(ShellRun, ATimerThatCannotBeMadeEndsTheRun)
{
    const char *names[] = {"timer_max", "timer_progress", "timer_alive_sig",
                           "timer_check_complete"};
    body nothing = [] { return 0; };
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

TEST_F(ShellRun, ARefusedPeriodEndsTheRunAndItsDescriptorStaysOpen)
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

TEST_F(ShellRun, TheLivenessDefaultIsRefused)
{
    Faults faults;
    faults.replace("timerfd_settime", reinterpret_cast<void *>(recorded_settime));
    pid_t child = 0;
    faults.before("timerfd_create", [&](unsigned) { child = pid; });
    body nothing = [] { return 0; };
    on_alive({}, &nothing);
    expect_failure("exec sleep 60");
    EXPECT_LINES("lh_timer_fd_create: IS_NE check failed: 0 (0 != -1) !!!",
                 line("lh_timer_fd_create timer_alive_sig failed"));
    ASSERT_EQ(armed.size(), 1u);
    EXPECT_EQ(armed[0].it_value.tv_sec, 0);
    EXPECT_EQ(armed[0].it_value.tv_nsec, 1000000000);
    end_and_reap(child);
    descriptors = open_descriptors(); // the refused timer's stays open
}

TEST_F(ShellRun, AFailingPollEndsTheRun)
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

TEST_F(ShellRun, AnInterruptedPollGoesOn)
{
    Faults faults;
    faults.fail("poll", EINTR, 2);
    EXPECT_EQ(run("sleep 0.05; exit 8"), 0);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(opts.exit_code, 8);
}

TEST_F(ShellRun, ASignalDoesNotEndTheRun)
{
    static volatile sig_atomic_t signals;
    signals = 0;
    struct sigaction action = {};
    struct sigaction before;
    action.sa_handler = [](int) { signals = signals + 1; };
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    // A long check period: the signal meets the poll.
    opts.timer_check_complete_period = milliseconds(100);
    EXPECT_EQ(run("kill -USR1 " + std::to_string(test_process) + "; exit 4"), 0);
    EXPECT_EQ(opts.exit_code, 4);
    EXPECT_EQ(signals, 1);
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(ShellRun, AfterTheMaximumTimeTheChildIsSentTheSignal)
{
    for (const int signal : {0, SIGTERM, SIGUSR1, SIGKILL}) {
        Faults faults;
        pid_t child = 0;
        faults.before("poll", [&](unsigned) { child = pid; });
        opts.timer_max_period = milliseconds(150);
        opts.kill_sig = signal;
        timespec start, end;
        clock_gettime(CLOCK_MONOTONIC, &start);
        expect_failure("exec sleep 60");
        clock_gettime(CLOCK_MONOTONIC, &end);
        EXPECT_LINES(line("timer expired"));
        EXPECT_GE((end.tv_sec - start.tv_sec) * 1000000000 + end.tv_nsec - start.tv_nsec,
                  150000000);
        const int status = reap(child); // fails if the runner had waited for it
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(WTERMSIG(status), signal != 0 ? signal : SIGTERM);
    }
}

TEST_F(ShellRun, ASignalThatCannotBeSentChangesNothing)
{
    Faults faults;
    pid_t child = 0;
    faults.before("poll", [&](unsigned) { child = pid; });
    opts.timer_max_period = milliseconds(100);
    opts.kill_sig = 9999;
    expect_failure("exec sleep 60");
    EXPECT_LINES(line("timer expired"));
    end_and_reap(child);
}

TEST_F(ShellRun, TheMaximumTimesCallbackGivesTheResult)
{
    for (const int answer : {0, 1, -1, 77}) {
        pid_t child = 0;
        int count = 0;
        body over = [&] {
            count++;
            child = pid;
            return answer;
        };
        on_max(milliseconds(30), &over);
        opts.kill_sig = SIGKILL;
        EXPECT_EQ(run("exec sleep 60"), answer);
        EXPECT_EQ(count, 1);
        EXPECT_EQ(opts.exit_code, untouched);
        EXPECT_EQ(pid, 0);
        end_and_reap(child);
    }
}

TEST_F(ShellRun, TheMaximumTimesCallbackMayEndTheChild)
{
    pid_t child = 0;
    body over = [&] {
        child = pid;
        return kill(pid, SIGINT);
    };
    on_max(milliseconds(30), &over);
    EXPECT_EQ(run("exec sleep 60"), 0);
    EXPECT_EQ(WTERMSIG(reap(child)), SIGINT);
}

TEST_F(ShellRun, ACommandWithinItsTimeIsNotTouched)
{
    int count = 0;
    body over = [&] { return ++count; };
    on_max(milliseconds(60000), &over);
    EXPECT_EQ(run("exit 2"), 0);
    EXPECT_EQ(opts.exit_code, 2);
    EXPECT_EQ(count, 0);
}

TEST_F(ShellRun, ProgressTicksUntilTheChildHasEnded)
{
    const TempDir dir;
    const std::string stop = dir / "stop";
    int ticks = 0;
    body tick = [&] {
        if (++ticks == 3)
            write_file(stop, "");
        return 0;
    };
    const std::string command = "while [ ! -e " + stop + " ]; do sleep 0.005; done; exit 6";
    on_progress(milliseconds(5), &tick);
    EXPECT_EQ(run(command), 0);
    EXPECT_EQ(opts.exit_code, 6);
    EXPECT_GE(ticks, 3);

    std::filesystem::remove(stop);
    ticks = 0;
    opts.timer_progress_cb = nullptr;
    opts.exit_code = untouched;
    on_alive(milliseconds(5), &tick);
    EXPECT_EQ(run(command), 0);
    EXPECT_EQ(opts.exit_code, 6);
    EXPECT_GE(ticks, 3);
}

TEST_F(ShellRun, ATickThatSaysNoEndsTheRun)
{
    for (const int answer : {1, -1}) {
        for (int which = 0; which < 3; which++) {
            opts = {};
            opts.pid = &pid;
            opts.exit_code = untouched;
            pid_t child = 0;
            int ticks = 0;
            body tick = [&] {
                ticks++;
                child = pid;
                return answer;
            };
            if (which == 0)
                on_progress(milliseconds(5), &tick);
            else if (which == 1)
                on_alive(milliseconds(5), &tick);
            else
                on_check(milliseconds(5), &tick);
            expect_failure("exec sleep 60");
            EXPECT_EQ(ticks, 1);
            end_and_reap(child);
        }
    }
}

TEST_F(ShellRun, ACheckThatSaysNoCountsAlsoWhenTheChildHasJustBeenReaped)
{
    bool reaped = false;
    int completed = 0;
    body check = [&] {
        reaped = kill(pid, 0) == -1 && errno == ESRCH;
        return reaped ? 1 : 0;
    };
    body complete = [&] { return ++completed * 0; };
    on_check({}, &check);
    on_complete(&complete);
    expect_failure("exit 3");
    EXPECT_TRUE(reaped);
    EXPECT_EQ(completed, 0);
}

TEST_F(ShellRun, CompletionIsCalledOnceAfterTheChildHasBeenReaped)
{
    int count = 0;
    body complete = [&] {
        count++;
        EXPECT_EQ(kill(pid, 0), -1);
        EXPECT_EQ(errno, ESRCH);
        EXPECT_EQ(opts.exit_code, untouched);
        return 0;
    };
    on_complete(&complete);
    EXPECT_EQ(run("exit 3"), 0);
    EXPECT_EQ(opts.exit_code, 3);
    EXPECT_EQ(count, 1);
}

TEST_F(ShellRun, ACompletionThatSaysNoFailsTheRun)
{
    for (const int answer : {1, -1}) {
        body complete = [&] { return answer; };
        on_complete(&complete);
        expect_failure("exit 3");
    }
}

TEST_F(ShellRun, AChildEndedByASignalFailsTheRunWithoutALine)
{
    int count = 0;
    body complete = [&] {
        count++;
        return 0;
    };
    on_complete(&complete);
    expect_failure("kill -9 $$");
    EXPECT_EQ(count, 1);
    EXPECT_NO_LINES();
}

TEST_F(ShellRun, ThePidStandsInEveryCallback)
{
    const TempDir dir;
    const std::string seen = dir / "seen";
    std::vector<pid_t> pids;
    unsigned called = 0;
    const auto recorder = [&](unsigned bit) {
        return body([&pids, &called, this, bit] {
            called |= bit;
            pids.push_back(pid);
            return 0;
        });
    };
    body progress = recorder(1), alive = recorder(2), check = recorder(4), complete = recorder(8);
    on_progress(milliseconds(5), &progress);
    on_alive(milliseconds(5), &alive);
    on_check(milliseconds(5), &check);
    on_complete(&complete);
    EXPECT_EQ(run("echo $$ >" + seen + "; sleep 0.2"), 0);
    EXPECT_EQ(pid, 0);
    EXPECT_EQ(called, 15u);
    const pid_t child = std::stoi(read_file(seen));
    for (const pid_t p : pids)
        EXPECT_EQ(p, child);

    body over = recorder(16);
    pids.clear();
    on_max(milliseconds(20), &over);
    opts.timer_check_complete_cb = nullptr;
    EXPECT_EQ(run("exec sleep 60"), 0);
    ASSERT_EQ(called, 31u);
    EXPECT_EQ(pid, 0);
    end_and_reap(pids.back());
}

TEST_F(ShellRun, NobodyNeedsToAskForThePid)
{
    opts.pid = nullptr;
    EXPECT_EQ(run("exit 3"), 0);
    EXPECT_EQ(opts.exit_code, 3);
    EXPECT_EQ(pid, untouched);
}

TEST_F(ShellRun, CallbacksMayChangeTheRecord)
{
    int32_t elsewhere = untouched;
    pid_t child = 0;
    int completed = 0;
    body check = [] { return 0; };
    body complete = [&] {
        completed++;
        return 0;
    };
    body progress = [&] {
        child = pid;
        opts.kill_sig = SIGUSR2;
        opts.timer_max_cb = nullptr;
        opts.pid = &elsewhere;
        opts.timer_progress_cb = nullptr;
        return 0;
    };
    body over = [] { return 1; };
    on_progress(milliseconds(5), &progress);
    on_check(milliseconds(5), &check);
    on_max(milliseconds(1000), &over);
    EXPECT_EQ(run("exec sleep 60"), -1);
    EXPECT_LINES(line("timer expired"));
    EXPECT_EQ(WTERMSIG(reap(child)), SIGUSR2);
    EXPECT_EQ(elsewhere, 0);
    EXPECT_EQ(pid, child); // the place that the record no longer names

    opts = {};
    body check_once = [&] {
        on_complete(&complete);
        return 0;
    };
    on_check({}, &check_once);
    EXPECT_EQ(run("exit 1"), 0);
    EXPECT_EQ(completed, 1);
}

TEST_F(ShellRun, WhereChildrenAreReapedByOthersTheirEndIsUnknown)
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

TEST_F(ShellRun, AFailingWaitLeavesTheChildUnreaped)
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

TEST_F(ShellRun, ARunInsideACallbackIsARunOfItsOwn)
{
    lh_shell_cmd_run_opts inner = {};
    int runs = 0;
    body progress = [&] {
        runs++;
        opts.timer_progress_cb = nullptr;
        return lh_shell_cmd_run(&inner, "exit 21");
    };
    on_progress(milliseconds(5), &progress);
    EXPECT_EQ(run("sleep 0.2; exit 22"), 0);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(inner.exit_code, 21);
    EXPECT_EQ(opts.exit_code, 22);
}

TEST_F(ShellRun, ThreadsRunCommandsSideBySide)
{
    constexpr int thread_count = 4;
    std::vector<std::thread> threads;
    for (int i = 0; i < thread_count; i++) {
        threads.emplace_back([i] {
            for (int j = 0; j < 5; j++) {
                lh_shell_cmd_run_opts own = {};
                EXPECT_EQ(lh_shell_cmd_run(&own, "exit %d", i * 10 + j), 0);
                EXPECT_EQ(own.exit_code, i * 10 + j);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

class ShellRunUnsupervised : public ShellRun {};

TEST_F(ShellRunUnsupervised, TheResultIsTheExitCode)
{
    Faults faults;
    for (const int code : {0, 1, 7, 255})
        EXPECT_EQ(lh_shell_cmd_run(nullptr, "sleep 0.01; exit %d", code), code);
    EXPECT_EQ(faults.calls("timerfd_create"), 0u);
    EXPECT_EQ(faults.calls("poll"), 0u);
    EXPECT_EQ(faults.calls("waitpid"), 4u);
}

TEST_F(ShellRunUnsupervised, ASignalsVictimIsLogged)
{
    EXPECT_EQ(lh_shell_cmd_run(nullptr, "kill -%d $$", 9), -1);
    EXPECT_LINES(line("'kill -9 $$' failed"));
}

TEST_F(ShellRunUnsupervised, AnInterruptedWaitGoesOn)
{
    Faults faults;
    faults.fail("waitpid", EINTR);
    EXPECT_EQ(lh_shell_cmd_run(nullptr, "exit 12"), 12);
    EXPECT_EQ(faults.calls("waitpid"), 2u);
}

TEST_F(ShellRunUnsupervised, AFailingWaitIsLogged)
{
    Faults faults;
    faults.fail("waitpid", ECHILD);
    EXPECT_EQ(lh_shell_cmd_run(nullptr, "exit 12"), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_LINES(line("waitpid failed"));
    int status = 0;
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_EQ(WEXITSTATUS(status), 12);
}
