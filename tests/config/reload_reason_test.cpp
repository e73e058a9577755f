#include "lh_reload_reason.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lh_process.h"
#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::test;
using ::testing::Contains;

namespace {

constexpr const char *no_reason_text = "Unknown: reload reason is not specified";
constexpr size_t time_length = 23; // " at 05.03.2024 14:07:09"

class ReloadReason : public LogTest {
  protected:
    ReloadReason() : umask_before(umask(022)) {}
    ~ReloadReason() override { umask(umask_before); }

    int write(const char *reason, bool add_time = false)
    {
        return lh_reload_reason_write(reason, path.c_str(), add_time);
    }

    // The mode's permissions; -1 when there is no such file.
    static int permissions(const std::string &file)
    {
        struct stat st;
        return stat(file.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
    }

    const mode_t umask_before;
    World world;
    const std::string path = "/run/reason";
};

// The reason with the time of each second from the first to the last.
std::vector<std::string> stamped(const std::string &reason, time_t first, time_t last)
{
    std::vector<std::string> texts;
    for (time_t second = first; second <= last; second++) {
        char stamp[64];
        const tm *local = localtime(&second);
        EXPECT_EQ(strftime(stamp, sizeof(stamp), " at %d.%m.%Y %H:%M:%S", local), time_length);
        texts.push_back(reason + stamp);
    }
    return texts;
}

size_t fail_to_write(const void *, size_t, size_t, FILE *)
{
    errno = ENOSPC;
    return 0;
}

} // namespace

TEST_F(ReloadReason, IsTheWholeFile)
{
    const auto before = open_descriptors();
    EXPECT_EQ(write("config changed"), 0);
    EXPECT_EQ(read_file(path), "config changed");
    EXPECT_EQ(write("cli"), 0);
    EXPECT_EQ(read_file(path), "cli");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ReloadReason, FileIsForItsOwnerOnly)
{
    // The mask of the last one takes what the owner would have; root writes all the same.
    const std::pair<mode_t, int> cases[] = {{022, 0600}, {0, 0600}, {0277, 0400}};
    for (const auto &[mask, mode] : cases) {
        unlink(path.c_str());
        umask(mask);
        EXPECT_EQ(write("cli"), 0);
        EXPECT_EQ(permissions(path), mode) << mask;
        EXPECT_EQ(read_file(path), "cli");
    }
}

TEST_F(ReloadReason, FileThatIsThereKeepsItsMode)
{
    write_file(path, "something longer than the reason");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(write("cli"), 0);
    EXPECT_EQ(read_file(path), "cli");
    EXPECT_EQ(permissions(path), 0640);
}

TEST_F(ReloadReason, GoesToAFileNamedByThePidInTmpWithoutAPath)
{
    OWN_PROCESS();
    world.cover_tmp();
    EXPECT_EQ(lh_reload_reason_write("cli", nullptr, false), 0);
    const std::string by_pid = "/tmp/" + std::to_string(getpid());
    EXPECT_EQ(read_file(by_pid), "cli");
    EXPECT_EQ(permissions(by_pid), 0600);
    const auto files = std::filesystem::directory_iterator("/tmp");
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);
}

TEST_F(ReloadReason, AForkedChildWithoutAPathWritesToTheFileOfItsParent)
{
    OWN_PROCESS();
    world.cover_tmp();
    const std::string parents = "/tmp/" + std::to_string(lh_process_self_pid_get());
    ASSERT_EQ(parents, "/tmp/" + std::to_string(getpid()));
    EXPECT_EQ(run_in_child([] {
                  EXPECT_EQ(lh_reload_reason_write("child", nullptr, false), 0);
                  EXPECT_NO_LINES();
                  return 0;
              }),
              0);
    EXPECT_EQ(read_file(parents), "child");
    const auto files = std::filesystem::directory_iterator("/tmp");
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);
}

TEST_F(ReloadReason, WithoutAPathFailuresNameTheDefaultOne)
{
    OWN_PROCESS();
    world.cover_tmp();
    const std::string by_pid = "/tmp/" + std::to_string(getpid());
    ASSERT_EQ(mkdir(by_pid.c_str(), 0755), 0);
    EXPECT_EQ(lh_reload_reason_write("cli", nullptr, false), -1);
    EXPECT_LINES("lh_file_create: cannot open file '" + by_pid + "': Is a directory",
                 "lh_reload_reason_write: lh_file_write failed");
}

TEST_F(ReloadReason, EndsWithTheLocalTimeWhenAskedFor)
{
    OWN_PROCESS();
    setenv("TZ", "EST5", 1);
    const time_t before = time(nullptr);
    EXPECT_EQ(write("config changed", true), 0);
    EXPECT_THAT(stamped("config changed", before, time(nullptr)), Contains(read_file(path)));
}

TEST_F(ReloadReason, TimeFollowsAChangeOfTheZone)
{
    OWN_PROCESS();
    for (const char *zone : {"UTC0", "EAST-9", "WEST+9"}) {
        const time_t before = time(nullptr);
        setenv("TZ", zone, 1);
        EXPECT_EQ(write("cli", true), 0);
        EXPECT_THAT(stamped("cli", before, time(nullptr)), Contains(read_file(path))) << zone;
    }
}

TEST_F(ReloadReason, EmptyReasonMayStillHaveATime)
{
    const time_t before = time(nullptr);
    EXPECT_EQ(write("", true), 0);
    EXPECT_THAT(stamped("", before, time(nullptr)), Contains(read_file(path)));
}

