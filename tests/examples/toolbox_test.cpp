// The small examples, one for each part of the toolbox, run as their users run them.
#include <gmock/gmock.h>

#include <filesystem>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "program.hpp"
#include "support/world.hpp"

using namespace vyt::test;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Toolbox : public Examples {};

TEST_F(Toolbox, WrongArgumentsGetTheUsageLineAndTwo)
{
    const std::vector<std::vector<std::string>> wrong = {
        {"log_tail"},
        {"log_tail", "a", "b"},
        {"log_tail", "--nonsense", "a"},
        {"log_tail", "-n", "0", "a"},
        {"log_tail", "-n", "", "a"},
        {"log_tail", "-n", "ten", "a"},
        {"log_tail", "-n", "100001", "a"},
        {"vrf_worker"},
        {"vrf_worker", ""},
        {"vrf_worker", "red", "blue"},
        {"vrf_worker", "-x", "red"},
        {"yaml_writer"},
        {"yaml_writer", "file", "host"},
        {"yaml_writer", "file", "host", ""},
        {"yaml_writer", "file", "host", "0"},
        {"yaml_writer", "file", "host", "65536"},
        {"yaml_writer", "file", "host", "22x"},
        {"yaml_writer", "-x", "file", "host", "22"},
    };
    for (const std::vector<std::string> &words : wrong)
        expect_usage(words);
}

// log_tail ---------------------------------------------------------------------------------------

namespace {

// The last lines, found by looking at all of them.
std::string last_lines(const std::string &text, size_t count)
{
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t newline = text.find('\n', at);
        const size_t end = newline == std::string::npos ? text.size() : newline + 1;
        lines.push_back(text.substr(at, end - at));
        at = end;
    }
    std::string last;
    for (size_t i = lines.size() - std::min(count, lines.size()); i < lines.size(); i++)
        last += lines[i];
    return last;
}

} // namespace

TEST_F(Toolbox, LogTailPrintsTheLastLinesOfAnyFile)
{
    const std::string long_line(3000, 'l');
    const std::vector<std::string> texts = {
        "",
        "\n",
        "\n\n",
        "\n\n\n",
        "a",
        "a\n",
        "\na",
        "\na\n",
        "a\n\n",
        "\n\na\n\nb\n\n",
        "a\nb\nc",
        long_line,
        long_line + "\n" + long_line + "\n" + long_line,
        std::string("with\0nul\n\0\nbehind\n\0", 20),
    };
    for (const std::string &text : texts) {
        write_file(dir / "log", text);
        for (const size_t count : {1, 2, 3, 10}) {
            const Outcome outcome = start("log_tail", {"-n", std::to_string(count), dir / "log"});
            EXPECT_EQ(outcome.status, 0) << outcome.errors;
            EXPECT_EQ(outcome.output, last_lines(text, count))
                << count << " of " << ::testing::PrintToString(text);
            EXPECT_EQ(outcome.errors, "");
        }
    }
}

TEST_F(Toolbox, LogTailAgreesWithTheWholeFileOnRandomOnes)
{
    constexpr unsigned seed = 77;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](unsigned limit) { return random() % limit; };
    for (int round = 0; round < 60; round++) {
        std::string text;
        for (unsigned line = below(30); line > 0; line--)
            text += std::string(below(4) == 0 ? below(2000) : below(40), 'a' + below(26)) + "\n";
        if (below(2) == 0)
            text += std::string(below(1000), 'z');
        write_file(dir / "log", text);
        const size_t count = 1 + below(20);
        const Outcome outcome = start("log_tail", {"-n", std::to_string(count), dir / "log"});
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
        ASSERT_EQ(outcome.output, last_lines(text, count)) << count << " of " << text;
    }
}

TEST_F(Toolbox, LogTailPrintsTenLinesUnlessToldOtherwise)
{
    std::string text;
    for (int i = 1; i <= 25; i++)
        text += "line " + std::to_string(i) + "\n";
    write_file(dir / "log", text);
    EXPECT_EQ(start("log_tail", {dir / "log"}).output, last_lines(text, 10));
}

TEST_F(Toolbox, LogTailSaysWhatItCannotRead)
{
    Outcome outcome = start("log_tail", {dir / "nowhere"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "log_tail: cannot read " + std::string(dir / "nowhere") +
                                  ": No such file or directory\n");
    outcome = start("log_tail", {"/dev/stdin"}); // a pipe: it has no end to start from
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "log_tail: cannot read /dev/stdin: Illegal seek\n");
    outcome = start("log_tail", {dir.path()});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("log_tail: cannot read " + dir.path()));
}

// yaml_writer ------------------------------------------------------------------------------------

