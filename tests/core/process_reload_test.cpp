#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include "lh_process.h"
#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

class ReloadBoard : public LogTest {};

TEST_F(ReloadBoard, SendsTheManagerTheFirstRealTimeSignal)
{
    sigset_t reload;
    sigemptyset(&reload);
    sigaddset(&reload, SIGRTMIN);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &reload, nullptr), 0);
    const pid_t manager = new_process();
    if (manager == 0) {
        const timespec limit = {.tv_sec = 30, .tv_nsec = 0};
        siginfo_t info;
        const int signal = sigtimedwait(&reload, &info, &limit);
        _exit(signal == SIGRTMIN && info.si_pid == getppid() ? 0 : 1);
    }
    ASSERT_EQ(pthread_sigmask(SIG_UNBLOCK, &reload, nullptr), 0);
    set_alive_mgr_pid(manager);
    EXPECT_EQ(lh_process_reload_board(), 0);
    int status = -1;
    ASSERT_EQ(waitpid(manager, &status, 0), manager);
    EXPECT_EQ(status, 0);
}

TEST_F(ReloadBoard, AnUnknownManagerIsReportedAndNobodyIsSignalled)
{
    Faults faults;
    EXPECT_EQ(lh_process_reload_board(), -1);
    EXPECT_EQ(faults.calls("kill"), 0u);
    EXPECT_LINES("lh_process_reload_board: get_alive_mgr_pid failed");
}

TEST_F(ReloadBoard, AManagerThatIsGoneIsReported)
{
    const pid_t gone = new_process();
    if (gone == 0)
        _exit(0);
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    set_alive_mgr_pid(gone);
    EXPECT_EQ(lh_process_reload_board(), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_LINES("lh_process_reload_board: kill failed");
}

TEST_F(ReloadBoard, AFailingSignalIsReported)
{
    Faults faults;
    faults.fail("kill", EPERM);
    set_alive_mgr_pid(getpid());
    EXPECT_EQ(lh_process_reload_board(), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_LINES("lh_process_reload_board: kill failed");
}
