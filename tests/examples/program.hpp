// A program of its own, with what it says in sight.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "support/process.hpp"

namespace vyt::test {

// The path of a built example: example("vrrp_monitor").
inline std::string example(const std::string &name)
{
    return std::string(VYT_BINARY_DIR) + "/examples/" + name;
}

// A running program. Its standard output is read line by line, its standard error kept in a file,
// its standard input written. It is killed at the end if it has not ended by itself.
class Program {
  public:
    using Limit = std::chrono::milliseconds;

    // `before` runs in the program's process just before it becomes the program.
    explicit Program(std::vector<std::string> words, const std::function<void()> &before = {})
    {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2 failed");
        pid_ = new_process();
        if (pid_ == 0)
            become(words, in[0], out[1], before);
        close(in[0]);
        close(out[1]);
        in_ = in[1];
        out_ = out[0];
    }
    ~Program()
    {
        if (!ended_)
            kill(pid_, SIGKILL);
        wait();
        close_input();
        close(out_);
    }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    pid_t pid() const { return pid_; }
    std::string errors() const { return read_file(errors_); }

    void write(const std::string &text)
    {
        ASSERT_EQ(::write(in_, text.data(), text.size()), ssize_t(text.size()));
    }
    void close_input()
    {
        if (in_ >= 0)
            close(in_);
        in_ = -1;
    }

    // The next line of its output without the newline; nothing at its end, and when none came.
    std::optional<std::string> line()
    {
        const auto end = std::chrono::steady_clock::now() + patience;
        size_t newline;
        while ((newline = read_.find('\n')) == std::string::npos) {
            const auto left =
                std::chrono::duration_cast<Limit>(end - std::chrono::steady_clock::now());
            if (!read_more(std::max(left, Limit(0))))
                return {};
        }
        std::string found = read_.substr(0, newline);
        read_.erase(0, newline + 1);
        return found;
    }
    // Everything else that it says until it closes its output.
    std::string rest()
    {
        while (read_more(patience))
            ;
        return std::exchange(read_, {});
    }

    // Its exit status; 256 plus the signal that ended it.
    int wait()
    {
        if (!ended_) {
            int status = 0;
            while (waitpid(pid_, &status, 0) < 0 && errno == EINTR)
                ;
            ended_ = WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
        }
        return *ended_;
    }

  private:
    [[noreturn]] void become(const std::vector<std::string> &words, int in, int out,
                             const std::function<void()> &before)
    {
        const int errors = open(errors_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(errors, STDERR_FILENO);
        close_range(3, ~0u, 0); // whoever started the test may have left some open
        std::vector<char *> argv;
        for (const std::string &word : words)
            argv.push_back(const_cast<char *>(word.c_str()));
        argv.push_back(nullptr);
        if (before)
            before();
        execv(argv[0], argv.data());
        _exit(127);
    }
    bool read_more(Limit limit)
    {
        pollfd readable = {.fd = out_, .events = POLLIN, .revents = 0};
        if (poll(&readable, 1, int(limit.count())) <= 0)
            return false;
        char block[4096];
        const ssize_t size = read(out_, block, sizeof(block));
        if (size > 0)
            read_.append(block, size_t(size));
        return size > 0;
    }

    TempDir directory_;
    std::string errors_ = directory_ / "errors";
    std::string read_;
    std::optional<int> ended_;
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
};

struct Outcome {
    int status;
    std::string output;
    std::string errors;
};

// Runs a program to its end, with this on its standard input.
inline Outcome run(std::vector<std::string> words, const std::string &input = "",
                   const std::function<void()> &before = {})
{
    Program program(std::move(words), before);
    if (!input.empty()) // else it may have ended already
        program.write(input);
    program.close_input();
    std::string output = program.rest();
    const int status = program.wait();
    return {status, output, program.errors()};
}

// A test that runs examples, with a directory of its own.
class Examples : public ::testing::Test {
  protected:
    static Outcome start(const std::string &name, std::vector<std::string> words,
                         const std::function<void()> &before = {})
    {
        words.insert(words.begin(), example(name));
        return run(std::move(words), "", before);
    }
    // The first word is the example; the usage line is the last thing that it says.
    static void expect_usage(const std::vector<std::string> &words)
    {
        const Outcome outcome = start(words[0], {words.begin() + 1, words.end()});
        EXPECT_EQ(outcome.status, 2) << ::testing::PrintToString(words);
        EXPECT_EQ(outcome.output, "");
        const size_t usage = outcome.errors.rfind("usage: " + words[0] + " ");
        ASSERT_NE(usage, std::string::npos) << ::testing::PrintToString(words);
        EXPECT_EQ(outcome.errors.find('\n', usage), outcome.errors.size() - 1);
    }

    TempDir dir;
};

} // namespace vyt::test
