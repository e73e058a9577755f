// The publisher follows what a VRRP daemon tells; here the test is the daemon.
#include <fcntl.h>

#include "program.hpp"
#include "status_file.hpp"

using namespace vyt::test;

namespace {

using Lines = std::vector<std::string>;

class Notify : public ::testing::Test {
  protected:
    // The daemon's end of the FIFO, once there is somebody who reads.
    int open_fifo()
    {
        int fd = -1;
        EXPECT_TRUE(wait_until(
            [&] { return (fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }));
        return fd;
    }
    static void tell(int fd, const std::string &text)
    {
        ASSERT_EQ(write(fd, text.data(), text.size()), ssize_t(text.size()));
    }
    static void expect_lines(Program &publisher, const Lines &lines)
    {
        for (const std::string &line : lines)
            ASSERT_EQ(publisher.line(), line);
    }
    Lines words(const Lines &more) const
    {
        Lines all = {example("vrrp_publisher"), "--notify", fifo};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    TempDir dir;
    const std::string fifo = dir / "fifo";
    const std::string target = dir / "cache/vrrp_data";
    const Lines two = {"-i", "ten=:10:1", "-i", "twenty=blue:20:0", target};
    const Lines nothing_runs = {"file: :10 Init group 1", "file: blue:20 Init"};
};

} // namespace

TEST_F(Notify, PublishesEachStateThatTheDaemonTells)
{
    Program publisher(words(two));
    expect_lines(publisher, nothing_runs);
    EXPECT_EQ(read_file(target), published(10, 0, 1) + published(20, 0, 0, "blue"));
    const int daemon = open_fifo();
    const struct {
        const char *told, *name;
        int32_t state;
    } states[] = {{"BACKUP", "Backup", 1},
                  {"MASTER", "Master", 2},
                  {"FAULT", "Fault", 3},
                  {"STOP", "Init", 0}};
    for (const auto &[told, name, state] : states) {
        const std::string line = std::string("INSTANCE \"ten\" ") + told + " 200";
        tell(daemon, line + "\n");
        expect_lines(publisher, {"told: " + line, std::string("file: :10 ") + name + " group 1",
                                 "file: blue:20 Init"});
        EXPECT_EQ(read_file(target), published(10, state, 1) + published(20, 0, 0, "blue"));
    }
    tell(daemon, "INSTANCE \"twenty\" MASTER 1\n");
    expect_lines(publisher, {"told: INSTANCE \"twenty\" MASTER 1", "file: :10 Init group 1",
                             "file: blue:20 Master"});
    EXPECT_EQ(publisher.errors(), "");
    close(daemon);
}

TEST_F(Notify, ADeletedInstanceHasNoRecordUntilItIsToldOfAgain)
{
    Program publisher(words(two));
    expect_lines(publisher, nothing_runs);
    const int daemon = open_fifo();
    tell(daemon, "INSTANCE \"ten\" DELETED 200\n");
    expect_lines(publisher, {"told: INSTANCE \"ten\" DELETED 200", "file: blue:20 Init"});
    EXPECT_EQ(read_file(target), published(20, 0, 0, "blue"));
    tell(daemon, "INSTANCE \"ten\" BACKUP 200\n");
    expect_lines(publisher, {"told: INSTANCE \"ten\" BACKUP 200", "file: :10 Backup group 1",
                             "file: blue:20 Init"});
    close(daemon);
}

TEST_F(Notify, OtherLinesChangeNothing)
{
    Program publisher(words(two));
    expect_lines(publisher, nothing_runs);
    const File before = look_at(target);
    const int daemon = open_fifo();
    for (const std::string line :
         {"GROUP \"ten\" MASTER 0", "INSTANCE \"eleven\" MASTER 1", "INSTANCE \"te\" MASTER 1",
          "INSTANCE \"tenth\" MASTER 1", "INSTANCE \"\" MASTER 1", "INSTANCE \"ten", "INSTANCE ten",
          "INSTANCE \"ten\"", "INSTANCE \"ten\" ", "INSTANCE \"ten\" MASTER_RX_LOWER_PRI 200",
          "INSTANCE \"ten\" BACKUP_PRIORITY 200", "INSTANCE \"ten\" master 200", "INSTANCE", "",
          "MASTER"}) {
        tell(daemon, line + "\n");
        expect_lines(publisher, {"told: " + line});
    }
    // Each line is answered by one line, so nothing was written in between.
    tell(daemon, "INSTANCE \"ten\" MASTER 200\n");
    expect_lines(publisher, {"told: INSTANCE \"ten\" MASTER 200"});
    expect_lines(publisher, {"file: :10 Master group 1", "file: blue:20 Init"});
    EXPECT_NE(look_at(target).inode, before.inode);
    close(daemon);
}

TEST_F(Notify, ADaemonThatHasGoneLeavesNothingRunningAndTheNextIsFollowed)
{
    Program publisher(words(two));
    expect_lines(publisher, nothing_runs);
    for (int many = 0; many < 100; many++) {
        const int daemon = open_fifo();
        tell(daemon, "INSTANCE \"ten\" DELETED 200\nINSTANCE \"twenty\" MASTER 200"); // cut short
        close(daemon);
        expect_lines(publisher, {"told: INSTANCE \"ten\" DELETED 200", "file: blue:20 Init",
                                 "told: INSTANCE \"twenty\" MASTER 200", "file: blue:20 Master"});
        expect_lines(publisher, nothing_runs);
        EXPECT_EQ(read_file(target), published(10, 0, 1) + published(20, 0, 0, "blue"));
    }
}

TEST_F(Notify, ANamespaceMayHaveColonsAndTheLongestName)
{
    const std::string longest = "a:b:" + std::string(50, 'n');
    Program publisher(words({"-i", "x=" + longest + ":255:32", "-i", "y=:1:0", target}));
    expect_lines(publisher, {"file: " + longest + ":255 Init group 32", "file: :1 Init"});
    EXPECT_EQ(read_file(target), published(255, 0, 32, longest) + published(1, 0, 0));
}

TEST_F(Notify, AWrongInstanceGetsAReason)
{
    for (const std::string &wrong :
         {std::string(""), std::string("ten"), std::string("=:10:1"), std::string("ten=10"),
          std::string("ten=:10"), std::string("ten=:0:1"), std::string("ten=:256:1"),
          std::string("ten=:10:33"), std::string("ten=:10:-1"), std::string("ten=:x:1"),
          std::string("ten=:10:"), "ten=" + std::string(55, 'n') + ":1:1",
          "ten=" + std::string(1000, 'n') + ":1:1"}) {
        const Outcome outcome = run(words({"-i", wrong, target}));
        EXPECT_EQ(outcome.status, 2) << wrong;
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors.rfind("vrrp_publisher: -i " + wrong +
                                           ": an instance is NAME=NETNS:VRID:GROUP, the VRID from "
                                           "1 to 255, the GROUP from 0 to 32\nusage: ",
                                       0),
                  0u)
            << outcome.errors;
    }
    EXPECT_FALSE(look_at(fifo).there);
}

TEST_F(Notify, WhatCannotBeReadOrWrittenEndsItWithOne)
{
    write_file(fifo, "no FIFO");
    Outcome outcome = run(words(two));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "vrrp_publisher: " + fifo + " is no FIFO\n");
    EXPECT_FALSE(look_at(target).there);

    const std::string nowhere = dir / "a/b";
    outcome = run({example("vrrp_publisher"), "--notify", nowhere, "-i", "ten=:10:1", target});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors,
              "vrrp_publisher: cannot make " + nowhere + ": No such file or directory\n");

    unlink(fifo.c_str());
    outcome = run(words({"-i", "ten=:10:1", nowhere + "/c"}));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors,
              "vrrp_publisher: cannot make " + nowhere + ": No such file or directory\n");
}
