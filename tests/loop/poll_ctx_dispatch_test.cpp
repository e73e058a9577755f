// Which handlers a pass calls, and what handlers may do to the context meanwhile; when passes end
// by the clock of the library that stands in for the board's.
#include "loop/poll_ctx_fixture.hpp"

#include <dlfcn.h>

using namespace vyt::test;

class PollCtxDispatch : public PollCtx {};

TEST_F(PollCtxDispatch, ReadableDescriptorsAreDispatchedInTheOrderOfRegistration)
{
    Pipe a, b, c, d;
    for (const Pipe *p : {&d, &a, &c, &b})
        add(p->fd());
    for (const Pipe *p : {&a, &b, &d})
        p->fill();
    EXPECT_EQ(one_pass(), (fds{d.fd(), a.fd(), b.fd()}));
    EXPECT_EQ(ctx.poll_rc, 3);
    ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, a.fd()), 0);
    add(a.fd());
    EXPECT_EQ(one_pass(), (fds{d.fd(), b.fd(), a.fd()}));
}

TEST_F(PollCtxDispatch, AHangUpAloneIsNotDispatched)
{
    Pipe p;
    p.close_write_end();
    add(p.fd());
    EXPECT_EQ(one_pass(), fds{});
    EXPECT_EQ(ctx.poll_rc, 1);
    EXPECT_EQ(ctx._fds[0].revents, POLLHUP);
}

TEST_F(PollCtxDispatch, AHangUpWithSomethingToReadIsDispatched)
{
    Pipe p;
    p.fill();
    p.close_write_end();
    add(p.fd());
    EXPECT_EQ(one_pass(), (fds{p.fd()}));
    EXPECT_EQ(ctx._fds[0].revents, POLLIN | POLLHUP);
}

TEST_F(PollCtxDispatch, AnErrorAloneIsNotDispatched)
{
    Pipe p;
    p.close_read_end();
    add(p.write_end());
    EXPECT_EQ(one_pass(), fds{});
    EXPECT_EQ(ctx._fds[0].revents, POLLERR);
}

TEST_F(PollCtxDispatch, AClosedDescriptorIsNotDispatched)
{
    Pipe p;
    add(p.fd());
    p.close_read_end();
    EXPECT_EQ(one_pass(), fds{});
    EXPECT_EQ(ctx._fds[0].revents, POLLNVAL);
}

TEST_F(PollCtxDispatch, AnEntryWithoutAHandlerIsNeverDispatched)
{
    Pipe quiet, loud;
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "quiet", quiet.fd(), nullptr, nullptr), 0);
    add(loud.fd());
    quiet.fill();
    loud.fill();
    EXPECT_EQ(one_pass(), (fds{loud.fd()}));
    EXPECT_EQ(ctx.poll_rc, 1);
    // Nor when its element claims to be readable.
    use_scripted_poll([](pollfd *given, nfds_t count, int) {
        for (nfds_t i = 0; i < count; i++)
            given[i].revents = POLLIN;
        return static_cast<int>(count);
    });
    EXPECT_EQ(one_pass(), (fds{loud.fd()}));
}

TEST_F(PollCtxDispatch, AHandlerThatDeletesItselfMakesThePassSkipTheNext)
{
    Pipe a, b, c;
    add(a.fd(), [&](int fd) { EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, fd), 0); });
    add(b.fd());
    add(c.fd());
    for (const Pipe *p : {&a, &b, &c})
        p->fill();
    EXPECT_EQ(one_pass(), (fds{a.fd(), c.fd()}));
    EXPECT_EQ(registered(), (fds{b.fd(), c.fd()}));
    EXPECT_EQ(one_pass(), (fds{b.fd(), c.fd()}));
}

TEST_F(PollCtxDispatch, AHandlerThatDeletesAnEarlierOneMakesThePassSkipTheNext)
{
    Pipe a, b, c, d;
    add(a.fd());
    add(b.fd(), [&](int) { EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, a.fd()), 0); });
    add(c.fd());
    add(d.fd());
    for (const Pipe *p : {&a, &b, &c, &d})
        p->fill();
    EXPECT_EQ(one_pass(), (fds{a.fd(), b.fd(), d.fd()}));
    EXPECT_EQ(registered(), (fds{b.fd(), c.fd(), d.fd()}));
}

TEST_F(PollCtxDispatch, AHandlerThatDeletesALaterOneKeepsItFromBeingCalled)
{
    Pipe a, b, c;
    add(a.fd(), [&](int) { EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, b.fd()), 0); });
    add(b.fd());
    add(c.fd());
    for (const Pipe *p : {&a, &b, &c})
        p->fill();
    EXPECT_EQ(one_pass(), (fds{a.fd(), c.fd()}));
}

TEST_F(PollCtxDispatch, AHandlerThatDeletesEverythingEndsThePass)
{
    Pipe a, b;
    add(a.fd(), [&](int) {
        EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, a.fd()), 0);
        EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, b.fd()), 0);
    });
    add(b.fd());
    a.fill();
    b.fill();
    EXPECT_EQ(one_pass(), (fds{a.fd()}));
    EXPECT_EQ(ctx.pfd_num, 0u);
    ctx.timeout = 1; // an empty context only waits
    EXPECT_EQ(one_pass(), fds{});
}

