// The loop around the passes: its waits, its callback, its ends, and its clock.
#include "loop/poll_ctx_fixture.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <thread>

using namespace vyt::test;

// The board's clock, driven by the tests ----------------------------------------------------------

namespace {

timespec board_time;
unsigned clock_readings;
unsigned limit_checks;

} // namespace

extern "C" {

int clockgettime(timespec *now)
{
    clock_readings++;
    *now = board_time;
    return 0;
}

int clocktimerexpired(const timespec *end, const timespec *now)
{
    limit_checks++;
    return now->tv_sec > end->tv_sec || (now->tv_sec == end->tv_sec && now->tv_nsec >= end->tv_nsec)
               ? -8 // any answer but 0 means "reached"
               : 0;
}
}

class PollCtxLoop : public PollCtx {
  protected:
    PollCtxLoop()
    {
        board_time = {};
        clock_readings = 0;
        limit_checks = 0;
    }
};

// The library reads and writes the bytes where a daemon in C that knows only the order has them.
TEST_F(PollCtxLoop, TheLibraryUsesTheRecordByItsBytes)
{
    alignas(8) unsigned char record[72] = {};
    auto *bytes_ctx = reinterpret_cast<lh_poll_ctx *>(record);
    const auto word = [&record](size_t offset) {
        uint64_t value;
        memcpy(&value, record + offset, sizeof(value));
        return value;
    };
    const auto half = [&record](size_t offset) {
        int32_t value;
        memcpy(&value, record + offset, sizeof(value));
        return value;
    };
    const int32_t timeout = 1234, duration = 9;
    memcpy(record + 16, &timeout, sizeof(timeout));
    memcpy(record + 20, &duration, sizeof(duration));
    board_time = {100, 5};

    ASSERT_EQ(lh_poll_ctx_fd_add(bytes_ctx, "zero", 0, nullptr, nullptr), 0);
    EXPECT_EQ(word(8), 1u);
    ASSERT_EQ(lh_poll_ctx_on_each_event_cb_set(bytes_ctx, stop_after_pass, &board_time), 0);
    EXPECT_EQ(word(40), reinterpret_cast<uint64_t>(stop_after_pass));
    EXPECT_EQ(word(48), reinterpret_cast<uint64_t>(&board_time));
    use_scripted_poll([&](pollfd *given, nfds_t count, int given_timeout) {
        EXPECT_EQ(reinterpret_cast<uint64_t>(given), word(64));
        EXPECT_EQ(count, 1u);
        EXPECT_EQ(given_timeout, timeout);
        return 0x1234567;
    });
    lh_poll_ctx_main_loop(bytes_ctx);
    EXPECT_EQ(word(24), 109u);
    EXPECT_EQ(word(32), 5u);
    EXPECT_EQ(half(56), 1);
    EXPECT_EQ(half(60), 0x1234567);
    lh_poll_ctx_free(bytes_ctx);
    EXPECT_EQ(word(0), 0u);
    EXPECT_EQ(word(64), 0u);
}

// The per-pass callback ---------------------------------------------------------------------------

namespace {

lh_poll_ctx *seen_ctx;
void *seen_arg;

int look_and_stop(lh_poll_ctx *ctx, void *arg)
{
    seen_ctx = ctx;
    seen_arg = arg;
    ctx->stop = 1;
    return 0;
}

} // namespace

TEST_F(PollCtxLoop, TheCallbackGetsTheContextAndItsArgument)
{
    int arg = 0;
    ctx.timeout = 1;
    ASSERT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, look_and_stop, &arg), 0);
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_EQ(seen_ctx, &ctx);
    EXPECT_EQ(seen_arg, &arg);
}

TEST_F(PollCtxLoop, TheCallbackRunsAfterEveryPass)
{
    std::vector<int> results = {0, 1, -1, 0}; // timeout, ready, interrupted, timeout
    size_t passes = 0;
    use_scripted_poll([&](pollfd *, nfds_t, int) {
        errno = EINTR;
        return results[passes];
    });
    std::vector<int> seen;
    PassAction action = [&] {
        seen.push_back(ctx.poll_rc);
        if (++passes == results.size())
            lh_poll_ctx_main_loop_break(&ctx);
        return 0;
    };
    ASSERT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, act_after_pass, &action), 0);
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_EQ(seen, results);
}

TEST_F(PollCtxLoop, AFailingCallbackEndsTheLoop)
{
    for (int result : {1, -1, 256}) {
        unsigned passes = 0;
        ctx = {};
        ctx.timeout = 1;
        ctx.duration = 100;
        PassAction action = [&] { return ++passes == 3 ? result : 0; };
        ASSERT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, act_after_pass, &action), 0);
        limit_checks = 0;
        lh_poll_ctx_main_loop(&ctx);
        EXPECT_EQ(passes, 3u);
        EXPECT_LINES("lh_poll_ctx_handle: ctx->on_each_event_cb(ctx, ctx->on_each_event_cb_arg) "
                     "failed",
                     "lh_poll_ctx_main_loop: lh_poll_ctx_handle(ctx) failed");
        EXPECT_EQ(ctx.stop, 0);
        EXPECT_EQ(limit_checks, 2u) << "the loop returns before the failing pass's limit check";
    }
}

