// What the tests of the event loop share: a context, handlers with a memory, a `poll` of their own.
#pragma once

#include <fcntl.h>
#include <functional>
#include <memory>
#include <stdexcept>
#include <unistd.h>
#include <utility>
#include <vector>

#include "lh_poll_ctx.h"
#include "support/faults.hpp"
#include "support/log_capture.hpp"

namespace vyt::test {

// A `poll` that the tests write: what it is given, and what it answers.
inline std::function<int(pollfd *, nfds_t, int)> scripted_poll;

inline int call_scripted_poll(pollfd *fds, nfds_t count, int timeout)
{
    return scripted_poll(fds, count, timeout);
}

inline int never_called(int, void *)
{
    ADD_FAILURE() << "this handler is never called";
    return 0;
}

// A pipe whose read end is readable once it is filled.
class Pipe {
  public:
    Pipe()
    {
        if (pipe2(ends_, O_CLOEXEC | O_NONBLOCK) != 0)
            throw std::runtime_error("pipe2 failed");
    }
    ~Pipe()
    {
        forget_read_end();
        close_write_end();
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    int fd() const { return ends_[0]; }
    int write_end() const { return ends_[1]; }
    void fill() const { ASSERT_EQ(write(ends_[1], "x", 1), 1); }
    void close_read_end() { close(std::exchange(ends_[0], -1)); }
    void close_write_end()
    {
        if (ends_[1] >= 0)
            close(std::exchange(ends_[1], -1));
    }
    // Closes what is still open of it: a test may have closed it through the context.
    void forget_read_end()
    {
        if (ends_[0] >= 0 && fcntl(ends_[0], F_GETFD) != -1)
            close(ends_[0]);
        ends_[0] = -1;
    }

  private:
    int ends_[2];
};

// What a handler does, as its argument.
using Action = std::function<void(int)>;

inline int act(int fd, void *arg)
{
    (*static_cast<Action *>(arg))(fd);
    return 77; // ignored
}

using PassAction = std::function<int()>;

inline int act_after_pass(lh_poll_ctx *, void *arg)
{
    return (*static_cast<PassAction *>(arg))();
}

inline int stop_after_pass(lh_poll_ctx *ctx, void *)
{
    lh_poll_ctx_main_loop_break(ctx);
    return 0;
}

class PollCtx : public LogTest {
  protected:
    ~PollCtx() override { lh_poll_ctx_free(&ctx); }

    // Registers the descriptor with a handler that writes its number down and then acts.
    void add(int fd, Action then = {})
    {
        auto &action = *actions.emplace_back(std::make_unique<Action>([this, then](int ready) {
            called.push_back(ready);
            if (then)
                then(ready);
        }));
        ASSERT_EQ(lh_poll_ctx_fd_add(&ctx, "test", fd, act, &action), 0);
    }

    // The descriptors whose handlers one pass called, in order.
    std::vector<int> one_pass()
    {
        called.clear();
        ctx.stop = 0;
        ctx.on_each_event_cb = stop_after_pass;
        lh_poll_ctx_main_loop(&ctx);
        return called;
    }

    std::vector<int> registered() const
    {
        std::vector<int> fds;
        for (uint64_t i = 0; i < ctx.pfd_num; i++) {
            EXPECT_EQ(ctx.pfd[i].fd, &ctx._fds[i]) << "entry " << i;
            fds.push_back(ctx.pfd[i].fd->fd);
        }
        return fds;
    }

    void use_scripted_poll(std::function<int(pollfd *, nfds_t, int)> poll)
    {
        scripted_poll = std::move(poll);
        faults.replace("poll", reinterpret_cast<void *>(call_scripted_poll));
    }

    using fds = std::vector<int>;

    Faults faults;
    lh_poll_ctx ctx = {};
    std::vector<int> called;
    std::vector<std::unique_ptr<Action>> actions;
};

} // namespace vyt::test
