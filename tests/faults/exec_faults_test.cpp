// Every fault of the shell runner and of escaping for the shell.
#include <cerrno>
#include <csignal>
#include <sys/stat.h>

#include "exec/shell_run_fixture.hpp"
#include "support/fault_sweep.hpp"

using namespace vyt::test;

namespace {

// One run ------------------------------------------------------------------------------------------

int count(void *counter)
{
    ++*static_cast<int *>(counter);
    return 0;
}

int count_and_stop(void *counter)
{
    count(counter);
    return 1;
}

constexpr timespec soon = {.tv_sec = 0, .tv_nsec = 1000000};
constexpr timespec never = {.tv_sec = 600, .tv_nsec = 0};

// A run whose child ends when the nth poll is made, so that every run makes the same calls.
class ShellAttempt {
  public:
    explicit ShellAttempt(Attempt &a) : a_(a)
    {
        opts.pid = &pid_;
        opts.exit_code = untouched;
        opts.timer_check_complete_cb = count;
        opts.timer_check_complete_cb_arg = &checks;
        a.faults().before("timerfd_create", [this](unsigned) { child_ = pid_; });
    }

    ~ShellAttempt()
    {
        if (!has_children())
            return;
        // Without a supervisor it is not known, and ends by itself.
        if (child_ > 0)
            kill(child_, SIGKILL);
        EXPECT_GT(waitpid(-1, nullptr, 0), 0);
    }

    void end_child_at_poll(
        unsigned nth, const std::function<void()> &end = [] {})
    {
        a_.faults().before("poll", [this, nth, end](unsigned made) {
            if (made != nth)
                return;
            end();
            siginfo_t info;
            EXPECT_EQ(waitid(P_PID, child_, &info, WEXITED | WNOWAIT), 0);
        });
    }

    // The result, the exit code, and what is left behind.
    std::string run(lh_shell_cmd_run_opts *record, const std::string &command)
    {
        const pid_t self = getpid();
        const int result = a_.faulted([&] {
            const int answer = lh_shell_cmd_run(record, "%s", command.c_str());
            if (getpid() != self)
                end_copy(answer);
            return answer;
        });
        EXPECT_TRUE(child_ == 0 || pid_ == 0);
        std::string outcome = shown(result) + ", exit " + shown(opts.exit_code);
        if (checks != 0)
            outcome += ", " + shown(checks) + " checks";
        if (ticks != 0)
            outcome += ", " + shown(ticks) + " ticks";
        if (has_children())
            outcome += ", child left";
        if (const unsigned open = a_.close_left(); open != 0)
            outcome += ", " + shown(open) + " descriptor left";
        return outcome + read_file(a_.path("log"));
    }
    std::string run(const std::string &command) { return run(&opts, command); }

    lh_shell_cmd_run_opts opts = {};
    int checks = 0;
    int ticks = 0;

  private:
    // The child of a run whose shell could not be run: a copy of this test, which says what it logged
    // and ends. Its lines carry its parent's pid, as the cache had it before the fork.
    [[noreturn]] void end_copy(int answer)
    {
        std::string text = ", in the child " + shown(answer);
        for (const std::string &line : take_lines())
            text += ": " + line.substr(line.find("> ") + 2);
        write_file(a_.path("log"), text);
        _exit(42);
    }

