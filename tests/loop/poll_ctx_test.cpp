// The set of descriptors: registering, finding, deleting, closing, releasing.
#include "loop/poll_ctx_fixture.hpp"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "support/process.hpp"

using namespace vyt::test;

// The record --------------------------------------------------------------------------------------

TEST_F(PollCtx, TheRecordsHaveTheirLayout)
{
    EXPECT_EQ(offsetof(lh_poll_ctx, pfd), 0u);
    EXPECT_EQ(offsetof(lh_poll_ctx, pfd_num), 8u);
    EXPECT_EQ(offsetof(lh_poll_ctx, timeout), 16u);
    EXPECT_EQ(offsetof(lh_poll_ctx, duration), 20u);
    EXPECT_EQ(offsetof(lh_poll_ctx, end_time), 24u);
    EXPECT_EQ(offsetof(lh_poll_ctx, on_each_event_cb), 40u);
    EXPECT_EQ(offsetof(lh_poll_ctx, on_each_event_cb_arg), 48u);
    EXPECT_EQ(offsetof(lh_poll_ctx, stop), 56u);
    EXPECT_EQ(offsetof(lh_poll_ctx, poll_rc), 60u);
    EXPECT_EQ(offsetof(lh_poll_ctx, _fds), 64u);
    EXPECT_EQ(sizeof(lh_poll_ctx), 72u);
    EXPECT_EQ(offsetof(lh_poll_ctx_fd, name), 0u);
    EXPECT_EQ(offsetof(lh_poll_ctx_fd, fd), 8u);
    EXPECT_EQ(offsetof(lh_poll_ctx_fd, cb), 16u);
    EXPECT_EQ(offsetof(lh_poll_ctx_fd, cb_arg), 24u);
    EXPECT_EQ(sizeof(lh_poll_ctx_fd), 32u);
}

// Registration ------------------------------------------------------------------------------------

TEST_F(PollCtx, AddingChecksTheContextThenTheDescriptor)
{
    EXPECT_EQ(lh_poll_ctx_fd_add(nullptr, "a", -1, never_called, nullptr), -1);
    EXPECT_LINES("lh_poll_ctx_fd_add: PTR_IS_NULL: ctx");
    EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "a", -5, never_called, nullptr), -1);
    EXPECT_LINES("lh_poll_ctx_fd_add: IS_LT check failed: fd (-5 < 0) !!!");
    EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "a", -1, never_called, nullptr), -1);
    EXPECT_LINES("lh_poll_ctx_fd_add: IS_LT check failed: fd (-1 < 0) !!!");
    EXPECT_EQ(ctx.pfd, nullptr);
    EXPECT_EQ(ctx._fds, nullptr);
    EXPECT_EQ(ctx.pfd_num, 0u);
}

TEST_F(PollCtx, AddingFillsTheEntry)
{
    char name[] = "timer";
    int arg = 0;
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, name, 0, never_called, &arg), 0);
    ASSERT_EQ(ctx.pfd_num, 1u);
    const lh_poll_ctx_fd &entry = ctx.pfd[0];
    EXPECT_EQ(entry.name, name) << "the name is not copied";
    EXPECT_EQ(entry.fd, &ctx._fds[0]);
    EXPECT_EQ(entry.fd->fd, 0);
    EXPECT_EQ(entry.fd->events, POLLIN);
    EXPECT_EQ(entry.fd->revents, 0);
    EXPECT_EQ(entry.cb, never_called);
    EXPECT_EQ(entry.cb_arg, &arg);
}

TEST_F(PollCtx, WithoutAHandlerAnEntryAsksForNothing)
{
    int arg = 0;
    for (int fd : {7, 8}) { // as the first entry and as a later one
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "quiet", fd, nullptr, &arg), 0);
        const lh_poll_ctx_fd &entry = *lh_poll_ctx_fd_get(&ctx, fd);
        EXPECT_STREQ(entry.name, "quiet");
        EXPECT_EQ(entry.fd->events, 0);
        EXPECT_EQ(entry.fd->revents, 0);
        EXPECT_EQ(entry.cb, nullptr);
        EXPECT_EQ(entry.cb_arg, nullptr);
    }
}

