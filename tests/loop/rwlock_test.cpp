#include "lh_rwlock.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

class Rwlock : public LogTest {
  protected:
    Rwlock() { pthread_rwlock_init(&lock, nullptr); }
    ~Rwlock() override { pthread_rwlock_destroy(&lock); }

    pthread_rwlock_t lock;
};

namespace {

using lock_call = int (*)(pthread_rwlock_t *);

struct operation {
    const char *name;
    lock_call call;
    const char *pthread_call;
};

int init_with_defaults(pthread_rwlock_t *lock)
{
    return lh_rwlock_init(lock, nullptr);
}

const operation init = {"lh_rwlock_init", init_with_defaults, "pthread_rwlock_init"};
const operation destroy = {"lh_rwlock_destroy", lh_rwlock_destroy, "pthread_rwlock_destroy"};
const operation read_lock = {"lh_rwlock_read_lock", lh_rwlock_read_lock, "pthread_rwlock_rdlock"};
const operation read_trylock = {"lh_rwlock_read_trylock", lh_rwlock_read_trylock,
                                "pthread_rwlock_tryrdlock"};
const operation write_lock = {"lh_rwlock_write_lock", lh_rwlock_write_lock,
                              "pthread_rwlock_wrlock"};
const operation write_trylock = {"lh_rwlock_write_trylock", lh_rwlock_write_trylock,
                                 "pthread_rwlock_trywrlock"};
const operation unlock = {"lh_rwlock_unlock", lh_rwlock_unlock, "pthread_rwlock_unlock"};

const operation *const operations[] = {&init,       &destroy,       &read_lock, &read_trylock,
                                       &write_lock, &write_trylock, &unlock};

// A message that ends in the code and its words.
std::string with_code(const std::string &message, int code)
{
    return message + std::to_string(code) + " (" + strerror(code) + ")";
}

const std::string silent;
const std::string too_many = "maximum number of read locks for rwlock has been exceeded";
const std::string not_initialized = "rwlock not initialized";
const std::string held = "rwlock is already locked for writing";
const std::string cannot_lock = "rwlock cannot be locked, rc: ";
const std::string cannot_unlock = "rwlock cannot be unlocked, rc: ";

} // namespace

TEST_F(Rwlock, EveryErrorCodeHasItsResultAndLine)
{
    const struct {
        const operation &op;
        int code;
        int result;
        std::string message;
    } cases[] = {
        {init, EAGAIN, -1, with_code("cannot initialize rwlock: ", EAGAIN)},
        {init, ENOMEM, -1, with_code("cannot initialize rwlock: ", ENOMEM)},
        {init, EINVAL, -1, with_code("cannot initialize rwlock: ", EINVAL)},
        {destroy, EBUSY, -1, with_code("cannot destroy rwlock: ", EBUSY)},
        {destroy, EINVAL, -1, with_code("cannot destroy rwlock: ", EINVAL)},

        {read_lock, EAGAIN, -1, too_many},
        {read_lock, EINVAL, -1, not_initialized},
        {read_lock, EDEADLK, -1, held},
        {read_lock, EBUSY, -1, with_code(cannot_lock, EBUSY)},
        {read_lock, EPERM, -1, with_code(cannot_lock, EPERM)},
        {read_lock, ENOMEM, -1, with_code(cannot_lock, ENOMEM)},

        {read_trylock, EBUSY, 1, silent},
        {read_trylock, EAGAIN, -1, too_many},
        {read_trylock, EINVAL, -1, not_initialized},
        {read_trylock, EDEADLK, -1, held},
        {read_trylock, EPERM, -1, with_code(cannot_lock, EPERM)},

        {write_lock, EINVAL, 0, not_initialized},
        {write_lock, EDEADLK, 0, held},
        {write_lock, EAGAIN, -1, with_code(cannot_lock, EAGAIN)},
        {write_lock, EBUSY, -1, with_code(cannot_lock, EBUSY)},
        {write_lock, EPERM, -1, with_code(cannot_lock, EPERM)},

        {write_trylock, EBUSY, 1, silent},
        {write_trylock, EDEADLK, -1, "deadlock was detected"},
        {write_trylock, EINVAL, -1, with_code(cannot_lock, EINVAL)},
        {write_trylock, EAGAIN, -1, with_code(cannot_lock, EAGAIN)},
        {write_trylock, EPERM, -1, with_code(cannot_lock, EPERM)},

        {unlock, EPERM, 0, "rwlock not owned"},
        {unlock, EINVAL, -1, not_initialized},
        {unlock, EBUSY, -1, with_code(cannot_unlock, EBUSY)},
        {unlock, EDEADLK, -1, with_code(cannot_unlock, EDEADLK)},
    };
    Faults faults;
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.op.name) + " with " + strerror(c.code));
        faults.fail(c.op.pthread_call, c.code);
        EXPECT_EQ(c.op.call(&lock), c.result);
        EXPECT_TRUE(faults.happened());
        if (c.message == silent)
            EXPECT_NO_LINES();
        else
            EXPECT_LINES(std::string(c.op.name) + ": " + c.message);
    }
}