// Waiting -----------------------------------------------------------------------------------------

TEST_F(PollCtxLoop, TheLoopAndTheBreakCheckTheContext)
{
    lh_poll_ctx_main_loop(nullptr);
    EXPECT_LINES("lh_poll_ctx_main_loop: PTR_IS_NULL: ctx");
    lh_poll_ctx_main_loop_break(nullptr);
    EXPECT_LINES("lh_poll_ctx_main_loop_break: PTR_IS_NULL: ctx");
    for (int stop : {0, 1, -5}) {
        ctx.stop = stop;
        lh_poll_ctx_main_loop_break(&ctx);
        EXPECT_EQ(ctx.stop, 1);
    }
}

TEST_F(PollCtxLoop, PollIsGivenTheArrayAndTheTimeout)
{
    const struct {
        int timeout, passed;
    } cases[] = {{0, -1}, {1, 1}, {1500, 1500}, {INT32_MAX, INT32_MAX}, {-7, -7}};
    for (int fd : {7, 8, 9})
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", fd, never_called, nullptr), 0);
    for (const auto &c : cases) {
        unsigned polls = 0;
        use_scripted_poll([&](pollfd *given, nfds_t count, int timeout) {
            polls++;
            EXPECT_EQ(given, ctx._fds);
            EXPECT_EQ(count, 3u);
            EXPECT_EQ(timeout, c.passed);
            return 0;
        });
        ctx.timeout = c.timeout;
        one_pass();
        EXPECT_EQ(polls, 1u);
        EXPECT_EQ(ctx.poll_rc, 0);
    }
}

TEST_F(PollCtxLoop, WithoutATimeoutTheLoopWaitsUntilADescriptorIsReady)
{
    Pipe p;
    add(p.fd());
    std::thread writer;
    // The write comes only once the loop is in its wait, or on the way into it.
    faults.before("poll", [&](unsigned) { writer = std::thread([&] { p.fill(); }); });
    EXPECT_EQ(one_pass(), (fds{p.fd()}));
    EXPECT_EQ(faults.calls("poll"), 1u);
    EXPECT_EQ(ctx.poll_rc, 1);
    writer.join();
}

TEST_F(PollCtxLoop, ATimeoutDispatchesNobody)
{
    Pipe a;
    add(a.fd());
    ctx.timeout = 1;
    EXPECT_EQ(one_pass(), fds{});
    EXPECT_EQ(ctx.poll_rc, 0);
    // Not even what an element still reports.
    use_scripted_poll([](pollfd *given, nfds_t, int) {
        given[0].revents = POLLIN;
        return 0;
    });
    EXPECT_EQ(one_pass(), fds{});
}

TEST_F(PollCtxLoop, AFailingPollEndsTheLoop)
{
    add(7);
    PassAction action = [] {
        ADD_FAILURE() << "no pass, no callback";
        return 0;
    };
    ASSERT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, act_after_pass, &action), 0);
    ctx.duration = 5;
    for (int error : {EINVAL, ENOMEM, EFAULT}) {
        faults.fail("poll", error);
        lh_poll_ctx_main_loop(&ctx);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(ctx.poll_rc, -1);
        EXPECT_EQ(ctx.stop, 0);
        EXPECT_LINES("lh_poll: poll failed: " + std::to_string(error),
                     "lh_poll_ctx_main_loop: lh_poll(ctx) failed");
    }
    EXPECT_EQ(limit_checks, 0u);
    EXPECT_EQ(called, fds{});
}

TEST_F(PollCtxLoop, AnInterruptedPollOnlyEndsThePass)
{
    Pipe p;
    p.fill();
    add(p.fd());
    faults.fail("poll", EINTR);
    EXPECT_EQ(one_pass(), fds{});
    EXPECT_EQ(ctx.poll_rc, -1);
    EXPECT_NO_LINES();
    EXPECT_EQ(one_pass(), (fds{p.fd()}));
    EXPECT_EQ(ctx.poll_rc, 1);
}

TEST_F(PollCtxLoop, AnInterruptedPollDispatchesWhatTheElementsReport)
{
    add(7);
    add(8);
    use_scripted_poll([](pollfd *given, nfds_t, int) {
        given[1].revents = POLLIN;
        errno = EINTR;
        return -1;
    });
    EXPECT_EQ(one_pass(), (fds{8}));
    EXPECT_NO_LINES();
}

