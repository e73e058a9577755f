// Every fault of the event loop, timers, lists, locks, CPU counts and descriptor sets.
#include <cerrno>
#include <cstring>
#include <sys/select.h>
#include <unistd.h>

#include "lh_close.h"
#include "lh_list.h"
#include "lh_rwlock.h"
#include "lh_select.h"
#include "lh_sysinfo.h"
#include "lh_timer.h"
#include "loop/poll_ctx_fixture.hpp"
#include "support/fault_sweep.hpp"

using namespace vyt::test;

namespace {

// The poll context --------------------------------------------------------------------------------

std::string registered(const lh_poll_ctx &ctx)
{
    std::string text = " [";
    for (uint64_t i = 0; i < ctx.pfd_num; i++) {
        EXPECT_EQ(ctx.pfd[i].fd, &ctx._fds[i]) << "entry " << i;
        text += " " + std::to_string(ctx.pfd[i].fd->fd);
    }
    return text + " ]";
}

int add(lh_poll_ctx &ctx, int fd)
{
    return lh_poll_ctx_fd_add(&ctx, "test", fd, never_called, nullptr);
}

std::string add_the_first(Attempt &a)
{
    lh_poll_ctx ctx = {};
    const int result = a.faulted([&] { return add(ctx, 5); });
    const std::string outcome = shown(result) + registered(ctx);
    EXPECT_TRUE(result == 0 || add(ctx, 5) == 0);
    lh_poll_ctx_free(&ctx);
    return outcome;
}

// Once one of the arrays has moved and the other has not, the context is lost, deliberately: it
// still holds the first one's old address.
std::string add_a_second(Attempt &a)
{
    lh_poll_ctx ctx = {};
    EXPECT_EQ(add(ctx, 5), 0);
    const int result = a.faulted([&] { return add(ctx, 6); });
    if (result != 0 && a.calls().at("realloc") == 2) {
        for (const char *call : {"calloc", "realloc"}) {
            for (void *array : a.faults().held_by(call))
                a.release(array);
        }
        return shown(result) + " lost";
    }
    const std::string outcome = shown(result) + registered(ctx);
    EXPECT_TRUE(result == 0 || add(ctx, 6) == 0);
    lh_poll_ctx_free(&ctx);
    return outcome;
}

std::string delete_one_of(Attempt &a, std::initializer_list<int> fds)
{
    lh_poll_ctx ctx = {};
    for (const int fd : fds)
        EXPECT_EQ(add(ctx, fd), 0);
    const int result = a.faulted([&] { return lh_poll_ctx_fd_del(&ctx, 6); });
    const std::string outcome = shown(result) + registered(ctx);
    EXPECT_TRUE(result == 0 || lh_poll_ctx_fd_del(&ctx, 6) == 0);
    lh_poll_ctx_free(&ctx);
    return outcome;
}

std::string close_all_of_two(Attempt &a)
{
    lh_poll_ctx ctx = {};
    int pipe_ends[2];
    EXPECT_EQ(pipe(pipe_ends), 0);
    for (const int fd : pipe_ends)
        EXPECT_EQ(add(ctx, fd), 0);
    a.faulted([&] { lh_poll_ctx_close_all(&ctx); });
    std::string outcome;
    for (uint64_t i = 0; i < ctx.pfd_num; i++)
        outcome += ctx.pfd[i].fd->fd == -1 ? " closed" : " left";
    lh_poll_ctx_free(&ctx);
    return outcome;
}

// The loop runs until its handler has been called once.
std::string loop_until_called(Attempt &a, int seconds)
{
    const Pipe pipe;
    pipe.fill();
    lh_poll_ctx ctx = {};
    ctx.duration = seconds;
    int called = 0;
    Action handler = [&](int) {
        called++;
        lh_poll_ctx_main_loop_break(&ctx);
    };
    EXPECT_EQ(lh_poll_ctx_fd_add(&ctx, "test", pipe.fd(), act, &handler), 0);
    a.faulted([&] { lh_poll_ctx_main_loop(&ctx); });
    lh_poll_ctx_free(&ctx);
    return shown(called);
}

const std::vector<rule> poll_rules = {
    ignored("poll").with({EINTR}),
    fails("poll", "0",
          {"lh_poll: poll failed: {code}", "lh_poll_ctx_main_loop: lh_poll(ctx) failed"}),
};

std::string with_empty_context(Attempt &a, const std::function<long(lh_poll_ctx *)> &call)
{
    lh_poll_ctx ctx = {};
    EXPECT_EQ(add(ctx, 5), 0);
    const long result = a.faulted([&] { return call(&ctx); });
    lh_poll_ctx_free(&ctx);
    return shown(result);
}

const std::vector<scenario> poll_ctx = {
    {.function = "lh_poll_ctx_fd_add",
     .way = "the first",
     .body = add_the_first,
     .outcome = "0 [ 5 ]",
     .faults = {fails("calloc:1", "-1 [ ]", {"lh_poll_ctx_fd_add: PTR_IS_NULL: ctx->_fds"}),
                fails("calloc:2", "-1 [ ]", {"lh_poll_ctx_fd_add: PTR_IS_NULL: ctx->pfd"})}},
    {.function = "lh_poll_ctx_fd_add",
     .way = "a second",
     .body = add_a_second,
     .outcome = "0 [ 5 6 ]",
     .faults = {fails("realloc:1", "-1 [ 5 ]", {"lh_poll_ctx_fd_add: PTR_IS_NULL: pfd_tmp"}),
                fails("realloc:2", "-1 lost", {"lh_poll_ctx_fd_add: PTR_IS_NULL: _fds_tmp"})}},
    {.function = "lh_poll_ctx_fd_get",
     .body =
         [](Attempt &a) {
             return with_empty_context(
                 a, [](lh_poll_ctx *ctx) { return lh_poll_ctx_fd_get(ctx, 5)->fd->fd; });
         },
     .outcome = "5"},
    {.function = "lh_poll_ctx_fd_del",
     .way = "one of three",
     .body =
         [](Attempt &a) {
             return delete_one_of(a, {5, 6, 7});
         },
     .outcome = "0 [ 5 7 ]",
     .faults = {fails("calloc:1", "-1 [ 5 6 7 ]", {"lh_poll_ctx_fd_del: PTR_IS_NULL: _fds_new"}),
                fails("calloc:2", "-1 [ 5 6 7 ]", {"lh_poll_ctx_fd_del: PTR_IS_NULL: pfd_new"})}},
    {.function = "lh_poll_ctx_fd_del",
     .way = "the only one",
     .body = [](Attempt &a) { return delete_one_of(a, {6}); },
     .outcome = "0 [ ]"},
    {.function = "lh_poll_ctx_close_all",
     .body = close_all_of_two,
     .outcome = " closed closed",
     .faults = {fails("close:1", " left closed",
                      {"lh_close: close(*fd) failed",
                       "lh_poll_ctx_close_all: lh_close(&ctx->pfd[i].fd->fd) failed"}),
                fails("close:2", " closed left",
                      {"lh_close: close(*fd) failed",
                       "lh_poll_ctx_close_all: lh_close(&ctx->pfd[i].fd->fd) failed"})}},
    {.function = "lh_poll_ctx_free",
     .body =
         [](Attempt &a) {
             lh_poll_ctx ctx = {};
             EXPECT_EQ(add(ctx, 5), 0);
             a.faulted([&] { lh_poll_ctx_free(&ctx); });
             return shown(ctx.pfd) + " " + shown(ctx._fds);
         },
     .outcome = "null null"},
    {.function = "lh_poll_ctx_on_each_event_cb_set",
     .body =
         [](Attempt &a) {
             return with_empty_context(a, [](lh_poll_ctx *ctx) {
                 return lh_poll_ctx_on_each_event_cb_set(ctx, stop_after_pass, nullptr);
             });
         },
     .outcome = "0"},
    {.function = "lh_poll_ctx_main_loop",
     .body = [](Attempt &a) { return loop_until_called(a, 0); },
     .outcome = "1",
     .faults = poll_rules},
    {.function = "lh_poll_ctx_main_loop",
     .way = "with a time limit",
     .body = [](Attempt &a) { return loop_until_called(a, 600); },
     .outcome = "1",
     .faults = poll_rules},
    {.function = "lh_poll_ctx_main_loop_break",
     .body =
         [](Attempt &a) {
             return with_empty_context(a, [](lh_poll_ctx *ctx) {
                 lh_poll_ctx_main_loop_break(ctx);
                 return ctx->stop;
             });
         },
     .outcome = "1"},
};

// Timers ------------------------------------------------------------------------------------------

std::string create_timer(Attempt &a)
{
    const int fd = a.faulted([] { return lh_timer_fd_create({.tv_sec = 60, .tv_nsec = 0}); });
    return (fd >= 0 ? "a descriptor, " : "-1, ") + shown(a.close_left()) + " open";
}

// What is read is eight bytes from a pipe, as a timer gives them.
std::string handle_timer(Attempt &a)
{
    const Pipe pipe;
    const uint64_t expirations = 3;
    EXPECT_EQ(write(pipe.write_end(), &expirations, sizeof(expirations)), 8);
    int called = 0;
    const auto callback = [](void *arg) {
        ++*static_cast<int *>(arg);
        return 42;
    };
    const int result = a.faulted([&] { return lh_timer_fd_handle(pipe.fd(), callback, &called); });
    return shown(result) + ", called " + shown(called);
}

std::string byte_swapped()
{
    timeval tv = {.tv_sec = 1, .tv_usec = 2};
    lh_struct_timeval_bs(&tv);
    return shown(tv.tv_sec >> 56) + " " + shown(tv.tv_usec >> 56);
}

std::string local_year()
{
    tm broken_down = {};
    const int result = lh_localtime_unix(86400u * 365 * 30, &broken_down);
    return shown(result) + " " + shown(broken_down.tm_year);
}

const std::vector<scenario> timers = {
    simply(
        "lh_timer_ms_to_timespec", [] { return shown(lh_timer_ms_to_timespec(1500).tv_nsec); },
        "500000000"),
    simply(
        "lh_timer_s_to_timespec", [] { return shown(lh_timer_s_to_timespec(5).tv_sec); }, "5"),
    simply("lh_struct_timeval_bs", byte_swapped, "1 2"),
    simply("lh_localtime_unix", local_year, "0 99", {fails("localtime_r", "-1 0")}),
    {.function = "lh_timer_fd_create",
     .body = create_timer,
     .outcome = "a descriptor, 1 open",
     // Deliberate: a timer that cannot be armed stays open.
     .faults = {fails("timerfd_create", "-1, 0 open",
                      {"lh_timer_fd_create: IS_EQ check failed: -1 (-1 == -1) !!!"}),
                fails("timerfd_settime", "-1, 1 open",
                      {"lh_timer_fd_create: IS_NE check failed: 0 (0 != -1) !!!"})}},
    {.function = "lh_timer_fd_handle",
     .body = handle_timer,
     .outcome = "42, called 1",
     .faults = {fails("read", "-1, called 0",
                      {"lh_timer_fd_handle: IS_NE check failed: sizeof(exp) "
                       "(8 != 18446744073709551615) !!!"})
                    .with({EAGAIN, EINTR, EIO, ENOMEM}),
                shortened("read", "-1, called 0",
                          {"lh_timer_fd_handle: IS_NE check failed: sizeof(exp) (8 != 4) !!!"})}},
};

// Lists -------------------------------------------------------------------------------------------

struct List {
    List() { head.next = head.prev = &head; }
    ~List() { lh_list_free(&head); }
    lh_list head;
};

// The list holds "b" already; what it holds after the call, and that the same call works then.
std::string add_to_list(Attempt &a, int (*add_one)(lh_list *, const void *, size_t))
{
    List list;
    EXPECT_EQ(lh_list_add(&list.head, "b", 2), 1);
    const int result = a.faulted([&] { return add_one(&list.head, "a", 2); });
    std::string outcome = shown(result);
    const lh_list *at = list.head.next;
    for (; at != &list.head; at = at->next)
        outcome += " " + std::string(static_cast<const char *>(
                             reinterpret_cast<const lh_list_node *>(at)->data));
    EXPECT_TRUE(result == 1 || add_one(&list.head, "a", 2) == 1);
    return outcome;
}

const std::vector<rule> no_node = {
    fails("calloc:1", "0 b", {"list_add: Unable to allocate memory for new entry"}),
    fails("calloc:2", "0 b", {"list_add: Unable to allocate memory for new entry data"}),
};

std::string with_list(Attempt &a, const std::function<std::string(lh_list *)> &call)
{
    List list;
    EXPECT_EQ(lh_list_add(&list.head, "a", 2), 1);
    EXPECT_EQ(lh_list_add_tail(&list.head, "b", 2), 1);
    return a.faulted([&] { return call(&list.head); });
}

scenario of_list(const char *function, const std::function<std::string(Attempt &, lh_list *)> &call,
                 const std::string &outcome)
{
    return {.function = function,
            .body =
                [call](Attempt &a) {
                    return with_list(a, [&](lh_list *list) { return call(a, list); });
                },
            .outcome = outcome};
}

int same(const void *data, const void *key, size_t size)
{
    return memcmp(data, key, size) == 0 ? 3 : 0;
}

const std::vector<scenario> lists = {
    {.function = "lh_list_add",
     .body = [](Attempt &a) { return add_to_list(a, lh_list_add); },
     .outcome = "1 a b",
     .faults = no_node},
    {.function = "lh_list_add_tail",
     .body = [](Attempt &a) { return add_to_list(a, lh_list_add_tail); },
     .outcome = "1 b a",
     .faults = no_node},
    of_list(
        "lh_list_contains_ex",
        [](Attempt &, lh_list *l) { return shown(lh_list_contains_ex(l, "b", same)); }, "3"),
    of_list(
        "lh_list_contains", [](Attempt &, lh_list *l) { return shown(lh_list_contains(l, "b")); },
        "1"),
    of_list(
        "lh_list_pop_front",
        [](Attempt &a, lh_list *l) { return a.taken(static_cast<char *>(lh_list_pop_front(l))); },
        "'a'"),
    of_list(
        "lh_list_pop_back",
        [](Attempt &a, lh_list *l) { return a.taken(static_cast<char *>(lh_list_pop_back(l))); },
        "'b'"),
    of_list(
        "lh_list_empty", [](Attempt &, lh_list *l) { return shown(lh_list_empty(l)); }, "0"),
    of_list(
        "lh_list_free",
        [](Attempt &, lh_list *l) {
            lh_list_free(l);
            return shown(l->next == l && l->prev == l);
        },
        "1"),
};

// Locks -------------------------------------------------------------------------------------------

using lock_call = int (*)(pthread_rwlock_t *);

int init(pthread_rwlock_t *lock)
{
    return lh_rwlock_init(lock, nullptr);
}

// Calls it for a lock in the state that it needs, and puts the lock away as the fault has left it.
std::string with_lock(Attempt &a, lock_call call)
{
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    EXPECT_TRUE(call != lh_rwlock_unlock || pthread_rwlock_wrlock(&lock) == 0);
    const int result = a.faulted([&] { return call(&lock); });
    const bool still_held = call == lh_rwlock_unlock && a.happened();
    const bool taken = call != init && call != lh_rwlock_destroy && call != lh_rwlock_unlock;
    const bool is_held = still_held || (taken && !a.happened());
    EXPECT_TRUE(!is_held || pthread_rwlock_unlock(&lock) == 0);
    const bool is_destroyed = call == lh_rwlock_destroy && !a.happened();
    EXPECT_TRUE(is_destroyed || pthread_rwlock_destroy(&lock) == 0);
    return shown(result);
}

scenario of_lock(const char *function, lock_call call, const std::vector<rule> &faults)
{
    scenario s = {.function = function,
                  .body = [call](Attempt &a) { return with_lock(a, call); },
                  .outcome = "0"};
    for (const rule &r : faults)
        s.faults.push_back(r.errno_kept());
    return s;
}

constexpr const char *rdlock = "pthread_rwlock_rdlock";
constexpr const char *tryrdlock = "pthread_rwlock_tryrdlock";
constexpr const char *wrlock = "pthread_rwlock_wrlock";
constexpr const char *trywrlock = "pthread_rwlock_trywrlock";
constexpr const char *unlock = "pthread_rwlock_unlock";

const std::string too_many = ": maximum number of read locks for rwlock has been exceeded";
const std::string not_initialized = ": rwlock not initialized";
const std::string held = ": rwlock is already locked for writing";
const std::string not_locked = ": rwlock cannot be locked, rc: {code} ({error})";
const std::string not_unlocked = ": rwlock cannot be unlocked, rc: {code} ({error})";

// The last error of each is none that the call is known for.
const std::vector<scenario> locks = {
    of_lock("lh_rwlock_init", init,
            {fails("pthread_rwlock_init", "-1",
                   {"lh_rwlock_init: cannot initialize rwlock: {code} ({error})"})}),
    of_lock("lh_rwlock_destroy", lh_rwlock_destroy,
            {fails("pthread_rwlock_destroy", "-1",
                   {"lh_rwlock_destroy: cannot destroy rwlock: {code} ({error})"})}),
    of_lock("lh_rwlock_read_lock", lh_rwlock_read_lock,
            {fails(rdlock, "-1", {"lh_rwlock_read_lock" + too_many}).with({EAGAIN}),
             fails(rdlock, "-1", {"lh_rwlock_read_lock" + not_initialized}).with({EINVAL}),
             fails(rdlock, "-1", {"lh_rwlock_read_lock" + held}).with({EDEADLK}),
             fails(rdlock, "-1", {"lh_rwlock_read_lock" + not_locked}).with({ENOTSUP})}),
    of_lock("lh_rwlock_read_trylock", lh_rwlock_read_trylock,
            {fails(tryrdlock, "1").with({EBUSY}),
             fails(tryrdlock, "-1", {"lh_rwlock_read_trylock" + too_many}).with({EAGAIN}),
             fails(tryrdlock, "-1", {"lh_rwlock_read_trylock" + not_initialized}).with({EINVAL}),
             fails(tryrdlock, "-1", {"lh_rwlock_read_trylock" + held}).with({EDEADLK}),
             fails(tryrdlock, "-1", {"lh_rwlock_read_trylock" + not_locked}).with({ENOTSUP})}),
    // Deliberate: two failures report success.
    of_lock("lh_rwlock_write_lock", lh_rwlock_write_lock,
            {fails(wrlock, "0", {"lh_rwlock_write_lock" + not_initialized}).with({EINVAL}),
             fails(wrlock, "0", {"lh_rwlock_write_lock" + held}).with({EDEADLK}),
             fails(wrlock, "-1", {"lh_rwlock_write_lock" + not_locked}).with({ENOTSUP})}),
    of_lock(
        "lh_rwlock_write_trylock", lh_rwlock_write_trylock,
        {fails(trywrlock, "1").with({EBUSY}),
         fails(trywrlock, "-1", {"lh_rwlock_write_trylock: deadlock was detected"}).with({EDEADLK}),
         fails(trywrlock, "-1", {"lh_rwlock_write_trylock" + not_locked}).with({EINVAL, ENOTSUP})}),
    of_lock("lh_rwlock_unlock", lh_rwlock_unlock,
            {fails(unlock, "0", {"lh_rwlock_unlock: rwlock not owned"}).with({EPERM}),
             fails(unlock, "-1", {"lh_rwlock_unlock" + not_initialized}).with({EINVAL}),
             fails(unlock, "-1", {"lh_rwlock_unlock" + not_unlocked}).with({ENOTSUP})}),
};

// CPU counts and descriptor sets ------------------------------------------------------------------

fd_set set_of(std::initializer_list<int> fds)
{
    fd_set set;
    FD_ZERO(&set);
    for (const int fd : fds)
        FD_SET(fd, &set);
    return set;
}

std::string dump(Attempt &a, std::initializer_list<int> fds)
{
    const fd_set set = set_of(fds);
    char *text = a.faulted([&] { return lh_select_fdset_strdup(&set, 8); });
    return a.taken(text);
}

std::string print(Attempt &a)
{
    const fd_set set = set_of({3, 5});
    a.faulted([&] { lh_select_fdset_print(&set, 8); });
    return "";
}

// The second member is measured, given room and then formatted as it was measured.
std::vector<rule> dump_rules(const std::string &outcome)
{
    return {fails("vasprintf", outcome, {"lh_str_add: vasprintf failed"}),
            fails("vsnprintf:1", outcome, {"lh_str_add: vsnprintf failed"}),
            fails("realloc", outcome, {"lh_str_add: PTR_IS_NULL: tmp"}), survived("vsnprintf:2")};
}

int four_cpus()
{
    return 4;
}

// No count is kept from a first call that found none.
scenario of_cpus(const char *function, int (*call)(), const std::string &outcome,
                 const std::string &without)
{
    return {.function = function,
            .body =
                [call](Attempt &a) {
                    a.faults().replace("get_nprocs", reinterpret_cast<void *>(four_cpus));
                    return shown(a.faulted(call));
                },
            .outcome = outcome,
            .faults = {fails("get_nprocs", without).with({EMFILE})}};
}

const std::vector<scenario> others = {
    of_cpus("lh_sysinfo_get_nprocs", lh_sysinfo_get_nprocs, "4", "0"),
    of_cpus("lh_sysinfo_get_scpu_count", lh_sysinfo_get_scpu_count, "3", "0"),
    simply(
        "lh_sysinfo_cpu_role_is_scpu", [] { return shown(lh_sysinfo_cpu_role_is_scpu(1)); }, "1"),
    simply(
        "lh_sysinfo_get_mcpu_count", [] { return shown(lh_sysinfo_get_mcpu_count()); }, "1"),
    {.function = "lh_select_fdset_strdup",
     .way = "of two",
     .body =
         [](Attempt &a) {
             return dump(a, {3, 5});
         },
     .outcome = "'3 5 '",
     .faults = dump_rules("null")},
    {.function = "lh_select_fdset_strdup",
     .way = "of none",
     .body = [](Attempt &a) { return dump(a, {}); },
     .outcome = "'(null) '",
     .faults = {fails("vasprintf", "null", {"lh_str_add: vasprintf failed"})}},
    {.function = "lh_select_fdset_print", .body = print, .faults = dump_rules("")},
    {.function = "lh_select_fdset_fds_cnt_get",
     .body =
         [](Attempt &a) {
             const fd_set set = set_of({3, 5});
             return shown(a.faulted([&] { return lh_select_fdset_fds_cnt_get(&set, 8); }));
         },
     .outcome = "2"},
};

const bool swept = register_fault_sweep("FaultsOfPollContexts", poll_ctx) &&
                   register_fault_sweep("FaultsOfTimers", timers) &&
                   register_fault_sweep("FaultsOfLists", lists) &&
                   register_fault_sweep("FaultsOfLocks", locks) &&
                   register_fault_sweep("FaultsOfCpusAndSets", others);

} // namespace
