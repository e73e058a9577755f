// The daemon's skeleton and the supervised command, run as their users run them.
#include <gmock/gmock.h>

#include <climits>
#include <filesystem>
#include <sys/stat.h>

#include "program.hpp"

using namespace vyt::test;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

class Skeletons : public Examples {};

TEST_F(Skeletons, WrongArgumentsGetTheUsageLineAndTwo)
{
    const std::vector<std::vector<std::string>> wrong = {
        {"daemon_skeleton", "more"},
        {"daemon_skeleton", "-x"},
        {"daemon_skeleton", "-p"},
        {"daemon_skeleton", "-t", "0"},
        {"daemon_skeleton", "-t", "3600001"},
        {"daemon_skeleton", "-t", "1s"},
        {"daemon_skeleton", "-t", ""},
        {"supervised_command"},
        {"supervised_command", ""},
        {"supervised_command", "a", "b"},
        {"supervised_command", "-l", "0", "a"},
        {"supervised_command", "-l", "", "a"},
        {"supervised_command", "-l", "86401", "a"},
        {"supervised_command", "-x", "a"},
    };
    for (const std::vector<std::string> &words : wrong)
        expect_usage(words);
}

// daemon_skeleton --------------------------------------------------------------------------------

TEST_F(Skeletons, DaemonSkeletonTicksReloadsAndLeaves)
{
    const std::string pid_file = dir / "pid";
    for (const int signal : {SIGTERM, SIGINT}) {
        Program daemon({example("daemon_skeleton"), "-p", pid_file, "-t", "5"});
        for (int tick = 1; tick <= 3; tick++)
            EXPECT_EQ(daemon.line(), "tick " + std::to_string(tick));
        EXPECT_EQ(read_file(pid_file), std::to_string(daemon.pid()));
        kill(daemon.pid(), SIGHUP);
        std::optional<std::string> line;
        do
            line = daemon.line();
        while (line && line->rfind("tick ", 0) == 0);
        ASSERT_TRUE(line);
        EXPECT_THAT(*line, MatchesRegex("reload after [0-9]+ ticks"));
        EXPECT_THAT(daemon.line().value_or("nothing"), StartsWith("tick "));
        kill(daemon.pid(), signal);
        daemon.rest();
        EXPECT_EQ(daemon.wait(), 0);
        EXPECT_EQ(daemon.errors(), "");
        EXPECT_FALSE(std::filesystem::exists(pid_file));
    }
}

TEST_F(Skeletons, DaemonSkeletonRunsOnce)
{
    const std::string pid_file = dir / "pid";
    Program first({example("daemon_skeleton"), "-p", pid_file, "-t", "5"});
    EXPECT_EQ(first.line(), "tick 1");
    const Outcome second = start("daemon_skeleton", {"-p", pid_file, "-t", "5"});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.output, "");
    EXPECT_EQ(second.errors, "daemon_skeleton: running already as " + std::to_string(first.pid()) +
                                 ", says " + pid_file + "\n");
    EXPECT_EQ(read_file(pid_file), std::to_string(first.pid()));
    kill(first.pid(), SIGTERM);
    first.rest();
    EXPECT_EQ(first.wait(), 0);
}

TEST_F(Skeletons, DaemonSkeletonIsNotKeptOutByAPidFileThatWasLeftBehind)
{
    const std::string pid_file = dir / "pid";
    // Of nobody any more, of another program, of nothing that is a pid.
    for (const std::string &left :
         {std::to_string(INT_MAX), std::to_string(getpid()), std::string("gibberish")}) {
        write_file(pid_file, left);
        Program daemon({example("daemon_skeleton"), "-p", pid_file, "-t", "5"});
        EXPECT_EQ(daemon.line(), "tick 1") << left;
        EXPECT_EQ(read_file(pid_file), std::to_string(daemon.pid()));
        kill(daemon.pid(), SIGTERM);
        daemon.rest();
        EXPECT_EQ(daemon.wait(), 0);
    }
}

TEST_F(Skeletons, DaemonSkeletonCannotStartWithoutItsPidFile)
{
    const Outcome outcome = start("daemon_skeleton", {"-p", dir / "no/pid"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.errors,
                EndsWith("daemon_skeleton: cannot start: No such file or directory\n"));
}

// supervised_command -----------------------------------------------------------------------------

TEST_F(Skeletons, SupervisedCommandPrintsTheChecksum)
{
    write_file(dir / "file", "123456789");
    const Outcome outcome = start("supervised_command", {dir / "file"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, "930766865 9 " + std::string(dir / "file") + "\n");
}

TEST_F(Skeletons, SupervisedCommandHandsOverNamesAsTheyAre)
{
    for (const std::string &name :
         {std::string("!\"$&'()*;<=>?\\`|"), std::string("$HOME"), std::string("`id`"),
          std::string("a;id"), std::string("#comment"), std::string("~"), std::string("-x"),
          std::string("%s"), std::string("*"), std::string("\xc3\xa4")}) {
        write_file(dir / name, "123456789");
        const Outcome outcome = start("supervised_command", {dir / name});
        EXPECT_EQ(outcome.status, 0) << name << ": " << outcome.errors;
        EXPECT_EQ(outcome.output, "930766865 9 " + std::string(dir / name) + "\n");

        const Outcome beside =
            start("supervised_command", {"--", name}, [&] { (void)!chdir(dir.path().c_str()); });
        EXPECT_EQ(beside.status, 0) << name << ": " << beside.errors;
        EXPECT_EQ(beside.output, "930766865 9 ./" + name + "\n");
    }
}

TEST_F(Skeletons, SupervisedCommandRefusesWhatEscapingDoesNotCover)
{
    for (const char *name : {"a b", "a\tb", "a\nb", "a\x01", "a[b]", "a]", "{a,b}", "a}"}) {
        const Outcome outcome = start("supervised_command", {name});
        EXPECT_EQ(outcome.status, 2) << name;
        EXPECT_EQ(outcome.output, "");
        EXPECT_THAT(outcome.errors, HasSubstr("is not handed to the shell"));
    }
}

TEST_F(Skeletons, SupervisedCommandEndsWithTheCommandsExitCode)
{
    const Outcome outcome = start("supervised_command", {dir / "nowhere"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.errors, HasSubstr("nowhere"));
}

TEST_F(Skeletons, SupervisedCommandShowsProgressWhileItRuns)
{
    // A pipe: the command waits for whoever writes it.
    const std::string pipe = dir / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Program program({example("supervised_command"), pipe});
    const int writer = open(pipe.c_str(), O_WRONLY | O_CLOEXEC); // once the command reads it
    ASSERT_TRUE(wait_until([&] { return program.errors().size() >= 2; }));
    ASSERT_EQ(write(writer, "123456789", 9), 9);
    close(writer);
    EXPECT_EQ(program.line(), "930766865 9 " + pipe);
    EXPECT_EQ(program.wait(), 0);
    EXPECT_THAT(program.errors(), MatchesRegex("\\.+\n"));
}

TEST_F(Skeletons, SupervisedCommandGivesUpAtTheLimit)
{
    const std::string pipe = dir / "pipe"; // which nobody writes
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const Outcome outcome = start("supervised_command", {"-l", "1", pipe});
    EXPECT_EQ(outcome.status, 124);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.errors, EndsWith("supervised_command: gave up after 1 s\n"));
    // The command is gone: nobody reads the pipe any more.
    EXPECT_EQ(open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), -1);
    EXPECT_EQ(errno, ENXIO);
}
