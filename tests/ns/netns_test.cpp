#include "lh_netns.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::test;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

namespace {

// Part of a handle's path that is not the name: "/var/run/netns/" has 15 characters, so 240 more
// fill a path of 256 bytes.
constexpr size_t longest_name = 240;

// What the thread is in now: the inode of its namespace of this kind.
ino_t namespace_of_thread(const char *kind = "net")
{
    struct stat status = {};
    EXPECT_EQ(stat((std::string("/proc/thread-self/ns/") + kind).c_str(), &status), 0);
    return status.st_ino;
}

std::string handle_path(const std::string &name)
{
    return "/run/netns/" + name;
}

// Makes the thread's namespace known under a name.
void name_own_namespace(const std::string &name, const char *kind = "net")
{
    write_file(handle_path(name), "");
    const std::string own = std::string("/proc/thread-self/ns/") + kind;
    ASSERT_EQ(mount(own.c_str(), handle_path(name).c_str(), nullptr, MS_BIND, nullptr), 0);
}

// A new namespace with a handle of this name; its inode.
ino_t make_namespace(const std::string &name, int kind = CLONE_NEWNET,
                     const char *kind_name = "net")
{
    ino_t inode = 0;
    std::thread([&] {
        ASSERT_EQ(unshare(kind), 0);
        inode = namespace_of_thread(kind_name);
        name_own_namespace(name, kind_name);
    }).join();
    return inode;
}

} // namespace

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

// A private /run/netns, and namespaces of its own for the thread to start from.
class Netns : public LogTest {
  protected:
    Netns()
    {
        world_.leave_network();
        EXPECT_EQ(unshare(CLONE_NEWUTS), 0);
        EXPECT_EQ(mkdir("/run/netns", 0755), 0);
        descriptors_ = open_descriptors();
    }

    ~Netns() override { EXPECT_EQ(open_descriptors(), descriptors_); }

    World world_;
    Faults faults_;
    std::vector<int> descriptors_;
};

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

static int close_and_fail(int fd)
{
    close(fd);
    errno = EIO;
    return -1;
}

