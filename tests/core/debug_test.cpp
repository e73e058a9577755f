// Debug lines as the board's debug log is given them: what stands in the format, what is an argument.
#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "lh_inotify.h"
#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "watch/vrrp_fixture.hpp"

using namespace vyt::test;
using ::testing::MatchesRegex;

using texts = std::vector<std::string>;

// The arguments of every line, and after them those of this one.
static texts arguments_under(const char *flag, const texts &rest)
{
    texts all = {"VYT_HELPERS", "D", flag, program_invocation_short_name, std::to_string(getpid())};
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
}

class DebugLine : public LogTest {};
class DebugLineOfTheTracker : public TrackerTest {};

TEST_F(DebugLine, NamesItsFunctionInAnArgument)
{
    Faults faults;
    faults.fail("malloc", ENOMEM);
    set_debug_flags(inotify_dbg);
    EXPECT_EQ(lh_inotify_create(), nullptr);
    const debug_call call = last_debug_call();
    EXPECT_EQ(call.priority, LOG_DEBUG);
    EXPECT_EQ(call.format, "%%%s-%s-%s: <%s(%lu)> <%s> malloc failed: %s");
    EXPECT_EQ(call.arguments,
              arguments_under("INOTIFY_DBG", {"lh_inotify_create", "Cannot allocate memory"}));
    EXPECT_LINES("INOTIFY_DBG <lh_inotify_create> malloc failed: Cannot allocate memory");
}

TEST_F(DebugLine, MayGiveItsPlaceInTheSourceAsTwoArguments)
{
    const TempDir directory;
    lh_inotify *watcher = lh_inotify_create();
    set_debug_flags(inotify_dbg);
    EXPECT_EQ(
        lh_inotify_include_file(watcher, directory.path().c_str(), "100%s", 0, nullptr, nullptr),
        0);
    debug_call call = last_debug_call();
    EXPECT_EQ(call.priority, LOG_DEBUG);
    EXPECT_EQ(call.format, "%%%s-%s-%s: <%s(%lu)> <%s:%d> state %s to %s (%s)");
    ASSERT_EQ(call.arguments.size(), 10u);
    EXPECT_THAT(call.arguments[6], MatchesRegex("[1-9][0-9]*"));
    call.arguments.erase(call.arguments.begin() + 6);
    EXPECT_EQ(call.arguments,
              arguments_under("INOTIFY_DBG", {"create_file", "INIT", "WATCH_DIRECTORY", "100%s"}));
    EXPECT_LINES("INOTIFY_DBG <create_file:#> state INIT to WATCH_DIRECTORY (100%s)");
    lh_inotify_free(&watcher);
}

TEST_F(DebugLineOfTheTracker, OfAChangeOfStatusNamesNoFunction)
{
    start_with(record(1, daemon_backup, 7), {7});
    set_debug_flags(vrrp_dbg);
    EXPECT_EQ(update_with(record(1, daemon_master, 7)), 0);
    const debug_call call = last_debug_call();
    EXPECT_EQ(call.priority, LOG_DEBUG);
    EXPECT_EQ(call.format, "%%%s-%s-%s: <%s(%lu)> VRRP group %d change status %s to %s");
    EXPECT_EQ(call.arguments, arguments_under("VRRP_DBG", {"7", "Backup", "Master"}));
    EXPECT_LINES("VRRP_DBG VRRP group 7 change status Backup to Master");
}
