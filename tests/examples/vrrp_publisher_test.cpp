// The publisher writes exactly the records that its scenario names, in the way that it names.
#include <dirent.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "program.hpp"
#include "status_file.hpp"

using namespace vyt::test;

namespace {

const std::string usage =
    "usage: vrrp_publisher [--step NUMBER | --follow] SCENARIO [FILE]\n"
    "       vrrp_publisher --notify FIFO -i NAME=NETNS:VRID:GROUP... [FILE]\n";

const std::string lines_of_two_records = "record - 10 Master 1\nrecord blue 255 Fault 0\n";
const std::string two_records = published(10, 2, 1) + published(255, 3, 0, "blue");

class Publisher : public ::testing::Test {
  protected:
    // Plays a scenario of one step onto the target.
    Outcome play(const std::string &way, const std::string &records)
    {
        write_file(scenario, "step only\nwrite " + way + "\n" + records);
        return run({program, "--step", "1", scenario, target});
    }
    Outcome read(const std::string &text)
    {
        write_file(scenario, text);
        return run({program, "--follow", scenario});
    }
    void expect_mistake(const std::string &text, const std::string &where_and_what)
    {
        const Outcome outcome = read(text);
        EXPECT_EQ(outcome.status, 2) << text;
        EXPECT_EQ(outcome.output, "") << text;
        EXPECT_EQ(outcome.errors, scenario + where_and_what + "\n") << text;
    }

    TempDir dir;
    const std::string program = example("vrrp_publisher");
    const std::string scenario = dir / "a.scenario";
    const std::string target = dir / "cache/vrrp_data";
};

} // namespace

TEST_F(Publisher, HelpGoesToStandardOutput)
{
    for (const char *option : {"--help", "-h"}) {
        const Outcome outcome = run({program, option});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.output.rfind(usage, 0), 0u);
        for (const char *word : {"--step", "--follow", "rename", "in-place", "truncate", "recreate",
                                 "recreate-directory", "delete", "remove-directory"})
            EXPECT_NE(outcome.output.find(word), std::string::npos) << word;
        EXPECT_EQ(outcome.errors, "");
    }
}

TEST_F(Publisher, WrongArgumentsGetTheUsageLine)
{
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"--nonsense"},
        {"--step"},
        {"--step", "0", scenario},
        {"--step", "one", scenario},
        {"--step", "1x", scenario},
        {"--step", "99999999999", scenario},
        {"--follow", "--step", "1", scenario},
        {"--follow", scenario, target},
        {scenario, target, "more"},
        {"--notify", dir / "fifo"},
        {"--notify", dir / "fifo", target},
        {"-i", "a=:1:1", scenario},
        {"--notify", dir / "fifo", "-i", "a=:1:1", target, "more"},
        {"--notify", dir / "fifo", "-i", "a=:1:1", "--follow"},
        {"--notify", dir / "fifo", "-i", "a=:1:1", "--step", "1"},
    };
    write_file(scenario, "step only\nwrite delete\n");
    for (std::vector<std::string> words : wrong) {
        words.insert(words.begin(), program);
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, 2) << ::testing::PrintToString(words);
        EXPECT_EQ(outcome.output, "");
        ASSERT_GE(outcome.errors.size(), usage.size()) << ::testing::PrintToString(words);
        EXPECT_EQ(outcome.errors.substr(outcome.errors.size() - usage.size()), usage);
    }
}

TEST_F(Publisher, AScenarioThatCannotBeReadIsNamed)
{
    const std::string nowhere = dir / "nowhere";
    Outcome outcome = run({program, nowhere});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, nowhere + ": cannot be read: No such file or directory\n");
    outcome = run({program, dir.path()});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, dir.path() + ": cannot be read: Is a directory\n");
}

