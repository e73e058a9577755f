#include "lh_process.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "core/process_fixture.hpp"
#include "lh_close.h"
#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

namespace {

// This executable also plays the programs that the tests need, under any command line: one that
// says what its name is, and one that waits to be ended.
constexpr const char *role_variable = "VYT_TEST_ROLE";

const bool has_no_role = [] {
    const char *role = getenv(role_variable);
    if (role == nullptr)
        return true;
    if (strcmp(role, "name") == 0) {
        dprintf(STDOUT_FILENO, "%s", lh_process_self_name_get());
        _exit(0);
    }
    for (;;)
        pause();
}();

[[noreturn]] void become(const char *role, const std::vector<std::string> &command_line)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setenv(role_variable, role, 1);
    become_this_program(command_line);
}

// A process with this command line, which waits to be ended.
class Daemon {
  public:
    explicit Daemon(const std::vector<std::string> &command_line) : pid_(new_process())
    {
        if (pid_ == 0)
            become("wait", command_line);
        std::string expected;
        for (const std::string &word : command_line)
            expected += word + '\0';
        const std::string path = "/proc/" + std::to_string(pid_) + "/cmdline";
        EXPECT_TRUE(wait_until([&] { return read_file(path) == expected; }));
    }

    ~Daemon()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    int pid() const { return pid_; }

  private:
    pid_t pid_;
};

// What a process with this command line says its own name is.
std::string name_of_itself(const std::vector<std::string> &command_line)
{
    int answer[2];
    EXPECT_EQ(pipe(answer), 0);
    const pid_t child = new_process();
    if (child == 0) {
        dup2(answer[1], STDOUT_FILENO);
        become("name", command_line);
    }
    close(answer[1]);
    std::string name;
    char part[512];
    for (ssize_t length; (length = read(answer[0], part, sizeof(part))) > 0;)
        name.append(part, length);
    close(answer[0]);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return name;
}

// A process that has ended and was not waited for: its command line is empty.
class Zombie {
  public:
    Zombie() : pid_(new_process())
    {
        if (pid_ == 0)
            _exit(0);
        siginfo_t info;
        EXPECT_EQ(waitid(P_PID, pid_, &info, WEXITED | WNOWAIT), 0);
    }

    ~Zombie() { waitpid(pid_, nullptr, 0); }

    int pid() const { return pid_; }

  private:
    pid_t pid_;
};

} // namespace

// The own pid ------------------------------------------------------------------------------------

class ProcessSelf : public ColdLogTest {};

static pid_t another_pid()
{
    return 4711;
}

TEST_F(ProcessSelf, ThePidIsAskedForOnce)
{
    OWN_PROCESS();
    Faults faults;
    faults.replace("getpid", reinterpret_cast<void *>(another_pid));
    EXPECT_EQ(lh_process_self_pid_get(), 4711);
    faults.replace("getpid", nullptr);
    EXPECT_EQ(lh_process_self_pid_get(), 4711);
    EXPECT_EQ(faults.calls("getpid"), 1u);
}

TEST_F(ProcessSelf, ThePidIsTheProcesss)
{
    OWN_PROCESS();
    EXPECT_EQ(lh_process_self_pid_get(), getpid());
}

TEST_F(ProcessSelf, AForkedChildKeepsItsParentsPid)
{
    OWN_PROCESS();
    const int parent = lh_process_self_pid_get();
    EXPECT_EQ(run_in_child([&] {
                  EXPECT_NE(getpid(), parent);
                  EXPECT_EQ(lh_process_self_pid_get(), parent);
                  return 0;
              }),
              0);
}

TEST_F(ProcessSelf, AForkedChildThatAsksFirstGetsItsOwnPid)
{
    OWN_PROCESS();
    EXPECT_EQ(run_in_child([&] {
                  EXPECT_EQ(lh_process_self_pid_get(), getpid());
                  return 0;
              }),
              0);
}

// The own name -----------------------------------------------------------------------------------

TEST_F(ProcessSelf, TheNameIsTheLastComponentOfTheProgramsPath)
{
    EXPECT_EQ(name_of_itself({"/usr/sbin/mydaemon", "-f"}), "mydaemon");
    EXPECT_EQ(name_of_itself({"mydaemon", "/etc/mydaemon.conf"}), "mydaemon");
    EXPECT_EQ(name_of_itself({"./my daemon"}), "my daemon");
}

TEST_F(ProcessSelf, TheNameIsAtMost255CharactersOfTheFirstWord)
{
    EXPECT_EQ(name_of_itself({std::string(255, 'x')}), std::string(255, 'x'));
    EXPECT_EQ(name_of_itself({std::string(300, 'x')}), std::string(255, 'x'));
    EXPECT_EQ(name_of_itself({"/" + std::string(300, 'x')}), std::string(254, 'x'));
}