    Attempt &a_;
    int32_t pid_ = 0;
    pid_t child_ = 0;
};

// Expectations ------------------------------------------------------------------------------------

const std::string not_read = "lh_timer_fd_handle: IS_NE check failed: sizeof(exp) "
                             "(8 != 18446744073709551615) !!!";

std::vector<rule> all_of(std::initializer_list<std::vector<rule>> parts)
{
    std::vector<rule> rules;
    for (const auto &part : parts)
        rules.insert(rules.end(), part.begin(), part.end());
    return rules;
}

// Up to the child, which is shown in the lines like this.
std::vector<rule> starting(const std::string &text)
{
    return {fails("vasprintf", "-1, exit -7", {line("vasprintf failed")}),
            fails("asprintf", "-1, exit -7", {line("asprintf failed")}),
            fails("fork", "-1, exit -7", {line("fork failed for '" + text + "'")})};
}

// In the child, which is a copy of its parent when the shell cannot be run.
rule no_shell(const std::string &outcome, const std::string &text)
{
    return fails("execl", outcome + ", in the child -1: <lh_shell_cmd_run> execl failed for '" +
                              text + "' ({error})")
        .errno_unpromised();
}

// Deliberate: a timer that refuses its period stays open.
std::vector<rule> timers(const std::vector<std::string> &names)
{
    std::vector<rule> rules;
    for (size_t i = 0; i < names.size(); i++) {
        const std::string nth = ":" + std::to_string(i + 1);
        const std::string then = line("lh_timer_fd_create " + names[i] + " failed");
        rules.push_back(fails("timerfd_create" + nth, "-1, exit -7, child left",
                              {"lh_timer_fd_create: IS_EQ check failed: -1 (-1 == -1) !!!", then}));
        rules.push_back(fails("timerfd_settime" + nth, "-1, exit -7, child left, 1 descriptor left",
                              {"lh_timer_fd_create: IS_NE check failed: 0 (0 != -1) !!!", then}));
    }
    rules.push_back(ignored("close"));
    return rules;
}

rule interrupted_poll()
{
    return ignored("poll").with({EINTR});
}

rule failing_poll(const std::string &call, const std::string &outcome)
{
    return fails(call, outcome, {line("poll failed: {error}")});
}

rule failing_wait(const std::string &call, const std::string &outcome)
{
    return fails(call, outcome, {line("waitpid failed")});
}

// Ways --------------------------------------------------------------------------------------------

std::string with_all_timers(Attempt &a)
{
    ShellAttempt s(a);
    s.opts.flags = LH_SHELL_CMD_RUN_CLOSE_STDOUT | LH_SHELL_CMD_RUN_CLOSE_STDERR;
    s.opts.timer_max_period = never;
    s.opts.timer_progress_cb = count;
    s.opts.timer_progress_period = never;
    s.opts.timer_alive_sig_cb = count;
    s.opts.timer_alive_sig_period = never;
    s.opts.on_complete_cb = count;
    s.opts.on_complete_cb_arg = &s.ticks;
    s.end_child_at_poll(1);
    return s.run("exit 3");
}

std::string over_two_checks(Attempt &a)
{
    ShellAttempt s(a);
    const std::string fifo = a.path("fifo");
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    s.end_child_at_poll(2, [&] { write_file(fifo, "go on\n"); });
    return s.run("read x <" + fifo + "; exit 3");
}

std::string beyond_its_time(Attempt &a, lh_shell_cmd_run_cb callback)
{
    ShellAttempt s(a);
    s.opts.hide_cmd = 1;
    s.opts.timer_max_period = soon;
    s.opts.timer_max_cb = callback;
    s.opts.timer_max_cb_arg = &s.ticks;
    s.opts.timer_check_complete_period = never;
    return s.run("exec sleep 600");
}

std::string stopped_by_tick(Attempt &a, bool alive)
{
    ShellAttempt s(a);
    (alive ? s.opts.timer_alive_sig_cb : s.opts.timer_progress_cb) = count_and_stop;
    (alive ? s.opts.timer_alive_sig_cb_arg : s.opts.timer_progress_cb_arg) = &s.ticks;
    (alive ? s.opts.timer_alive_sig_period : s.opts.timer_progress_period) = soon;
    s.opts.timer_check_complete_period = never;
    return s.run("exec sleep 600");
}

std::vector<rule> tick_rules(const std::string &timer)
{
    return all_of({starting("exec sleep 600"),
                   timers({timer, "timer_check_complete"}),
                   {interrupted_poll(), failing_poll("poll", "-1, exit -7, child left"),
                    fails("read", "-1, exit -7, child left", {not_read})}});
}

std::string unsupervised(Attempt &a)
{
    return ShellAttempt(a).run(nullptr, "exit 3");
}

const std::string waiting_command = "read x <{dir}/fifo; exit 3";

const std::vector<scenario> runs = {
    {.function = "lh_shell_cmd_run",
     .way = "with all timers",
     .body = with_all_timers,
     .outcome = "0, exit 3, 1 checks, 1 ticks",
     .faults =
         all_of({starting("exit 3"),
                 timers({"timer_max", "timer_progress", "timer_alive_sig", "timer_check_complete"}),
                 {no_shell("0, exit 42, 1 checks, 1 ticks", "exit 3"), interrupted_poll(),
                  failing_poll("poll", "-1, exit -7, child left"),
                  failing_wait("waitpid", "-1, exit -7, 1 checks, child left"),
                  // The child has been reaped already.
                  fails("read", "-1, exit -7", {not_read})}}),
     .calls_of_child = {"execl"}},
    {.function = "lh_shell_cmd_run",
     .way = "over two checks",
     .body = over_two_checks,
     .outcome = "0, exit 3, 2 checks",
     .faults = all_of({starting(waiting_command),
                       timers({"timer_check_complete"}),
                       {// The child has ended by the time of the second poll.
                        fails("poll:1", "0, exit 3, 1 checks").with({EINTR}).errno_unpromised(),
                        failing_poll("poll:1", "-1, exit -7, child left"), interrupted_poll(),
                        failing_poll("poll:2", "-1, exit -7, 1 checks, child left"),
                        failing_wait("waitpid:1", "-1, exit -7, 1 checks, child left"),
                        failing_wait("waitpid:2", "-1, exit -7, 2 checks, child left"),
                        fails("read:1", "-1, exit -7, child left", {not_read}),
                        fails("read:2", "-1, exit -7, 1 checks", {not_read})}})},
    {.function = "lh_shell_cmd_run",
     .way = "beyond its time, with a callback",
     .body = [](Attempt &a) { return beyond_its_time(a, count_and_stop); },
     .outcome = "1, exit -7, 1 ticks, child left",
     .faults = all_of({starting("********"),
                       timers({"timer_max", "timer_check_complete"}),
                       {interrupted_poll(), failing_poll("poll", "-1, exit -7, child left"),
                        fails("read", "-1, exit -7, child left", {not_read})}})},
    {.function = "lh_shell_cmd_run",
     .way = "beyond its time",
     .body = [](Attempt &a) { return beyond_its_time(a, nullptr); },
     .outcome = "-1, exit -7, child left",
     .lines = {line("timer expired")},
     .faults = all_of(
         {starting("********"),
          timers({"timer_max", "timer_check_complete"}),
          {interrupted_poll(), failing_poll("poll", "-1, exit -7, child left"), ignored("kill"),
           fails("read", "-1, exit -7, child left", {line("timer expired"), not_read})}})},
    {.function = "lh_shell_cmd_run",
     .way = "stopped by its progress",
     .body = [](Attempt &a) { return stopped_by_tick(a, false); },
     .outcome = "-1, exit -7, 1 ticks, child left",
     .faults = tick_rules("timer_progress")},
    {.function = "lh_shell_cmd_run",
     .way = "stopped by its sign of life",
     .body = [](Attempt &a) { return stopped_by_tick(a, true); },
     .outcome = "-1, exit -7, 1 ticks, child left",
     .faults = tick_rules("timer_alive_sig")},
    {.function = "lh_shell_cmd_run",
     .way = "unsupervised",
     .body = unsupervised,
     .outcome = "3, exit -7",
     .faults = all_of({starting("exit 3"),
                       {no_shell("42, exit -7", "exit 3"), ignored("waitpid").with({EINTR}),
                        failing_wait("waitpid", "-1, exit -7, child left")}}),
     .calls_of_child = {"execl"}},
};

// Escaping ----------------------------------------------------------------------------------------

std::string escape(Attempt &a, const std::function<int(char **)> &call)
{
    char *out = nullptr;
    const int result = a.faulted([&] { return call(&out); });
    return shown(result) + " " + a.taken(out);
}

std::string escape_set()
{
    const char *set = nullptr;
    const int result = lh_shell_cmd_chrs_need_to_be_escaped_get(&set);
    return shown(result) + " " + shown(set);
}

const std::vector<rule> no_copy = {
    fails("calloc", "-1 null", {"lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: _str_new"})};

const std::vector<scenario> escaping = {
    simply(
        "lh_shell_cmd_chr_need_to_be_escaped",
        [] { return shown(lh_shell_cmd_chr_need_to_be_escaped(';')); }, "1"),
    simply("lh_shell_cmd_chrs_need_to_be_escaped_get", escape_set, "0 '!\"$&'()*;<=>?\\`|'"),
    {.function = "lh_shell_cmd_chrs_escape",
     .body =
         [](Attempt &a) {
             return escape(
                 a, [](char **out) { return lh_shell_cmd_chrs_escape("a%b", "%", "%", out); });
         },
     .outcome = "0 'a%%b'",
     .faults = no_copy},
    {.function = "lh_shell_cmd_escaping",
     .body =
         [](Attempt &a) {
             return escape(a, [](char **out) { return lh_shell_cmd_escaping("a;b", out); });
         },
     .outcome = "0 'a\\;b'",
     .faults = no_copy},
};

const bool swept = register_fault_sweep("FaultsOfShellRuns", runs) &&
                   register_fault_sweep("FaultsOfShellEscaping", escaping);

} // namespace