namespace {

int fails_without_errno(pthread_rwlock_t *)
{
    return ENOMEM;
}

} // namespace

TEST_F(Rwlock, ErrnoIsKept)
{
    Faults faults;
    for (const operation *op : operations) {
        faults.replace(op->pthread_call, reinterpret_cast<void *>(fails_without_errno));
        errno = ENOTTY;
        EXPECT_EQ(op->call(&lock), -1) << op->name;
        EXPECT_EQ(errno, ENOTTY) << op->name;
    }
    EXPECT_EQ(take_lines().size(), std::size(operations));
}

TEST_F(Rwlock, AMissingLockIsLogged)
{
    Faults faults;
    for (const operation *op : operations) {
        EXPECT_EQ(op->call(nullptr), -1);
        EXPECT_LINES(std::string(op->name) + ": PTR_IS_NULL: lock");
        EXPECT_EQ(faults.calls(op->pthread_call), 0u);
    }
}

TEST_F(Rwlock, ALockLivesFromInitToDestroy)
{
    pthread_rwlock_t own;
    ASSERT_EQ(lh_rwlock_init(&own, nullptr), 0);
    EXPECT_EQ(lh_rwlock_read_lock(&own), 0);
    EXPECT_EQ(lh_rwlock_read_lock(&own), 0);
    EXPECT_EQ(lh_rwlock_read_trylock(&own), 0);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(lh_rwlock_unlock(&own), 0);
    EXPECT_EQ(lh_rwlock_write_lock(&own), 0);
    EXPECT_EQ(lh_rwlock_unlock(&own), 0);
    EXPECT_EQ(lh_rwlock_write_trylock(&own), 0);
    EXPECT_EQ(lh_rwlock_unlock(&own), 0);
    EXPECT_EQ(lh_rwlock_destroy(&own), 0);
    EXPECT_NO_LINES();
}

namespace {

const pthread_rwlockattr_t *given_attr;

int look_at_attr(pthread_rwlock_t *, const pthread_rwlockattr_t *attr)
{
    given_attr = attr;
    return 0;
}

} // namespace

TEST_F(Rwlock, TheAttributesReachTheLock)
{
    Faults faults;
    faults.replace("pthread_rwlock_init", reinterpret_cast<void *>(look_at_attr));
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    EXPECT_EQ(lh_rwlock_init(&lock, &attr), 0);
    EXPECT_EQ(given_attr, &attr);
    EXPECT_EQ(lh_rwlock_init(&lock, nullptr), 0);
    EXPECT_EQ(given_attr, nullptr);
    pthread_rwlockattr_destroy(&attr);
}

TEST_F(Rwlock, AWriterThatLocksAgainIsToldAndGoesOn)
{
    ASSERT_EQ(lh_rwlock_write_lock(&lock), 0);
    EXPECT_EQ(lh_rwlock_write_lock(&lock), 0);
    EXPECT_LINES("lh_rwlock_write_lock: rwlock is already locked for writing");
    EXPECT_EQ(lh_rwlock_read_lock(&lock), -1);
    EXPECT_LINES("lh_rwlock_read_lock: rwlock is already locked for writing");
    // It holds the lock once.
    EXPECT_EQ(lh_rwlock_unlock(&lock), 0);
    EXPECT_EQ(lh_rwlock_write_trylock(&lock), 0);
    EXPECT_EQ(lh_rwlock_unlock(&lock), 0);
}

