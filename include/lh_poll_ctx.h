/**
 * @file lh_poll_ctx.h
 * The event loop: named descriptors with read handlers, waited on with `poll`.
 *
 * The daemon owns the context record: it declares and zeroes it, sets @ref lh_poll_ctx::timeout and
 * @ref lh_poll_ctx::duration, adds descriptors, runs the loop, and cleans up:
 *
 * @code
 * lh_poll_ctx ctx = {0};
 * ctx.timeout = 1000;                                        // at most a second a pass
 * lh_poll_ctx_fd_add(&ctx, "status", fd, on_status, &daemon);
 * lh_poll_ctx_main_loop(&ctx);                               // until lh_poll_ctx_main_loop_break
 * lh_poll_ctx_close_all(&ctx);
 * lh_poll_ctx_free(&ctx);
 * @endcode
 *
 * One thread: the loop, the handlers and every function here run on the daemon's event thread.
 */
#ifndef LH_POLL_CTX_H
#define LH_POLL_CTX_H

#include <poll.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct lh_poll_ctx lh_poll_ctx;

/** Called when a descriptor is readable, with the descriptor and the argument given at
 *  registration. Its result is ignored. It may add and delete descriptors, its own too. */
typedef int (*lh_poll_ctx_fd_cb)(int fd, void *arg);

/** Called after every pass of the loop; a non-zero result ends the loop. */
typedef int (*lh_poll_ctx_on_each_event_cb)(lh_poll_ctx *ctx, void *arg);

/** One registered descriptor. */
typedef struct lh_poll_ctx_fd {
    const char *name;     /**< as given at registration, not copied; "unknown" for none */
    struct pollfd *fd;    /**< this entry's element of `_fds`; the descriptor is `fd->fd` */
    lh_poll_ctx_fd_cb cb; /**< read handler; null: the entry asks for no event */
    void *cb_arg;         /**< its argument */
} lh_poll_ctx_fd;

/** The context. Zero it before first use; its field order is part of the interface. */
struct lh_poll_ctx {
    lh_poll_ctx_fd *pfd; /**< the entries, in registration order; owned by the context */
    uint64_t pfd_num;    /**< how many */
    int32_t timeout;     /**< longest wait of one pass in milliseconds; 0 waits without limit */
    int32_t duration;    /**< run-time limit of one lh_poll_ctx_main_loop() in seconds; 0: none */
    struct timespec end_time; /**< when the limit is reached; written by the loop */
    lh_poll_ctx_on_each_event_cb on_each_event_cb; /**< run after every pass; null: none */
    void *on_each_event_cb_arg;                    /**< its argument */
    int32_t stop;        /**< non-zero ends the loop; never cleared by the library */
    int32_t poll_rc;     /**< what the last `poll` returned */
    struct pollfd *_fds; /**< the array given to `poll`, parallel to `pfd`; owned by the context */
};

/**
 * Register a descriptor.
 *
 * @param ctx    the context; null is logged.
 * @param name   what to call the descriptor; **not copied**, so it must outlive the entry. Null
 *               stands for "unknown".
 * @param fd     the descriptor; it stays the caller's. Negative is logged.
 * @param cb     called when the descriptor is readable. Null registers the descriptor without
 *               asking for any event: it is never dispatched.
 * @param cb_arg handed to `cb`; stays the caller's; ignored without a `cb`.
 * @return 0, or -1. A descriptor that is registered already gives -1 without a line.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: ctx`; `IS_LT check failed: fd (%ld < %ld) !!!`; when there is no memory
 *         `PTR_IS_NULL: ctx->_fds`, `PTR_IS_NULL: ctx->pfd`, `PTR_IS_NULL: pfd_tmp` or
 *         `PTR_IS_NULL: _fds_tmp`.
 * @blocking no.
 * @threads the event thread.
 * @note Pointers into the entries (also from lh_poll_ctx_fd_get()) are valid until the next
 *       registration or deletion. After `PTR_IS_NULL: _fds_tmp` the context must not be used any
 *       more: treat that as fatal. A descriptor added during a pass is dispatched from the next
 *       pass on.
 * @note Only a *readable* descriptor is dispatched. One whose peer hung up without leaving anything
 *       to read (POLLHUP, POLLERR or POLLNVAL alone) is never dispatched and makes the loop spin;
 *       a per-pass callback that looks at `pfd[i].fd->revents` can find and delete it.
 */
int lh_poll_ctx_fd_add(lh_poll_ctx *ctx, const char *name, int fd, lh_poll_ctx_fd_cb cb,
                       void *cb_arg);

/**
 * Find the entry of a descriptor.
 *
 * @param ctx the context; null is logged.
 * @param fd  the descriptor; negative is logged.
 * @return the entry, owned by the context and valid until the next registration or deletion; null
 *         when the descriptor is not registered.
 * @errno  kept.
 * @log    `PTR_IS_NULL: ctx`; `IS_LT check failed: fd (%ld < %ld) !!!`.
 * @blocking no.
 * @threads the event thread.
 */