TEST_F(PollCtxLoop, ASignalOnlyEndsThePass)
{
    struct sigaction previous, quiet = {};
    quiet.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &quiet, &previous), 0);
    Pipe p;
    add(p.fd());
    std::atomic<bool> interrupted = false;
    PassAction action = [&] {
        if (ctx.poll_rc == -1) {
            interrupted = true;
            p.fill(); // the next pass finds it
        } else {
            lh_poll_ctx_main_loop_break(&ctx);
        }
        return 0;
    };
    ASSERT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, act_after_pass, &action), 0);
    // A signal that comes before the wait is lost on it: send them until one has interrupted it.
    std::thread sender([&, loop = pthread_self()] {
        while (!interrupted) {
            pthread_kill(loop, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    lh_poll_ctx_main_loop(&ctx);
    sender.join();
    EXPECT_TRUE(interrupted);
    EXPECT_EQ(called, (fds{p.fd()}));
    EXPECT_NO_LINES();
    sigaction(SIGUSR1, &previous, nullptr);
}

// Stopping ----------------------------------------------------------------------------------------

TEST_F(PollCtxLoop, AStoppedContextReturnsAtOnce)
{
    Pipe p;
    p.fill();
    add(p.fd());
    for (int stop : {1, -1}) {
        ctx.stop = stop;
        lh_poll_ctx_main_loop(&ctx);
        EXPECT_EQ(ctx.stop, stop);
    }
    EXPECT_EQ(faults.calls("poll"), 0u);
    EXPECT_EQ(called, fds{});
}

TEST_F(PollCtxLoop, ThePassThatStopsIsFinished)
{
    Pipe a, b;
    add(a.fd(), [&](int) { lh_poll_ctx_main_loop_break(&ctx); });
    add(b.fd());
    a.fill();
    b.fill();
    unsigned callbacks = 0;
    PassAction action = [&] {
        callbacks++;
        return 0;
    };
    ASSERT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, act_after_pass, &action), 0);
    ctx.duration = 100;
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_EQ(called, (fds{a.fd(), b.fd()}));
    EXPECT_EQ(callbacks, 1u);
    EXPECT_EQ(limit_checks, 1u);
    EXPECT_EQ(faults.calls("poll"), 1u);
    EXPECT_EQ(ctx.stop, 1) << "never cleared";
    ctx.stop = 0;
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_EQ(faults.calls("poll"), 2u);
}

TEST_F(PollCtxLoop, TheRunTimeLimitEndsTheLoop)
{
    board_time = {1000, 250};
    ctx.duration = 5;
    ctx.timeout = 1000;
    unsigned passes = 0;
    use_scripted_poll([&](pollfd *, nfds_t, int) {
        passes++;
        board_time.tv_sec++;
        return 0;
    });
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_EQ(passes, 5u);
    EXPECT_EQ(ctx.end_time.tv_sec, 1005);
    EXPECT_EQ(ctx.end_time.tv_nsec, 250);
    EXPECT_EQ(clock_readings, 6u);
    EXPECT_EQ(limit_checks, 5u);
    EXPECT_EQ(ctx.stop, 1);

    ctx.stop = 0; // each run has a limit of its own
    passes = 0;
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_EQ(passes, 5u);
    EXPECT_EQ(ctx.end_time.tv_sec, 1010);
}

TEST_F(PollCtxLoop, TheRunTimeLimitIsLookedAtOnlyAfterAPass)
{
    Pipe p;
    p.fill();
    add(p.fd());
    ctx.duration = 1;
    use_scripted_poll([&](pollfd *given, nfds_t, int timeout) {
        EXPECT_EQ(timeout, -1);
        board_time.tv_sec += 3600; // a long wait
        given[0].revents = POLLIN;
        return 1;
    });
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_EQ(called, (fds{p.fd()}));
    EXPECT_EQ(limit_checks, 1u);
}

TEST_F(PollCtxLoop, ALimitInThePastIsOnePass)
{
    for (const int duration : {-1, -5, INT32_MIN}) {
        board_time = {1000, 250};
        ctx.duration = duration;
        ctx.stop = 0;
        unsigned passes = 0;
        use_scripted_poll([&](pollfd *, nfds_t, int) {
            ctx.stop = ++passes == 10; // it fails, but it ends
            return 0;
        });
        lh_poll_ctx_main_loop(&ctx);
        EXPECT_EQ(passes, 1u) << duration;
        EXPECT_EQ(ctx.end_time.tv_sec, 1000 + int64_t{duration});
        EXPECT_EQ(ctx.end_time.tv_nsec, 250);
        EXPECT_EQ(ctx.stop, 1);
    }
}

TEST_F(PollCtxLoop, TheRunTimeLimitIsLookedAtAfterAnInterruptedPoll)
{
    ctx.duration = 3;
    unsigned passes = 0;
    use_scripted_poll([&](pollfd *, nfds_t, int) {
        ctx.stop = ++passes == 10; // it fails, but it ends
        board_time.tv_sec++;
        errno = EINTR;
        return -1;
    });
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_EQ(passes, 3u);
    EXPECT_EQ(limit_checks, 3u);
    EXPECT_EQ(ctx.poll_rc, -1);
    EXPECT_EQ(ctx.stop, 1);
    EXPECT_NO_LINES();
}

TEST_F(PollCtxLoop, WithoutALimitTheClockIsNotRead)
{
    ctx.timeout = 1;
    ctx.end_time = {12, 34};
    EXPECT_EQ(one_pass(), fds{});
    EXPECT_EQ(clock_readings, 0u);
    EXPECT_EQ(limit_checks, 0u);
    EXPECT_EQ(ctx.end_time.tv_sec, 12);
    EXPECT_EQ(ctx.end_time.tv_nsec, 34);
}