TEST_F(Rwlock, TryingAWriteLockedLockIsBusySilently)
{
    ASSERT_EQ(lh_rwlock_write_lock(&lock), 0);
    const auto try_both = [this] {
        EXPECT_EQ(lh_rwlock_read_trylock(&lock), 1);
        EXPECT_EQ(lh_rwlock_write_trylock(&lock), 1);
    };
    try_both();
    std::thread(try_both).join();
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_rwlock_unlock(&lock), 0);
}

TEST_F(Rwlock, TryingAReadLockedLockAdmitsReadersOnly)
{
    ASSERT_EQ(lh_rwlock_read_lock(&lock), 0);
    std::thread([this] {
        EXPECT_EQ(lh_rwlock_write_trylock(&lock), 1);
        EXPECT_EQ(lh_rwlock_read_trylock(&lock), 0);
        EXPECT_EQ(lh_rwlock_unlock(&lock), 0);
    }).join();
    EXPECT_EQ(lh_rwlock_unlock(&lock), 0);
    EXPECT_NO_LINES();
}

TEST_F(Rwlock, ReadersHoldTheLockTogether)
{
    std::atomic<int> holding = 0;
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; i++)
        readers.emplace_back([&] {
            EXPECT_EQ(lh_rwlock_read_lock(&lock), 0);
            holding++;
            // Only passes when nobody waits for another one's unlock.
            EXPECT_TRUE(wait_until([&] { return holding == 4; }));
            EXPECT_EQ(lh_rwlock_unlock(&lock), 0);
        });
    for (std::thread &reader : readers)
        reader.join();
}

TEST_F(Rwlock, AWaitingLockIsTakenOnceItIsGivenBack)
{
    for (lock_call take : {lh_rwlock_read_lock, lh_rwlock_write_lock}) {
        ASSERT_EQ(lh_rwlock_write_lock(&lock), 0);
        bool given_back = false; // guarded by the lock
        std::thread waiter([&] {
            EXPECT_EQ(take(&lock), 0);
            EXPECT_TRUE(given_back);
            EXPECT_EQ(lh_rwlock_unlock(&lock), 0);
        });
        given_back = true;
        EXPECT_EQ(lh_rwlock_unlock(&lock), 0);
        waiter.join();
    }
}

TEST_F(Rwlock, WritersExcludeEachOtherAndReaders)
{
    constexpr int threads = 4, rounds = 2000;
    long first = 0, second = 0; // equal whenever nobody writes
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; i++) {
        workers.emplace_back([&] {
            for (int round = 0; round < rounds; round++) {
                ASSERT_EQ(lh_rwlock_write_lock(&lock), 0);
                first++;
                second++;
                ASSERT_EQ(lh_rwlock_unlock(&lock), 0);
            }
        });
        workers.emplace_back([&] {
            for (int round = 0; round < rounds; round++) {
                ASSERT_EQ(lh_rwlock_read_lock(&lock), 0);
                ASSERT_EQ(first, second);
                ASSERT_EQ(lh_rwlock_unlock(&lock), 0);
            }
        });
    }
    for (std::thread &worker : workers)
        worker.join();
    EXPECT_EQ(first, threads * rounds);
    EXPECT_EQ(second, threads * rounds);
    EXPECT_NO_LINES();
}

TEST_F(Rwlock, TriersExcludeEachOther)
{
    constexpr int threads = 4, rounds = 500;
    long first = 0, second = 0;
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; i++) {
        workers.emplace_back([&] {
            for (int done = 0; done < rounds;) {
                const int result = lh_rwlock_write_trylock(&lock);
                ASSERT_TRUE(result == 0 || result == 1) << result;
                if (result == 0) {
                    first++;
                    second++;
                    done++;
                    ASSERT_EQ(lh_rwlock_unlock(&lock), 0);
                } else {
                    std::this_thread::yield();
                }
                const int read_result = lh_rwlock_read_trylock(&lock);
                ASSERT_TRUE(read_result == 0 || read_result == 1) << read_result;
                if (read_result == 0) {
                    ASSERT_EQ(first, second);
                    ASSERT_EQ(lh_rwlock_unlock(&lock), 0);
                }
            }
        });
    }
    for (std::thread &worker : workers)
        worker.join();
    EXPECT_EQ(first, threads * rounds);
    EXPECT_NO_LINES();
}
