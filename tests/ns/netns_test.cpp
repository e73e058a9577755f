#include "lh_netns.h"

#include <cerrno>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "ns/netns_fixture.hpp"

using namespace vyt::test;

// Part of a handle's path that is not the name: "/var/run/netns/" has 15 characters, so 240 more
// fill a path of 256 bytes.
constexpr size_t longest_name = 240;

// Names ------------------------------------------------------------------------------------------

class NetnsName : public LogTest {};

TEST_F(NetnsName, BothSpellingsAreTheDefault)
{
    EXPECT_TRUE(lh_netns_is_default(""));
    EXPECT_TRUE(lh_netns_is_default("1"));
    for (const char *other : {"red", "10", "11", "01", " ", " 1", "1 ", "0", "default"})
        EXPECT_FALSE(lh_netns_is_default(other)) << other;
}

TEST_F(NetnsName, NullIsNotTheDefault)
{
    EXPECT_FALSE(lh_netns_is_default(nullptr));
    EXPECT_LINES("lh_netns_is_default: PTR_IS_NULL: ns");
}

TEST_F(NetnsName, SpellingsOfTheDefaultAreEqual)
{
    for (const char *ns1 : {"", "1"}) {
        for (const char *ns2 : {"", "1"})
            EXPECT_TRUE(lh_netns_eq(ns1, ns2)) << ns1 << " and " << ns2;
        EXPECT_FALSE(lh_netns_eq(ns1, "red"));
        EXPECT_FALSE(lh_netns_eq("red", ns1));
    }
}

TEST_F(NetnsName, OtherNamesAreEqualWhenTheirTextIs)
{
    const std::string red = "red";
    EXPECT_TRUE(lh_netns_eq("red", red.c_str()));
    EXPECT_FALSE(lh_netns_eq("red", "Red"));
    EXPECT_FALSE(lh_netns_eq("red", "redder"));
    EXPECT_FALSE(lh_netns_eq("redder", "red"));
}

TEST_F(NetnsName, NullEqualsNothingAndTheFirstNullIsNamed)
{
    EXPECT_FALSE(lh_netns_eq(nullptr, "x"));
    EXPECT_LINES("lh_netns_eq: PTR_IS_NULL: ns1");
    EXPECT_FALSE(lh_netns_eq("x", nullptr));
    EXPECT_LINES("lh_netns_eq: PTR_IS_NULL: ns2");
    EXPECT_FALSE(lh_netns_eq(nullptr, nullptr));
    EXPECT_LINES("lh_netns_eq: PTR_IS_NULL: ns1");
}

TEST_F(NetnsName, StringizingShowsTheDefaultAsOne)
{
    EXPECT_STREQ(lh_netns_stringize(""), "1");
    EXPECT_STREQ(lh_netns_stringize("1"), "1");
}

TEST_F(NetnsName, StringizingGivesOtherNamesBack)
{
    const char *name = "red";
    EXPECT_EQ(lh_netns_stringize(name), name);
}

TEST_F(NetnsName, StringizingNullGivesAnEmptyText)
{
    errno = ENOTTY;
    EXPECT_STREQ(lh_netns_stringize(nullptr), "");
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_LINES("lh_netns_stringize: PTR_IS_NULL: ns");
}

// Handles and entering ---------------------------------------------------------------------------

class NetnsFd : public Netns {};
class NetnsSet : public Netns {};

TEST_F(NetnsFd, OpensTheHandleForReading)
{
    const ino_t red = make_namespace("red");
    const int fd = lh_netns_fd_get("red");
    ASSERT_GE(fd, 0);
    struct stat status = {};
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_ino, red);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "programs that the daemon starts inherit it";
    EXPECT_EQ(close(fd), 0);
}

TEST_F(NetnsFd, OneIsAnOrdinaryName)
{
    name_own_namespace("1");
    const int fd = lh_netns_fd_get("1");
    ASSERT_GE(fd, 0);
    struct stat status = {};
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_ino, namespace_of_thread());
    EXPECT_EQ(close(fd), 0);
}