TEST_F(Publisher, AMistakeNamesItsLine)
{
    const std::string good = "# a comment\nstep one # two\nwrite rename\n"; // three lines
    expect_mistake("", ":0: there is no step");
    expect_mistake("# nothing\n\n", ":2: there is no step");
    expect_mistake("write rename\n", ":1: 'write' stands before the first step");
    expect_mistake("\nrecord - 1 Init 1", ":2: 'record' stands before the first step");
    expect_mistake("step\n", ":1: a step needs a title");
    expect_mistake("step   # only a comment\n", ":1: a step needs a title");
    expect_mistake("step one\nstep two\n", ":2: the step 'one' ends here without a 'write'");
    expect_mistake("step one\n", ":1: the step 'one' ends here without a 'write'");
    expect_mistake(good + "write rename\n", ":4: this step has a 'write' already");
    expect_mistake("step one\nwrite sideways\n", ":2: there is no way to write 'sideways'");
    expect_mistake("step one\nwrite\n", ":2: 'write' has the form: write WAY");
    expect_mistake(good + "wrote rename\n", ":4: there is no 'wrote' in a scenario");
    expect_mistake(good + "expect\n", ":4: 'expect' is followed by 'group' or 'instance'");
    expect_mistake(good + "expect member 1 Init\n",
                   ":4: 'expect' is followed by 'group' or 'instance'");
    expect_mistake("step one\nwrite delete\nrecord - 1 Init 1\nstep two\n",
                   ":4: the step 'one' ends here; 'delete' takes no records");
}

TEST_F(Publisher, AMistakeInARecordOrExpectationNamesItsLine)
{
    const std::string good = "step one\nwrite rename\n"; // two lines
    const std::string form = ":3: 'record' has the form: record NETNS VRID STATE GROUP";
    expect_mistake(good + "record - 1 Init\n", form);
    expect_mistake(good + "record - 1 Init 1 1\n", form);
    expect_mistake(good + "record 1 2 3 4 5 6 7 8 9 10 11 12\n", form);
    expect_mistake(good + "record - x Init 1\n", ":3: the Virtual Router Id 'x' is no number");
    expect_mistake(good + "record - 2147483648 Init 1\n",
                   ":3: the Virtual Router Id '2147483648' is no number");
    expect_mistake(good + "record - 1 Idle 1\n",
                   ":3: the state 'Idle' is none of Init, Backup, Master, Fault and no number");
    expect_mistake(good + "record - 1 Init 1st\n", ":3: the group '1st' is no number");
    const std::string longest(54, 'n');
    expect_mistake(good + "record n" + longest + " 1 Init 1\n",
                   ":3: the namespace 'n" + longest + "' has more than 54 characters");
    expect_mistake(good + "expect group 33 Master\n",
                   ":3: the group '33' is no number from 1 to 32");
    expect_mistake(good + "expect group 0 Master\n", ":3: the group '0' is no number from 1 to 32");
    expect_mistake(good + "expect group 1 Invalid\n",
                   ":3: the status 'Invalid' is none of Unknown, Init, Backup, Master, Fault");
    expect_mistake(good + "expect group 1\n",
                   ":3: 'expect' has the form: expect group GROUP STATUS");
    expect_mistake(good + "expect instance 1 Master\n",
                   ":3: 'expect' has the form: expect instance NETNS VRID STATUS");
    expect_mistake(good + "expect instance - 256 Master\n",
                   ":3: the Virtual Router Id '256' is no number from 1 to 255");
    expect_mistake(good + "expect instance n" + longest + " 1 Init\n",
                   ":3: the namespace 'n" + longest + "' has more than 54 characters");
}

TEST_F(Publisher, TellsWhatTheMonitorIsToFollow)
{
    const Outcome outcome = read("step one\nwrite delete\n"
                                 "expect group 3 Unknown\nexpect instance - 10 unknown\n"
                                 "step two\nwrite delete\n"
                                 "expect instance blue 10 Unknown\nexpect group 3 Unknown\n"
                                 "expect instance - 10 Unknown\n");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "-g 3 -i :10 -i blue:10\n");
    EXPECT_FALSE(look_at(target).there);
}

