#include <cerrno>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "lh_process.h"
#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

class PidFile : public LogTest {
  protected:
    PidFile() : before_(open_descriptors()) {}
    ~PidFile() override { EXPECT_EQ(open_descriptors(), before_); }

    int create() { return lh_process_create_pid_file(path_.c_str()); }

    int read_back(const std::string &contents)
    {
        write_file(path_, contents);
        return lh_read_pid_file(path_.c_str());
    }

    std::vector<int> before_;
    TempDir directory_;
    std::string path_ = directory_ / "mydaemon.pid";
    std::string own_pid_ = std::to_string(getpid());
};

TEST_F(PidFile, HoldsThePidWithoutALineEnd)
{
    EXPECT_EQ(create(), 0);
    EXPECT_EQ(read_file(path_), own_pid_);
    EXPECT_EQ(lh_read_pid_file(path_.c_str()), getpid());
}

TEST_F(PidFile, HasTheModeThatTheUmaskLeaves)
{
    const struct {
        mode_t umask, mode;
    } cases[] = {{022, 0644}, {0137, 0640}, {0, 0666}};
    const mode_t before = umask(0);
    for (const auto &c : cases) {
        umask(c.umask);
        EXPECT_EQ(create(), 0);
        struct stat st = {};
        EXPECT_EQ(stat(path_.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode, S_IFREG | c.mode);
    }
    umask(before);
}

TEST_F(PidFile, ReplacesAnEarlierFile)
{
    write_file(path_, "1234567890 and more\n");
    ASSERT_EQ(link(path_.c_str(), (directory_ / "kept").c_str()), 0);
    EXPECT_EQ(create(), 0);
    EXPECT_EQ(read_file(path_), own_pid_);
    EXPECT_EQ(read_file(directory_ / "kept"), "1234567890 and more\n");
}

TEST_F(PidFile, ReplacesALinkAndLeavesWhatItPointsAt)
{
    write_file(directory_ / "target", "precious");
    ASSERT_EQ(symlink("target", path_.c_str()), 0);
    EXPECT_EQ(create(), 0);
    EXPECT_EQ(read_file(directory_ / "target"), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(path_));
    EXPECT_EQ(read_file(path_), own_pid_);
}

TEST_F(PidFile, AFileThatCannotBeRemovedIsOverwritten)
{
    write_file(path_, "1234567890 and more\n");
    Faults faults;
    faults.fail("unlink", EBUSY);
    EXPECT_EQ(create(), 0);
    EXPECT_TRUE(faults.happened());
    EXPECT_EQ(read_file(path_), own_pid_);
}

TEST_F(PidFile, ANullPathIsLogged)
{
    EXPECT_EQ(lh_process_create_pid_file(nullptr), -1);
    EXPECT_LINES("lh_process_create_pid_file: PTR_IS_NULL: path");
}

TEST_F(PidFile, CannotBeCreatedInADirectoryThatIsNotThere)
{
    EXPECT_EQ(lh_process_create_pid_file((directory_ / "none/mydaemon.pid").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_process_create_pid_file: PTR_IS_NULL: f");
}

TEST_F(PidFile, ADirectoryInItsPlaceStays)
{
    std::filesystem::create_directory(path_);
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES("lh_process_create_pid_file: PTR_IS_NULL: f");
    EXPECT_TRUE(std::filesystem::is_directory(path_));
}

TEST_F(PidFile, AFailingOpenIsReportedAndTheNextOneWorks)
{
    Faults faults;
    faults.fail("fopen", ENOMEM);
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_LINES("lh_process_create_pid_file: PTR_IS_NULL: f");
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_EQ(create(), 0);
}

TEST_F(PidFile, AFailingWriteIsReportedAndTheNextOneWorks)
{
    Faults faults;
    faults.fail("fprintf", ENOSPC);
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_LINES("lh_process_create_pid_file: fprintf failed");
    EXPECT_EQ(read_file(path_), "");
    EXPECT_EQ(create(), 0);
    EXPECT_EQ(read_file(path_), own_pid_);
}

TEST_F(PidFile, IsReadUpToTheEndOfItsFirstNumber)
{
    EXPECT_EQ(read_back("1234\n"), 1234);
    EXPECT_EQ(read_back("1234"), 1234);
    EXPECT_EQ(read_back(" \n\t 42 43"), 42);
    EXPECT_EQ(read_back("12abc"), 12);
    EXPECT_EQ(read_back("+7"), 7);
    EXPECT_EQ(read_back("0"), 0);
    EXPECT_EQ(read_back("-5"), -5);
    EXPECT_EQ(read_back("2147483647"), 2147483647);
}

TEST_F(PidFile, ThatHoldsMinusOneReadsLikeAFailureWithoutALine)
{
    EXPECT_EQ(read_back("-1"), -1);
}

TEST_F(PidFile, WithoutANumberIsReported)
{
    for (const char *contents : {"", "\n", "abc", "x12", "-", "pid 12"}) {
        EXPECT_EQ(read_back(contents), -1) << contents;
        EXPECT_LINES("lh_read_pid_file: failed to read pid from pidfile");
    }
}

TEST_F(PidFile, ThatCannotBeReadIsReported)
{
    EXPECT_EQ(lh_read_pid_file(directory_.path().c_str()), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_LINES("lh_read_pid_file: failed to read pid from pidfile");
}

TEST_F(PidFile, ThatIsMissingIsReportedWithItsPath)
{
    EXPECT_EQ(lh_read_pid_file(path_.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("lh_read_pid_file: failed to open pidfile '" + path_ + "'");
}

TEST_F(PidFile, ANullPathForReadingIsAFileThatCannotBeOpened)
{
    EXPECT_EQ(lh_read_pid_file(nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_LINES("lh_read_pid_file: failed to open pidfile '(null)'");
}

TEST_F(PidFile, AFailingOpenForReadingIsReportedAndTheNextOneWorks)
{
    write_file(path_, "1234");
    Faults faults;
    faults.fail("fopen", EMFILE);
    EXPECT_EQ(lh_read_pid_file(path_.c_str()), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_LINES("lh_read_pid_file: failed to open pidfile '" + path_ + "'");
    EXPECT_EQ(lh_read_pid_file(path_.c_str()), 1234);
}

TEST_F(PidFile, OfAForkedChildHoldsItsParentsPid)
{
    EXPECT_EQ(run_in_child([&] { return create(); }), 0);
    EXPECT_EQ(read_file(path_), own_pid_);
}