TEST_F(ProcessSelf, TheNameIsFoundOnce)
{
    OWN_PROCESS();
    Faults faults;
    const char *name = lh_process_self_name_get();
    EXPECT_STREQ(name, program_invocation_short_name);
    EXPECT_EQ(lh_process_self_name_get(), name);
    EXPECT_EQ(faults.calls("open"), 1u);
    EXPECT_EQ(faults.calls("close"), 1u);
}

TEST_F(ProcessSelf, TheNameSurvivesQuestionsAboutOthers)
{
    OWN_PROCESS();
    const Daemon other({"/usr/sbin/mydaemon"});
    const char *name = lh_process_self_name_get();
    EXPECT_STREQ(lh_process_name_get_by_pid(other.pid()), "mydaemon");
    EXPECT_STREQ(name, program_invocation_short_name);
}

TEST_F(ProcessSelf, ANameThatIsNotFoundIsLookedForAgain)
{
    OWN_PROCESS();
    Faults faults;
    faults.fail("open", EMFILE);
    const char *name = lh_process_self_name_get();
    EXPECT_STREQ(name, "");
    EXPECT_LINES("[7] <lh_process_name_get_by_pid:#> cannot open proc file for pid=" +
                     std::to_string(getpid()),
                 "<lh_process_self_name_get:#> lh_process_name_get_by_pid failed");
    faults.fail("read", EIO);
    EXPECT_EQ(lh_process_self_name_get(), name);
    EXPECT_STREQ(name, "");
    EXPECT_LINES("<lh_process_name_get_by_pid:#> read '" + proc(getpid(), "cmdline") + "' failed",
                 "<lh_process_self_name_get:#> lh_process_name_get_by_pid failed");
    EXPECT_EQ(lh_process_self_name_get(), name);
    EXPECT_STREQ(name, program_invocation_short_name);
}

TEST_F(ProcessSelf, ANameThatIsReadEmptyIsLookedForAgain)
{
    OWN_PROCESS();
    Faults faults;
    faults.replace("read", reinterpret_cast<void *>(read_contents));
    for (int attempt = 0; attempt < 2; attempt++) {
        file_contents = std::string("/usr/sbin/\0-f\0", 14);
        EXPECT_STREQ(lh_process_self_name_get(), "");
        EXPECT_LINES("<lh_process_self_name_get:#> lh_process_name_get_by_pid failed");
    }
    file_contents = std::string("/usr/sbin/mydaemon\0", 19);
    EXPECT_STREQ(lh_process_self_name_get(), "mydaemon");
    file_contents = std::string("other\0", 6);
    EXPECT_STREQ(lh_process_self_name_get(), "mydaemon");
}