TEST_F(PollCtx, WithoutANameAnEntryIsUnknown)
{
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, nullptr, 7, never_called, nullptr), 0);
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, nullptr, 8, nullptr, nullptr), 0);
    EXPECT_STREQ(ctx.pfd[0].name, "unknown");
    EXPECT_STREQ(ctx.pfd[1].name, "unknown");
}

TEST_F(PollCtx, RegisteringTwiceIsRefusedSilently)
{
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "first", 7, never_called, nullptr), 0);
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "other", 8, never_called, nullptr), 0);
    for (int fd : {7, 8})
        EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "again", fd, nullptr, nullptr), -1);
    EXPECT_NO_LINES();
    EXPECT_EQ(registered(), (fds{7, 8}));
    EXPECT_STREQ(ctx.pfd[0].name, "first");
    EXPECT_STREQ(ctx.pfd[1].name, "other");
    EXPECT_EQ(ctx.pfd[1].fd->events, POLLIN);
}

TEST_F(PollCtx, EveryEntryPointsAtItsElementWhileTheArraysGrow)
{
    std::vector<int> expected;
    std::vector<int> arguments(300);
    for (int fd = 299; fd >= 0; fd--) {
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "many", fd, never_called, &arguments[fd]), 0);
        expected.push_back(fd);
        ASSERT_EQ(registered(), expected);
    }
    for (int fd = 0; fd < 300; fd++) {
        const lh_poll_ctx_fd *entry = lh_poll_ctx_fd_get(&ctx, fd);
        ASSERT_EQ(entry, &ctx.pfd[299 - fd]);
        EXPECT_EQ(entry->cb_arg, &arguments[fd]);
        EXPECT_EQ(entry->fd->events, POLLIN);
        EXPECT_EQ(entry->fd->revents, 0);
    }
}

TEST_F(PollCtx, AFirstRegistrationWithoutMemoryLeavesAnEmptyContext)
{
    const char *messages[] = {"lh_poll_ctx_fd_add: PTR_IS_NULL: ctx->_fds",
                              "lh_poll_ctx_fd_add: PTR_IS_NULL: ctx->pfd"};
    for (unsigned nth : {1u, 2u}) {
        faults.fail_allocation(nth);
        errno = 0;
        EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "a", 7, never_called, nullptr), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(faults.happened());
        EXPECT_LINES(messages[nth - 1]);
        EXPECT_EQ(ctx.pfd, nullptr);
        EXPECT_EQ(ctx._fds, nullptr);
        EXPECT_EQ(ctx.pfd_num, 0u);
    }
    EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "a", 7, never_called, nullptr), 0);
    EXPECT_EQ(registered(), (fds{7}));
}

TEST_F(PollCtx, ALaterRegistrationWithoutMemoryForItsEntryChangesNothing)
{
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", 7, never_called, nullptr), 0);
    const lh_poll_ctx before = ctx;
    faults.fail_allocation(1);
    errno = 0;
    EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "b", 8, never_called, nullptr), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES("lh_poll_ctx_fd_add: PTR_IS_NULL: pfd_tmp");
    EXPECT_EQ(memcmp(&before, &ctx, sizeof(ctx)), 0);
    EXPECT_EQ(registered(), (fds{7}));
    EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "b", 8, never_called, nullptr), 0);
    EXPECT_EQ(registered(), (fds{7, 8}));
}

namespace {

void *moved_from;
void *moved_block; // owned by the test below

// A realloc that moves the block and, unlike the real one, keeps the old one: what the dead context
// still points at can then be released.
void *move_and_keep(void *old, size_t size)
{
    moved_from = old;
    moved_block = malloc(size);
    memcpy(moved_block, old, sizeof(lh_poll_ctx_fd));
    return moved_block;
}

} // namespace