TEST_F(Publisher, TellsAStepThatItHasPlayed)
{
    const Outcome outcome =
        play("in-place", "record - 10 master 1\nrecord blue 20 7 0\nrecord - -1 3 -5\n"
                         "expect group 1 Master\nexpect instance blue 20 unknown\n");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, "step 1 of 1: only\n"
                              "write: in-place\n"
                              "file: :10 Master group 1\n"
                              "file: blue:20 state 7\n"
                              "file: :-1 Fault group -5\n"
                              "expect: group 1 Master\n"
                              "expect: instance blue:20 Unknown\n");
    EXPECT_EQ(read_file(target),
              published(10, 2, 1) + published(20, 7, 0, "blue") + published(-1, 3, -5));
}

TEST_F(Publisher, WritesNumbersOfAllSizesAndTheLongestName)
{
    const std::string longest(54, 'n');
    ASSERT_EQ(play("rename", "record " + longest +
                                 " -2147483648 2147483647 33\n"
                                 "record 1 256 -1 0\n")
                  .status,
              0);
    EXPECT_EQ(read_file(target),
              published(INT32_MIN, INT32_MAX, 33, longest) + published(256, -1, 0, "1"));
}

TEST_F(Publisher, WritingOverKeepsTheFile)
{
    for (const char *way : {"in-place", "truncate"}) {
        for (const size_t records_before : {0, 1, 2, 5}) {
            SCOPED_TRACE(std::string(way) + " over " + std::to_string(records_before));
            mkdir((dir / "cache").c_str(), 0755);
            write_file(target, std::string(576 * records_before, 'x'));
            const File before = look_at(target);
            ASSERT_EQ(play(way, lines_of_two_records).status, 0);
            EXPECT_EQ(look_at(target).inode, before.inode);
            EXPECT_EQ(read_file(target), two_records);
        }
    }
}

TEST_F(Publisher, ReplacingMakesAnotherFileAndLeavesTheOldOneAlone)
{
    for (const char *way : {"rename", "recreate", "recreate-directory"}) {
        SCOPED_TRACE(way);
        mkdir((dir / "cache").c_str(), 0755);
        write_file(target, "the old file");
        const File before = look_at(target);
        // Held open, so that its inode cannot come back.
        const int old = open(target.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(play(way, lines_of_two_records).status, 0);
        EXPECT_NE(look_at(target).inode, before.inode);
        EXPECT_EQ(read_file(target), two_records);
        struct stat info = {};
        ASSERT_EQ(fstat(old, &info), 0);
        EXPECT_EQ(info.st_nlink, 0u);
        EXPECT_EQ(info.st_size, off_t(strlen("the old file")));
        close(old);
    }
}

TEST_F(Publisher, OnlyTruncatingShrinksTheFileOnTheWay)
{
    // A file in memory that must not shrink, under a name of the file system.
    const int sealed = memfd_create("status", MFD_ALLOW_SEALING | MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(sealed, 2 * 576), 0);
    ASSERT_EQ(fcntl(sealed, F_ADD_SEALS, F_SEAL_SHRINK), 0);
    const std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(sealed);
    write_file(scenario, "step a\nwrite in-place\n" + lines_of_two_records +
                             "step b\nwrite truncate\n" + lines_of_two_records);
    EXPECT_EQ(run({program, "--step", "1", scenario, path}).status, 0);
    EXPECT_EQ(read_file(path), two_records);
    const Outcome outcome = run({program, "--step", "2", scenario, path});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors,
              "vrrp_publisher: cannot open " + path + ": Operation not permitted\n");
    close(sealed);
}

TEST_F(Publisher, EachWayWorksWithoutAFileAndWithoutADirectory)
{
    for (const char *way : {"rename", "in-place", "truncate", "recreate", "recreate-directory"}) {
        for (const bool with_directory : {false, true}) {
            SCOPED_TRACE(way);
            unlink(target.c_str());
            rmdir((dir / "cache").c_str());
            if (with_directory)
                mkdir((dir / "cache").c_str(), 0755);
            ASSERT_EQ(play(way, lines_of_two_records).status, 0);
            EXPECT_EQ(read_file(target), two_records);
        }
    }
}