TEST_F(NetnsSet, AFailingCloseSpoilsNeitherResultNorErrno)
{
    const ino_t red = make_namespace("red");
    faults_.replace("close", reinterpret_cast<void *>(close_and_fail));
    EXPECT_EQ(lh_netns_set("red"), 0);
    EXPECT_EQ(namespace_of_thread(), red);
    faults_.fail("syscall", EPERM);
    EXPECT_EQ(lh_netns_set("red"), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_LINES("lh_netns_set: syscall failed for namespace 'red', Operation not permitted");
}

// The VRF map -----------------------------------------------------------------------------------

class NetnsMap : public Netns {
  protected:
    static void write_map(const std::string &contents) { write_file("/run/vrfs.map", contents); }
};

TEST_F(NetnsMap, FindsTheIndexOfEachName)
{
    write_map("1:1\nmgmt:3\nred:2147483647\nblue: -7\nlast:42");
    EXPECT_EQ(lh_netns_map_get_idx("1"), 1);
    EXPECT_EQ(lh_netns_map_get_idx("mgmt"), 3);
    EXPECT_EQ(lh_netns_map_get_idx("red"), 2147483647);
    EXPECT_EQ(lh_netns_map_get_idx("blue"), -7);
    EXPECT_EQ(lh_netns_map_get_idx("last"), 42);
    EXPECT_EQ(faults_.calls("fclose"), 5u);
}

TEST_F(NetnsMap, NullAndEmptyNamesHaveIndexZeroWithoutALookAtTheMap)
{
    write_map("1:5\n:6\n");
    EXPECT_EQ(lh_netns_map_get_idx(nullptr), 0);
    EXPECT_EQ(lh_netns_map_get_idx(""), 0);
    EXPECT_EQ(faults_.calls("fopen"), 0u);
}

TEST_F(NetnsMap, OneMatchesALineOfEitherSpelling)
{
    write_map("red:2\n:6\n1:5\n");
    EXPECT_EQ(lh_netns_map_get_idx("1"), 6);
    write_map("red:2\n1:5\n:6\n");
    EXPECT_EQ(lh_netns_map_get_idx("1"), 5);
}

TEST_F(NetnsMap, TheFirstLineOfANameDecides)
{
    write_map("red:2\nred:3\n");
    EXPECT_EQ(lh_netns_map_get_idx("red"), 2);
}

TEST_F(NetnsMap, TheNameEndsAtTheFirstColon)
{
    write_map("red:4:5\nred:blue:6\n");
    EXPECT_EQ(lh_netns_map_get_idx("red"), 4);
    EXPECT_EQ(lh_netns_map_get_idx("red:4"), -1);
    EXPECT_LINES("lh_netns_map_get_idx: no namespace 'red:4' found'");
}

TEST_F(NetnsMap, NamesMatchWhole)
{
    write_map("redder:2\nre:3\n red:4\nred :5\nRED:6\n");
    EXPECT_EQ(lh_netns_map_get_idx("red"), -1);
    EXPECT_LINES("lh_netns_map_get_idx: no namespace 'red' found'");
}

TEST_F(NetnsMap, ALineWithoutANumberHasIndexZero)
{
    write_map("red:\nblue:x9\n");
    EXPECT_EQ(lh_netns_map_get_idx("red"), 0);
    EXPECT_EQ(lh_netns_map_get_idx("blue"), 0);
}

TEST_F(NetnsMap, TheNumberEndsWhereItsDigitsDo)
{
    write_map("red:12x\nblue:+8 9\n");
    EXPECT_EQ(lh_netns_map_get_idx("red"), 12);
    EXPECT_EQ(lh_netns_map_get_idx("blue"), 8);
}

TEST_F(NetnsMap, LinesWithoutAColonAreLoggedAndSkipped)
{
    write_map("red\n\nred:7\nnever reached\n");
    EXPECT_EQ(lh_netns_map_get_idx("red"), 7);
    EXPECT_LINES("lh_netns_map_get_idx: no delimeter in line 'red\n', skipping",
                 "lh_netns_map_get_idx: no delimeter in line '\n', skipping");
}

TEST_F(NetnsMap, ALastLineWithoutNewlineIsShownWithoutOne)
{
    write_map("blue:7\nred");
    EXPECT_EQ(lh_netns_map_get_idx("red"), -1);
    EXPECT_LINES("lh_netns_map_get_idx: no delimeter in line 'red', skipping",
                 "lh_netns_map_get_idx: no namespace 'red' found'");
}

TEST_F(NetnsMap, AnEmptyMapHasNoName)
{
    write_map("");
    EXPECT_EQ(lh_netns_map_get_idx("red"), -1);
    EXPECT_LINES("lh_netns_map_get_idx: no namespace 'red' found'");
    EXPECT_EQ(faults_.calls("fclose"), 1u);
}

TEST_F(NetnsMap, ALineOf255CharactersIsWhole)
{
    // 253 characters, a colon and a digit; the newline comes as a piece of its own.
    const std::string name(253, 'x');
    write_map(name + ":9\nred:1\n");
    EXPECT_EQ(lh_netns_map_get_idx(name.c_str()), 9);
    EXPECT_EQ(lh_netns_map_get_idx("red"), 1);
    EXPECT_LINES("lh_netns_map_get_idx: no delimeter in line '\n', skipping");
}

TEST_F(NetnsMap, ALongerLineIsSeenInPieces)
{
    const std::string piece(255, 'x');
    write_map(piece + "red:8\n");
    EXPECT_EQ(lh_netns_map_get_idx("red"), 8);
    EXPECT_LINES("lh_netns_map_get_idx: no delimeter in line '" + piece + "', skipping");
    const std::string name(253, 'y');
    write_map(name + ":98\n");
    EXPECT_EQ(lh_netns_map_get_idx(name.c_str()), 9);
}

TEST_F(NetnsMap, AMissingMapIsReported)
{
    EXPECT_EQ(lh_netns_map_get_idx("red"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_netns_map_get_idx: failed to open '/var/run/vrfs.map'");
}

TEST_F(NetnsMap, AFailingOpenIsReportedAndTheNextOneWorks)
{
    write_map("red:7\n");
    faults_.fail("fopen", ENOMEM);
    EXPECT_EQ(lh_netns_map_get_idx("red"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES("lh_netns_map_get_idx: failed to open '/var/run/vrfs.map'");
    EXPECT_EQ(lh_netns_map_get_idx("red"), 7);
}

TEST_F(NetnsMap, AFailingReadEndsTheMap)
{
    write_map("blue:6\nred:7\n");
    faults_.fail("fgets", EIO, 2);
    EXPECT_EQ(lh_netns_map_get_idx("red"), -1);
    EXPECT_LINES("lh_netns_map_get_idx: no namespace 'red' found'");
    EXPECT_EQ(lh_netns_map_get_idx("red"), 7);
}

// The current namespace's name -------------------------------------------------------------------

class NetnsCurrent : public Netns {
  protected:
    // The buffer is left as it was, and with it the caller's mark.
    void expect_untouched() { EXPECT_STREQ(name_, "mark"); }

    int get() { return lh_netns_get_current_name(name_, sizeof(name_)); }

    char name_[NAME_MAX + 1] = "mark";
};

TEST_F(NetnsCurrent, NamesTheNamespaceByItsHandle)
{
    name_own_namespace("1");
    make_namespace("red");
    make_namespace("blue");
    EXPECT_EQ(get(), 0);
    EXPECT_STREQ(name_, "1");
    ASSERT_EQ(lh_netns_set("blue"), 0);
    EXPECT_EQ(get(), 0);
    EXPECT_STREQ(name_, "blue");
    EXPECT_EQ(faults_.calls("closedir"), 2u);
}

TEST_F(NetnsCurrent, AnotherThreadIsToldWhereTheMainThreadIs)
{
    name_own_namespace("1");
    make_namespace("red");
    std::thread([&] {
        EXPECT_EQ(lh_netns_set("red"), 0);
        EXPECT_EQ(get(), 0);
    }).join();
    EXPECT_STREQ(name_, "1");
}

TEST_F(NetnsCurrent, WithoutAHandleTheBufferIsLeftAsItWas)
{
    make_namespace("red");
    EXPECT_EQ(get(), 0);
    expect_untouched();
    EXPECT_EQ(faults_.calls("closedir"), 1u);
}

TEST_F(NetnsCurrent, WithoutAnyHandleTheBufferIsLeftAsItWas)
{
    EXPECT_EQ(get(), 0);
    expect_untouched();
}

TEST_F(NetnsCurrent, ANameOfSizeLessOneFits)
{
    name_own_namespace("green");
    EXPECT_EQ(lh_netns_get_current_name(name_, 6), 0);
    EXPECT_STREQ(name_, "green");
}

TEST_F(NetnsCurrent, ANameOfSizeCharactersIsAnOverflow)
{
    name_own_namespace("green");
    for (const size_t size : {5, 1, 0}) {
        EXPECT_EQ(lh_netns_get_current_name(name_, size), -1);
        expect_untouched();
        EXPECT_LINES("lh_netns_get_current_name: <lh_netns_get_current_name> buffer overflow");
    }
    EXPECT_EQ(faults_.calls("closedir"), 3u);
}

TEST_F(NetnsCurrent, TheLongestFileNameIsFound)
{
    const std::string name(NAME_MAX, 'x');
    name_own_namespace(name);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(name_, name);
}

TEST_F(NetnsCurrent, ANullBufferIsLogged)
{
    EXPECT_EQ(lh_netns_get_current_name(nullptr, 10), -1);
    EXPECT_LINES("lh_netns_get_current_name: PTR_IS_NULL: ns_name");
    EXPECT_EQ(faults_.calls("stat"), 0u);
}

TEST_F(NetnsCurrent, AFailingStatOfTheOwnNamespaceIsReported)
{
    faults_.fail("stat", EACCES);
    EXPECT_EQ(get(), -1);
    EXPECT_EQ(errno, EACCES);
    expect_untouched();
    EXPECT_EQ(faults_.calls("opendir"), 0u);
    EXPECT_LINES("lh_netns_get_current_name: <lh_netns_get_current_name> stat failed: Permission "
                 "denied");
}

TEST_F(NetnsCurrent, AMissingDirectoryIsReported)
{
    ASSERT_EQ(rmdir("/run/netns"), 0);
    EXPECT_EQ(get(), -1);
    EXPECT_EQ(errno, ENOENT);
    expect_untouched();
    EXPECT_LINES("lh_netns_get_current_name: <lh_netns_get_current_name> opendir failed: No such "
                 "file or directory");
}

TEST_F(NetnsCurrent, AFailingOpendirIsReportedAndTheNextOneWorks)
{
    name_own_namespace("1");
    faults_.fail("opendir", EMFILE);
    EXPECT_EQ(get(), -1);
    EXPECT_EQ(errno, EMFILE);
    expect_untouched();
    EXPECT_LINES("lh_netns_get_current_name: <lh_netns_get_current_name> opendir failed: Too many "
                 "open files");
    EXPECT_EQ(get(), 0);
    EXPECT_STREQ(name_, "1");
}

TEST_F(NetnsCurrent, AListingOfFewerThanTwoEntriesIsReported)
{
    name_own_namespace("1");
    for (const unsigned nth : {1, 2}) {
        faults_.fail("readdir", EIO, nth);
        EXPECT_EQ(get(), -1);
        EXPECT_EQ(errno, EIO);
        expect_untouched();
        EXPECT_EQ(faults_.calls("closedir"), nth);
        EXPECT_LINES("lh_netns_get_current_name: <lh_netns_get_current_name> readdir failed: "
                     "Input/output error");
    }
}

TEST_F(NetnsCurrent, AListingThatBreaksOffLaterHasRunOut)
{
    name_own_namespace("1");
    faults_.fail("readdir", EIO, 3);
    EXPECT_EQ(get(), 0);
    EXPECT_TRUE(faults_.happened());
    expect_untouched();
    EXPECT_EQ(faults_.calls("closedir"), 1u);
}

// A listing whose first two entries are handles of the own namespace.
static struct dirent *list_handles_first(DIR *)
{
    static const char *const listing[] = {"first", "second", "."};
    static size_t next = 0;
    static struct dirent entry;
    if (next == std::size(listing))
        return nullptr;
    strcpy(entry.d_name, listing[next++]);
    return &entry;
}

TEST_F(NetnsCurrent, TheFirstTwoEntriesAreThrownAwayUnseen)
{
    name_own_namespace("first");
    name_own_namespace("second");
    faults_.replace("readdir", reinterpret_cast<void *>(list_handles_first));
    EXPECT_EQ(get(), 0);
    expect_untouched();
    EXPECT_EQ(faults_.calls("readdir"), 4u);
    EXPECT_EQ(faults_.calls("stat"), 2u); // the own namespace and "."
}

TEST_F(NetnsCurrent, AHandleThatCannotBeLookedAtIsReportedWithItsSourceLine)
{
    ASSERT_EQ(symlink("/nowhere", handle_path("dangling").c_str()), 0);
    EXPECT_EQ(get(), -1);
    EXPECT_EQ(errno, ENOENT);
    expect_untouched();
    EXPECT_EQ(faults_.calls("closedir"), 1u);
    EXPECT_THAT(take_lines(),
                ElementsAre(MatchesRegex("lh_netns_get_current_name: <lh_netns_get_current_name:"
                                         "[1-9][0-9]*> stat failed: No such file or directory")));
}

TEST_F(NetnsCurrent, AFailingStatOfAHandleIsReported)
{
    name_own_namespace("1");
    faults_.fail("stat", EACCES, 2);
    EXPECT_EQ(get(), -1);
    EXPECT_EQ(errno, EACCES);
    expect_untouched();
    EXPECT_THAT(take_lines(),
                ElementsAre(MatchesRegex("lh_netns_get_current_name: <lh_netns_get_current_name:"
                                         "[1-9][0-9]*> stat failed: Permission denied")));
}

// The same inode number on a device that differs every time.
static int stat_same_inode(const char *, struct stat *status)
{
    static dev_t device = 1;
    *status = {};
    status->st_dev = device++;
    status->st_ino = 77;
    return 0;
}

TEST_F(NetnsCurrent, OnlyTheInodeNumberIsCompared)
{
    write_file(handle_path("twin"), "");
    faults_.replace("stat", reinterpret_cast<void *>(stat_same_inode));
    EXPECT_EQ(get(), 0);
    EXPECT_STREQ(name_, "twin");
}

static int closedir_and_fail(DIR *directory)
{
    closedir(directory);
    errno = EIO;
    return -1;
}

TEST_F(NetnsCurrent, AFailingClosedirSpoilsNeitherResultNorErrno)
{
    name_own_namespace("1");
    faults_.replace("closedir", reinterpret_cast<void *>(closedir_and_fail));
    EXPECT_EQ(get(), 0);
    EXPECT_STREQ(name_, "1");
    faults_.fail("readdir", ENOENT);
    EXPECT_EQ(get(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_netns_get_current_name: <lh_netns_get_current_name> readdir failed: No such "
                 "file or directory");
}
