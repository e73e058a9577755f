// Processes and descriptors, as tests need them.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vyt::test {

// The descriptors that this process has open.
std::vector<int> open_descriptors();

// Forks, with nothing left in the streams to be written twice. Throws where no process is to be had: a
// test that takes -1 for a child would signal everybody, or wait for nobody and pass.
pid_t new_process();

// Runs the body in a forked child and answers its exit status; 256 plus the signal that ended it.
// The body's own result is the exit status; a failed gtest assertion inside makes it 99.
int run_in_child(const std::function<int()> &body);

// Turns this process into a fresh run of its executable under this command line, whose first word is
// the name that it goes by. What was built for another processor runs in its emulator again.
[[noreturn]] void become_this_program(const std::vector<std::string> &command_line);

// Re-runs the current test in a fresh process unless it is that process already; true when the
// caller is to go on, false when the fresh process has done the work. Use OWN_PROCESS().
bool enter_own_process();

// For how long a test waits for what must come: only a failure takes so long, on whatever machine.
constexpr std::chrono::seconds patience{120};

// Waits until the condition holds; false when it never did.
bool wait_until(const std::function<bool()> &condition);

// A fresh empty directory, removed with everything in it at the end.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

void write_file(const std::string &path, const std::string &contents);
std::string read_file(const std::string &path);

} // namespace vyt::test

// First line of a test that depends on a per-process cache: it runs in a process of its own.
#define OWN_PROCESS()                                                                              \
    if (!::vyt::test::enter_own_process())                                                         \
    return
