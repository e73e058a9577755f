// The shell runner: what it runs, and how the command ended.
#include <cerrno>
#include <filesystem>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "exec/shell_run_fixture.hpp"
#include "support/faults.hpp"
#include "support/world.hpp"

using namespace vyt::test;

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

TEST_F(ShellRun, TheRealSudoRunsTheLine)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may use sudo without a password";
    if (access("/usr/bin/sudo", X_OK) != 0)
        GTEST_SKIP() << "sudo is not installed";
    const TempDir dir;
    const std::string seen = dir / "seen";
    opts.flags = LH_SHELL_CMD_RUN_SUDO;
    EXPECT_EQ(run("sh -c 'echo \"$SUDO_COMMAND\" >" + seen + "; exit 7' 2>/dev/null"), 0);
    EXPECT_EQ(opts.exit_code, 7);
    EXPECT_NE(read_file(seen).find("sh -c echo"), std::string::npos) << read_file(seen);
}

TEST_F(ShellRun, ANullFormatIsLogged)
{
    Faults faults;
    const char *fmt = nullptr;
    EXPECT_EQ(lh_shell_cmd_run(&opts, fmt, 0), -1);
    EXPECT_LINES("lh_shell_cmd_run: PTR_IS_NULL: fmt");
    EXPECT_EQ(lh_shell_cmd_run(nullptr, fmt, 0), -1);
    EXPECT_LINES("lh_shell_cmd_run: PTR_IS_NULL: fmt");
    EXPECT_EQ(faults.calls("fork"), 0u);
    EXPECT_EQ(pid, untouched);
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

TEST_F(ShellRun, NobodyNeedsToAskForThePid)
{
    opts.pid = nullptr;
    EXPECT_EQ(run("exit 3"), 0);
    EXPECT_EQ(opts.exit_code, 3);
    EXPECT_EQ(pid, untouched);
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