TEST_F(Toolbox, YamlWriterWritesTheWholeDocument)
{
    const std::string file = dir / "access.yaml";
    const Outcome outcome = start("yaml_writer", {file, "router \"1\"", "22", "blue", "re: d"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(read_file(file), "hostname: \"router \\\"1\\\"\"\n"
                               "listener:\n"
                               "    port: \"22\"\n"
                               "    backlog: 128\n"
                               "    enable: yes\n"
                               "    families: [ipv4, ipv6]\n"
                               "vrfs:\n"
                               "- \"blue\"\n"
                               "- \"re: d\"\n");
}

TEST_F(Toolbox, YamlWriterReplacesTheFileInOneGo)
{
    const std::string file = dir / "access.yaml";
    write_file(file, "old");
    const int old = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(start("yaml_writer", {file, "r1", "65535"}).status, 0);
    EXPECT_THAT(read_file(file), StartsWith("hostname: \"r1\"\n"));
    EXPECT_THAT(read_file(file), EndsWith("\nvrfs: []\n"));
    EXPECT_EQ(read_file("/proc/self/fd/" + std::to_string(old)), "old");
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));
    close(old);
}

TEST_F(Toolbox, YamlWriterKeepsTheOldFileWhenItFails)
{
    const std::string file = dir / "access.yaml";
    write_file(file, "old");
    for (const std::string &refused : {std::string("\xff"), std::string(1024, 'x')}) {
        const Outcome outcome = start("yaml_writer", {file, refused, "22"});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.errors,
                  "yaml_writer: cannot write " + file + ": a text is too long or is not UTF-8\n");
        EXPECT_EQ(read_file(file), "old");
        EXPECT_FALSE(std::filesystem::exists(file + ".new"));
    }
}

TEST_F(Toolbox, YamlWriterTellsOfAFullDevice)
{
    ASSERT_EQ(symlink("/dev/full", (dir / "access.yaml.new").c_str()), 0);
    const Outcome outcome = start("yaml_writer", {dir / "access.yaml", "r1", "22"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, EndsWith(": No space left on device\n"));
    EXPECT_FALSE(std::filesystem::exists(dir / "access.yaml"));
}

TEST_F(Toolbox, YamlWriterTellsOfAMissingDirectory)
{
    const Outcome outcome = start("yaml_writer", {dir / "no/access.yaml", "r1", "22"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, EndsWith(": No such file or directory\n"));
}

// vrf_worker -------------------------------------------------------------------------------------

namespace {

// A private world with the thread's namespace as the default one and one more, "blue".
struct Vrfs {
    World world;
    ino_t home, blue;

    Vrfs()
    {
        world.leave_network();
        mkdir("/run/netns", 0755);
        home = name_own("1");
        const int back = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(unshare(CLONE_NEWNET), 0);
        blue = name_own("blue");
        EXPECT_EQ(setns(back, CLONE_NEWNET), 0);
        close(back);
    }

    static ino_t name_own(const std::string &name)
    {
        const std::string handle = "/run/netns/" + name;
        write_file(handle, "");
        EXPECT_EQ(mount("/proc/thread-self/ns/net", handle.c_str(), nullptr, MS_BIND, nullptr), 0);
        struct stat info = {};
        EXPECT_EQ(stat(handle.c_str(), &info), 0);
        return info.st_ino;
    }
};

std::string net(ino_t number)
{
    return "net:[" + std::to_string(number) + "]\n";
}

// From here on setns fails when it is asked for a network namespace in so many words, as the way
// back is; the library's way into a namespace takes any kind.
void lose_the_way_back()
{
    constexpr unsigned kind = offsetof(seccomp_data, args) + 8; // the second argument's low word
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_setns, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kind),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, CLONE_NEWNET, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {.len = sizeof(filter) / sizeof(filter[0]), .filter = filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        _exit(126);
}

} // namespace

TEST_F(Toolbox, VrfWorkerOpensItsSocketThereAndComesBack)
{
    OWN_PROCESS();
    const Vrfs vrfs;
    ASSERT_NE(vrfs.home, vrfs.blue);
    for (const auto &[vrf, number] : {std::pair("blue", vrfs.blue), std::pair("1", vrfs.home)}) {
        const Outcome outcome = start("vrf_worker", {vrf});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.output, "before: " + net(vrfs.home) + "socket: " + net(number) +
                                      "after: " + net(vrfs.home));
        EXPECT_EQ(outcome.errors, "");
    }
}

TEST_F(Toolbox, VrfWorkerSaysWhyItCannotEnter)
{
    OWN_PROCESS();
    const Vrfs vrfs;
    const Outcome outcome = start("vrf_worker", {"red"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "before: " + net(vrfs.home));
    EXPECT_THAT(outcome.errors, HasSubstr("lh_netns_fd_get failed for namespace 'red'\n"));
    EXPECT_THAT(outcome.errors,
                EndsWith("vrf_worker: no socket in red: No such file or directory\n"));
}

TEST_F(Toolbox, VrfWorkerEndsWhenItCannotComeBack)
{
    OWN_PROCESS();
    const Vrfs vrfs;
    const Outcome outcome = start("vrf_worker", {"blue"}, lose_the_way_back);
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.output, "before: " + net(vrfs.home));
    EXPECT_THAT(outcome.errors,
                HasSubstr("cannot leave the VRF blue again: Operation not permitted; ending"));
}
