// A program on a terminal of its own, and what stands on its screen.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <csignal>
#include <functional>
#include <map>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/process.hpp"

namespace vyt::test {

// As much of a terminal as a table needs. What it does not know is noted down.
class Screen {
  public:
    Screen(int columns, int rows) { resize(columns, rows); }

    void resize(int columns, int rows)
    {
        columns_ = columns;
        for (std::vector<std::vector<Cell>> *cells : {&usual_, &other_}) {
            cells->resize(size_t(rows));
            for (std::vector<Cell> &row : *cells)
                row.resize(size_t(columns));
        }
        for (size_t *row : {&row_, &saved_.first}) // the cursor stays on the screen
            *row = std::min(*row, size_t(rows) - 1);
    }
    void take(char c)
    {
        if (!sequence_.empty() || c == '\033')
            take_sequence(c);
        else if (c == '\r')
            column_ = 0;
        else if (c == '\n')
            line_feed();
        else if (c >= ' ' && c <= '~')
            take_character(c);
        else if (c != '\a')
            unknown_.push_back(std::string(1, c));
    }

    // Without the blanks at the end.
    std::string row(size_t number) const
    {
        std::string text;
        for (const Cell &cell : cells().at(number))
            text += cell.character;
        return text.substr(0, text.find_last_not_of(' ') + 1);
    }
    std::vector<std::string> rows() const
    {
        std::vector<std::string> all;
        for (size_t i = 0; i < cells().size(); i++)
            all.push_back(row(i));
        return all;
    }
    // The colours of a word that stands in this row: the parameters of the last sequence before it.
    std::string colour(size_t number, const std::string &word) const
    {
        const size_t at = row(number).find(word);
        EXPECT_NE(at, std::string::npos) << row(number) << ": " << word;
        std::string found = cells()[number][at].colour;
        for (size_t i = 0; i < word.size(); i++)
            EXPECT_EQ(cells()[number][at + i].colour, found);
        return found;
    }
    bool has(const std::string &text) const
    {
        for (const std::string &line : rows()) {
            if (line.find(text) != std::string::npos)
                return true;
        }
        return false;
    }
    // ?1049 is the other screen, ?25 the cursor, ?7 wrapping at the edge.
    bool is_on(const std::string &mode) const { return modes_.at(mode); }
    // Characters behind the last column, and lines below the last row.
    int overflows() const { return overflows_; }
    const std::vector<std::string> &unknown() const { return unknown_; }

  private:
    struct Cell {
        char character = ' ';
        std::string colour;
    };

    const std::vector<std::vector<Cell>> &cells() const
    {
        return modes_.at("?1049") ? other_ : usual_;
    }
    std::vector<std::vector<Cell>> &cells()
    {
        return const_cast<std::vector<std::vector<Cell>> &>(std::as_const(*this).cells());
    }
    void take_character(char c)
    {
        if (column_ == columns_) { // it stands behind the last column, in waiting
            overflows_++;
            column_ = modes_["?7"] ? 0 : columns_ - 1;
            if (column_ == 0)
                line_feed();
        }
        if (row_ < cells().size())
            cells()[row_][size_t(column_)] = {c, colour_};
        column_++;
    }
    void line_feed()
    {
        if (row_ + 1 < cells().size()) {
            row_++;
            return;
        }
        overflows_++;
        cells().erase(cells().begin());
        cells().push_back(std::vector<Cell>(size_t(columns_)));
    }
    void take_sequence(char c)
    {
        sequence_ += c;
        if (sequence_.size() == 1 || (sequence_.size() == 2 && c == '['))
            return;
        if (sequence_.size() > 2 && !isalpha(c))
            return;
        const std::string text = std::exchange(sequence_, {}).substr(2);
        const std::string parameters = text.substr(0, text.size() - 1);
        if (c == 'm')
            colour_ = parameters == "0" ? "" : parameters;
        else if (text == "H")
            row_ = 0, column_ = 0;
        else if (text == "K")
            erase(row_, size_t(std::min(column_, columns_ - 1)));
        else if (text == "J")
            for (size_t i = row_; i < cells().size(); i++)
                erase(i, i == row_ ? size_t(std::min(column_, columns_ - 1)) : 0);
        else if ((c == 'h' || c == 'l') && modes_.count(parameters) != 0)
            set_mode(parameters, c == 'h');
        else
            unknown_.push_back(text);
    }
    void set_mode(const std::string &mode, bool on)
    {
        if (mode == "?1049" && on != modes_[mode]) {
            if (on) { // it begins empty
                saved_ = {row_, column_};
                for (std::vector<Cell> &row : other_)
                    row.assign(row.size(), {});
            } else {
                std::tie(row_, column_) = saved_;
            }
        }
        modes_[mode] = on;
    }
    void erase(size_t row, size_t from)
    {
        std::vector<Cell> &line = cells()[row];
        std::fill(line.begin() + ptrdiff_t(std::min(from, line.size())), line.end(), Cell());
    }