TEST_F(PollCtx, ALaterRegistrationWithoutMemoryForItsElementKeepsTheOldPointers)
{
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", 7, never_called, nullptr), 0);
    const lh_poll_ctx before = ctx;
    faults.replace("realloc", reinterpret_cast<void *>(move_and_keep));
    faults.fail("realloc", ENOMEM, 2);
    errno = 0;
    EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "b", 8, never_called, nullptr), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(faults.calls("realloc"), 2u);
    EXPECT_LINES("lh_poll_ctx_fd_add: PTR_IS_NULL: _fds_tmp");
    EXPECT_EQ(memcmp(&before, &ctx, sizeof(ctx)), 0) << "no pointer replaced, no count stored";
    EXPECT_EQ(moved_from, before.pfd) << "the entries are resized first";
    free(moved_block);
}

// Looking up --------------------------------------------------------------------------------------

TEST_F(PollCtx, LookingUpChecksItsArguments)
{
    EXPECT_EQ(lh_poll_ctx_fd_get(nullptr, -5), nullptr);
    EXPECT_LINES("lh_poll_ctx_fd_get: PTR_IS_NULL: ctx");
    EXPECT_EQ(lh_poll_ctx_fd_get(&ctx, -5), nullptr);
    EXPECT_LINES("lh_poll_ctx_fd_get: IS_LT check failed: fd (-5 < 0) !!!");
}

TEST_F(PollCtx, LookingUpFindsTheEntryOrNothing)
{
    EXPECT_EQ(lh_poll_ctx_fd_get(&ctx, 0), nullptr);
    for (int fd : {7, 0, 9})
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", fd, never_called, nullptr), 0);
    EXPECT_EQ(lh_poll_ctx_fd_get(&ctx, 7), &ctx.pfd[0]);
    EXPECT_EQ(lh_poll_ctx_fd_get(&ctx, 0), &ctx.pfd[1]);
    EXPECT_EQ(lh_poll_ctx_fd_get(&ctx, 9), &ctx.pfd[2]);
    EXPECT_EQ(lh_poll_ctx_fd_get(&ctx, 8), nullptr);
    EXPECT_NO_LINES();
}

// Deletion ----------------------------------------------------------------------------------------

TEST_F(PollCtx, DeletingChecksTheContextAndItsArrays)
{
    EXPECT_EQ(lh_poll_ctx_fd_del(nullptr, 7), -1);
    EXPECT_LINES("lh_poll_ctx_fd_del: PTR_IS_NULL: ctx");
    EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, 7), -1);
    EXPECT_LINES("lh_poll_ctx_fd_del: PTR_IS_NULL: ctx->pfd");
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", 7, never_called, nullptr), 0);
    pollfd *const elements = std::exchange(ctx._fds, nullptr);
    EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, 7), -1);
    EXPECT_LINES("lh_poll_ctx_fd_del: PTR_IS_NULL: ctx->_fds");
    ctx._fds = elements;
}

TEST_F(PollCtx, DeletingWhatIsNotThereIsLoggedWithTheCount)
{
    for (int fd : {7, 8, 9})
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", fd, never_called, nullptr), 0);
    for (int fd : {6, -1}) {
        EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, fd), -1);
        EXPECT_LINES("lh_poll_ctx_fd_del: IS_EQ check failed: i (3 == 3) !!!");
    }
    EXPECT_EQ(registered(), (fds{7, 8, 9}));
}

TEST_F(PollCtx, DeletingKeepsTheOrderOfTheOthers)
{
    const struct {
        int deleted;
        fds rest;
    } cases[] = {{7, {8, 9}}, {8, {7, 9}}, {9, {7, 8}}};
    for (const auto &c : cases) {
        int arguments[3] = {};
        const char *names[3] = {"seven", "eight", "nine"};
        for (int i = 0; i < 3; i++)
            ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, names[i], 7 + i, never_called, &arguments[i]), 0);
        ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, c.deleted), 0);
        EXPECT_EQ(registered(), c.rest);
        for (int fd : c.rest) {
            const lh_poll_ctx_fd *entry = lh_poll_ctx_fd_get(&ctx, fd);
            ASSERT_NE(entry, nullptr);
            EXPECT_EQ(entry->name, names[fd - 7]);
            EXPECT_EQ(entry->cb, never_called);
            EXPECT_EQ(entry->cb_arg, &arguments[fd - 7]);
            EXPECT_EQ(entry->fd->events, POLLIN);
        }
        lh_poll_ctx_free(&ctx);
        ctx.pfd_num = 0;
    }
}

