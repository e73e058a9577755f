#include "support/faults.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <ftw.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <stdexcept>
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

namespace vyt::test {
namespace {

struct hook {
    const char *call;
    void *wrapper;
    bool allocates;
    void *original = nullptr;
    unsigned count = 0;
    unsigned fail_at = 0; // 0: never
    bool fail_always = false;
    int error = 0;
    std::function<void(unsigned)> action = {};
    void *replacement = nullptr;
};

hook &hook_named(const char *call);

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

// One wrapper per call: fails with the given value, or passes the arguments on.
#define WRAP(result, name, failure, params, args)                                                  \
    result wrap_##name params                                                                      \
    {                                                                                              \
        static hook &h = hook_named(#name);                                                        \
        if (const int error = fault_of(h); error != 0) {                                           \
            errno = error;                                                                         \
            return failure;                                                                        \
        }                                                                                          \
        using function = result(*) params;                                                         \
        void *const next = h.replacement != nullptr ? h.replacement : h.original;                  \
        return reinterpret_cast<function>(next) args;                                              \
    }

WRAP(void *, malloc, nullptr, (size_t n), (n))
WRAP(void *, calloc, nullptr, (size_t n, size_t m), (n, m))
WRAP(void *, realloc, nullptr, (void *p, size_t n), (p, n))
WRAP(char *, strdup, nullptr, (const char *s), (s))
WRAP(void, free, , (void *p), (p))
WRAP(int, vasprintf, -1, (char **s, const char *f, va_list a), (s, f, a))
WRAP(int, vsnprintf, -1, (char *s, size_t n, const char *f, va_list a), (s, n, f, a))
WRAP(ssize_t, getline, -1, (char **l, size_t *n, FILE *f), (l, n, f))
WRAP(ssize_t, getdelim, -1, (char **l, size_t *n, int d, FILE *f), (l, n, d, f))
WRAP(FILE *, fopen, nullptr, (const char *p, const char *m), (p, m))
WRAP(FILE *, popen, nullptr, (const char *c, const char *m), (c, m))
WRAP(int, fclose, EOF, (FILE * f), (f))
WRAP(size_t, fread, 0, (void *d, size_t s, size_t n, FILE *f), (d, s, n, f))
WRAP(size_t, fwrite, 0, (const void *d, size_t s, size_t n, FILE *f), (d, s, n, f))
WRAP(int, fputs, EOF, (const char *s, FILE *f), (s, f))
WRAP(int, fflush, EOF, (FILE * f), (f))
WRAP(char *, fgets, nullptr, (char *s, int n, FILE *f), (s, n, f))
WRAP(int, fgetc, EOF, (FILE * f), (f))
WRAP(int, fseek, -1, (FILE * f, long o, int w), (f, o, w))
WRAP(int, fseeko, -1, (FILE * f, off_t o, int w), (f, o, w))
WRAP(long, ftell, -1, (FILE * f), (f))
WRAP(off_t, ftello, -1, (FILE * f), (f))
WRAP(int, open, -1, (const char *p, int f, mode_t m), (p, f, m))
WRAP(int, creat, -1, (const char *p, mode_t m), (p, m))
WRAP(int, close, -1, (int fd), (fd))
WRAP(ssize_t, read, -1, (int fd, void *d, size_t n), (fd, d, n))
WRAP(ssize_t, pread, -1, (int fd, void *d, size_t n, off_t o), (fd, d, n, o))
WRAP(ssize_t, write, -1, (int fd, const void *d, size_t n), (fd, d, n))
WRAP(int, stat, -1, (const char *p, struct stat *s), (p, s))
WRAP(int, lstat, -1, (const char *p, struct stat *s), (p, s))
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
WRAP(ssize_t, sendfile, -1, (int o, int i, off_t *p, size_t n), (o, i, p, n))
WRAP(int, scandir, -1,
     (const char *p, struct dirent ***l, int (*f)(const struct dirent *),
      int (*c)(const struct dirent **, const struct dirent **)),
     (p, l, f, c))
WRAP(int, nftw, -1, (const char *p, __nftw_func_t f, int n, int m), (p, f, n, m))
WRAP(DIR *, opendir, nullptr, (const char *p), (p))
WRAP(struct dirent *, readdir, nullptr, (DIR * d), (d))
WRAP(int, closedir, -1, (DIR * d), (d))
WRAP(int, poll, -1, (struct pollfd * p, nfds_t n, int t), (p, n, t))
WRAP(int, kill, -1, (pid_t p, int s), (p, s))
WRAP(int, inotify_init1, -1, (int f), (f))
WRAP(int, inotify_add_watch, -1, (int fd, const char *p, uint32_t m), (fd, p, m))
WRAP(int, inotify_rm_watch, -1, (int fd, int w), (fd, w))
WRAP(int, usleep, -1, (useconds_t n), (n))
WRAP(int, timerfd_create, -1, (int c, int f), (c, f))
WRAP(int, timerfd_settime, -1, (int fd, int f, const struct itimerspec *n, struct itimerspec *o),
     (fd, f, n, o))
WRAP(void *, mmap, MAP_FAILED, (void *a, size_t n, int p, int f, int fd, off_t o),
     (a, n, p, f, fd, o))
WRAP(int, munmap, -1, (void *a, size_t n), (a, n))
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
WRAP(int, pthread_rwlock_init, error, (pthread_rwlock_t * l, const pthread_rwlockattr_t *a), (l, a))
WRAP(int, pthread_rwlock_destroy, error, (pthread_rwlock_t * l), (l))
WRAP(int, pthread_rwlock_rdlock, error, (pthread_rwlock_t * l), (l))
WRAP(int, pthread_rwlock_tryrdlock, error, (pthread_rwlock_t * l), (l))
WRAP(int, pthread_rwlock_wrlock, error, (pthread_rwlock_t * l), (l))
WRAP(int, pthread_rwlock_trywrlock, error, (pthread_rwlock_t * l), (l))
WRAP(int, pthread_rwlock_unlock, error, (pthread_rwlock_t * l), (l))
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

// A replacement of fscanf takes the arguments as vfscanf does.
int forward_fscanf(const hook &h, FILE *f, const char *format, va_list args)
{
    if (h.replacement != nullptr)
        return reinterpret_cast<decltype(&vfscanf)>(h.replacement)(f, format, args);
    return vfscanf(f, format, args);
}

// Variadic calls are passed on through their va_list forms.
#define WRAP_VARIADIC(name, failure, params, last, forward)                                        \
    int wrap_##name params                                                                         \
    {                                                                                              \
        static hook &h = hook_named(#name);                                                        \
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
WRAP_VARIADIC(asprintf, -1, (char **s, const char *format, ...), format, vasprintf(s, format, args))
WRAP_VARIADIC(__isoc99_fscanf, EOF, (FILE * f, const char *format, ...), format,
              forward_fscanf(h, f, format, args))
#undef WRAP_VARIADIC

int wrap_vfscanf(FILE *f, const char *format, va_list args)
{
    static hook &h = hook_named("__isoc99_vfscanf");
    if (const int error = fault_of(h); error != 0) {
        errno = error;
        return EOF;
    }
    return vfscanf(f, format, args);
}

long wrap_syscall(long number, long a, long b, long c, long d, long e, long f)
{
    static hook &h = hook_named("syscall");
    if (const int error = fault_of(h); error != 0) {
        errno = error;
        return -1;
    }
    return syscall(number, a, b, c, d, e, f);
}

// As the library calls it: with three words for the program.
int wrap_execl(const char *path, const char *a, const char *b, const char *c)
{
    static hook &h = hook_named("execl");
    if (const int error = fault_of(h); error != 0) {
        errno = error;
        return -1;
    }
    return execl(path, a, b, c, nullptr);
}

#define HOOK(name)                                                                                 \
    {                                                                                              \
#name, reinterpret_cast < void *>(wrap_##name), false                                      \
    }
#define ALLOCATING(name)                                                                           \
    {                                                                                              \
#name, reinterpret_cast < void *>(wrap_##name), true                                       \
    }

std::vector<hook> hooks = {
    ALLOCATING(malloc),
    ALLOCATING(calloc),
    ALLOCATING(realloc),
    ALLOCATING(strdup),
    ALLOCATING(vasprintf),
    ALLOCATING(asprintf),
    ALLOCATING(getline),
    ALLOCATING(getdelim),
    ALLOCATING(fopen),
    ALLOCATING(opendir),
    ALLOCATING(scandir),
    HOOK(free),
    HOOK(popen),
    HOOK(vsnprintf),
    HOOK(fclose),
    HOOK(fread),
    HOOK(fwrite),
    HOOK(fputs),
    HOOK(fflush),
    HOOK(fgets),
    HOOK(fgetc),
    HOOK(fseek),
    HOOK(fseeko),
    HOOK(ftell),
    HOOK(ftello),
    HOOK(open),
    HOOK(creat),
    HOOK(close),
    HOOK(read),
    HOOK(pread),
    HOOK(write),
    HOOK(stat),
    HOOK(lstat),
    HOOK(fstat),
    HOOK(statvfs),
    HOOK(access),
    HOOK(unlink),
    HOOK(remove),
    HOOK(rmdir),
    HOOK(mkdir),
    HOOK(chmod),
    HOOK(fchmod),
    HOOK(chown),
    HOOK(fchown),
    HOOK(utime),
    HOOK(fsync),
    HOOK(sendfile),
    HOOK(nftw),
    HOOK(readdir),
    HOOK(closedir),
    HOOK(poll),
    HOOK(kill),
    HOOK(inotify_init1),
    HOOK(inotify_add_watch),
    HOOK(inotify_rm_watch),
    HOOK(usleep),
    HOOK(timerfd_create),
    HOOK(timerfd_settime),
    HOOK(mmap),
    HOOK(munmap),
    HOOK(unshare),
    HOOK(mount),
    HOOK(umount2),
    HOOK(fork),
    HOOK(execl),
    HOOK(getpid),
    HOOK(waitpid),
    HOOK(system),
    HOOK(localtime_r),
    HOOK(get_nprocs),
    HOOK(pthread_rwlock_init),
    HOOK(pthread_rwlock_destroy),
    HOOK(pthread_rwlock_rdlock),
    HOOK(pthread_rwlock_tryrdlock),
    HOOK(pthread_rwlock_wrlock),
    HOOK(pthread_rwlock_trywrlock),
    HOOK(pthread_rwlock_unlock),
    HOOK(yaml_emitter_open),
    HOOK(yaml_emitter_flush),
    HOOK(yaml_emitter_close),
    HOOK(yaml_document_start_event_initialize),
    HOOK(yaml_document_end_event_initialize),
    HOOK(yaml_mapping_end_event_initialize),
    HOOK(yaml_sequence_end_event_initialize),
    HOOK(fprintf),
    HOOK(snprintf),
    HOOK(__isoc99_fscanf),
    {"__isoc99_vfscanf", reinterpret_cast<void *>(wrap_vfscanf), false},
    HOOK(syscall),
};
#undef HOOK
#undef ALLOCATING

hook &hook_named(const char *call)
{
    const auto found = std::find_if(hooks.begin(), hooks.end(),
                                    [&](const hook &h) { return strcmp(h.call, call) == 0; });
    if (found == hooks.end())
        throw std::runtime_error(std::string("faults.cpp does not know the call ") + call);
    return *found;
}

// Redirecting the library's links ----------------------------------------------------------------

struct dynamic_section {
    const char *names = nullptr;
    const ElfW(Sym) *symbols = nullptr;
    const ElfW(Rela) * tables[2] = {};
    size_t sizes[2] = {};
};

dynamic_section read_dynamic(const dl_phdr_info &info)
{
    dynamic_section section;
    for (int i = 0; i < info.dlpi_phnum; i++) {
        if (info.dlpi_phdr[i].p_type != PT_DYNAMIC)
            continue;
        const auto *entry =
            reinterpret_cast<const ElfW(Dyn) *>(info.dlpi_addr + info.dlpi_phdr[i].p_vaddr);
        for (; entry->d_tag != DT_NULL; entry++) {
            const auto address = entry->d_un.d_ptr;
            switch (entry->d_tag) {
            case DT_STRTAB:
                section.names = reinterpret_cast<const char *>(address);
                break;
            case DT_SYMTAB:
                section.symbols = reinterpret_cast<const ElfW(Sym) *>(address);
                break;
            case DT_JMPREL:
                section.tables[0] = reinterpret_cast<ElfW(Rela) *>(address);
                break;
            case DT_PLTRELSZ:
                section.sizes[0] = entry->d_un.d_val;
                break;
            case DT_RELA:
                section.tables[1] = reinterpret_cast<ElfW(Rela) *>(address);
                break;
            case DT_RELASZ:
                section.sizes[1] = entry->d_un.d_val;
                break;
            default:
                break;
            }
        }
    }
    return section;
}

// A library whose links lead here, and what stood in them before.
struct redirection {
    const char *object;
    bool found = false;
    std::vector<std::pair<void **, void *>> links = {};
};

void redirect(redirection &redirected, void **slot, hook &h)
{
    const auto page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto page = reinterpret_cast<uintptr_t>(slot) & ~(page_size - 1);
    if (mprotect(reinterpret_cast<void *>(page), page_size, PROT_READ | PROT_WRITE) != 0)
        throw std::runtime_error("mprotect of the library's links failed");
    // A library that binds its links lazily has no address there yet.
    if (h.original == nullptr)
        h.original = dlsym(RTLD_DEFAULT, h.call);
    redirected.links.emplace_back(slot, *slot);
    *slot = h.wrapper;
}

int redirect_library(dl_phdr_info *info, size_t, void *data)
{
    auto &redirected = *static_cast<redirection *>(data);
    if (strstr(info->dlpi_name, redirected.object) == nullptr)
        return 0;
    const dynamic_section section = read_dynamic(*info);
    for (int table = 0; table < 2; table++) {
        const size_t count = section.sizes[table] / sizeof(ElfW(Rela));
        for (size_t i = 0; i < count; i++) {
            const ElfW(Rela) &link = section.tables[table][i];
            const char *name = section.names + section.symbols[ELF64_R_SYM(link.r_info)].st_name;
            for (hook &h : hooks) {
                if (strcmp(h.call, name) == 0)
                    redirect(redirected, reinterpret_cast<void **>(info->dlpi_addr + link.r_offset),
                             h);
            }
        }
    }
    redirected.found = true;
    return 1;
}

redirection redirect_links(const char *library)
{
    redirection redirected = {.object = library};
    dl_iterate_phdr(redirect_library, &redirected);
    if (!redirected.found)
        throw std::runtime_error(std::string(library) + " is not loaded");
    return redirected;
}

void redirect_once()
{
    static const redirection done = redirect_links("libVYThelpers.so");
    (void)done;
}

redirection also_redirected = {.object = nullptr};

} // namespace

Faults::Faults(const char *also)
{
    redirect_once();
    if (also != nullptr)
        also_redirected = redirect_links(also);
    clear();
    fixtures++;
}

Faults::~Faults()
{
    fixtures--;
    clear();
    for (const auto &[slot, before] : also_redirected.links)
        *slot = before;
    also_redirected.links.clear();
}

void Faults::fail(const std::string &call, int error, unsigned nth)
{
    hook &h = hook_named(call.c_str());
    h.fail_at = h.count + nth;
    h.error = error;
    fault_happened = false;
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

bool Faults::happened() const
{
    return fault_happened;
}

void Faults::clear()
{
    allocations = 0;
    fail_allocation_at = 0;
    fault_happened = false;
    for (hook &h : hooks) {
        h.count = 0;
        h.fail_at = 0;
        h.fail_always = false;
        h.error = 0;
        h.action = {};
        h.replacement = nullptr;
    }
}

} // namespace vyt::test
