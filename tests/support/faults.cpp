#include "support/faults.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <map>
#include <poll.h>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>
#include <vector>
#include <yaml.h>

#include "support/aliases.hpp"
#include "support/links.hpp"

namespace vyt::test {
namespace {

// Each counts as one allocation.
const char *const allocating[] = {"malloc",    "calloc",   "realloc", "strdup",
                                  "vasprintf", "asprintf", "getline", "getdelim",
                                  "fopen",     "opendir",  "scandir"};

struct hook {
    const char *call;
    void *wrapper;
    bool allocates;
    void *original = nullptr;
    unsigned count = 0;
    unsigned fail_at = 0; // 0: never
    bool fail_always = false;
    bool late = false;       // it does its work before it fails
    unsigned shorten_at = 0; // 0: never
    int error = 0;
    std::function<void(unsigned)> action = {};
    void *replacement = nullptr;
};

// Never destroyed: a library that counts what is executed calls at the very end of the process, too.
std::deque<hook> &hooks = *new std::deque<hook>;

hook &enlist(const char *call, void *wrapper)
{
    const bool allocates = std::any_of(std::begin(allocating), std::end(allocating),
                                       [&](const char *name) { return strcmp(name, call) == 0; });
    hooks.push_back({.call = call, .wrapper = wrapper, .allocates = allocates});
    return hooks.back();
}

hook &hook_named(const char *call)
{
    const auto found = std::find_if(hooks.begin(), hooks.end(),
                                    [&](const hook &h) { return strcmp(h.call, call) == 0; });
    if (found == hooks.end())
        throw std::runtime_error(std::string("faults.cpp does not know the call ") + call);
    return *found;
}

// Fixtures that are alive. Without one a call is only passed on, so threads may make it freely.
std::atomic<int> fixtures;

unsigned allocations;
unsigned fail_allocation_at; // 0: never
bool fault_happened;

// Counts the call; the errno to fail with, 0 to let it through.
int fault_of(hook &h)
{
    if (fixtures == 0)
        return 0;
    h.count++;
    if (h.action)
        h.action(h.count);
    if (h.allocates && ++allocations == fail_allocation_at) {
        fault_happened = true;
        return ENOMEM;
    }
    if (h.fail_always || h.count == h.fail_at) {
        fault_happened = true;
        return h.error;
    }
    return 0;
}

// How much of a transfer goes through.
size_t length_of(hook &h, size_t whole)
{
    if (fixtures == 0 || h.count != h.shorten_at)
        return whole;
    fault_happened = true;
    return whole / 2;
}

// What the library took from the C library and has not given back, with the call that gave it.
std::map<const void *, std::string> held_by_library;

void take(const hook &h, const void *block)
{
    if (fixtures != 0 && block != nullptr)
        held_by_library[block] = h.call;
}

void give_back(const void *block)
{
    if (fixtures != 0)
        held_by_library.erase(block);
}

void take_entries(const hook &h, dirent **list, int count)
{
    if (count < 0)
        return;
    take(h, list);
    for (int i = 0; i < count; i++)
        take(h, list[i]);
}

// The wrapper's head: it is enlisted under the call's name.
#define ENLISTED(result, name, params)                                                             \
    result wrap_##name params;                                                                     \
    hook &hook_##name = enlist(#name, reinterpret_cast<void *>(wrap_##name));                      \
    result wrap_##name params

// One wrapper per call: fails with the given value, or passes the arguments on. What it does
// before and after that keeps the books on what the library holds.
#define WRAP_NOTED(result, name, failure, params, args, before, after)                             \
    ENLISTED(result, name, params)                                                                 \
    {                                                                                              \
        hook &h = hook_##name;                                                                     \
        const int error = fault_of(h);                                                             \
        if (error != 0 && !h.late) {                                                               \
            errno = error;                                                                         \
            return failure;                                                                        \
        }                                                                                          \
        using function = result(*) params;                                                         \
        void *const next = h.replacement != nullptr ? h.replacement : h.original;                  \
        before;                                                                                    \
        result got = reinterpret_cast<function>(next) args;                                        \
        const int kept = errno;                                                                    \
        after;                                                                                     \
        errno = error != 0 ? error : kept;                                                         \
        return error != 0 ? failure : got;                                                         \
    }
#define WRAP(result, name, failure, params, args)                                                  \
    WRAP_NOTED(result, name, failure, params, args, , )

// These answer the error and leave errno alone.
#define WRAP_LOCK(name, params, args)                                                              \
    ENLISTED(int, name, params)                                                                    \
    {                                                                                              \
        hook &h = hook_##name;                                                                     \
        const int kept = errno;                                                                    \
        const int error = fault_of(h);                                                             \
        errno = kept;                                                                              \
        void *const next = h.replacement != nullptr ? h.replacement : h.original;                  \
        return error != 0 ? error : reinterpret_cast<int(*) params>(next) args;                    \
    }

WRAP_NOTED(void *, malloc, nullptr, (size_t n), (n), , take(h, got))
WRAP_NOTED(void *, calloc, nullptr, (size_t n, size_t m), (n, m), , take(h, got))
WRAP_NOTED(void *, realloc, nullptr, (void *p, size_t n), (p, n), ,
           give_back(got != nullptr || n == 0 ? p : nullptr);
           take(h, got))
WRAP_NOTED(char *, strdup, nullptr, (const char *s), (s), , take(h, got))
WRAP_NOTED(int, vasprintf, -1, (char **s, const char *f, va_list a), (s, f, a), ,
           take(h, got < 0 ? nullptr : *s))
WRAP(int, vsnprintf, -1, (char *s, size_t n, const char *f, va_list a), (s, n, f, a))
WRAP_NOTED(ssize_t, getline, -1, (char **l, size_t *n, FILE *f), (l, n, f), give_back(*l),
           take(h, *l))
WRAP_NOTED(ssize_t, getdelim, -1, (char **l, size_t *n, int d, FILE *f), (l, n, d, f),
           give_back(*l), take(h, *l))
WRAP_NOTED(FILE *, fopen, nullptr, (const char *p, const char *m), (p, m), , take(h, got))
WRAP_NOTED(FILE *, popen, nullptr, (const char *c, const char *m), (c, m), , take(h, got))
WRAP_NOTED(int, fclose, EOF, (FILE * f), (f), give_back(f), )
WRAP(size_t, fread, 0, (void *d, size_t s, size_t n, FILE *f), (d, s, length_of(h, n), f))
WRAP(size_t, fwrite, 0, (const void *d, size_t s, size_t n, FILE *f), (d, s, length_of(h, n), f))
WRAP(char *, fgets, nullptr, (char *s, int n, FILE *f), (s, n, f))
WRAP(int, getc, EOF, (FILE * f), (f))
WRAP(int, fseek, -1, (FILE * f, long o, int w), (f, o, w))
WRAP(long, ftell, -1, (FILE * f), (f))
WRAP(int, open, -1, (const char *p, int f, mode_t m), (p, f, m))
WRAP(int, creat, -1, (const char *p, mode_t m), (p, m))
WRAP(int, close, -1, (int fd), (fd))
WRAP(ssize_t, read, -1, (int fd, void *d, size_t n), (fd, d, length_of(h, n)))
WRAP(ssize_t, write, -1, (int fd, const void *d, size_t n), (fd, d, length_of(h, n)))
WRAP(int, stat, -1, (const char *p, struct stat *s), (p, s))
WRAP(int, fstat, -1, (int fd, struct stat *s), (fd, s))
WRAP(int, statvfs, -1, (const char *p, struct statvfs *s), (p, s))
WRAP(int, access, -1, (const char *p, int m), (p, m))
WRAP(int, unlink, -1, (const char *p), (p))
WRAP(int, remove, -1, (const char *p), (p))
WRAP(int, rmdir, -1, (const char *p), (p))
WRAP(int, mkdir, -1, (const char *p, mode_t m), (p, m))
WRAP(int, chmod, -1, (const char *p, mode_t m), (p, m))
WRAP(int, fchmod, -1, (int fd, mode_t m), (fd, m))
WRAP(int, chown, -1, (const char *p, uid_t u, gid_t g), (p, u, g))
WRAP(int, fchown, -1, (int fd, uid_t u, gid_t g), (fd, u, g))
WRAP(int, utime, -1, (const char *p, const struct utimbuf *t), (p, t))
WRAP(int, fsync, -1, (int fd), (fd))
WRAP(ssize_t, sendfile, -1, (int o, int i, off_t *p, size_t n), (o, i, p, length_of(h, n)))
WRAP_NOTED(int, scandir, -1,
           (const char *p, struct dirent ***l, int (*f)(const struct dirent *),
            int (*c)(const struct dirent **, const struct dirent **)),
           (p, l, f, c), , take_entries(h, *l, got))
WRAP(int, nftw, -1, (const char *p, __nftw_func_t f, int n, int m), (p, f, n, m))
WRAP_NOTED(DIR *, opendir, nullptr, (const char *p), (p), , take(h, got))
WRAP(struct dirent *, readdir, nullptr, (DIR * d), (d))
WRAP_NOTED(int, closedir, -1, (DIR * d), (d), give_back(d), )
WRAP(int, poll, -1, (struct pollfd * p, nfds_t n, int t), (p, n, t))
WRAP(int, kill, -1, (pid_t p, int s), (p, s))
WRAP(int, inotify_init1, -1, (int f), (f))
WRAP(int, inotify_add_watch, -1, (int fd, const char *p, uint32_t m), (fd, p, m))
WRAP(int, inotify_rm_watch, -1, (int fd, int w), (fd, w))
WRAP(int, usleep, -1, (useconds_t n), (n))
WRAP(int, timerfd_create, -1, (int c, int f), (c, f))
WRAP(int, timerfd_settime, -1, (int fd, int f, const struct itimerspec *n, struct itimerspec *o),
     (fd, f, n, o))
WRAP_NOTED(void *, mmap, MAP_FAILED, (void *a, size_t n, int p, int f, int fd, off_t o),
           (a, n, p, f, fd, o), , take(h, got == MAP_FAILED ? nullptr : got))
WRAP_NOTED(int, munmap, -1, (void *a, size_t n), (a, n), give_back(a), )
WRAP(int, unshare, -1, (int f), (f))
WRAP(int, mount, -1, (const char *s, const char *t, const char *k, unsigned long f, const void *d),
     (s, t, k, f, d))
WRAP(int, umount2, -1, (const char *t, int f), (t, f))
WRAP(pid_t, fork, -1, (), ())
WRAP(pid_t, getpid, -1, (), ())
WRAP(pid_t, waitpid, -1, (pid_t p, int *s, int o), (p, s, o))
WRAP(int, system, -1, (const char *c), (c))
WRAP(struct tm *, localtime_r, nullptr, (const time_t *t, struct tm *r), (t, r))
WRAP(int, get_nprocs, 0, (), ())
WRAP(int, get_alive_mgr_pid, -1, (int u), (u))
WRAP_LOCK(pthread_rwlock_init, (pthread_rwlock_t * l, const pthread_rwlockattr_t *a), (l, a))
WRAP_LOCK(pthread_rwlock_destroy, (pthread_rwlock_t * l), (l))
WRAP_LOCK(pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
WRAP_LOCK(pthread_rwlock_tryrdlock, (pthread_rwlock_t * l), (l))
WRAP_LOCK(pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
WRAP_LOCK(pthread_rwlock_trywrlock, (pthread_rwlock_t * l), (l))
WRAP_LOCK(pthread_rwlock_unlock, (pthread_rwlock_t * l), (l))
WRAP(int, yaml_emitter_open, 0, (yaml_emitter_t * e), (e))
WRAP(int, yaml_emitter_flush, 0, (yaml_emitter_t * e), (e))
WRAP(int, yaml_emitter_close, 0, (yaml_emitter_t * e), (e))
WRAP(int, yaml_document_start_event_initialize, 0,
     (yaml_event_t * v, yaml_version_directive_t *d, yaml_tag_directive_t *s,
      yaml_tag_directive_t *n, int i),
     (v, d, s, n, i))
WRAP(int, yaml_document_end_event_initialize, 0, (yaml_event_t * v, int i), (v, i))
WRAP(int, yaml_mapping_end_event_initialize, 0, (yaml_event_t * v), (v))
WRAP(int, yaml_sequence_end_event_initialize, 0, (yaml_event_t * v), (v))
#undef WRAP
#undef WRAP_NOTED
#undef WRAP_LOCK

ENLISTED(void, free, (void *block))
{
    hook &h = hook_free;
    fault_of(h);
    give_back(block);
    reinterpret_cast<decltype(&free)>(h.replacement != nullptr ? h.replacement : h.original)(block);
}

// A replacement of fscanf takes the arguments as vfscanf does.
int forward_fscanf(const hook &h, FILE *f, const char *format, va_list args)
{
    if (h.replacement != nullptr)
        return reinterpret_cast<decltype(&vfscanf)>(h.replacement)(f, format, args);
    return vfscanf(f, format, args);
}

int vasprintf_taken(const hook &h, char **text, const char *format, va_list args)
{
    const int length = vasprintf(text, format, args);
    take(h, length < 0 ? nullptr : *text);
    return length;
}

// Variadic calls are passed on through their va_list forms.
#define WRAP_VARIADIC(name, failure, params, last, forward)                                        \
    ENLISTED(int, name, params)                                                                    \
    {                                                                                              \
        hook &h = hook_##name;                                                                     \
        if (const int error = fault_of(h); error != 0) {                                           \
            errno = error;                                                                         \
            return failure;                                                                        \
        }                                                                                          \
        va_list args;                                                                              \
        va_start(args, last);                                                                      \
        const int result = forward;                                                                \
        va_end(args);                                                                              \
        return result;                                                                             \
    }

WRAP_VARIADIC(fprintf, -1, (FILE * f, const char *format, ...), format, vfprintf(f, format, args))
WRAP_VARIADIC(snprintf, -1, (char *s, size_t n, const char *format, ...), format,
              vsnprintf(s, n, format, args))
WRAP_VARIADIC(asprintf, -1, (char **s, const char *format, ...), format,
              vasprintf_taken(h, s, format, args))
WRAP_VARIADIC(__isoc99_fscanf, EOF, (FILE * f, const char *format, ...), format,
              forward_fscanf(h, f, format, args))
#undef WRAP_VARIADIC

ENLISTED(int, __isoc99_vfscanf, (FILE * f, const char *format, va_list args))
{
    if (const int error = fault_of(hook___isoc99_vfscanf); error != 0) {
        errno = error;
        return EOF;
    }
    return vfscanf(f, format, args);
}

ENLISTED(long, syscall, (long number, long a, long b, long c, long d, long e, long f))
{
    if (const int error = fault_of(hook_syscall); error != 0) {
        errno = error;
        return -1;
    }
    return syscall(number, a, b, c, d, e, f);
}

// As the library calls it: with three words for the program.
ENLISTED(int, execl, (const char *path, const char *a, const char *b, const char *c))
{
    if (const int error = fault_of(hook_execl); error != 0) {
        errno = error;
        return -1;
    }
    return execl(path, a, b, c, nullptr);
}

#undef ENLISTED

// The wrapper that a link to the symbol leads to from now on; null where it stays as it is.
void *wrapper_of(const char *symbol)
{
    const std::string name = plain_name(symbol);
    for (hook &h : hooks) {
        if (name != h.call)
            continue;
        // A library that binds its links lazily has no address there yet.
        if (h.original == nullptr)
            h.original = dlsym(RTLD_DEFAULT, h.call);
        return entry_of(symbol, h.wrapper);
    }
    return nullptr;
}

void redirect_once()
{
    static const std::vector<redirected_link> done = redirect_links("libVYThelpers.so", wrapper_of);
    (void)done;
}

std::vector<redirected_link> also_redirected;

} // namespace

Faults::Faults(const char *also)
{
    redirect_once();
    if (also != nullptr)
        also_redirected = redirect_links(also, wrapper_of);
    clear();
    fixtures++;
}

Faults::~Faults()
{
    fixtures--;
    clear();
    for (const redirected_link &link : also_redirected)
        *link.slot = link.before;
    also_redirected.clear();
}

void Faults::fail(const std::string &call, int error, unsigned nth)
{
    hook &h = hook_named(call.c_str());
    h.fail_at = h.count + nth;
    h.error = error;
    fault_happened = false;
}

void Faults::fail_late(const std::string &call, int error, unsigned nth)
{
    fail(call, error, nth);
    hook_named(call.c_str()).late = true;
}

void Faults::shorten(const std::string &call, unsigned nth)
{
    hook &h = hook_named(call.c_str());
    h.shorten_at = h.count + nth;
    fault_happened = false;
}

void Faults::disarm(const std::string &call)
{
    hook &h = hook_named(call.c_str());
    h.fail_at = 0;
    h.fail_always = false;
    h.late = false;
    h.shorten_at = 0;
}

void Faults::fail_always(const std::string &call, int error)
{
    hook &h = hook_named(call.c_str());
    h.fail_always = true;
    h.error = error;
    fault_happened = false;
}

void Faults::fail_allocation(unsigned nth)
{
    fail_allocation_at = allocations + nth;
    fault_happened = false;
}

void Faults::before(const std::string &call, std::function<void(unsigned)> action)
{
    hook_named(call.c_str()).action = std::move(action);
}

void Faults::replace(const std::string &call, void *function)
{
    hook_named(call.c_str()).replacement = function;
}

unsigned Faults::calls(const std::string &call) const
{
    return hook_named(call.c_str()).count;
}

std::map<std::string, unsigned> Faults::all_calls() const
{
    std::map<std::string, unsigned> calls;
    for (const hook &h : hooks) {
        if (h.count != 0)
            calls[h.call] = h.count;
    }
    return calls;
}

bool Faults::know(const std::string &call)
{
    return std::any_of(hooks.begin(), hooks.end(), [&](const hook &h) { return call == h.call; });
}

std::vector<std::string> Faults::held() const
{
    std::vector<std::string> calls;
    for (const auto &[block, call] : held_by_library)
        calls.push_back(call);
    std::sort(calls.begin(), calls.end());
    return calls;
}

std::vector<void *> Faults::held_by(const std::string &call) const
{
    std::vector<void *> blocks;
    for (const auto &[block, by] : held_by_library) {
        if (by == call)
            blocks.push_back(const_cast<void *>(block));
    }
    return blocks;
}

void Faults::given_back(const void *block)
{
    give_back(block);
}

bool Faults::happened() const
{
    return fault_happened;
}

void Faults::clear()
{
    allocations = 0;
    fail_allocation_at = 0;
    fault_happened = false;
    held_by_library.clear();
    for (hook &h : hooks) {
        h.count = 0;
        h.fail_at = 0;
        h.fail_always = false;
        h.late = false;
        h.shorten_at = 0;
        h.error = 0;
        h.action = {};
        h.replacement = nullptr;
    }
}

} // namespace vyt::test