TEST_F(ReloadReason, EmptyReasonWithoutATimeEmptiesTheFile)
{
    write_file(path, "before");
    EXPECT_EQ(write(""), 0);
    EXPECT_EQ(read_file(path), "");
    EXPECT_LINES("lh_file_write: IS_EQ check failed: 0 (0 == 0) !!!");
}

TEST_F(ReloadReason, MissingReasonIsLoggedAndReplacedWithoutATime)
{
    for (const bool add_time : {false, true}) {
        write_file(path, "before");
        EXPECT_EQ(write(nullptr, add_time), 0);
        EXPECT_EQ(read_file(path), no_reason_text);
        EXPECT_LINES("lh_reload_reason_write: PTR_IS_NULL: reload_reason");
    }
}

TEST_F(ReloadReason, IsCutAt511Characters)
{
    for (const size_t length : {1, 510, 511, 512, 600, 5000}) {
        EXPECT_EQ(write(std::string(length, 'r').c_str()), 0);
        EXPECT_EQ(read_file(path), std::string(std::min<size_t>(length, 511), 'r')) << length;
    }
}

TEST_F(ReloadReason, TimeIsThereWholeOrNotAtAll)
{
    for (const size_t length : {487, 488, 489, 500, 509, 510, 511, 512, 600}) {
        const std::string reason(length, 'r');
        const time_t before = time(nullptr);
        EXPECT_EQ(write(reason.c_str(), true), 0);
        if (length + time_length <= 511)
            EXPECT_THAT(stamped(reason, before, time(nullptr)), Contains(read_file(path)));
        else
            EXPECT_EQ(read_file(path), reason.substr(0, 511)) << length;
    }
}

TEST_F(ReloadReason, TimeThatCannotBeToldIsLeftOut)
{
    Faults faults;
    faults.fail_always("localtime_r", EOVERFLOW);
    EXPECT_EQ(write("cli", true), 0);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(read_file(path), "cli");
}

TEST_F(ReloadReason, PathIsCutAt4095Characters)
{
    const std::string name = "named-too-long";
    const std::string lead(4095 - 4 - name.size() / 2, '/');
    EXPECT_EQ(lh_reload_reason_write("cli", (lead + "run/" + name).c_str(), false), 0);
    EXPECT_EQ(read_file("/run/" + name.substr(0, name.size() / 2)), "cli");
    EXPECT_NE(access(("/run/" + name).c_str(), F_OK), 0);
}

TEST_F(ReloadReason, LongestPathIsUsedWhole)
{
    const std::string name = "named";
    const std::string lead(4095 - 4 - name.size(), '/');
    EXPECT_EQ(lh_reload_reason_write("cli", (lead + "run/" + name).c_str(), false), 0);
    EXPECT_EQ(read_file("/run/" + name), "cli");
}

TEST_F(ReloadReason, FileThatCannotBeCreatedIsReportedAsNotWritten)
{
    const std::string nowhere = "/run/absent/reason";
    errno = 0;
    // The reason is not looked at before the file is there.
    EXPECT_EQ(lh_reload_reason_write(nullptr, nowhere.c_str(), true), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_file_create: cannot open file '" + nowhere + "': No such file or directory",
                 "lh_reload_reason_write: lh_file_write failed");
}

TEST_F(ReloadReason, EveryFailingStepOfCreatingIsReported)
{
    struct {
        const char *call;
        const char *line;
    } const cases[] = {{"open", "cannot open file '/run/reason': Input/output error"},
                       {"close", "cannot close file '/run/reason': Input/output error"}};
    for (const auto &step : cases) {
        Faults faults;
        faults.fail(step.call, EIO);
        errno = 0;
        EXPECT_EQ(write("cli"), -1) << step.call;
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(faults.calls("fopen"), 0u);
        EXPECT_LINES(std::string("lh_file_create: ") + step.line,
                     "lh_reload_reason_write: lh_file_write failed");
        EXPECT_EQ(write("next"), 0);
        EXPECT_EQ(read_file(path), "next");
    }
}

TEST_F(ReloadReason, FileThatCannotBeWrittenStaysBehindEmpty)
{
    const auto before = open_descriptors();
    Faults faults;
    faults.replace("fwrite", reinterpret_cast<void *>(fail_to_write));
    EXPECT_EQ(write("cli"), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_LINES("lh_file_write: IS_NE check failed: nmemb (1 != 0) !!!",
                 "lh_reload_reason_write: lh_file_write failed");
    EXPECT_EQ(permissions(path), 0600);
    EXPECT_EQ(read_file(path), "");
    EXPECT_EQ(open_descriptors(), before);
    faults.clear();
    EXPECT_EQ(write("cli"), 0);
}

TEST_F(ReloadReason, FileThatCannotBeOpenedAgainStaysBehindEmpty)
{
    const auto before = open_descriptors();
    Faults faults;
    faults.fail("fopen", EMFILE);
    EXPECT_EQ(write(nullptr), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_LINES("lh_reload_reason_write: PTR_IS_NULL: reload_reason",
                 "lh_file_write: fopen '/run/reason' failed: Too many open files",
                 "lh_reload_reason_write: lh_file_write failed");
    EXPECT_EQ(permissions(path), 0600);
    EXPECT_EQ(read_file(path), "");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(write("next"), 0);
    EXPECT_EQ(read_file(path), "next");
}
