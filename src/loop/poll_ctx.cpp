#include "lh_poll_ctx.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <span>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "core/platform.hpp"
#include "lh_close.h"

using namespace vyt;

// Daemons declare the record themselves: its layout never changes.
static_assert(offsetof(lh_poll_ctx, pfd) == 0);
static_assert(offsetof(lh_poll_ctx, pfd_num) == 8);
static_assert(offsetof(lh_poll_ctx, timeout) == 16);
static_assert(offsetof(lh_poll_ctx, duration) == 20);
static_assert(offsetof(lh_poll_ctx, end_time) == 24);
static_assert(offsetof(lh_poll_ctx, on_each_event_cb) == 40);
static_assert(offsetof(lh_poll_ctx, on_each_event_cb_arg) == 48);
static_assert(offsetof(lh_poll_ctx, stop) == 56);
static_assert(offsetof(lh_poll_ctx, poll_rc) == 60);
static_assert(offsetof(lh_poll_ctx, _fds) == 64);
static_assert(sizeof(lh_poll_ctx) == 72);
static_assert(offsetof(lh_poll_ctx_fd, name) == 0);
static_assert(offsetof(lh_poll_ctx_fd, fd) == 8);
static_assert(offsetof(lh_poll_ctx_fd, cb) == 16);
static_assert(offsetof(lh_poll_ctx_fd, cb_arg) == 24);
static_assert(sizeof(lh_poll_ctx_fd) == 32);
static_assert(sizeof(timespec) == 16);

namespace {

// Entry i always points at element i, wherever the arrays have moved to.
void point_entries_at_elements(lh_poll_ctx *ctx, uint64_t count)
{
    for (uint64_t i = 0; i < count; i++)
        ctx->pfd[i].fd = &ctx->_fds[i];
}

// The entries, none when the arrays were released while pfd_num kept its value.
std::span<lh_poll_ctx_fd> entries(const lh_poll_ctx *ctx)
{
    return {ctx->pfd, ctx->pfd != nullptr ? ctx->pfd_num : 0};
}

// Both report under the name of the function that registers.
constexpr const char *adder = "lh_poll_ctx_fd_add";

int make_first_arrays(lh_poll_ctx *ctx)
{
    ctx->_fds = static_cast<pollfd *>(calloc(1, sizeof(pollfd)));
    if (PTR_IS_NULL_AS(adder, ctx->_fds, "ctx->_fds"))
        return -1;
    ctx->pfd = static_cast<lh_poll_ctx_fd *>(calloc(1, sizeof(lh_poll_ctx_fd)));
    if (PTR_IS_NULL_AS(adder, ctx->pfd, "ctx->pfd")) {
        malloc_ptr<pollfd>{ctx->_fds}.reset();
        ctx->_fds = nullptr;
        return -1;
    }
    return 0;
}

int grow_arrays(lh_poll_ctx *ctx, uint64_t count)
{
    auto *pfd_tmp = static_cast<lh_poll_ctx_fd *>(realloc(ctx->pfd, count * sizeof(*ctx->pfd)));
    if (PTR_IS_NULL_AS(adder, pfd_tmp, "pfd_tmp"))
        return -1;
    auto *_fds_tmp = static_cast<pollfd *>(realloc(ctx->_fds, count * sizeof(*ctx->_fds)));
    if (PTR_IS_NULL_AS(adder, _fds_tmp, "_fds_tmp"))
        // The context still holds the first array's old address: fatal to it.
        return -1; // NOLINT(clang-analyzer-unix.Malloc)
    ctx->pfd = pfd_tmp;
    ctx->_fds = _fds_tmp;
    return 0;
}

int lh_poll(lh_poll_ctx *ctx)
{
    ctx->poll_rc = poll(ctx->_fds, ctx->pfd_num, ctx->timeout == 0 ? -1 : ctx->timeout);
    if (ctx->poll_rc < 0 && errno != EINTR) {
        LOG_ERROR("poll failed: %d", errno);
        return -1;
    }
    return 0;
}

void dispatch(lh_poll_ctx *ctx)
{
    // Handlers add and delete descriptors: both members are read afresh at every step.
    for (uint64_t i = 0; i < entries(ctx).size(); i++) {
        const lh_poll_ctx_fd &entry = ctx->pfd[i];
        // Deliberate: a hang-up or an error alone is not dispatched; handlers read, nothing else.
        if ((entry.fd->revents & POLLIN) != 0 && entry.cb != nullptr)
            entry.cb(entry.fd->fd, entry.cb_arg);
    }
}

int lh_poll_ctx_handle(lh_poll_ctx *ctx)
{
    if (ctx->poll_rc != 0)
        dispatch(ctx);
    if (ctx->on_each_event_cb != nullptr &&
        CALL_FAILED(ctx->on_each_event_cb(ctx, ctx->on_each_event_cb_arg)))
        return -1;
    return 0;
}

} // namespace

lh_poll_ctx_fd *lh_poll_ctx_fd_get(lh_poll_ctx *ctx, int fd)
{
    if (PTR_IS_NULL(ctx) || IS_LT(fd, 0))
        return nullptr;
    for (lh_poll_ctx_fd &entry : entries(ctx)) {
        if (entry.fd->fd == fd)
            return &entry;
    }
    return nullptr;
}

