#include "lh_process.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "core/errno_saver.hpp"
#include "core/handles.hpp"
#include "core/log.hpp"
#include "core/platform.hpp"

using namespace vyt;

namespace {

constexpr size_t name_size = 256;
constexpr size_t path_size = 256;
constexpr size_t command_size = 64;
constexpr size_t pid_text_size = 8;

std::atomic<int> own_pid; // 0: not asked yet
char own_name[name_size];
char name_by_pid[name_size];
char name_by_thread[name_size];

// A line with the short prefix: the three functions that the long prefix calls cannot use it.
#define LOG_SHORT(priority, format, ...)                                                           \
    do {                                                                                           \
        const errno_saver saver;                                                                   \
        lh_check_syslog_(priority, "<%s:%d> " format, __func__,                                    \
                         __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                     \
    } while (false)

unsigned long widened(int pid) // with its sign, as every line prints a pid
{
    return static_cast<unsigned long>(static_cast<long>(pid));
}

// The own name, whole or not at all to other threads: its first byte is stored last.
void keep_own_name(const char *name, size_t length)
{
    memcpy(own_name + 1, name + 1, length - 1);
    own_name[length] = '\0';
    __atomic_store_n(&own_name[0], name[0], __ATOMIC_RELEASE);
}

} // namespace

int lh_process_self_pid_get(void)
{
    int pid = own_pid.load(std::memory_order_relaxed);
    if (pid == 0) [[unlikely]] {
        pid = getpid();
        own_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

const char *lh_process_self_name_get(void)
{
    if (__atomic_load_n(&own_name[0], __ATOMIC_ACQUIRE) != '\0') [[likely]]
        return own_name;

    const char *name = lh_process_name_get_by_pid(lh_process_self_pid_get());
    const size_t size = strlen(name) + 1;
    if (size == 1) {
        LOG_SHORT(LOG_ERR, "lh_process_name_get_by_pid failed");
        return own_name;
    }
    if (size > name_size)
        LOG_SHORT(LOG_ERR, "invalid len: %d > %zu", static_cast<int>(size), name_size);
    keep_own_name(name, std::min(size, name_size) - 1);
    return own_name;
}

const char *lh_process_name_get_by_pid(int pid)
{
    char path[path_size] = {};
    snprintf(path, sizeof(path), "/proc/%lu/cmdline", widened(pid));
    const unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.is_open()) {
        LOG_SHORT(LOG_DEBUG, "cannot open proc file for pid=%lu", widened(pid));
        return "";
    }
    // Deliberate: the buffer is not cleared, so an empty command line leaves the previous name.
    if (read(fd.get(), name_by_pid, sizeof(name_by_pid) - 1) < 0) {
        LOG_SHORT(LOG_ERR, "read '%s' failed", path);
        return "";
    }
    if (const char *slash = strrchr(name_by_pid, '/'))
        memmove(name_by_pid, slash + 1, strlen(slash + 1) + 1);
    return name_by_pid;
}

const char *lh_process_name_get_by_itid(int pid, int tid)
{
    memset(name_by_thread, 0, sizeof(name_by_thread));
    char path[path_size] = {};
    snprintf(path, sizeof(path), "/proc/%lu/task/%lu/comm", widened(pid), widened(tid));
    const unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.is_open())
        return name_by_thread;
    if (read(fd.get(), name_by_thread, sizeof(name_by_thread) - 1) < 0) {
        LOG_SHORT(LOG_ERR, "read '%s' failed", path);
        return name_by_thread;
    }
    *strchrnul(name_by_thread, '\n') = '\0';
    return name_by_thread;
}

int lh_process_create_pid_file(const char *path)
{
    if (PTR_IS_NULL(path))
        return -1;
    unlink(path);
    const unique_file file(fopen(path, "w"));
    FILE *f = file.get();
    if (PTR_IS_NULL(f))
        return -1;
    if (fprintf(f, "%lu", widened(lh_process_self_pid_get())) < 0) {
        LOG_ERROR("fprintf failed");
        return -1;
    }
    return 0;
}

int lh_read_pid_file(const char *path)
{
    const unique_file file(fopen(path, "r"));
    if (!file) {
        LOG_ERROR("failed to open pidfile '%s'", path);
        return -1;
    }
    int pid;
    if (fscanf(file.get(), "%d", &pid) != 1) {
        LOG_ERROR("failed to read pid from pidfile");
        return -1;
    }
    return pid;
}

int lh_process_pid_get_by_name(const char *name)
{
    if (PTR_IS_NULL(name))
        return -1;
    char command[command_size] = {};
    const int length = snprintf(command, sizeof(command), "pidof %s", name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(command)) {
        LOG_ERROR("snprintf failed");
        return -1;
    }
    // Deliberate: the stream is never closed. Its child is not waited for, and whoever counts on
    // the daemon's descriptors staying where they are finds them there.
    FILE *answer = popen(command, "r");
    if (answer == nullptr) {
        LOG_ERROR("cannot get pid");
        return -1;
    }
    char text[pid_text_size];
    if (fgets(text, sizeof(text), answer) == nullptr) {
        LOG_ERROR("cannot parse pid");
        return -1;
    }
    return atoi(text);
}

int lh_process_reload_board(void)
{
    const int manager = get_alive_mgr_pid(0);
    if (manager == -1) {
        LOG_ERROR("get_alive_mgr_pid failed");
        return -1;
    }
    if (kill(manager, SIGRTMIN) != 0) {
        LOG_ERROR("kill failed");
        return -1;
    }
    return 0;
}
