#include <array>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "lh_shell_cmd.h"
#include "lh_timer.h"

using namespace vyt;

// Daemons declare the record themselves: its layout never changes.
static_assert(offsetof(lh_shell_cmd_run_opts, flags) == 0);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_max_cb) == 8);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_max_cb_arg) == 16);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_max_period) == 24);
static_assert(offsetof(lh_shell_cmd_run_opts, kill_sig) == 40);
static_assert(offsetof(lh_shell_cmd_run_opts, hide_cmd) == 44);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_progress_cb) == 48);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_progress_cb_arg) == 56);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_progress_period) == 64);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_alive_sig_cb) == 80);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_alive_sig_cb_arg) == 88);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_alive_sig_period) == 96);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_check_complete_cb) == 112);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_check_complete_cb_arg) == 120);
static_assert(offsetof(lh_shell_cmd_run_opts, timer_check_complete_period) == 128);
static_assert(offsetof(lh_shell_cmd_run_opts, on_complete_cb) == 144);
static_assert(offsetof(lh_shell_cmd_run_opts, on_complete_cb_arg) == 152);
static_assert(offsetof(lh_shell_cmd_run_opts, exit_code) == 160);
static_assert(offsetof(lh_shell_cmd_run_opts, pid) == 168);
static_assert(sizeof(lh_shell_cmd_run_opts) == 176);

namespace {

// Every step of a run reports under the name of the exported function, which its lines give twice.
constexpr const char *runner = "lh_shell_cmd_run";
#define RUN_ERROR(format, ...)                                                                     \
    LOG_ERROR_AS(runner, "<%s> " format, runner __VA_OPT__(, ) __VA_ARGS__)

constexpr const char *sudo_prefix = "/usr/bin/sudo ";
constexpr const char *hidden_command = "********";

constexpr timespec default_progress_period = {.tv_sec = 0, .tv_nsec = 500000000};
// Deliberate: no timer accepts this many nanoseconds. Whoever wants liveness ticks gives a period.
constexpr timespec default_alive_sig_period = {.tv_sec = 0, .tv_nsec = 1000000000};
constexpr timespec default_check_complete_period = {.tv_sec = 0, .tv_nsec = 10000000};

bool is_zero(const timespec &period)
{
    return period.tv_sec == 0 && period.tv_nsec == 0;
}

const timespec &period_or(const timespec &period, const timespec &default_period)
{
    return is_zero(period) ? default_period : period;
}

// The timers of a run, in the order in which they are created and looked at.
enum timer { timer_max, timer_progress, timer_alive_sig, timer_check_complete, timer_count };
#define NO_TIMER(name) LH_CHECK_PREFIX_ "<%s> lh_timer_fd_create " name " failed"
constexpr const char *no_timer_formats[timer_count] = {
    NO_TIMER("timer_max"), NO_TIMER("timer_progress"), NO_TIMER("timer_alive_sig"),
    NO_TIMER("timer_check_complete")};

class timer_set {
  public:
    timer_set() { polled_.fill({.fd = -1, .events = 0, .revents = 0}); }

    bool create(timer which, const timespec &period)
    {
        owned_[which] = unique_fd(lh_timer_fd_create(period));
        if (!owned_[which].is_open()) {
            log_error(no_timer_formats[which], runner, __LINE__, runner);
            return false;
        }
        polled_[which] = {.fd = owned_[which].get(), .events = POLLIN, .revents = 0};
        return true;
    }
    int wait() { return poll(polled_.data(), polled_.size(), -1); }
    bool is_over(timer which) const { return (polled_[which].revents & POLLIN) != 0; }
    int handle(timer which, lh_shell_cmd_run_cb cb, void *arg) const
    {
        return lh_timer_fd_handle(polled_[which].fd, cb, arg);
    }
    // The callback's result when its period is over, else 0.
    int handle_if_over(timer which, lh_shell_cmd_run_cb cb, void *arg) const
    {
        return is_over(which) ? handle(which, cb, arg) : 0;
    }