int lh_poll_ctx_fd_add(lh_poll_ctx *ctx, const char *name, int fd, lh_poll_ctx_fd_cb cb,
                       void *cb_arg)
{
    if (PTR_IS_NULL(ctx) || IS_LT(fd, 0))
        return -1;
    if (lh_poll_ctx_fd_get(ctx, fd) != nullptr)
        return -1;

    const uint64_t count = entries(ctx).size() + 1;
    if ((ctx->pfd == nullptr ? make_first_arrays(ctx) : grow_arrays(ctx, count)) != 0)
        return -1;
    point_entries_at_elements(ctx, count);

    lh_poll_ctx_fd &entry = ctx->pfd[count - 1];
    entry.name = name != nullptr ? name : "unknown";
    // No returned events until the next poll: what a pass dispatches is what its poll reported.
    *entry.fd = {.fd = fd, .events = cb != nullptr ? short{POLLIN} : short{0}, .revents = 0};
    entry.cb = cb;
    entry.cb_arg = cb != nullptr ? cb_arg : nullptr;
    ctx->pfd_num = count;
    return 0;
}

int lh_poll_ctx_fd_del(lh_poll_ctx *ctx, int fd)
{
    if (PTR_IS_NULL(ctx) || PTR_IS_NULL(ctx->pfd) || PTR_IS_NULL(ctx->_fds))
        return -1;
    uint64_t i = 0;
    while (i < ctx->pfd_num && ctx->pfd[i].fd->fd != fd)
        i++;
    if (IS_EQ(i, ctx->pfd_num))
        return -1;
    const uint64_t count = ctx->pfd_num - 1;
    if (count == 0) {
        lh_poll_ctx_free(ctx);
        ctx->pfd_num = 0;
        return 0;
    }

    malloc_ptr<pollfd> fds(static_cast<pollfd *>(calloc(count, sizeof(pollfd))));
    pollfd *_fds_new = fds.get();
    if (PTR_IS_NULL(_fds_new))
        return -1;
    auto *pfd_new = static_cast<lh_poll_ctx_fd *>(calloc(count, sizeof(lh_poll_ctx_fd)));
    if (PTR_IS_NULL(pfd_new))
        return -1;
    memcpy(_fds_new, ctx->_fds, i * sizeof(*_fds_new));
    memcpy(_fds_new + i, ctx->_fds + i + 1, (count - i) * sizeof(*_fds_new));
    memcpy(pfd_new, ctx->pfd, i * sizeof(*pfd_new));
    memcpy(pfd_new + i, ctx->pfd + i + 1, (count - i) * sizeof(*pfd_new));
    lh_poll_ctx_free(ctx);
    ctx->_fds = fds.release(); // the context owns it now
    ctx->pfd = pfd_new;
    ctx->pfd_num = count;
    point_entries_at_elements(ctx, count);
    return 0;
}

void lh_poll_ctx_close_all(lh_poll_ctx *ctx)
{
    if (PTR_IS_NULL(ctx))
        return;
    for (uint64_t i = 0; i < entries(ctx).size(); i++) {
        if (ctx->pfd[i].fd->fd >= 0)
            (void)CALL_FAILED(lh_close(&ctx->pfd[i].fd->fd));
    }
}

void lh_poll_ctx_free(lh_poll_ctx *ctx)
{
    if (PTR_IS_NULL(ctx))
        return;
    free(ctx->pfd);
    free(ctx->_fds);
    ctx->pfd = nullptr;
    ctx->_fds = nullptr;
    // Deliberate: pfd_num stays, for the daemon that still wants to know how many there were.
}

int lh_poll_ctx_on_each_event_cb_set(lh_poll_ctx *ctx,
                                     lh_poll_ctx_on_each_event_cb on_each_event_cb, void *arg)
{
    if (PTR_IS_NULL(ctx) || PTR_IS_NULL(on_each_event_cb))
        return -1;
    if (ctx->on_each_event_cb != nullptr) {
        LOG_ERROR("update callback already exists");
        return -1;
    }
    ctx->on_each_event_cb = on_each_event_cb;
    ctx->on_each_event_cb_arg = arg;
    return 0;
}

void lh_poll_ctx_main_loop(lh_poll_ctx *ctx)
{
    if (PTR_IS_NULL(ctx))
        return;
    if (ctx->duration != 0) {
        clockgettime(&ctx->end_time);
        ctx->end_time.tv_sec += ctx->duration;
    }
    while (ctx->stop == 0) {
        if (CALL_FAILED(lh_poll(ctx)) || CALL_FAILED(lh_poll_ctx_handle(ctx)))
            return;
        if (ctx->duration != 0) {
            timespec now;
            clockgettime(&now);
            if ((clocktimerexpired(&ctx->end_time, &now) & 0xff) != 0)
                lh_poll_ctx_main_loop_break(ctx);
        }
    }
}

void lh_poll_ctx_main_loop_break(lh_poll_ctx *ctx)
{
    if (PTR_IS_NULL(ctx))
        return;
    ctx->stop = 1;
}
