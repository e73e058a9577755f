// What the library writes, caught: every test executable defines syslog and the board's debug log.
//
// Lines are kept in a short form that leaves out what is the same in every line and has been
// checked already (process name, pid, a positive line number):
//
//   error line, LOG_ERR    lh_close: PTR_IS_NULL: fd
//   short prefix           <lh_process_self_name_get:#> lh_process_name_get_by_pid failed
//     at another priority  [7] <lh_process_name_get_by_pid:#> cannot open proc file for pid=1
//   debug line             INOTIFY_DBG <read_inotify> read failed: ...
//                          INOTIFY_DBG <create_file:#> malloc failed: ...
//                          VRRP_DBG VRRP group 1 change status Unknown to Master
//
// A line of any other form is kept as it came, and so cannot match. The catchers spoil errno.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vyt::test {

constexpr unsigned inotify_dbg = 1u << 0;
constexpr unsigned vrrp_dbg = 1u << 1;

// The lines since the last call of this function, oldest first.
std::vector<std::string> take_lines();

// The format that syslog was handed last, as it came.
std::string last_syslog_format();

// A call of the board's debug log as the library made it. A line does not tell what stood in the
// format and what was an argument.
struct debug_call {
    int priority = -1;
    std::string format;
    std::vector<std::string> arguments; // numbers in decimal
};

// The last one; none is a call without a format.
debug_call last_debug_call();

// Which debug flags are on; all are off at the start.
void set_debug_flags(unsigned flags);
// What SYSLOG_flag_get answers for a flag that is on (its low byte decides); 1 at the start.
void set_debug_answer(int answer);
// How often the debug log was asked whether a flag is on, since the last call of this function.
unsigned take_flag_questions();
// The pid that the liveness library answers; -1 at the start.
void set_alive_mgr_pid(int pid);

// A test whose log accepts nothing unexpected: a line that was not taken fails it. The process's
// name has not been asked for yet, so the first error line will read it.
class ColdLogTest : public ::testing::Test {
  protected:
    ColdLogTest();
    ~ColdLogTest() override;
    void TearDown() override;
};

// The same in a process that knows its name, as most tests want it: an error line then makes no
// system call.
class LogTest : public ColdLogTest {
  protected:
    LogTest();
};

} // namespace vyt::test

// The log holds exactly these lines, in this order: EXPECT_LINES("lh_close: PTR_IS_NULL: fd");
#define EXPECT_LINES(...)                                                                          \
    EXPECT_EQ(::vyt::test::take_lines(), (std::vector<std::string>{__VA_ARGS__}))
#define EXPECT_NO_LINES() EXPECT_EQ(::vyt::test::take_lines(), std::vector<std::string>{})