  private:
    std::array<unique_fd, timer_count> owned_;
    std::array<pollfd, timer_count> polled_;
};

malloc_ptr<char> build_line(uint64_t flags, const char *fmt, va_list args)
{
    char *text;
    if (vasprintf(&text, fmt, args) < 0) {
        RUN_ERROR("vasprintf failed");
        return nullptr;
    }
    const malloc_ptr<char> command(text);
    const char *prefix = (flags & LH_SHELL_CMD_RUN_SUDO) != 0 ? sudo_prefix : "";
    if (asprintf(&text, "%s%s", prefix, command.get()) < 0) {
        RUN_ERROR("asprintf failed");
        return nullptr;
    }
    return malloc_ptr<char>(text);
}

// The child's part. Another thread of the daemon may have held any lock at the fork, so nothing but
// system calls may come before the shell.
int become_shell(uint64_t flags, const char *line, const char *shown)
{
    if ((flags & LH_SHELL_CMD_RUN_CLOSE_STDOUT) != 0)
        close(STDOUT_FILENO);
    if ((flags & LH_SHELL_CMD_RUN_CLOSE_STDERR) != 0)
        close(STDERR_FILENO);
    execl("/bin/sh", "sh", "-c", line, nullptr);
    RUN_ERROR("execl failed for '%s' (%s)", shown, strerror(errno));
    // Deliberate: the child does not exit, its caller decides what a second copy of it has to do.
    return -1;
}

bool create_timers(timer_set &timers, const lh_shell_cmd_run_opts *opts)
{
    if (!is_zero(opts->timer_max_period) && !timers.create(timer_max, opts->timer_max_period))
        return false;
    if (opts->timer_progress_cb != nullptr &&
        !timers.create(timer_progress,
                       period_or(opts->timer_progress_period, default_progress_period)))
        return false;
    if (opts->timer_alive_sig_cb != nullptr &&
        !timers.create(timer_alive_sig,
                       period_or(opts->timer_alive_sig_period, default_alive_sig_period)))
        return false;
    return timers.create(timer_check_complete, period_or(opts->timer_check_complete_period,
                                                         default_check_complete_period));
}

int on_max_time(const timer_set &timers, const lh_shell_cmd_run_opts *opts, pid_t child)
{
    if (opts->timer_max_cb != nullptr)
        return timers.handle(timer_max, opts->timer_max_cb, opts->timer_max_cb_arg);
    RUN_ERROR("timer expired");
    kill(child, opts->kill_sig != 0 ? opts->kill_sig : SIGTERM);
    timers.handle(timer_max, nullptr, nullptr);
    return -1;
}

int on_reaped(lh_shell_cmd_run_opts *opts, int status)
{
    if (opts->on_complete_cb != nullptr && opts->on_complete_cb(opts->on_complete_cb_arg) != 0)
        return -1;
    if (!WIFEXITED(status))
        return -1;
    opts->exit_code = WEXITSTATUS(status);
    return 0;
}

// Callbacks may change the record: every field is read when it is needed.
int watch(timer_set &timers, lh_shell_cmd_run_opts *opts, pid_t child)
{
    for (;;) {
        if (timers.wait() < 0) {
            if (errno == EINTR)
                continue;
            RUN_ERROR("poll failed: %s", strerror(errno));
            return -1;
        }
        if (timers.is_over(timer_max))
            return on_max_time(timers, opts, child);
        if (timers.handle_if_over(timer_progress, opts->timer_progress_cb,
                                  opts->timer_progress_cb_arg) != 0 ||
            timers.handle_if_over(timer_alive_sig, opts->timer_alive_sig_cb,
                                  opts->timer_alive_sig_cb_arg) != 0)
            return -1;
        if (!timers.is_over(timer_check_complete))
            continue;

        int status;
        const pid_t waited = waitpid(child, &status, WNOHANG);
        const int wait_errno = errno;
        if (timers.handle(timer_check_complete, opts->timer_check_complete_cb,
                          opts->timer_check_complete_cb_arg) != 0)
            return -1;
        if (waited > 0)
            return on_reaped(opts, status);
        if (waited < 0) {
            errno = wait_errno; // the callback may have spoilt it
            RUN_ERROR("waitpid failed");
            return -1;
        }
    }
}

int supervise(lh_shell_cmd_run_opts *opts, pid_t child)
{
    if (opts->pid != nullptr)
        *opts->pid = child;
    int result = -1;
    {
        timer_set timers; // closed again before the pid is taken back
        if (create_timers(timers, opts))
            result = watch(timers, opts, child);
    }
    if (opts->pid != nullptr)
        *opts->pid = 0;
    return result;
}

int wait_unsupervised(pid_t child, const char *shown)
{
    int status;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            RUN_ERROR("waitpid failed");
            return -1;
        }
    }
    if (!WIFEXITED(status)) {
        RUN_ERROR("'%s' failed", shown);
        return -1;
    }
    return WEXITSTATUS(status);
}

} // namespace

int lh_shell_cmd_run(lh_shell_cmd_run_opts *opts, const char *fmt, ...)
{
    if (PTR_IS_NULL(fmt))
        return -1;
    const uint64_t flags = opts != nullptr ? opts->flags : 0;
    va_list args;
    va_start(args, fmt);
    const malloc_ptr<char> line = build_line(flags, fmt, args);
    va_end(args);
    if (line == nullptr)
        return -1;

    const bool is_hidden = opts != nullptr && opts->hide_cmd != 0;
    const char *shown = is_hidden ? hidden_command : line.get();
    const pid_t child = fork();
    if (child == 0)
        return become_shell(flags, line.get(), shown);
    if (child < 0) {
        RUN_ERROR("fork failed for '%s'", shown);
        return -1;
    }
    return opts != nullptr ? supervise(opts, child) : wait_unsupervised(child, shown);
}