    std::vector<std::vector<Cell>> usual_, other_;
    int columns_ = 0, column_ = 0, overflows_ = 0;
    size_t row_ = 0;
    std::pair<size_t, int> saved_;
    std::string sequence_, colour_;
    std::map<std::string, bool> modes_ = {{"?1049", false}, {"?25", true}, {"?7", true}};
    std::vector<std::string> unknown_;
};

// Runs a program on a terminal of this size. It is killed at the end if it has not ended by itself.
class Terminal {
  public:
    using Environment = std::map<std::string, std::string>;

    Terminal(std::vector<std::string> words, const Environment &environment, int columns = 80,
             int rows = 24)
        : screen_(columns, rows)
    {
        const winsize size = size_of(columns, rows);
        fflush(nullptr);
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        if (pid_ < 0)
            throw std::runtime_error("forkpty failed");
        if (pid_ != 0)
            return;
        std::vector<char *> argv;
        for (const std::string &word : words)
            argv.push_back(const_cast<char *>(word.c_str()));
        argv.push_back(nullptr);
        for (const char *name : {"TERM", "NO_COLOR"})
            unsetenv(name);
        for (const auto &[name, value] : environment)
            setenv(name.c_str(), value.c_str(), 1);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~Terminal()
    {
        hang_up();
        if (!ended_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    const Screen &screen() const { return screen_; }
    const std::string &raw() const { return raw_; }
    pid_t pid() const { return pid_; }

    // Waits until the screen looks so; false when it never did. In between, after every single
    // character that arrives, `always` must hold.
    bool sees(const std::function<bool()> &condition, const std::function<bool()> &always = {})
    {
        const auto end = std::chrono::steady_clock::now() + patience;
        while (!condition()) {
            pollfd readable = {.fd = master_, .events = POLLIN, .revents = 0};
            char block[256];
            ssize_t size = 0;
            if (std::chrono::steady_clock::now() > end)
                return false;
            if (poll(&readable, 1, 1000) > 0 && (size = read(master_, block, sizeof(block))) <= 0)
                return false; // it has closed the terminal
            for (ssize_t i = 0; i < size; i++) {
                raw_ += block[i];
                screen_.take(block[i]);
                if (always && !always())
                    return false;
            }
        }
        return true;
    }
    void type(const std::string &text)
    {
        ASSERT_EQ(write(master_, text.data(), text.size()), ssize_t(text.size()));
    }
    void resize(int columns, int rows)
    {
        const winsize size = size_of(columns, rows);
        screen_.resize(columns, rows);
        ASSERT_EQ(ioctl(master_, TIOCSWINSZ, &size), 0);
    }
    // Are typed characters shown, and handed over by lines?
    bool is_usual() const { return (settings().c_lflag & (ECHO | ICANON)) == (ECHO | ICANON); }
    // Does reading wait for a character?
    bool reads_wait() const { return settings().c_cc[VMIN] != 0 || settings().c_cc[VTIME] != 0; }
    void hang_up()
    {
        if (master_ >= 0)
            close(master_);
        master_ = -1;
    }
    // True once it is stopped.
    bool stops()
    {
        int status = 0;
        return waitpid(pid_, &status, WUNTRACED) == pid_ && WIFSTOPPED(status);
    }
    // Takes in what it still says; its exit status, 256 plus the signal that ended it. One that does
    // not end is killed.
    int wait()
    {
        if (master_ >= 0)
            sees([] { return false; });
        if (!wait_until([&] { return has_ended(); }))
            kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
        ended_ = true;
        return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
    }

  private:
    // It has ended, and still waits for somebody to ask how.
    bool has_ended() const
    {
        siginfo_t info = {};
        return waitid(P_PID, id_t(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
               info.si_pid == pid_;
    }
    termios settings() const
    {
        termios settings = {};
        EXPECT_EQ(tcgetattr(master_, &settings), 0);
        return settings;
    }
    static winsize size_of(int columns, int rows)
    {
        return {.ws_row = static_cast<unsigned short>(rows),
                .ws_col = static_cast<unsigned short>(columns),
                .ws_xpixel = 0,
                .ws_ypixel = 0};
    }

    Screen screen_;
    std::string raw_;
    int master_ = -1;
    pid_t pid_ = -1;
    bool ended_ = false;
};

} // namespace vyt::test