TEST_F(PollCtx, DeletingTheOnlyOneEmptiesTheContext)
{
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", 7, never_called, nullptr), 0);
    ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, 7), 0);
    EXPECT_EQ(ctx.pfd, nullptr);
    EXPECT_EQ(ctx._fds, nullptr);
    EXPECT_EQ(ctx.pfd_num, 0u);
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "b", 8, never_called, nullptr), 0);
    EXPECT_EQ(registered(), (fds{8}));
}

TEST_F(PollCtx, DeletingDoesNotClose)
{
    Pipe a, b;
    add(a.fd());
    add(b.fd());
    ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, b.fd()), 0);
    ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, a.fd()), 0);
    EXPECT_NE(fcntl(a.fd(), F_GETFD), -1);
    EXPECT_NE(fcntl(b.fd(), F_GETFD), -1);
}

TEST_F(PollCtx, DeletingBuildsFreshArrays)
{
    for (int fd : {7, 8, 9})
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", fd, never_called, nullptr), 0);
    const lh_poll_ctx before = ctx;
    ASSERT_EQ(lh_poll_ctx_fd_del(&ctx, 9), 0);
    EXPECT_NE(ctx.pfd, before.pfd);
    EXPECT_NE(ctx._fds, before._fds);
}

TEST_F(PollCtx, DeletingWithoutMemoryChangesNothing)
{
    for (int fd : {7, 8, 9})
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", fd, never_called, nullptr), 0);
    const lh_poll_ctx before = ctx;
    const char *messages[] = {"lh_poll_ctx_fd_del: PTR_IS_NULL: _fds_new",
                              "lh_poll_ctx_fd_del: PTR_IS_NULL: pfd_new"};
    for (unsigned nth : {1u, 2u}) {
        faults.fail_allocation(nth);
        errno = 0;
        EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, 8), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(faults.happened());
        EXPECT_LINES(messages[nth - 1]);
        EXPECT_EQ(memcmp(&before, &ctx, sizeof(ctx)), 0);
        EXPECT_EQ(registered(), (fds{7, 8, 9}));
    }
    EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, 8), 0);
    EXPECT_EQ(registered(), (fds{7, 9}));
}

TEST_F(PollCtx, DeletingTheOnlyOneNeedsNoMemory)
{
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", 7, never_called, nullptr), 0);
    faults.fail_allocation(1);
    EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, 7), 0);
    EXPECT_FALSE(faults.happened());
}

// Closing and releasing ---------------------------------------------------------------------------

TEST_F(PollCtx, ClosingAllChecksTheContext)
{
    lh_poll_ctx_close_all(nullptr);
    EXPECT_LINES("lh_poll_ctx_close_all: PTR_IS_NULL: ctx");
    lh_poll_ctx_close_all(&ctx);
    EXPECT_NO_LINES();
}

