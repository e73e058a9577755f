// Names of threads.
#include "lh_process.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/process_fixture.hpp"
#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;
using ::testing::ElementsAre;

class ThreadName : public LogTest {
  protected:
    // Gives a thread a name, and answers what the library says about it.
    static std::string name_of_thread_called(const char *name)
    {
        std::string answer;
        std::thread([&] {
            prctl(PR_SET_NAME, name);
            answer = lh_process_name_get_by_itid(getpid(), gettid());
        }).join();
        return answer;
    }
};

TEST_F(ThreadName, IsTheThreadsOwn)
{
    const auto before = open_descriptors();
    EXPECT_EQ(name_of_thread_called("worker"), "worker");
    EXPECT_EQ(name_of_thread_called("fifteen letters"), "fifteen letters");
    EXPECT_EQ(name_of_thread_called(""), "");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ThreadName, OfNoThreadIsEmptyWithoutALine)
{
    const char *buffer = lh_process_name_get_by_itid(getpid(), getpid());
    EXPECT_STRNE(buffer, "");
    EXPECT_EQ(lh_process_name_get_by_itid(getpid(), 0), buffer);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ThreadName, AFailingReadIsReportedAndClearsTheBuffer)
{
    const char *buffer = lh_process_name_get_by_itid(getpid(), getpid());
    const std::string name = buffer;
    const auto before = open_descriptors();
    Faults faults;
    faults.fail("read", EIO);
    EXPECT_EQ(lh_process_name_get_by_itid(getpid(), getpid()), buffer);
    EXPECT_EQ(errno, EIO);
    EXPECT_STREQ(buffer, "");
    EXPECT_LINES("<lh_process_name_get_by_itid:#> read '" +
                 proc(getpid(), "task/" + std::to_string(getpid()) + "/comm") + "' failed");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(lh_process_name_get_by_itid(getpid(), getpid()), name);
}

TEST_F(ThreadName, EndsAtTheFirstNewline)
{
    Faults faults;
    faults.replace("read", reinterpret_cast<void *>(read_contents));
    file_contents = "two\nlines\n";
    EXPECT_STREQ(lh_process_name_get_by_itid(getpid(), getpid()), "two");
    file_contents = "\n";
    EXPECT_STREQ(lh_process_name_get_by_itid(getpid(), getpid()), "");
    file_contents = "none";
    EXPECT_STREQ(lh_process_name_get_by_itid(getpid(), getpid()), "none");
    file_contents = std::string(300, 'x');
    EXPECT_EQ(lh_process_name_get_by_itid(getpid(), getpid()), std::string(255, 'x'));
}

static std::vector<std::string> opened;

static int open_nothing(const char *path, int, mode_t)
{
    opened.push_back(path);
    errno = ENOENT;
    return -1;
}

TEST_F(ThreadName, NumbersAreWidenedWithTheirSign)
{
    Faults faults;
    opened.clear();
    faults.replace("open", reinterpret_cast<void *>(open_nothing));
    EXPECT_STREQ(lh_process_name_get_by_itid(-1, INT_MIN), "");
    EXPECT_STREQ(lh_process_name_get_by_itid(12, 34), "");
    EXPECT_THAT(opened, ElementsAre("/proc/18446744073709551615/task/18446744071562067968/comm",
                                    "/proc/12/task/34/comm"));
}
