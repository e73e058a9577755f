// A real VRRP daemon drives the publisher, and the monitor follows: the demo tells the story and
// checks it. Where the daemon is missing or namespaces are not allowed these tests are skipped.
#include <gmock/gmock.h>

#include <filesystem>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include "program.hpp"
#include "support/world.hpp"

using namespace vyt::test;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr int cannot_run = 77;

class RealDaemon : public ::testing::Test {
  protected:
    // Puts a shell script before the machine's program of this name.
    void replace(const std::string &name, const std::string &script)
    {
        write_file(dir / name, "#!/bin/sh\n" + script);
        chmod((dir / name).c_str(), 0755);
    }
    // The demo with those in its way. The limit is what all its other programs have to start in.
    std::vector<std::string> words() const
    {
        return {"/usr/bin/env", "PATH=" + dir.path() + ":" + getenv("PATH"), program, "--limit",
                "20"};
    }

    TempDir dir;
    const std::string program = example("demo/vrrpd");
};

} // namespace

TEST_F(RealDaemon, EveryStateIsSeenOnBothRouters)
{
    const Outcome outcome = run({program});
    if (outcome.status == cannot_run)
        GTEST_SKIP() << outcome.errors;
    EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    EXPECT_THAT(outcome.output,
                HasSubstr("\nThe monitors start: there is no status file yet\n"
                          "   left                                         | right\n"
                          "   seen: group 1 Invalid -> Unknown             | "
                          "seen: group 1 Invalid -> Unknown\n"));
    for (const char *line :
         {"told: INSTANCE \"ten\" MASTER 200", "told: INSTANCE \"twenty\" FAULT 100",
          "told: INSTANCE \"twenty\" STOP 200", "seen: group 1 Backup -> Master",
          "   as expected: left instance :10 Fault, instance :20 Fault, group 1 Fault\n"
          "                right instance :10 Fault, instance :20 Fault, group 1 Fault\n",
          "   as expected: left instance :10 Init, instance :20 Init, group 1 Init\n"
          "                right instance :10 Master, instance :20 Master, group 1 Master\n",
          "   as expected: left instance :10 Master, instance :20 Backup, group 1 Backup\n"
          "                right instance :10 Backup, instance :20 Master, group 1 Backup\n",
          "\nAll 10 steps were seen as expected.\n"})
        EXPECT_THAT(outcome.output, HasSubstr(line));
    for (const char *of_the_world : {"/sys/class/net/cable", "/sys/class/net/uplink", "/run/left",
                                     "/run/netns/left", "/run/lines"})
        EXPECT_FALSE(std::filesystem::exists(of_the_world)) << of_the_world;
}

TEST_F(RealDaemon, ADaemonThatSaysNothingFailsTheStory)
{
    replace("keepalived", "[ $1 = --version ] || exec sleep 1000\n");
    const Outcome outcome = run(words());
    if (outcome.status == cannot_run)
        GTEST_SKIP() << outcome.errors;
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.output, HasSubstr("seen: group 1 Invalid -> Unknown"));
    EXPECT_THAT(outcome.output, HasSubstr("seen: group 1 Unknown -> Init"));
    EXPECT_THAT(outcome.output, Not(HasSubstr("2 of 10")));
    EXPECT_THAT(outcome.errors,
                HasSubstr("demo: not as expected: 1 of 10: Left's daemon starts, and is alone\n"
                          "  expected: left instance :10 Master\n"
                          "      seen: left instance :10 Init\n"));
}

TEST_F(RealDaemon, ADaemonThatFailsIsQuoted)
{
    replace("keepalived", "echo it has no time >&2\nexit 1\n");
    const Outcome outcome = run(words());
    if (outcome.status == cannot_run)
        GTEST_SKIP() << outcome.errors;
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("  daemon: it has no time\n"));
}

TEST_F(RealDaemon, NothingIsLeftWhenItIsEndedHalfway)
{
    OWN_PROCESS();
    prctl(PR_SET_CHILD_SUBREAPER, 1); // whatever it leaves behind becomes a child of this process
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Program demo({program}, [] { ::signal(SIGINT, SIG_DFL); }); // else it could not be caught
        std::optional<std::string> line;
        while ((line = demo.line()) && line->rfind("2 of 10", 0) != 0)
            ;
        if (!line && demo.wait() == cannot_run)
            GTEST_SKIP() << demo.errors();
        ASSERT_TRUE(line) << demo.errors();
        kill(demo.pid(), signal);
        EXPECT_EQ(demo.wait(), signal == SIGINT ? 130 : 143);
        EXPECT_TRUE(wait_until([] {
            while (waitpid(-1, nullptr, WNOHANG) > 0)
                ;
            return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
        }));
    }
}

TEST_F(RealDaemon, MakesNothingOutsideOfAWorldOfItsOwn)
{
    OWN_PROCESS();
    World world; // where a mistake would do no harm
    world.leave_network();
    const std::string here = std::filesystem::read_symlink("/proc/self/ns/net");
    for (const std::string &started_in : {here, std::string("net:[1]")}) {
        const Outcome outcome = run({program, "--inside", started_in, "2"});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors, "demo: this is no world of its own: nothing was made\n");
        EXPECT_TRUE(std::filesystem::is_empty("/run"));
    }
}

TEST_F(RealDaemon, SaysWhatIsMissing)
{
    OWN_PROCESS();
    World world;
    ASSERT_EQ(mount("tmpfs", "/usr/sbin", "tmpfs", 0, nullptr), 0);
    Outcome outcome = run({program});
    EXPECT_EQ(outcome.status, cannot_run);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.errors, HasSubstr("demo: cannot run here: there is no keepalived\n"));

    replace("keepalived", "exit 0\n");
    replace("ip", "exit 0\n");
    replace("unshare", "exit 1\n");
    outcome = run(words());
    EXPECT_EQ(outcome.status, cannot_run);
    EXPECT_THAT(outcome.errors, HasSubstr("demo: cannot run here: private mount, network and "
                                          "process namespaces are not allowed\n"));
}

TEST_F(RealDaemon, WrongArgumentsGetTheUsageLine)
{
    const std::vector<std::vector<std::string>> wrong = {
        {"--limit"}, {"--limit", "0"}, {"--limit", "x"}, {"more"}};
    for (std::vector<std::string> arguments : wrong) {
        arguments.insert(arguments.begin(), program);
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.status, 2) << ::testing::PrintToString(arguments);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors, "usage: vrrpd [--limit SECONDS]\n");
    }
}
