// The shell runner's schedule against a plain model: every system call answers from a random
// script, and the order of calls, callbacks and lines is compared with what the model expects.
#include "lh_shell_cmd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <random>
#include <string>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"

using namespace vyt::test;

namespace {

constexpr int timer_count = 4;
constexpr const char *timer_names[timer_count] = {"timer_max", "timer_progress", "timer_alive_sig",
                                                  "timer_check_complete"};
enum { max_time, progress, alive, check };

constexpr pid_t child_pid = 1 << 23; // no real process has it
constexpr int first_fd = 70000;      // nor does anybody have this descriptor open
constexpr int untouched = -7;

struct timer_step {
    bool is_ready;
    ssize_t bytes; // what reading it gives
    int answer;    // of its callback
};

// What happens from one poll to the next.
struct pass {
    int poll_error; // 0: none
    std::array<timer_step, timer_count> timers;
    int waited; // 0: still running, 1: ended, -1: failed
    int status;
};

enum class trouble { none, creating, arming };

struct script {
    std::array<bool, timer_count> has_timer;
    std::array<bool, timer_count> has_callback;
    bool has_complete;
    int complete_answer;
    bool has_pid;
    int kill_sig;
    trouble timer_trouble;
    unsigned trouble_at; // the number of the timer, from 1, that makes it
    std::vector<pass> passes;
};

struct outcome {
    std::vector<std::string> events;
    std::vector<std::string> lines;
    int result = 0;
    int exit_code = untouched;
    int pid = untouched;
    int error = 0; // errno, where a failed call has set it
    std::vector<int> left_open = {};
};

// The model ----------------------------------------------------------------------------------

class model {
  public:
    explicit model(const script &s) : s_(s) {}

    outcome play()
    {
        out_.events.push_back("fork");
        out_.result = create_timers() ? supervise() : -1;
        for (const int fd : created_)
            out_.events.push_back("close " + std::to_string(fd));
        if (s_.has_pid)
            out_.pid = 0;
        return out_;
    }

  private:
    void log(const std::string &text)
    {
        out_.lines.push_back("lh_shell_cmd_run: <lh_shell_cmd_run> " + text);
    }

    bool create_timers()
    {
        unsigned number = 0;
        for (int t = 0; t < timer_count; t++) {
            if (!s_.has_timer[t])
                continue;
            number++;
            out_.events.push_back("create");
            if (s_.timer_trouble == trouble::creating && s_.trouble_at == number) {
                out_.lines.push_back("lh_timer_fd_create: IS_EQ check failed: -1 (-1 == -1) !!!");
                return refused(t, EMFILE);
            }
            const int fd = first_fd + t;
            out_.events.push_back("arm " + std::to_string(fd));
            if (s_.timer_trouble == trouble::arming && s_.trouble_at == number) {
                out_.lines.push_back("lh_timer_fd_create: IS_NE check failed: 0 (0 != -1) !!!");
                out_.left_open.push_back(fd);
                return refused(t, EINVAL);
            }
            created_.push_back(fd);
        }
        return true;
    }

    bool refused(int t, int error)
    {
        log(std::string("lh_timer_fd_create ") + timer_names[t] + " failed");
        out_.error = error;
        return false;
    }

    // Reads a timer and calls back.
    int handle(const pass &p, int t, bool with_callback)
    {
        out_.events.push_back(std::string("read ") + timer_names[t]);
        if (p.timers[t].bytes != 8) {
            out_.lines.push_back("lh_timer_fd_handle: IS_NE check failed: sizeof(exp) (8 != " +
                                 std::to_string(static_cast<size_t>(p.timers[t].bytes)) + ") !!!");
            return -1;
        }
        if (!with_callback)
            return 0;
        call_back(timer_names[t]);
        return p.timers[t].answer;
    }

    void call_back(const char *name)
    {
        out_.events.push_back(std::string("call ") + name + " with pid " +
                              std::to_string(s_.has_pid ? child_pid : untouched));
    }

    int supervise()
    {
        for (const pass &p : s_.passes) {
            out_.events.push_back("poll");
            if (p.poll_error == EINTR)
                continue;
            if (p.poll_error != 0) {
                log(std::string("poll failed: ") + strerror(p.poll_error));
                out_.error = p.poll_error;
                return -1;
            }
            const auto fired = [&](int t) { return s_.has_timer[t] && p.timers[t].is_ready; };
            if (fired(max_time) && s_.has_callback[max_time])
                return handle(p, max_time, true);
            if (fired(max_time)) {
                log("timer expired");
                out_.events.push_back("kill " +
                                      std::to_string(s_.kill_sig == 0 ? SIGTERM : s_.kill_sig));
                handle(p, max_time, false);
                return -1;
            }
            if (fired(progress) && handle(p, progress, s_.has_callback[progress]) != 0)
                return -1;
            if (fired(alive) && handle(p, alive, s_.has_callback[alive]) != 0)
                return -1;
            if (!fired(check))
                continue;
            out_.events.push_back("waitpid");
            if (handle(p, check, s_.has_callback[check]) != 0)
                return -1;
            if (p.waited == 0)
                continue;
            if (p.waited == -1) {
                log("waitpid failed");
                out_.error = ECHILD;
                return -1;
            }
            return finish(p);
        }
        ADD_FAILURE() << "the script does not end";
        return -1;
    }

