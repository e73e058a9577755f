// Children that exit, die by signals, hang, or refuse to end in time, run one after another under
// the shell runner. Each must end as it should, and leave no descriptor and no child behind.
#include "soak/soak.hpp"

#include "lh_shell_cmd.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace vyt::soak {
namespace {

constexpr timespec milliseconds(long count)
{
    return {count / 1000, count % 1000 * 1000000};
}

class Shell : public Scenario {
  public:
    void round(Random &random, Figures &figures) override
    {
        figures.operations++;
        switch (below(random, 5)) {
        case 0:
            exits(int(below(random, 256)));
            break;
        case 1:
            dies_by(std::array{SIGTERM, SIGKILL, SIGSEGV, SIGABRT}[below(random, 4)]);
            break;
        case 2:
            outlives_its_limit("exec sleep 60", 0, SIGTERM);
            break;
        case 3:
            outlives_its_limit("trap '' TERM; while :; do :; done", SIGKILL, SIGKILL);
            break;
        default:
            is_given_up(random);
            break;
        }
        if (waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD)
            broken("a child was left behind");
    }

    std::string allowed_lines() const override { return ".*<lh_shell_cmd_run> timer expired"; }

  private:
    lh_shell_cmd_run_opts options()
    {
        lh_shell_cmd_run_opts opts = {};
        opts.timer_check_complete_period = milliseconds(1);
        opts.pid = &pid_;
        opts.exit_code = -1;
        opts.flags = LH_SHELL_CMD_RUN_CLOSE_STDERR;
        return opts;
    }

    void exits(int code)
    {
        lh_shell_cmd_run_opts opts = options();
        if (lh_shell_cmd_run(&opts, "exit %d", code) != 0 || opts.exit_code != code)
            broken("exit %d gave the code %d", code, opts.exit_code);
    }

    void dies_by(int signal)
    {
        lh_shell_cmd_run_opts opts = options();
        if (lh_shell_cmd_run(&opts, "ulimit -c 0; kill -%d $$; sleep 60", signal) != -1)
            broken("a child that died by signal %d is no failure", signal);
    }

    // The runner sends the signal and leaves the child to us.
    void outlives_its_limit(const char *command, int kill_sig, int ended_by)
    {
        lh_shell_cmd_run_opts opts = options();
        opts.timer_max_period = milliseconds(20);
        opts.kill_sig = kill_sig;
        if (lh_shell_cmd_run(&opts, "%s", command) != -1)
            broken("a child that outlived its limit is no failure");
        expect_end(ended_by);
    }

    void is_given_up(Random &random)
    {
        ticks_left_ = 1 + int(below(random, 5));
        lh_shell_cmd_run_opts opts = options();
        opts.timer_progress_period = milliseconds(2);
        opts.timer_progress_cb = [](void *arg) {
            auto &shell = *static_cast<Shell *>(arg);
            if (--shell.ticks_left_ > 0)
                return 0;
            kill(shell.pid_, SIGKILL);
            return 1;
        };
        opts.timer_progress_cb_arg = this;
        if (lh_shell_cmd_run(&opts, "exec sleep 60") != -1 || ticks_left_ != 0)
            broken("a run that was given up is no failure");
        expect_end(SIGKILL);
    }

    void expect_end(int signal)
    {
        int status = 0;
        if (waitpid(-1, &status, 0) <= 0)
            broken("the child cannot be waited for: errno %d", errno);
        if (!WIFSIGNALED(status) || WTERMSIG(status) != signal)
            broken("the child's status is %#x and not signal %d", unsigned(status), signal);
    }

    int32_t pid_ = 0;
    int ticks_left_ = 0;
};

} // namespace

std::unique_ptr<Scenario> make_shell()
{
    return std::make_unique<Shell>();
}

} // namespace vyt::soak
