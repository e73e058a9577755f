#include "lh_rwlock.h"

#include <cerrno>
#include <cstring>

#include "core/log.hpp"

using namespace vyt;

namespace {

// What a function answers for an error code, and the line it writes; null: none. Every format is
// given the code and its strerror and uses them or not.
struct outcome {
    int code;
    int result;
    const char *format;
};

constexpr int other = -1; // ends each table: every code that has no row of its own

constexpr const char *too_many_readers =
    LH_CHECK_PREFIX_ "maximum number of read locks for rwlock has been exceeded";
constexpr const char *not_initialized = LH_CHECK_PREFIX_ "rwlock not initialized";
constexpr const char *held_for_writing = LH_CHECK_PREFIX_ "rwlock is already locked for writing";
constexpr const char *deadlock = LH_CHECK_PREFIX_ "deadlock was detected";
constexpr const char *not_owned = LH_CHECK_PREFIX_ "rwlock not owned";
constexpr const char *cannot_init = LH_CHECK_PREFIX_ "cannot initialize rwlock: %d (%s)";
constexpr const char *cannot_destroy = LH_CHECK_PREFIX_ "cannot destroy rwlock: %d (%s)";
constexpr const char *cannot_lock = LH_CHECK_PREFIX_ "rwlock cannot be locked, rc: %d (%s)";
constexpr const char *cannot_unlock = LH_CHECK_PREFIX_ "rwlock cannot be unlocked, rc: %d (%s)";

constexpr outcome init_outcomes[] = {
    {other, -1, cannot_init},
};
constexpr outcome destroy_outcomes[] = {
    {other, -1, cannot_destroy},
};
constexpr outcome read_lock_outcomes[] = {
    {EAGAIN, -1, too_many_readers},
    {EINVAL, -1, not_initialized},
    {EDEADLK, -1, held_for_writing},
    {other, -1, cannot_lock},
};
constexpr outcome read_trylock_outcomes[] = {
    {EBUSY, 1, nullptr},           {EAGAIN, -1, too_many_readers},
    {EINVAL, -1, not_initialized}, {EDEADLK, -1, held_for_writing},
    {other, -1, cannot_lock},
};
// Deliberate: two failures report success, for the daemons that go on after them.
constexpr outcome write_lock_outcomes[] = {
    {EINVAL, 0, not_initialized},
    {EDEADLK, 0, held_for_writing},
    {other, -1, cannot_lock},
};
constexpr outcome write_trylock_outcomes[] = {
    {EBUSY, 1, nullptr},
    {EDEADLK, -1, deadlock},
    {other, -1, cannot_lock},
};
// Deliberate: whoever unlocks what it does not own is told in the log only.
constexpr outcome unlock_outcomes[] = {
    {EPERM, 0, not_owned},
    {EINVAL, -1, not_initialized},
    {other, -1, cannot_unlock},
};

[[gnu::noinline]] int judge_error(int rc, const outcome *row, const char *function, int line)
{
    while (row->code != rc && row->code != other)
        row++;
    if (row->format != nullptr)
        log_error(row->format, function, line, rc, strerror(rc));
    return row->result;
}

int judge(int rc, const outcome *table, const char *function, int line)
{
    return rc == 0 ? 0 : judge_error(rc, table, function, line);
}

// The result of a call, by the table of the function that makes it.
#define JUDGE(call, table) judge(call, table, __func__, __LINE__)

} // namespace

int lh_rwlock_init(pthread_rwlock_t *lock, const pthread_rwlockattr_t *attr)
{
    if (PTR_IS_NULL(lock))
        return -1;
    return JUDGE(pthread_rwlock_init(lock, attr), init_outcomes);
}

int lh_rwlock_destroy(pthread_rwlock_t *lock)
{
    if (PTR_IS_NULL(lock))
        return -1;
    return JUDGE(pthread_rwlock_destroy(lock), destroy_outcomes);
}

int lh_rwlock_read_lock(pthread_rwlock_t *lock)
{
    if (PTR_IS_NULL(lock))
        return -1;
    return JUDGE(pthread_rwlock_rdlock(lock), read_lock_outcomes);
}

int lh_rwlock_read_trylock(pthread_rwlock_t *lock)
{
    if (PTR_IS_NULL(lock))
        return -1;
    return JUDGE(pthread_rwlock_tryrdlock(lock), read_trylock_outcomes);
}

int lh_rwlock_write_lock(pthread_rwlock_t *lock)
{
    if (PTR_IS_NULL(lock))
        return -1;
    return JUDGE(pthread_rwlock_wrlock(lock), write_lock_outcomes);
}

int lh_rwlock_write_trylock(pthread_rwlock_t *lock)
{
    if (PTR_IS_NULL(lock))
        return -1;
    return JUDGE(pthread_rwlock_trywrlock(lock), write_trylock_outcomes);
}

int lh_rwlock_unlock(pthread_rwlock_t *lock)
{
    if (PTR_IS_NULL(lock))
        return -1;
    return JUDGE(pthread_rwlock_unlock(lock), unlock_outcomes);
}
