// What is found in the VRF map and among the handles.
#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "lh_netns.h"
#include "ns/netns_fixture.hpp"

using namespace vyt::test;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

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