lh_poll_ctx_fd *lh_poll_ctx_fd_get(lh_poll_ctx *ctx, int fd);

/**
 * Remove a descriptor from the context, without closing it.
 *
 * @param ctx the context; null is logged.
 * @param fd  the descriptor; a negative one is not refused: -1 removes the first entry that
 *            lh_poll_ctx_close_all() has closed.
 * @return 0, or -1; on failure the context is as it was.
 * @errno  ENOMEM when there is no memory.
 * @log    `PTR_IS_NULL: ctx`, `PTR_IS_NULL: ctx->pfd` or `PTR_IS_NULL: ctx->_fds`;
 *         `IS_EQ check failed: i (%lu == %lu) !!!` (both the number of entries) when it is not
 *         registered; `PTR_IS_NULL: _fds_new` or `PTR_IS_NULL: pfd_new` when there is no memory.
 * @blocking no.
 * @threads the event thread.
 * @note The others keep their order. Called from a handler, it moves the entries behind the deleted
 *       one down: when a handler deletes its own descriptor, the next entry is skipped in this pass
 *       and dispatched in the next one.
 */
int lh_poll_ctx_fd_del(lh_poll_ctx *ctx, int fd);

/**
 * Close every registered descriptor that is not negative. The entries stay, with descriptor -1.
 *
 * @param ctx the context; null is logged.
 * @errno  of the last `close` that failed.
 * @log    `PTR_IS_NULL: ctx`; for each descriptor that could not be closed the line of lh_close()
 *         and `lh_close(&ctx->pfd[i].fd->fd) failed`; its entry keeps the descriptor.
 * @blocking as `close` does.
 * @threads the event thread.
 */
void lh_poll_ctx_close_all(lh_poll_ctx *ctx);

/**
 * Release both arrays of a context and null the pointers to them.
 *
 * @param ctx the context (stays the caller's); null is logged.
 * @errno  kept.
 * @log    `PTR_IS_NULL: ctx`.
 * @blocking no.
 * @threads the event thread.
 * @note Deliberate: `pfd_num` keeps its value. Whoever uses the context again sets it to 0 first;
 *       a loop that is run without that ends with `poll failed`.
 *       The descriptors are not closed, see lh_poll_ctx_close_all().
 */
void lh_poll_ctx_free(lh_poll_ctx *ctx);

/**
 * Set the callback that runs after every pass, also after one that timed out or was interrupted.
 *
 * @param ctx              the context; null is logged.
 * @param on_each_event_cb the callback; null is logged. A non-zero result of it ends the loop.
 * @param arg              handed to it; stays the caller's.
 * @return 0, or -1; a callback that was set before stays.
 * @errno  kept.
 * @log    `PTR_IS_NULL: ctx`; `PTR_IS_NULL: on_each_event_cb`; `update callback already exists`.
 * @blocking no.
 * @threads the event thread.
 * @note There is no call to replace or clear it.
 */
int lh_poll_ctx_on_each_event_cb_set(lh_poll_ctx *ctx,
                                     lh_poll_ctx_on_each_event_cb on_each_event_cb, void *arg);

/**
 * Run the loop: wait, dispatch the readable descriptors in registration order, run the per-pass
 * callback; again, until it is told to stop.
 *
 * It returns when `stop` is set (looked at before each pass, so the pass that sets it is finished),
 * when the run-time limit is over, when `poll` fails, and when the per-pass callback returns
 * non-zero. A signal that interrupts the wait only ends the pass.
 *
 * @param ctx the context; null is logged.
 * @errno  of `poll` when that failed; else of no meaning.
 * @log    `PTR_IS_NULL: ctx`; `poll failed: %d` (errno; function `lh_poll`) and
 *         `lh_poll(ctx) failed`; `ctx->on_each_event_cb(ctx, ctx->on_each_event_cb_arg) failed`
 *         (function `lh_poll_ctx_handle`) and `lh_poll_ctx_handle(ctx) failed`.
 * @blocking for as long as it runs.
 * @threads the event thread.
 * @note The library never clears `stop`: a stopped context returns at once until the daemon sets it
 *       to 0. The run-time limit is looked at after a pass, so with `timeout` 0 it can be overrun
 *       until some descriptor becomes readable.
 */
void lh_poll_ctx_main_loop(lh_poll_ctx *ctx);

/**
 * Make the loop return after the current pass.
 *
 * @param ctx the context; its `stop` becomes 1. Null is logged.
 * @errno  kept.
 * @log    `PTR_IS_NULL: ctx`.
 * @blocking no.
 * @threads the event thread: a handler or the per-pass callback.
 */
void lh_poll_ctx_main_loop_break(lh_poll_ctx *ctx);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