TEST_F(ProcessSelf, AnErrorLineFindsTheNameAndKeepsErrno)
{
    OWN_PROCESS();
    errno = ENOTTY;
    EXPECT_EQ(lh_close(nullptr), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_LINES("lh_close: PTR_IS_NULL: fd");
}

TEST_F(ProcessSelf, AnErrorLineIsWrittenWithoutANameToo)
{
    OWN_PROCESS();
    Faults faults;
    faults.fail_always("open", EMFILE);
    errno = ENOTTY;
    EXPECT_EQ(lh_close(nullptr), -1);
    EXPECT_EQ(errno, ENOTTY);
    const std::string pid = std::to_string(getpid());
    EXPECT_THAT(
        take_lines(),
        ElementsAre("[7] <lh_process_name_get_by_pid:#> cannot open proc file for pid=" + pid,
                    "<lh_process_self_name_get:#> lh_process_name_get_by_pid failed",
                    MatchesRegex("<\\(" + pid + "\\):lh_close:[0-9]+> PTR_IS_NULL: fd")));
}

// Names of other processes -----------------------------------------------------------------------

class ProcessName : public LogTest {};

TEST_F(ProcessName, IsTheLastComponentOfTheFirstWord)
{
    const auto before = open_descriptors();
    const Daemon daemon({"/usr/sbin/mydaemon", "-f", "/etc/my/daemon.conf"});
    EXPECT_STREQ(lh_process_name_get_by_pid(daemon.pid()), "mydaemon");
    const Daemon plain({"plain", "/a/b"});
    EXPECT_STREQ(lh_process_name_get_by_pid(plain.pid()), "plain");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ProcessName, IsEmptyForAPathThatEndsInASlash)
{
    const Daemon daemon({"/usr/sbin/", "-f"});
    EXPECT_STREQ(lh_process_name_get_by_pid(daemon.pid()), "");
}

TEST_F(ProcessName, OfALongPathIsWhat255BytesOfItShow)
{
    const Daemon daemon({"/" + std::string(249, 'd') + "/mydaemon"});
    EXPECT_STREQ(lh_process_name_get_by_pid(daemon.pid()), "myda");
}

TEST_F(ProcessName, StandsInOneBufferForAll)
{
    const Daemon first({"/usr/sbin/first"});
    const Daemon second({"/usr/sbin/second"});
    const char *name = lh_process_name_get_by_pid(first.pid());
    EXPECT_EQ(lh_process_name_get_by_pid(second.pid()), name);
    EXPECT_STREQ(name, "second");
}

TEST_F(ProcessName, OfAProcessWithoutCommandLineIsThePreviousOne)
{
    const Daemon daemon({"/usr/sbin/mydaemon"});
    const Zombie zombie;
    EXPECT_STREQ(lh_process_name_get_by_pid(daemon.pid()), "mydaemon");
    EXPECT_STREQ(lh_process_name_get_by_pid(zombie.pid()), "mydaemon");
}

TEST_F(ProcessName, ThatIsReadWithoutAnEndKeepsTheTailOfThePreviousOne)
{
    Faults faults;
    faults.replace("read", reinterpret_cast<void *>(read_contents));
    file_contents = std::string("mydaemon\0", 9);
    EXPECT_STREQ(lh_process_name_get_by_pid(getpid()), "mydaemon");
    file_contents = "ab";
    EXPECT_STREQ(lh_process_name_get_by_pid(getpid()), "abdaemon");
    file_contents = "/bin/";
    EXPECT_STREQ(lh_process_name_get_by_pid(getpid()), "mon");
}

TEST_F(ProcessName, OfNoProcessIsEmptyAndLoggedForDebugging)
{
    const Daemon daemon({"/usr/sbin/mydaemon"});
    const char *buffer = lh_process_name_get_by_pid(daemon.pid());
    EXPECT_STREQ(lh_process_name_get_by_pid(0), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LINES("[7] <lh_process_name_get_by_pid:#> cannot open proc file for pid=0");
    EXPECT_STREQ(buffer, "mydaemon");
}

TEST_F(ProcessName, PidsAreWidenedWithTheirSign)
{
    EXPECT_STREQ(lh_process_name_get_by_pid(-1), "");
    EXPECT_LINES("[7] <lh_process_name_get_by_pid:#> cannot open proc file for "
                 "pid=18446744073709551615");
}

TEST_F(ProcessName, AFailingReadIsReportedAndTheNextOneWorks)
{
    const Daemon daemon({"/usr/sbin/mydaemon"});
    const auto before = open_descriptors();
    Faults faults;
    faults.fail("read", EIO);
    EXPECT_STREQ(lh_process_name_get_by_pid(daemon.pid()), "");
    EXPECT_EQ(errno, EIO);
    EXPECT_LINES("<lh_process_name_get_by_pid:#> read '" + proc(daemon.pid(), "cmdline") +
                 "' failed");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_STREQ(lh_process_name_get_by_pid(daemon.pid()), "mydaemon");
}

// Finding a pid by name --------------------------------------------------------------------------

// A process name that nothing else on this machine has.
static std::string unique_name()
{
    return "vytd" + std::to_string(getpid());
}

// Puts the pipes and commands away that the library leaves, and says how many pipes there were.
class PidByName : public LogTest {
  protected:
    PidByName() : before_(open_descriptors()) {}

    ~PidByName() override
    {
        tidy_up();
        if (path_.empty())
            return;
        setenv("PATH", path_.c_str(), 1);
    }

    size_t tidy_up()
    {
        size_t pipes = 0;
        for (const int fd : open_descriptors()) {
            if (std::find(before_.begin(), before_.end(), fd) != before_.end())
                continue;
            EXPECT_TRUE(std::filesystem::is_fifo(proc(getpid(), "fd/" + std::to_string(fd))));
            close(fd);
            pipes++;
        }
        return pipes;
    }

    // A program `pidof` that stands before the real one.
    void provide_pidof(const std::string &script)
    {
        write_file(directory_ / "pidof", "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(directory_ / "pidof", std::filesystem::perms::owner_all);
        if (path_.empty()) {
            path_ = getenv("PATH");
            setenv("PATH", (directory_.path() + ":" + path_).c_str(), 1);
        }
    }

    TempDir directory_;
    std::vector<int> before_;
    std::string path_;
};

TEST_F(PidByName, FindsARunningProgram)
{
    const Daemon daemon({"/usr/sbin/" + unique_name(), "-f"});
    EXPECT_EQ(lh_process_pid_get_by_name(unique_name().c_str()), daemon.pid());
}

TEST_F(PidByName, TheFirstPidPrintedIsTaken)
{
    const Daemon first({"/usr/sbin/" + unique_name()});
    const Daemon second({"/usr/sbin/" + unique_name()});
    FILE *pidof = popen(("pidof " + unique_name()).c_str(), "r");
    int printed_first = 0;
    int printed_second = 0;
    ASSERT_EQ(fscanf(pidof, "%d %d", &printed_first, &printed_second), 2);
    pclose(pidof);
    EXPECT_EQ(lh_process_pid_get_by_name(unique_name().c_str()), printed_first);
    EXPECT_THAT(printed_first, AnyOf(first.pid(), second.pid()));
}

TEST_F(PidByName, ANameThatNoProcessHasIsReported)
{
    EXPECT_EQ(lh_process_pid_get_by_name(unique_name().c_str()), -1);
    EXPECT_LINES("lh_process_pid_get_by_name: cannot parse pid");
}

TEST_F(PidByName, TheNameIsPutIntoTheCommandAsItIs)
{
    provide_pidof("echo $#");
    EXPECT_EQ(lh_process_pid_get_by_name("one"), 1);
    EXPECT_EQ(lh_process_pid_get_by_name("-s one two"), 3);
    EXPECT_EQ(lh_process_pid_get_by_name("none >/dev/null; echo 99"), 99);
    EXPECT_EQ(lh_process_pid_get_by_name(""), 0);
}

TEST_F(PidByName, AtMostSevenCharactersOfTheAnswerAreRead)
{
    provide_pidof("echo '12345678 9'");
    EXPECT_EQ(lh_process_pid_get_by_name("any"), 1234567);
    provide_pidof("echo '77 88'");
    EXPECT_EQ(lh_process_pid_get_by_name("any"), 77);
}

TEST_F(PidByName, AnAnswerWithoutANumberIsZero)
{
    provide_pidof("echo what");
    EXPECT_EQ(lh_process_pid_get_by_name("any"), 0);
    provide_pidof("echo");
    EXPECT_EQ(lh_process_pid_get_by_name("any"), 0);
}

TEST_F(PidByName, EveryCallLeavesItsPipeOpen)
{
    provide_pidof("echo 5");
    EXPECT_EQ(lh_process_pid_get_by_name("any"), 5);
    EXPECT_EQ(lh_process_pid_get_by_name("any"), 5);
    provide_pidof("exit 1");
    EXPECT_EQ(lh_process_pid_get_by_name("any"), -1);
    EXPECT_LINES("lh_process_pid_get_by_name: cannot parse pid");
    EXPECT_EQ(tidy_up(), 3u);
}

TEST_F(PidByName, ANameOf57CharactersFits)
{
    provide_pidof("echo ${#1}");
    EXPECT_EQ(lh_process_pid_get_by_name(std::string(57, 'x').c_str()), 57);
}

TEST_F(PidByName, ALongerNameIsReportedAndNothingIsRun)
{
    Faults faults;
    EXPECT_EQ(lh_process_pid_get_by_name(std::string(58, 'x').c_str()), -1);
    EXPECT_LINES("lh_process_pid_get_by_name: snprintf failed");
    EXPECT_EQ(lh_process_pid_get_by_name(std::string(5000, 'x').c_str()), -1);
    EXPECT_LINES("lh_process_pid_get_by_name: snprintf failed");
    EXPECT_EQ(faults.calls("popen"), 0u);
}

TEST_F(PidByName, ANullNameIsLogged)
{
    EXPECT_EQ(lh_process_pid_get_by_name(nullptr), -1);
    EXPECT_LINES("lh_process_pid_get_by_name: PTR_IS_NULL: name");
}

TEST_F(PidByName, EachFailingCallIsReportedAndTheNextOneWorks)
{
    provide_pidof("echo 5");
    struct failing {
        const char *call;
        const char *line;
        size_t pipes;
    };
    const failing all[] = {
        {"snprintf", "snprintf failed", 0},
        {"popen", "cannot get pid", 0},
        {"fgets", "cannot parse pid", 1},
    };
    for (const failing &f : all) {
        Faults faults;
        faults.fail(f.call, EMFILE);
        EXPECT_EQ(lh_process_pid_get_by_name("any"), -1) << f.call;
        EXPECT_EQ(errno, EMFILE) << f.call;
        EXPECT_TRUE(faults.happened()) << f.call;
        EXPECT_LINES(std::string("lh_process_pid_get_by_name: ") + f.line);
        EXPECT_EQ(tidy_up(), f.pipes) << f.call;
        EXPECT_EQ(lh_process_pid_get_by_name("any"), 5) << f.call;
        tidy_up();
    }
}