TEST_F(PollCtx, ClosingAllKeepsTheEntries)
{
    const auto before = open_descriptors();
    {
        Pipe a, b;
        add(a.fd());
        add(b.fd());
        lh_poll_ctx_close_all(&ctx);
        EXPECT_EQ(fcntl(a.fd(), F_GETFD), -1);
        EXPECT_EQ(fcntl(b.fd(), F_GETFD), -1);
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(registered(), (fds{-1, -1}));
    lh_poll_ctx_close_all(&ctx); // closed ones are passed over
    EXPECT_NO_LINES();
}

TEST_F(PollCtx, ClosingAllGoesOnAfterAFailingClose)
{
    Pipe a, b, c;
    for (const Pipe *p : {&a, &b, &c})
        add(p->fd());
    faults.fail("close", EIO, 2);
    lh_poll_ctx_close_all(&ctx);
    EXPECT_EQ(errno, EIO);
    EXPECT_LINES("lh_close: close(*fd) failed",
                 "lh_poll_ctx_close_all: lh_close(&ctx->pfd[i].fd->fd) failed");
    EXPECT_EQ(registered(), (fds{-1, b.fd(), -1}));
    EXPECT_EQ(fcntl(c.fd(), F_GETFD), -1);
    lh_poll_ctx_close_all(&ctx); // only the one that is left
    EXPECT_EQ(faults.calls("close"), 4u);
    EXPECT_EQ(registered(), (fds{-1, -1, -1}));
}

TEST_F(PollCtx, ReleasingKeepsTheCount)
{
    lh_poll_ctx_free(nullptr);
    EXPECT_LINES("lh_poll_ctx_free: PTR_IS_NULL: ctx");
    for (int fd : {7, 8})
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", fd, never_called, nullptr), 0);
    lh_poll_ctx_free(&ctx);
    EXPECT_EQ(ctx.pfd, nullptr);
    EXPECT_EQ(ctx._fds, nullptr);
    EXPECT_EQ(ctx.pfd_num, 2u);
    ctx.pfd_num = 0;
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", 9, never_called, nullptr), 0);
    EXPECT_EQ(registered(), (fds{9}));
}

TEST_F(PollCtx, AReleasedContextWithItsOldCountIsUseless)
{
    for (int fd : {0, 8})
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", fd, never_called, nullptr), 0);
    lh_poll_ctx_free(&ctx);
    EXPECT_EQ(lh_poll_ctx_fd_get(&ctx, 0), nullptr);
    lh_poll_ctx_close_all(&ctx);
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_poll_ctx_fd_del(&ctx, 8), -1);
    EXPECT_LINES("lh_poll_ctx_fd_del: PTR_IS_NULL: ctx->pfd");
    lh_poll_ctx_main_loop(&ctx);
    EXPECT_LINES("lh_poll: poll failed: " + std::to_string(EFAULT),
                 "lh_poll_ctx_main_loop: lh_poll(ctx) failed");
    lh_poll_ctx_free(&ctx);
    EXPECT_NO_LINES();
}

TEST_F(PollCtx, ARegistrationOnAReleasedContextStartsAfresh)
{
    for (int fd : {7, 8})
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "a", fd, never_called, nullptr), 0);
    lh_poll_ctx_free(&ctx);
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "b", 9, never_called, nullptr), 0);
    EXPECT_EQ(registered(), (fds{9}));
    ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "b", 10, never_called, nullptr), 0);
    EXPECT_EQ(registered(), (fds{9, 10}));
}

// The per-pass callback ---------------------------------------------------------------------------

TEST_F(PollCtx, SettingTheCallbackChecksItsArguments)
{
    EXPECT_EQ(lh_poll_ctx_on_each_event_cb_set(nullptr, nullptr, nullptr), -1);
    EXPECT_LINES("lh_poll_ctx_on_each_event_cb_set: PTR_IS_NULL: ctx");
    EXPECT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, nullptr, nullptr), -1);
    EXPECT_LINES("lh_poll_ctx_on_each_event_cb_set: PTR_IS_NULL: on_each_event_cb");
    EXPECT_EQ(ctx.on_each_event_cb, nullptr);
}

TEST_F(PollCtx, TheCallbackIsSetOnce)
{
    int first = 0, second = 0;
    EXPECT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, stop_after_pass, &first), 0);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_poll_ctx_on_each_event_cb_set(&ctx, act_after_pass, &second), -1);
    EXPECT_LINES("lh_poll_ctx_on_each_event_cb_set: update callback already exists");
    EXPECT_EQ(ctx.on_each_event_cb, stop_after_pass);
    EXPECT_EQ(ctx.on_each_event_cb_arg, &first);
}