TEST_F(Publisher, RecreatingTheDirectoryMakesAnotherOne)
{
    ASSERT_EQ(play("rename", lines_of_two_records).status, 0);
    const int old = open((dir / "cache").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(play("recreate-directory", lines_of_two_records).status, 0);
    struct stat info = {};
    ASSERT_EQ(fstat(old, &info), 0);
    EXPECT_NE(look_at(dir / "cache").inode, info.st_ino);
    close(old);
}

TEST_F(Publisher, TakesTheFileAndTheDirectoryAway)
{
    ASSERT_EQ(play("rename", lines_of_two_records).status, 0);
    for (int twice = 0; twice < 2; twice++) {
        EXPECT_EQ(play("delete", "").status, 0);
        EXPECT_FALSE(look_at(target).there);
        EXPECT_TRUE(look_at(dir / "cache").there);
    }
    for (int twice = 0; twice < 2; twice++) {
        EXPECT_EQ(play("remove-directory", "").status, 0);
        EXPECT_FALSE(look_at(dir / "cache").there);
    }
}

TEST_F(Publisher, LeavesNothingBesideTheFile)
{
    for (const char *way : {"rename", "in-place", "truncate", "recreate", "recreate-directory"})
        ASSERT_EQ(play(way, lines_of_two_records).status, 0);
    DIR *cache = opendir((dir / "cache").c_str());
    size_t entries = 0;
    while (readdir(cache) != nullptr)
        entries++;
    closedir(cache);
    EXPECT_EQ(entries, 3u); // with "." and ".."
}

TEST_F(Publisher, WithoutRecordsTheFileIsEmpty)
{
    ASSERT_EQ(play("in-place", lines_of_two_records).status, 0);
    ASSERT_EQ(play("in-place", "").status, 0);
    EXPECT_TRUE(look_at(target).there);
    EXPECT_EQ(read_file(target), "");
}

TEST_F(Publisher, AFileThatCannotBeWrittenEndsItWithOne)
{
    const std::string nowhere = dir / "a/b/vrrp_data";
    write_file(scenario, "step only\nwrite rename\n");
    const Outcome outcome = run({program, "--step", "1", scenario, nowhere});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "vrrp_publisher: cannot make " + std::string(dir / "a/b") +
                                  ": No such file or directory\n");
}

TEST_F(Publisher, ADirectoryWithOtherFilesIsNotRemoved)
{
    mkdir((dir / "cache").c_str(), 0755);
    write_file(dir / "cache/other", "");
    const Outcome outcome = play("remove-directory", "");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "vrrp_publisher: cannot remove " + std::string(dir / "cache") +
                                  ": Directory not empty\n");
}

TEST_F(Publisher, AStepThatIsNotThereIsAWrongArgument)
{
    write_file(scenario, "step only\nwrite rename\n");
    const Outcome outcome = run({program, "--step", "2", scenario, target});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.errors, "vrrp_publisher: there is no step 2 in " + scenario + ": it has 1\n");
    EXPECT_FALSE(look_at(target).there);
}

TEST_F(Publisher, PlaysAllStepsOneForEachLineOfItsInput)
{
    write_file(scenario, "step one\nwrite rename\nrecord - 1 Init 1\n"
                         "step two\nwrite in-place\nrecord - 1 Master 1\n"
                         "step three\nwrite delete\n");
    Program publisher({program, scenario, target});
    EXPECT_FALSE(look_at(target).there);
    publisher.write("\n");
    EXPECT_EQ(publisher.line(), "step 1 of 3: one");
    EXPECT_EQ(publisher.line(), "write: rename");
    EXPECT_EQ(publisher.line(), "file: :1 Init group 1");
    EXPECT_EQ(read_file(target), published(1, 0, 1));
    publisher.write("go on\n");
    EXPECT_EQ(publisher.line(), "step 2 of 3: two");
    EXPECT_EQ(publisher.line(), "write: in-place");
    EXPECT_EQ(publisher.line(), "file: :1 Master group 1");
    EXPECT_EQ(read_file(target), published(1, 2, 1));
    publisher.close_input(); // the end of the input ends the play
    EXPECT_EQ(publisher.rest(), "");
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(publisher.errors(), "");
    EXPECT_TRUE(look_at(target).there);
}