TEST_F(NetnsFd, TheEmptyNameOpensTheDirectory)
{
    const int fd = lh_netns_fd_get("");
    ASSERT_GE(fd, 0);
    struct stat opened = {};
    struct stat directory = {};
    ASSERT_EQ(fstat(fd, &opened), 0);
    ASSERT_EQ(stat("/run/netns", &directory), 0);
    EXPECT_EQ(opened.st_ino, directory.st_ino);
    EXPECT_EQ(opened.st_dev, directory.st_dev);
    EXPECT_EQ(close(fd), 0);
}

TEST_F(NetnsFd, ANullNameIsLogged)
{
    EXPECT_EQ(lh_netns_fd_get(nullptr), -1);
    EXPECT_LINES("lh_netns_fd_get: PTR_IS_NULL: ns");
}

TEST_F(NetnsFd, TheLongestNameThatFitsIsOpened)
{
    const std::string name(longest_name, 'x');
    write_file(handle_path(name), "");
    const int fd = lh_netns_fd_get(name.c_str());
    EXPECT_GE(fd, 0);
    EXPECT_EQ(close(fd), 0);
}

TEST_F(NetnsFd, ANameThatDoesNotFitIsNeverOpened)
{
    const std::string name(longest_name + 1, 'x');
    write_file(handle_path(name), "");
    write_file(handle_path(std::string(longest_name, 'x')), "");
    EXPECT_EQ(lh_netns_fd_get(name.c_str()), -1);
    EXPECT_EQ(faults_.calls("open"), 0u);
    EXPECT_LINES("_lh_snprintf: truncated: '/var/run/netns/" + std::string(longest_name, 'x') + "'",
                 "lh_netns_fd_get: lh_snprintf_buf failed for namespace '" + name + "'");
}

TEST_F(NetnsFd, FailedFormattingIsReportedWithAnEmptyPath)
{
    faults_.fail("vsnprintf", EOVERFLOW);
    EXPECT_EQ(lh_netns_fd_get("red"), -1);
    EXPECT_EQ(faults_.calls("open"), 0u);
    EXPECT_LINES("_lh_snprintf: truncated: ''",
                 "lh_netns_fd_get: lh_snprintf_buf failed for namespace 'red'");
}

