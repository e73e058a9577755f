// What each fallible call can give. A call that can give something only in some places, or that only
// its arguments can let fail, is left to the rules of the scenarios.
#include <cerrno>
#include <map>

#include "support/fault_sweep.hpp"

namespace vyt::test {
namespace {

const std::map<std::string, std::vector<int>> errors = {
    {"malloc", {ENOMEM}},
    {"calloc", {ENOMEM}},
    {"realloc", {ENOMEM}},
    {"strdup", {ENOMEM}},
    {"asprintf", {ENOMEM}},
    {"vasprintf", {ENOMEM}},
    {"vsnprintf", {EOVERFLOW}},
    {"getline", {ENOMEM, EINTR, EIO}},
    {"fopen", {EACCES, EINTR, EIO, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, EROFS}},
    {"popen", {EAGAIN, EMFILE, ENFILE, ENOMEM}},
    {"fclose", {EDQUOT, EINTR, EIO, ENOSPC}},
    {"fread", {EINTR, EIO}},
    {"fwrite", {EDQUOT, EINTR, EIO, ENOSPC}},
    {"fprintf", {EDQUOT, EINTR, EIO, ENOMEM, ENOSPC}},
    {"fgets", {EINTR, EIO}},
    {"getc", {EINTR, EIO}},
    {"fseek", {EINVAL, EIO, ESPIPE}},
    {"ftell", {EOVERFLOW, ESPIPE}},
    {"__isoc99_fscanf", {EINTR, EIO, ENOMEM}},
    {"__isoc99_vfscanf", {EINTR, EIO, ENOMEM}},
    {"open", {EACCES, EINTR, EIO, ELOOP, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, EROFS}},
    {"creat", {EACCES, EDQUOT, EINTR, EMFILE, ENFILE, ENOMEM, ENOSPC, EROFS}},
    {"close", {EDQUOT, EINTR, EIO, ENOSPC}},
    {"read", {EINTR, EIO, ENOMEM}},
    {"write", {EDQUOT, EINTR, EIO, ENOSPC}},
    {"stat", {EACCES, EIO, ELOOP, ENOENT, ENOMEM, ENOTDIR}},
    {"fstat", {EIO, ENOMEM, EOVERFLOW}},
    {"statvfs", {EACCES, EINTR, EIO, ENOENT, ENOMEM}},
    {"access", {EACCES, EIO, ENOENT, ENOMEM, EROFS}},
    {"unlink", {EACCES, EBUSY, EIO, ENOENT, ENOMEM, EPERM, EROFS}},
    {"remove", {EACCES, EBUSY, EIO, ENOENT, ENOMEM, EPERM, EROFS}},
    {"rmdir", {EACCES, EBUSY, EIO, ENOENT, ENOMEM, ENOTEMPTY, EPERM, EROFS}},
    {"mkdir", {EACCES, EDQUOT, EIO, ENOMEM, ENOSPC, EPERM, EROFS}},
    {"chmod", {EACCES, EIO, ENOENT, ENOMEM, EPERM, EROFS}},
    {"fchmod", {EIO, EPERM, EROFS}},
    {"chown", {EACCES, EIO, ENOENT, ENOMEM, EPERM, EROFS}},
    {"fchown", {EDQUOT, EIO, EPERM, EROFS}},
    {"utime", {EACCES, ENOENT, EPERM, EROFS}},
    {"fsync", {EDQUOT, EIO, ENOSPC}},
    {"sendfile", {EAGAIN, EINTR, EINVAL, EIO, ENOMEM, ENOSPC}},
    {"scandir", {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM}},
    {"nftw", {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM}},
    {"opendir", {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM}},
    {"readdir", {EIO, ENOENT}},
    {"closedir", {EIO}},
    {"poll", {EINTR, EINVAL, ENOMEM}},
    {"kill", {EPERM, ESRCH}},
    {"inotify_init1", {EMFILE, ENFILE, ENOMEM}},
    {"inotify_add_watch", {EACCES, ENOENT, ENOMEM, ENOSPC}},
    {"inotify_rm_watch", {EINVAL}},
    {"usleep", {EINTR}},
    {"timerfd_create", {EMFILE, ENFILE, ENODEV, ENOMEM}},
    {"timerfd_settime", {ECANCELED, EINVAL}},
    {"mmap", {EACCES, EAGAIN, ENFILE, ENODEV, ENOMEM}},
    {"munmap", {ENOMEM}},
    {"unshare", {ENOMEM, ENOSPC, EPERM}},
    {"mount", {EACCES, EBUSY, EINVAL, ENOMEM, EPERM}},
    {"umount2", {EBUSY, EINVAL, ENOMEM, EPERM}},
    {"fork", {EAGAIN, ENOMEM}},
    {"execl", {E2BIG, EACCES, ENOENT, ENOMEM}},
    {"waitpid", {ECHILD, EINTR}},
    {"system", {EAGAIN, ENOMEM}},
    {"syscall", {EINVAL, ENOMEM, EPERM}},
    {"localtime_r", {EOVERFLOW}},
    {"get_alive_mgr_pid", {ESRCH}},
    {"pthread_rwlock_init", {EAGAIN, EINVAL, ENOMEM, EPERM}},
    {"pthread_rwlock_destroy", {EBUSY, EINVAL}},
    {"pthread_rwlock_rdlock", {EAGAIN, EDEADLK, EINVAL}},
    {"pthread_rwlock_tryrdlock", {EAGAIN, EBUSY, EDEADLK, EINVAL}},
    {"pthread_rwlock_wrlock", {EDEADLK, EINVAL}},
    {"pthread_rwlock_trywrlock", {EBUSY, EDEADLK, EINVAL}},
    {"pthread_rwlock_unlock", {EINVAL, EPERM}},
};

} // namespace

const std::vector<int> &errors_of(const std::string &call)
{
    static const std::vector<int> none;
    const auto found = errors.find(call);
    return found == errors.end() ? none : found->second;
}

std::vector<std::string> fallible_calls()
{
    std::vector<std::string> calls;
    for (const auto &[call, given] : errors)
        calls.push_back(call);
    return calls;
}

} // namespace vyt::test