TEST_F(PollCtxDispatch, ADescriptorAddedInAPassIsDispatchedFromTheNextOneOn)
{
    Pipe a, b;
    b.fill();
    add(a.fd(), [&](int) { add(b.fd()); });
    a.fill();
    EXPECT_EQ(one_pass(), (fds{a.fd()}));
    EXPECT_EQ(registered(), (fds{a.fd(), b.fd()}));
    EXPECT_EQ(ctx._fds[1].revents, 0);
    ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, a.fd()), 0);
    EXPECT_EQ(one_pass(), (fds{b.fd()}));
}

TEST_F(PollCtxDispatch, ManyDescriptorsAddedInAPassMoveTheArraysUnderIt)
{
    Pipe a, z;
    std::vector<std::unique_ptr<Pipe>> more;
    add(a.fd(), [&](int) {
        for (int i = 0; i < 200; i++) {
            more.push_back(std::make_unique<Pipe>());
            more.back()->fill();
            add(more.back()->fd());
        }
    });
    add(z.fd());
    a.fill();
    z.fill();
    EXPECT_EQ(one_pass(), (fds{a.fd(), z.fd()}));
    EXPECT_EQ(ctx.pfd_num, 202u);
    ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, a.fd()), 0);
    EXPECT_EQ(one_pass().size(), 201u);
}

TEST_F(PollCtxDispatch, ADescriptorReplacedUnderTheSameNumberWaitsForTheNextPoll)
{
    Pipe a;
    auto b = std::make_unique<Pipe>();
    const int number = b->fd();
    Pipe fresh;
    add(a.fd(), [&](int) {
        EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, number), 0);
        b.reset();
        ASSERT_EQ(dup2(fresh.fd(), number), number);
        add(number);
    });
    add(number);
    a.fill();
    b->fill();
    EXPECT_EQ(one_pass(), (fds{a.fd()})) << "what the old descriptor reported is not the new one's";
    EXPECT_EQ(registered(), (fds{a.fd(), number}));
    fresh.fill();
    ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, a.fd()), 0);
    EXPECT_EQ(one_pass(), (fds{number}));
    close(number);
}

TEST_F(PollCtxDispatch, AHandlerThatReplacesItselfIsNotCalledAgainInThePass)
{
    Pipe a;
    a.fill();
    add(a.fd(), [&](int fd) {
        EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, fd), 0);
        add(fd);
    });
    EXPECT_EQ(one_pass(), (fds{a.fd()}));
    EXPECT_EQ(one_pass(), (fds{a.fd()}));
}

TEST_F(PollCtxDispatch, AfterClosingAllInAPassLaterHandlersSeeNoDescriptor)
{
    Pipe a, b;
    add(a.fd(), [&](int) { lh_poll_ctx_close_all(&ctx); });
    add(b.fd());
    a.fill();
    b.fill();
    EXPECT_EQ(one_pass(), (fds{a.fd(), -1}));
    ctx.timeout = 1; // negative descriptors report nothing
    EXPECT_EQ(one_pass(), fds{});
}

TEST_F(PollCtxDispatch, AHandlerThatReleasesTheContextEndsThePass)
{
    Pipe a, b;
    add(a.fd(), [&](int) { lh_poll_ctx_free(&ctx); });
    add(b.fd());
    a.fill();
    b.fill();
    EXPECT_EQ(one_pass(), (fds{a.fd()}));
    EXPECT_NO_LINES();
}

TEST_F(PollCtxDispatch, ANestedRunOfTheLoopDoesNotCutThePassShort)
{
    Pipe a, b;
    add(a.fd(), [&](int) {
        scripted_poll = [](pollfd *, nfds_t, int) { return 0; };
        lh_poll_ctx_main_loop(&ctx);
        EXPECT_EQ(ctx.poll_rc, 0);
    });
    add(b.fd());
    use_scripted_poll([](pollfd *given, nfds_t, int) {
        given[0].revents = given[1].revents = POLLIN;
        return 2;
    });
    EXPECT_EQ(one_pass(), (fds{a.fd(), b.fd()}));
}

static int64_t nanoseconds(const timespec &time)
{
    return time.tv_sec * int64_t{1000000000} + time.tv_nsec;
}

// What the clock that the library asks says now.
static timespec clock_reading()
{
    timespec now = {};
    reinterpret_cast<int (*)(timespec *)>(dlsym(RTLD_DEFAULT, "clockgettime"))(&now);
    return now;
}

TEST_F(PollCtxDispatch, PassesFollowEachOtherUntilTheClockHasReachedTheLimit)
{
    unsigned passes = 0;
    PassAction action = [&] {
        passes++;
        return 0;
    };
    ASSERT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, act_after_pass, &action), 0);
    ctx.timeout = 1;
    ctx.duration = 1;
    // A machine that holds the process up for the whole second leaves it a single pass: then again.
    for (int run = 0; run < 10 && passes < 2; run++) {
        passes = 0;
        ctx.stop = 0;
        const timespec before = clock_reading();
        lh_poll_ctx_main_loop(&ctx);
        const timespec after = clock_reading();
        EXPECT_EQ(ctx.stop, 1);
        EXPECT_GE(nanoseconds(ctx.end_time), nanoseconds(before) + 1000000000);
        EXPECT_GE(nanoseconds(after), nanoseconds(ctx.end_time)) << "not before the clock says so";
    }
    EXPECT_GE(passes, 2u);
}