TEST_F(NetnsFd, AMissingHandleIsReportedWithItsPath)
{
    EXPECT_EQ(lh_netns_fd_get("red"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_netns_fd_get: open failed for '/var/run/netns/red', No such file or "
                 "directory");
}

TEST_F(NetnsFd, AFailingOpenIsReportedAndTheNextOneWorks)
{
    name_own_namespace("1");
    faults_.fail("open", EMFILE);
    EXPECT_EQ(lh_netns_fd_get("1"), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_LINES("lh_netns_fd_get: open failed for '/var/run/netns/1', Too many open files");
    const int fd = lh_netns_fd_get("1");
    EXPECT_GE(fd, 0);
    EXPECT_EQ(close(fd), 0);
}

TEST_F(NetnsSet, EntersANamespaceAndComesBackToTheDefault)
{
    const ino_t home = namespace_of_thread();
    name_own_namespace("1");
    const ino_t red = make_namespace("red");
    ASSERT_NE(red, home);
    EXPECT_EQ(lh_netns_set("red"), 0);
    EXPECT_EQ(namespace_of_thread(), red);
    EXPECT_EQ(lh_netns_set_default(), 0);
    EXPECT_EQ(namespace_of_thread(), home);
}

TEST_F(NetnsSet, OnlyTheCallingThreadMoves)
{
    const ino_t home = namespace_of_thread();
    const ino_t red = make_namespace("red");
    int result = -1;
    ino_t mover = 0;
    ino_t child_of_mover = 0;
    std::thread([&] {
        result = lh_netns_set("red");
        mover = namespace_of_thread();
        std::thread([&] { child_of_mover = namespace_of_thread(); }).join();
    }).join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(mover, red);
    EXPECT_EQ(child_of_mover, red);
    EXPECT_EQ(namespace_of_thread(), home);
}

TEST_F(NetnsSet, ANamespaceOfAnyKindIsEntered)
{
    const ino_t host = make_namespace("host", CLONE_NEWUTS, "uts");
    ASSERT_NE(host, namespace_of_thread("uts"));
    EXPECT_EQ(lh_netns_set("host"), 0);
    EXPECT_EQ(namespace_of_thread("uts"), host);
}

TEST_F(NetnsSet, ANullNameIsLogged)
{
    EXPECT_EQ(lh_netns_set(nullptr), -1);
    EXPECT_LINES("lh_netns_set: PTR_IS_NULL: ns");
}

TEST_F(NetnsSet, AMissingHandleIsReportedTwice)
{
    EXPECT_EQ(lh_netns_set("red"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_netns_fd_get: open failed for '/var/run/netns/red', No such file or directory",
                 "lh_netns_set: lh_netns_fd_get failed for namespace 'red'");
}

TEST_F(NetnsSet, AMissingDefaultHandleIsReportedUnderTheNameOne)
{
    EXPECT_EQ(lh_netns_set_default(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_netns_fd_get: open failed for '/var/run/netns/1', No such file or directory",
                 "lh_netns_set: lh_netns_fd_get failed for namespace '1'");
}

TEST_F(NetnsSet, ANameThatDoesNotFitIsReportedThrice)
{
    const std::string name(longest_name + 1, 'x');
    EXPECT_EQ(lh_netns_set(name.c_str()), -1);
    EXPECT_LINES("_lh_snprintf: truncated: '/var/run/netns/" + std::string(longest_name, 'x') + "'",
                 "lh_netns_fd_get: lh_snprintf_buf failed for namespace '" + name + "'",
                 "lh_netns_set: lh_netns_fd_get failed for namespace '" + name + "'");
}

TEST_F(NetnsSet, AnOrdinaryFileIsNoNamespace)
{
    const ino_t home = namespace_of_thread();
    write_file(handle_path("red"), "");
    EXPECT_EQ(lh_netns_set("red"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(namespace_of_thread(), home);
    EXPECT_LINES("lh_netns_set: syscall failed for namespace 'red', Invalid argument");
}

TEST_F(NetnsSet, TheEmptyNameIsNoWayIntoTheDefault)
{
    name_own_namespace("1");
    EXPECT_EQ(lh_netns_set(""), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LINES("lh_netns_set: syscall failed for namespace '', Invalid argument");
}

TEST_F(NetnsSet, AFailingSystemCallIsReportedAndTheNextOneWorks)
{
    const ino_t red = make_namespace("red");
    faults_.fail("syscall", EPERM);
    EXPECT_EQ(lh_netns_set("red"), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_NE(namespace_of_thread(), red);
    EXPECT_EQ(faults_.calls("close"), 1u);
    EXPECT_LINES("lh_netns_set: syscall failed for namespace 'red', Operation not permitted");
    EXPECT_EQ(lh_netns_set("red"), 0);
    EXPECT_EQ(namespace_of_thread(), red);
    EXPECT_EQ(faults_.calls("close"), 2u);
}

TEST_F(NetnsSet, AFailingCloseSpoilsNeitherResultNorErrno)
{
    const ino_t red = make_namespace("red");
    faults_.fail_late("close", EIO);
    EXPECT_EQ(lh_netns_set("red"), 0);
    EXPECT_TRUE(faults_.happened());
    EXPECT_EQ(namespace_of_thread(), red);
    faults_.fail_late("close", EIO);
    faults_.fail("syscall", EPERM);
    EXPECT_EQ(lh_netns_set("red"), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_LINES("lh_netns_set: syscall failed for namespace 'red', Operation not permitted");
}