    int finish(const pass &p)
    {
        if (s_.has_complete) {
            call_back("on_complete");
            if (s_.complete_answer != 0)
                return -1;
        }
        if ((p.status & 0x7f) != 0)
            return -1;
        out_.exit_code = p.status >> 8 & 0xff;
        return 0;
    }

    const script &s_;
    outcome out_ = {};
    std::vector<int> created_;
};

// The stage: what the library calls, answering from the script -------------------------------

struct stage {
    const script *s;
    size_t next_pass;
    unsigned created;
    int32_t pid;
    std::vector<std::string> events;
    std::vector<int> open;

    const pass &now() const { return s->passes.at(next_pass - 1); }
    void happens(const std::string &event) { events.push_back(event); }
} on;

pid_t stage_fork()
{
    on.happens("fork");
    return child_pid;
}

// The descriptor tells the timer: the nth created one is the nth that the script has.
int stage_timerfd_create(int clock, int flags)
{
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    EXPECT_EQ(flags, 0);
    on.happens("create");
    on.created++;
    if (on.s->timer_trouble == trouble::creating && on.s->trouble_at == on.created) {
        errno = EMFILE;
        return -1;
    }
    int timer = 0;
    for (unsigned left = on.created;; timer++) {
        if (on.s->has_timer.at(timer) && --left == 0)
            break;
    }
    on.open.push_back(first_fd + timer);
    return first_fd + timer;
}

int stage_timerfd_settime(int fd, int, const itimerspec *, itimerspec *)
{
    on.happens("arm " + std::to_string(fd));
    if (on.s->timer_trouble == trouble::arming && on.s->trouble_at == on.created) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

int stage_poll(pollfd *polled, nfds_t count, int timeout)
{
    on.happens("poll");
    EXPECT_EQ(count, nfds_t{timer_count});
    EXPECT_EQ(timeout, -1);
    for (int t = 0; t < timer_count; t++) {
        EXPECT_EQ(polled[t].fd, on.s->has_timer[t] ? first_fd + t : -1) << timer_names[t];
        EXPECT_EQ(polled[t].events, on.s->has_timer[t] ? POLLIN : 0) << timer_names[t];
    }
    on.next_pass++;
    const pass &p = on.now();
    if (p.poll_error != 0) {
        errno = p.poll_error; // and the last pass's events stay: they must not be looked at
        return -1;
    }
    int ready = 0;
    for (int t = 0; t < timer_count; t++) {
        polled[t].revents = on.s->has_timer[t] && p.timers[t].is_ready ? POLLIN : 0;
        ready += polled[t].revents != 0;
    }
    return ready;
}

ssize_t stage_read(int fd, void *data, size_t size)
{
    const int timer = fd - first_fd;
    on.happens(std::string("read ") + timer_names[timer]);
    EXPECT_EQ(size, 8u);
    memset(data, 1, size);
    errno = EIO;
    return on.now().timers.at(timer).bytes;
}

pid_t stage_waitpid(pid_t pid, int *status, int options)
{
    on.happens("waitpid");
    EXPECT_EQ(pid, child_pid);
    EXPECT_EQ(options, WNOHANG);
    const pass &p = on.now();
    if (p.waited == -1)
        errno = ECHILD;
    if (p.waited == 1)
        *status = p.status;
    return p.waited == 1 ? child_pid : p.waited;
}

int stage_kill(pid_t pid, int signal)
{
    on.happens("kill " + std::to_string(signal));
    EXPECT_EQ(pid, child_pid);
    errno = EPERM;
    return -1;
}

int stage_close(int fd)
{
    on.happens("close " + std::to_string(fd));
    const size_t removed = std::erase(on.open, fd);
    EXPECT_EQ(removed, 1u) << fd;
    errno = EIO;
    return 0;
}

// Callbacks: each has its own argument, the place of its name in the table.
const char *on_complete_name = "on_complete";

int stage_callback(void *arg)
{
    const auto *name = static_cast<const char *const *>(arg);
    on.happens(std::string("call ") + *name + " with pid " + std::to_string(on.pid));
    errno = E2BIG;
    if (name == &on_complete_name)
        return on.s->complete_answer;
    return on.now().timers.at(name - timer_names).answer;
}

void *callback_arg(const char *const *name)
{
    return const_cast<const char **>(name);
}

lh_shell_cmd_run_opts record_of(const script &s)
{
    lh_shell_cmd_run_opts opts = {};
    const timespec period = {.tv_sec = 1, .tv_nsec = 0};
    if (s.has_timer[max_time])
        opts.timer_max_period = period;
    if (s.has_callback[max_time])
        opts.timer_max_cb = stage_callback;
    opts.timer_max_cb_arg = callback_arg(&timer_names[max_time]);
    opts.kill_sig = s.kill_sig;
    if (s.has_callback[progress])
        opts.timer_progress_cb = stage_callback;
    opts.timer_progress_cb_arg = callback_arg(&timer_names[progress]);
    if (s.has_callback[alive])
        opts.timer_alive_sig_cb = stage_callback;
    opts.timer_alive_sig_cb_arg = callback_arg(&timer_names[alive]);
    opts.timer_alive_sig_period = period;
    if (s.has_callback[check])
        opts.timer_check_complete_cb = stage_callback;
    opts.timer_check_complete_cb_arg = callback_arg(&timer_names[check]);
    if (s.has_complete)
        opts.on_complete_cb = stage_callback;
    opts.on_complete_cb_arg = callback_arg(&on_complete_name);
    opts.exit_code = untouched;
    opts.pid = s.has_pid ? &on.pid : nullptr;
    return opts;
}

outcome run_on_stage(const script &s)
{
    on = {.s = &s, .next_pass = 0, .created = 0, .pid = untouched, .events = {}, .open = {}};
    lh_shell_cmd_run_opts opts = record_of(s);
    outcome out = {};
    errno = 0;
    out.result = lh_shell_cmd_run(&opts, "some command");
    out.error = errno;
    out.events = on.events;
    out.lines = take_lines();
    out.exit_code = opts.exit_code;
    out.pid = on.pid;
    out.left_open = on.open;
    return out;
}

// Random scripts -----------------------------------------------------------------------------

class writer {
  public:
    explicit writer(unsigned seed) : random_(seed) {}

    script write()
    {
        script s = {};
        s.has_timer = {one_in(2), one_in(2), one_in(2), true};
        s.has_callback = {one_in(2), s.has_timer[progress], s.has_timer[alive], one_in(2)};
        s.has_complete = one_in(2);
        s.complete_answer = one_in(4) ? answer() : 0;
        s.has_pid = !one_in(4);
        s.kill_sig = one_in(2) ? 0 : 1 + number(30);
        if (one_in(10)) {
            s.timer_trouble = one_in(2) ? trouble::creating : trouble::arming;
            s.trouble_at = 1 + number(4);
        }
        for (int passes = number(20); passes > 0; passes--)
            s.passes.push_back(some_pass());
        s.passes.push_back(last_pass());
        return s;
    }

  private:
    int number(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
    bool one_in(int n) { return number(n) == 0; }
    int answer() { return one_in(2) ? -1 : 1 + number(1000); }

    timer_step some_step(int ready_in, int answer_in = 25)
    {
        constexpr ssize_t short_reads[] = {-1, 0, 4, 7};
        return {.is_ready = one_in(ready_in),
                .bytes = one_in(40) ? short_reads[number(4)] : 8,
                .answer = one_in(answer_in) ? answer() : 0};
    }

    int some_status() { return one_in(4) ? 1 + number(126) : number(256) << 8; }

    pass some_pass()
    {
        constexpr int errors[] = {EINVAL, ENOMEM, EFAULT};
        return {.poll_error = one_in(10)   ? EINTR
                              : one_in(50) ? errors[number(3)]
                                           : 0,
                .timers = {some_step(25, 2), some_step(3), some_step(3), some_step(2)},
                .waited = one_in(8)    ? 1
                          : one_in(20) ? -1
                                       : 0,
                .status = some_status()};
    }

    // One that ends every run.
    pass last_pass()
    {
        constexpr timer_step quiet = {.is_ready = false, .bytes = 8, .answer = 0};
        constexpr timer_step fired = {.is_ready = true, .bytes = 8, .answer = 0};
        return {.poll_error = 0,
                .timers = {quiet, quiet, quiet, fired},
                .waited = 1,
                .status = some_status()};
    }

    std::mt19937 random_;
};

class ShellRunSchedule : public LogTest {
  protected:
    ShellRunSchedule()
    {
        faults.replace("fork", reinterpret_cast<void *>(stage_fork));
        faults.replace("timerfd_create", reinterpret_cast<void *>(stage_timerfd_create));
        faults.replace("timerfd_settime", reinterpret_cast<void *>(stage_timerfd_settime));
        faults.replace("poll", reinterpret_cast<void *>(stage_poll));
        faults.replace("read", reinterpret_cast<void *>(stage_read));
        faults.replace("waitpid", reinterpret_cast<void *>(stage_waitpid));
        faults.replace("kill", reinterpret_cast<void *>(stage_kill));
        faults.replace("close", reinterpret_cast<void *>(stage_close));
    }

    // The order in which the timers are closed is nobody's business.
    static void sort_closes(std::vector<std::string> &events)
    {
        auto first = events.end();
        while (first != events.begin() && (first - 1)->rfind("close", 0) == 0)
            --first;
        std::sort(first, events.end());
    }

    void expect_as_modelled(const script &s)
    {
        outcome expected = model(s).play();
        outcome seen = run_on_stage(s);
        sort_closes(expected.events);
        sort_closes(seen.events);
        EXPECT_EQ(seen.events, expected.events);
        EXPECT_EQ(seen.lines, expected.lines);
        EXPECT_EQ(seen.result, expected.result);
        EXPECT_EQ(seen.exit_code, expected.exit_code);
        EXPECT_EQ(seen.pid, expected.pid);
        EXPECT_EQ(seen.left_open, expected.left_open);
        if (expected.error != 0) {
            EXPECT_EQ(seen.error, expected.error);
        }
        results.push_back(expected);
    }

    Faults faults;
    std::vector<outcome> results;
};

} // namespace

TEST_F(ShellRunSchedule, RandomRunsGoAsTheModelSays)
{
    const unsigned seed = 20240613;
    writer scripts(seed);
    for (int i = 0; i < 20000; i++) {
        expect_as_modelled(scripts.write());
        ASSERT_FALSE(HasFailure()) << "seed " << seed << ", run " << i;
    }
    // The scripts reach every end of a run.
    const auto count_lines = [&](const std::string &text) {
        size_t count = 0;
        for (const outcome &o : results) {
            for (const std::string &logged : o.lines)
                count += logged.find(text) != std::string::npos;
        }
        return count;
    };
    for (const char *text :
         {"timer expired", "poll failed", "waitpid failed", "sizeof(exp)",
          "lh_timer_fd_create timer_max failed", "lh_timer_fd_create timer_progress failed",
          "lh_timer_fd_create timer_alive_sig failed",
          "lh_timer_fd_create timer_check_complete failed"})
        EXPECT_GT(count_lines(text), 50u) << text;
    size_t completed = 0;
    size_t ended_by_callback = 0;
    for (const outcome &o : results) {
        completed += o.exit_code != untouched;
        ended_by_callback += o.result > 0;
    }
    EXPECT_GT(completed, 1000u);
    EXPECT_GT(ended_by_callback, 100u);
}

TEST_F(ShellRunSchedule, EverythingOverAtOnceIsTakenInOrder)
{
    constexpr timer_step quiet = {.is_ready = false, .bytes = 8, .answer = 0};
    constexpr timer_step fired = {.is_ready = true, .bytes = 8, .answer = 0};
    script s = {.has_timer = {true, true, true, true},
                .has_callback = {true, true, true, true},
                .has_complete = true,
                .complete_answer = 0,
                .has_pid = true,
                .kill_sig = 0,
                .timer_trouble = trouble::none,
                .trouble_at = 0,
                .passes = {{0, {quiet, fired, fired, fired}, 0, 0},
                           {0, {quiet, fired, fired, fired}, 1, 3 << 8}}};
    const outcome out = run_on_stage(s);
    const std::string with_pid = " with pid " + std::to_string(child_pid);
    const std::vector<std::string> one_pass = {
        "poll",
        "read timer_progress",
        "call timer_progress" + with_pid,
        "read timer_alive_sig",
        "call timer_alive_sig" + with_pid,
        "waitpid",
        "read timer_check_complete",
        "call timer_check_complete" + with_pid,
    };
    std::vector<std::string> expected = {"fork",      "create",    "arm 70000",
                                         "create",    "arm 70001", "create",
                                         "arm 70002", "create",    "arm 70003"};
    for (int i = 0; i < 2; i++)
        expected.insert(expected.end(), one_pass.begin(), one_pass.end());
    expected.push_back("call on_complete" + with_pid);
    ASSERT_EQ(out.events.size(), expected.size() + timer_count); // and the closes
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), out.events.begin()));
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(out.exit_code, 3);
    EXPECT_EQ(out.pid, 0);

    s.passes = {{0, {fired, fired, fired, fired}, 1, 3 << 8}};
    s.passes[0].timers[max_time].answer = 77;
    const outcome late = run_on_stage(s);
    expected.resize(9);
    for (const std::string &event :
         {std::string("poll"), std::string("read timer_max"), "call timer_max" + with_pid})
        expected.push_back(event);
    ASSERT_EQ(late.events.size(), expected.size() + timer_count);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), late.events.begin()));
    EXPECT_EQ(late.result, 77);
    EXPECT_EQ(late.exit_code, untouched);
}
