// The demo tells a story that it checks, and never touches the machine.
#include <gmock/gmock.h>

#include <filesystem>
#include <sys/stat.h>

#include "program.hpp"
#include "support/world.hpp"

using namespace vyt::test;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

const std::string usage = "usage: run [--limit SECONDS] [SCENARIO]\n";
const std::string status_file = "/var/cache/vrrp_data";

class Demo : public ::testing::Test {
  protected:
    // Plays this scenario with a limit that a step which will not come has to wait for.
    Outcome play(const std::string &text)
    {
        write_file(scenario, text);
        return run({program, "--limit", "20", scenario});
    }

    TempDir dir;
    const std::string program = example("demo/run");
    const std::string scenario = dir / "a.scenario";
};

} // namespace

TEST_F(Demo, EveryStepOfTheStoryIsSeenAsExpected)
{
    const Outcome outcome = run({program});
    EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    for (const char *way : {"rename", "in-place", "truncate", "recreate", "delete",
                            "remove-directory", "recreate-directory"})
        EXPECT_THAT(outcome.output, HasSubstr("in the file (" + std::string(way) + ")"));
    for (const char *line : {"vrrp_monitor -g 1 -i :10 -i blue:30\n",
                             "   (no file)                        | group 1 Invalid -> Unknown\n",
                             "\n4 of 12: Failover is complete: the group is master\n",
                             "| group 1 Backup -> Master members vrrp.20 vrrp.10\n",
                             "   as expected: group 1 Fault, instance :10 Master, "
                             "instance blue:30 Backup\n",
                             "\nAll 12 steps were seen as expected.\n"})
        EXPECT_THAT(outcome.output, HasSubstr(line));
}

TEST_F(Demo, FitsATerminal)
{
    std::string output = run({program}).output;
    while (!output.empty()) {
        const std::string line = output.substr(0, output.find('\n'));
        EXPECT_LE(line.size(), 100u) << line;
        EXPECT_TRUE(line.empty() || line.back() != ' ') << line;
        output.erase(0, line.size() + 1);
    }
}

TEST_F(Demo, LeavesTheMachinesStatusFileAlone)
{
    OWN_PROCESS();
    World world;
    write_file(status_file, "the machine's own");
    struct stat before = {}, after = {};
    ASSERT_EQ(stat(status_file.c_str(), &before), 0);
    EXPECT_EQ(run({program}).status, 0);
    ASSERT_EQ(stat(status_file.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_ctim.tv_sec, before.st_ctim.tv_sec);
    EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
    EXPECT_EQ(read_file(status_file), "the machine's own");
    const std::filesystem::directory_iterator cache("/var/cache");
    EXPECT_EQ(std::distance(begin(cache), end(cache)), 1);
}

TEST_F(Demo, RefusesToMountInTheNamespaceThatItWasStartedIn)
{
    OWN_PROCESS();
    World world;
    const std::string here = std::filesystem::read_symlink("/proc/self/ns/mnt");
    const Outcome outcome =
        run({program, "--inside", here, "0", "2", example("demo/failover.scenario")});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors,
              "demo: this is the machine's own mount namespace: nothing was mounted\n");
}

TEST_F(Demo, RefusesToWriteWhereTheCacheIsNotItsOwn)
{
    OWN_PROCESS();
    World world;
    // Mounting goes wrong without a word.
    const std::string nothing = dir / "mount";
    write_file(nothing, "#!/bin/sh\n");
    chmod(nothing.c_str(), 0755);
    const Outcome outcome =
        run({"/usr/bin/env", "PATH=" + dir.path() + ":" + getenv("PATH"), program});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "demo: /var/cache is not a private one: nothing was written\n");
    EXPECT_TRUE(std::filesystem::is_empty("/var/cache"));
}

TEST_F(Demo, AStepThatIsSeenOtherwiseFailsAndSaysWhatToDo)
{
    const Outcome outcome = play("step the first\nwrite rename\nrecord - 10 Master 1\n"
                                 "expect group 1 Master\n"
                                 "step the second\nwrite rename\nrecord - 10 Fault 1\n"
                                 "expect group 1 Backup\n"
                                 "step the third\nwrite delete\nexpect group 1 Unknown\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.output, HasSubstr("   as expected: group 1 Master\n"));
    EXPECT_THAT(outcome.output, HasSubstr("| group 1 Master -> Fault members vrrp.10\n"));
    EXPECT_THAT(outcome.output, Not(HasSubstr("the third")));
    EXPECT_THAT(outcome.output, Not(HasSubstr("All")));
    EXPECT_EQ(outcome.errors,
              "\n"
              "demo: not as expected: 2 of 3: the second\n"
              "  expected: group 1 Backup\n"
              "      seen: group 1 Fault\n"
              "  next: repeat it with a longer --limit, or with VYT_DEBUG=INOTIFY_DBG,VRRP_DBG in\n"
              "        the environment, which shows here what the library does\n");
}

TEST_F(Demo, AStepThatCouldNotFailIsRefused)
{
    const Outcome outcome = play("step the first\nwrite rename\nrecord - 10 Master 1\n"
                                 "expect group 1 Master\n"
                                 "step the second\nwrite in-place\nrecord - 10 Master 1\n"
                                 "expect group 1 Master\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("demo: step 2 expects nothing that is not so already"));
}

TEST_F(Demo, AStepWithoutExpectationsIsRefused)
{
    const Outcome outcome = play("step the first\nwrite rename\nrecord - 10 Master 1\n"
                                 "expect group 1 Master\n"
                                 "step the second\nwrite delete\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("demo: step 2 expects nothing"));
}

TEST_F(Demo, AScenarioWithoutExpectationsIsRefused)
{
    const Outcome outcome = play("step the first\nwrite rename\nrecord - 10 Master 1\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "demo: " + scenario + " expects nothing\n");
}

TEST_F(Demo, HelpGoesToStandardOutput)
{
    for (const char *option : {"--help", "-h"}) {
        const Outcome outcome = run({program, option});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.output.rfind(usage, 0), 0u);
        EXPECT_EQ(outcome.errors, "");
    }
}

TEST_F(Demo, WrongArgumentsGetTheUsageLine)
{
    const std::vector<std::vector<std::string>> wrong = {
        {"--nonsense"},   {"--limit"},       {"--limit", "0"},
        {"--limit", "x"}, {"--limit", "-1"}, {scenario, "more"},
    };
    write_file(scenario, "");
    for (std::vector<std::string> words : wrong) {
        words.insert(words.begin(), program);
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, 2) << ::testing::PrintToString(words);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors, usage);
    }
}

TEST_F(Demo, AMistakeInTheScenarioIsToldBeforeAnythingStarts)
{
    const Outcome outcome = play("step the first\nwrite sideways\n");
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, scenario + ":2: there is no way to write 'sideways'\n");
}
