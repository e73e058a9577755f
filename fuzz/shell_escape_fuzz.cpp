// Shell escaping. The input is the value. What a plain escaper gives is compared, and only then a
// real shell is asked: as one word among others, the escaped value must come out as it went in.
//
// One shell serves all inputs. It can neither start a program nor write a file, whatever it is told.
#include "lh_shell_cmd.h"

#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "fuzz/support/fuzz.hpp"

using namespace vyt::fuzz;

namespace {

const std::string escaped_set = "!\"$&'()*;<=>?\\`|";

class Shell {
  public:
    Shell()
    {
        int to_shell[2];
        int from_shell[2];
        if (pipe2(to_shell, O_CLOEXEC) != 0 || pipe2(from_shell, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe for the shell");
        if (fork() == 0) {
            dup2(to_shell[0], STDIN_FILENO);
            dup2(from_shell[1], STDOUT_FILENO);
            start();
        }
        close(to_shell[0]);
        close(from_shell[1]);
        to_ = to_shell[1];
        from_ = from_shell[0];
    }

    // What the shell makes of a command line's words, each with a NUL behind it.
    std::string words_of(const std::string &words)
    {
        const std::string command = "printf '%s\\0' " + words + "\nprintf '\\0end\\0'\n";
        EXPECT_EQ(TEMP_FAILURE_RETRY(write(to_, command.data(), command.size())),
                  static_cast<ssize_t>(command.size()));
        const std::string end = std::string("\0end\0", 5);
        std::string answer;
        while (answer.size() < end.size() ||
               answer.compare(answer.size() - end.size(), end.size(), end) != 0) {
            char block[4096];
            // The fuzzer's own alarm may come in between.
            const ssize_t got = TEMP_FAILURE_RETRY(read(from_, block, sizeof(block)));
            if (got <= 0)
                return "(the shell has ended)";
            answer.append(block, static_cast<size_t>(got));
        }
        return answer.substr(0, answer.size() - end.size());
    }

  private:
    [[noreturn]] static void start()
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_FSIZE, &none);
        if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)
            perror("the shell keeps its user");
        setrlimit(RLIMIT_NPROC, &none);
        char *const environment[] = {const_cast<char *>("LC_ALL=C"), const_cast<char *>("PATH="),
                                     nullptr};
        execle("/bin/sh", "sh", "-f", nullptr, environment);
        _exit(127);
    }

    int to_ = -1;
    int from_ = -1;
};

Shell *shell;

// The characters outside of the escaped ones that still mean something to a shell: blanks and
// newlines part words, braces make several words in some shells.
bool stays_one_word(const std::string &value)
{
    return value.find_first_of(" \t\n{") == std::string::npos;
}

// Patterns are off in this shell; '#' and '~' only mean something at the start of a word.
bool needs_a_start(const std::string &value)
{
    return value.empty() || value[0] == '#' || value[0] == '~';
}

std::string plain_escaped(const std::string &value)
{
    std::string escaped;
    for (const char ch : value) {
        if (escaped_set.find(ch) != std::string::npos)
            escaped += '\\';
        escaped += ch;
    }
    return escaped;
}

} // namespace

void vyt::fuzz::prepare()
{
    static Shell only;
    shell = &only;
}

void vyt::fuzz::run(Input input)
{
    const std::string value = c_text(input.rest());
    const std::string expected = plain_escaped(value);
    char *copy = nullptr;
    EXPECT_EQ(lh_shell_cmd_escaping(Exact::text(value).data(), &copy), 0);
    const auto escaped = take_text(copy);
    EXPECT_EQ(escaped.has_value(), expected != value); // no copy where the value needs none
    EXPECT_EQ(escaped.value_or(value), expected);
    for (const char ch : value)
        EXPECT_EQ(lh_shell_cmd_chr_need_to_be_escaped(static_cast<unsigned char>(ch)),
                  escaped_set.find(ch) != std::string::npos);

    if (!stays_one_word(value))
        return;
    const std::string start = needs_a_start(value) ? "x" : "";
    EXPECT_EQ(shell->words_of("before " + start + expected + " behind"),
              "before" + std::string(1, '\0') + start + value + '\0' + "behind" + '\0');
}
