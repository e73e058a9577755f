// The shell runner: periods, callbacks, the maximum run time and the published pid.
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <vector>

#include "exec/shell_run_fixture.hpp"
#include "support/faults.hpp"

using namespace vyt::test;

namespace {

std::vector<itimerspec> armed;

int recorded_settime(int fd, int flags, const itimerspec *spec, itimerspec *old)
{
    armed.push_back(*spec);
    return timerfd_settime(fd, flags, spec, old);
}

} // namespace

class ShellRunSupervision : public ShellRun {};

TEST_F(ShellRunSupervision, PeriodsAreTakenInOrderAndHaveDefaults)
{
    Faults faults;
    armed.clear();
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

TEST_F(ShellRunSupervision, TheLivenessDefaultIsRefused)
{
    Faults faults;
    armed.clear();
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

TEST_F(ShellRunSupervision, TheFirstTimerMayBeDescriptorZero)
{
    OWN_PROCESS();
    close(STDIN_FILENO);
    descriptors = open_descriptors();
    std::string seen;
    body look = [&] {
        seen = std::filesystem::read_symlink("/proc/self/fd/0");
        return 0;
    };
    on_check({}, &look);
    for (const long seconds :
         {0, 60}) { // first is the timer that looks for the end, then the limit
        seen.clear();
        opts.timer_max_period = {seconds, 0};
        EXPECT_EQ(run("exit 3"), 0);
        EXPECT_EQ(opts.exit_code, 3);
        EXPECT_EQ(seen, "anon_inode:[timerfd]");
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    }

    Faults faults;
    pid_t child = 0;
    faults.before("poll", [&](unsigned) { wait_for_sleep(child = pid); });
    opts.timer_max_period = milliseconds(100);
    opts.exit_code = untouched;
    expect_failure("exec sleep 60");
    EXPECT_LINES(line("timer expired"));
    EXPECT_EQ(WTERMSIG(reap(child)), SIGTERM);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
}

TEST_F(ShellRunSupervision, AnInterruptedPollGoesOn)
{
    Faults faults;
    faults.fail("poll", EINTR, 2);
    EXPECT_EQ(run("sleep 0.05; exit 8"), 0);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(opts.exit_code, 8);
}

TEST_F(ShellRunSupervision, ASignalDoesNotEndTheRun)
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

TEST_F(ShellRunSupervision, AfterTheMaximumTimeTheChildIsSentTheSignal)
{
    for (const int signal : {0, SIGTERM, SIGUSR1, SIGKILL}) {
        Faults faults;
        pid_t child = 0;
        faults.before("poll", [&](unsigned) { wait_for_sleep(child = pid); });
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

TEST_F(ShellRunSupervision, ASignalThatCannotBeSentChangesNothing)
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

TEST_F(ShellRunSupervision, TheMaximumTimesCallbackGivesTheResult)
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

TEST_F(ShellRunSupervision, TheMaximumTimesCallbackMayEndTheChild)
{
    pid_t child = 0;
    body over = [&] {
        child = pid;
        wait_for_sleep(child);
        return kill(pid, SIGUSR1);
    };
    on_max(milliseconds(30), &over);
    EXPECT_EQ(run("exec sleep 60"), 0);
    EXPECT_EQ(WTERMSIG(reap(child)), SIGUSR1);
}

TEST_F(ShellRunSupervision, ACommandWithinItsTimeIsNotTouched)
{
    int count = 0;
    body over = [&] { return ++count; };
    on_max(milliseconds(60000), &over);
    EXPECT_EQ(run("exit 2"), 0);
    EXPECT_EQ(opts.exit_code, 2);
    EXPECT_EQ(count, 0);
}

TEST_F(ShellRunSupervision, ProgressTicksUntilTheChildHasEnded)
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

TEST_F(ShellRunSupervision, ATickThatSaysNoEndsTheRun)
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

TEST_F(ShellRunSupervision, ACheckThatSaysNoCountsAlsoWhenTheChildHasJustBeenReaped)
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

TEST_F(ShellRunSupervision, CompletionIsCalledOnceAfterTheChildHasBeenReaped)
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

TEST_F(ShellRunSupervision, ACompletionThatSaysNoFailsTheRun)
{
    for (const int answer : {1, -1}) {
        body complete = [&] { return answer; };
        on_complete(&complete);
        expect_failure("exit 3");
    }
}

TEST_F(ShellRunSupervision, ThePidStandsInEveryCallback)
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

TEST_F(ShellRunSupervision, CallbacksMayChangeTheRecord)
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
        wait_for_sleep(child = pid);
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
