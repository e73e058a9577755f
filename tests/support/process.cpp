#include "support/process.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vyt::test {
namespace {

constexpr const char *marker = "VYT_TEST_OWN_PROCESS";

// Read before any test has changed its mounts: by the magic link alone, a program that is run from a
// private world would not find its own directory, and its libraries beside it, below a changed root.
const std::string own_program = std::filesystem::read_symlink("/proc/self/exe");

int wait_for(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string current_test()
{
    const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
    return std::string(info->test_suite_name()) + "." + info->name();
}

} // namespace

std::vector<int> open_descriptors()
{
    std::vector<int> descriptors;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        descriptors.push_back(std::stoi(entry.path().filename().string()));
    // The listing's own descriptor is closed by now.
    descriptors.erase(std::remove_if(descriptors.begin(), descriptors.end(),
                                     [](int fd) { return fcntl(fd, F_GETFD) == -1; }),
                      descriptors.end());
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

pid_t new_process()
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error(std::string("fork failed: ") + strerror(errno));
    return child;
}

int run_in_child(const std::function<int()> &body)
{
    const pid_t child = new_process();
    if (child == 0) {
        int status = body();
        if (::testing::Test::HasFailure())
            status = 99;
        fflush(nullptr);
        _exit(status);
    }
    return wait_for(child);
}

void become_this_program(const std::vector<std::string> &command_line)
{
    std::vector<std::string> words = command_line;
    std::vector<std::string> programs = {own_program, "/proc/self/exe"};
    if (const std::string emulator = VYT_EMULATOR; !emulator.empty()) {
        words.insert(words.begin(), {emulator, "-0"}); // EMULATOR -0 NAME PROGRAM ARGUMENTS
        words.insert(words.begin() + 3, own_program);
        programs = {emulator};
    }
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    for (const std::string &program : programs)
        execv(program.c_str(), arguments.data());
    _exit(127);
}

bool enter_own_process()
{
    if (getenv(marker) != nullptr)
        return true;
    const std::string filter = "--gtest_filter=" + current_test();
    const pid_t child = new_process();
    if (child == 0) {
        setenv(marker, "1", 1);
        // ctest asks for reports through these; the child's run is not the reported one.
        unsetenv("GTEST_OUTPUT");
        unsetenv("GTEST_TOTAL_SHARDS");
        become_this_program({program_invocation_name, filter, "--gtest_also_run_disabled_tests"});
    }
    EXPECT_EQ(wait_for(child), 0) << "in a process of its own: " << current_test();
    return false;
}

bool wait_until(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

TempDir::TempDir()
{
    std::string name = std::filesystem::temp_directory_path() / "vyt-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = name;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void write_file(const std::string &path, const std::string &contents)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << contents;
    file.close();
    ASSERT_TRUE(file.good()) << path;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

} // namespace vyt::test
