// The monitor's live table, on a terminal that the test looks at.
#include <gmock/gmock.h>

#include <regex>

#include "program.hpp"
#include "support/world.hpp"
#include "terminal.hpp"

using namespace vyt::test;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

namespace {

const std::string status_file = "/var/cache/vrrp_data";
const std::string log_line = "IS_NE check failed: remainder (1 != 0) !!!";
const Terminal::Environment usual = {{"TERM", "xterm"}};
const char *const two_routers = "record - 10 Master 1\nrecord blue 20 Backup 1\n"
                                "record - 30 Fault 2\nrecord - 40 Init 0\n";

// Publishes these records.
void publish(const std::string &records)
{
    TempDir dir;
    write_file(dir / "a.scenario", "step only\nwrite rename\n" + records);
    const Outcome outcome = run({example("vrrp_publisher"), "--step", "1", dir / "a.scenario"});
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
}

std::vector<std::string> watch(std::vector<std::string> words)
{
    words.insert(words.begin(), {example("vrrp_monitor"), "--watch"});
    return words;
}
const std::vector<std::string> watch_all = watch(
    {"-g", "1", "-g", "2", "-i", ":10", "-i", "blue:20", "-i", ":30", "-i", ":40", "-i", ":50"});

// How many seconds ago a row changed.
int seconds_ago(const std::string &row)
{
    std::smatch match;
    return std::regex_search(row, match, std::regex("(\\d+) s ago")) ? std::stoi(match[1]) : -1;
}

class Watch : public ::testing::Test {
  protected:
    // The table is there, whole.
    static bool sees_table(Terminal &terminal, const std::string &last_row = "instance :50 ")
    {
        return terminal.sees([&] { return terminal.screen().has(last_row); }) &&
               terminal.sees([&] { return terminal.raw().ends_with("\033[J"); });
    }
    static void expect_clean(const Terminal &terminal)
    {
        EXPECT_EQ(terminal.screen().unknown(), std::vector<std::string>{});
        for (const char *mode : {"?25", "?7"})
            EXPECT_TRUE(terminal.screen().is_on(mode)) << mode;
        EXPECT_FALSE(terminal.screen().is_on("?1049"));
    }
    static int quit(Terminal &terminal)
    {
        terminal.type("q");
        return terminal.wait();
    }
};

} // namespace

TEST_F(Watch, ShowsEachStatusInItsColour)
{
    OWN_PROCESS();
    World world;
    publish(two_routers);
    Terminal terminal(watch_all, usual);
    ASSERT_TRUE(sees_table(terminal));
    const Screen &screen = terminal.screen();
    EXPECT_TRUE(screen.is_on("?1049"));
    EXPECT_FALSE(screen.is_on("?25"));
    const struct {
        const char *row, *status, *colour;
    } expected[] = {
        {"group 1           Backup   \\d+ s ago +vrrp.20 vrrp.10", "Backup", "36"},
        {"group 2           Fault    \\d+ s ago +vrrp.30", "Fault", "1;31"},
        {"instance :10      Master   \\d+ s ago", "Master", "32"},
        {"instance blue:20  Backup   \\d+ s ago", "Backup", "36"},
        {"instance :30      Fault    \\d+ s ago", "Fault", "1;31"},
        {"instance :40      Init     \\d+ s ago", "Init", "33"},
        {"instance :50      Unknown  \\d+ s ago", "Unknown", "90"},
    };
    EXPECT_TRUE(std::regex_match(
        screen.row(0), std::regex("vrrp_monitor  \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  q "
                                  "quits")))
        << screen.row(0);
    EXPECT_EQ(screen.row(1), "                  STATUS   CHANGED        MEMBERS");
    for (size_t i = 0; i < std::size(expected); i++) {
        const std::string row = screen.row(2 + i);
        EXPECT_TRUE(std::regex_match(row, std::regex(expected[i].row))) << row;
        EXPECT_EQ(screen.colour(2 + i, expected[i].status), expected[i].colour);
        EXPECT_EQ(screen.colour(2 + i, " s ago"), "");
    }
    EXPECT_EQ(screen.row(2 + std::size(expected)), "");
    EXPECT_EQ(quit(terminal), 0);
    expect_clean(terminal);
}

TEST_F(Watch, HasNoColourWhereNoneIsWanted)
{
    OWN_PROCESS();
    World world;
    publish(two_routers);
    const std::regex colour("\033\\[[0-9;]*m");
    Terminal plain(watch_all, {{"TERM", "xterm"}, {"NO_COLOR", "1"}});
    ASSERT_TRUE(sees_table(plain));
    EXPECT_FALSE(std::regex_search(plain.raw(), colour));
    Terminal coloured(watch_all, {{"TERM", "xterm"}, {"NO_COLOR", ""}}); // empty is unset
    ASSERT_TRUE(sees_table(coloured));
    EXPECT_TRUE(std::regex_search(coloured.raw(), colour));
}

TEST_F(Watch, FollowsChangesAndCountsTheSecondsSince)
{
    OWN_PROCESS();
    World world;
    publish("record - 10 Backup 1\nrecord - 30 Master 2\n");
    Terminal terminal(watch({"-g", "1", "-g", "2"}), usual);
    const Screen &screen = terminal.screen();
    // Nothing happens but time.
    ASSERT_TRUE(terminal.sees([&] { return seconds_ago(screen.row(3)) >= 1; }));
    publish("record - 10 Master 1\nrecord - 30 Master 2\n");
    ASSERT_TRUE(terminal.sees([&] { return screen.row(2).find("Master") != std::string::npos; }));
    ASSERT_TRUE(terminal.sees([&] { return terminal.raw().ends_with("\033[J"); }));
    EXPECT_LT(seconds_ago(screen.row(2)), seconds_ago(screen.row(3)));
    // A change of the members alone is one, too.
    ASSERT_TRUE(terminal.sees([&] { return seconds_ago(screen.row(2)) >= 1; }));
    publish("record - 10 Master 1\nrecord - 30 Master 2\nrecord - 11 Master 1\n");
    ASSERT_TRUE(terminal.sees([&] { return screen.has("vrrp.11 vrrp.10"); }));
    ASSERT_TRUE(terminal.sees([&] { return terminal.raw().ends_with("\033[J"); }));
    EXPECT_LT(seconds_ago(screen.row(2)), seconds_ago(screen.row(3)));
    // What gives no event is looked at every second: somebody holds the deleted file.
    const int held = open(status_file.c_str(), O_RDONLY | O_CLOEXEC);
    unlink(status_file.c_str());
    EXPECT_TRUE(terminal.sees([&] { return screen.row(3).find("Unknown") != std::string::npos; }));
    close(held);
}

TEST_F(Watch, NeverFlickers)
{
    OWN_PROCESS();
    World world;
    publish(two_routers);
    Terminal terminal(watch_all, usual);
    ASSERT_TRUE(sees_table(terminal));
    const Screen &screen = terminal.screen();
    const auto stands = [&] { // after every character of every frame
        return screen.row(1) == "                  STATUS   CHANGED        MEMBERS" &&
               screen.row(2).starts_with("group 1           Backup") &&
               screen.row(4).starts_with("instance :10      Master") &&
               screen.row(8).starts_with("instance :50      Unknown");
    };
    EXPECT_TRUE(terminal.sees([&] { return seconds_ago(screen.row(8)) >= 1; }, stands))
        << ::testing::PrintToString(screen.rows());
    publish(std::string(two_routers) + "record - 50 Master 0\n");
    // All but the last row stand while that changes.
    EXPECT_TRUE(
        terminal.sees([&] { return screen.row(8).starts_with("instance :50      Master "); },
                      [&] { return screen.row(7).starts_with("instance :40      Init "); }));
    EXPECT_EQ(terminal.raw().find("\033[2J"), std::string::npos);
    EXPECT_EQ(screen.overflows(), 0);
}

TEST_F(Watch, FitsEveryTerminal)
{
    OWN_PROCESS();
    World world;
    publish(two_routers);
    const std::pair<int, int> sizes[] = {{200, 50}, {80, 9}, {80, 8}, {30, 5}, {24, 24}, {20, 3},
                                         {18, 4},   {7, 10}, {3, 3},  {5, 2},  {1, 1}};
    for (const auto &[columns, rows] : sizes) {
        SCOPED_TRACE(std::to_string(columns) + " by " + std::to_string(rows));
        Terminal terminal(watch_all, {{"TERM", "xterm"}, {"NO_COLOR", "1"}}, columns, rows);
        const auto clipped = [width = size_t(columns)](std::string text) {
            text = text.substr(0, width);
            return text.substr(0, text.find_last_not_of(' ') + 1);
        };
        const Screen &screen = terminal.screen();
        const size_t last = size_t(rows) - 1;
        std::string in_last = rows >= 9   ? "instance :50"
                              : rows >= 3 ? "... " + std::to_string(7 - (rows - 3)) + " more"
                              : rows == 2 ? ""
                                          : "vrrp_monitor";
        in_last = clipped(in_last);
        ASSERT_TRUE(terminal.sees(
            [&] { return screen.row(std::min<size_t>(last, 8)).starts_with(in_last); }));
        // Another frame stands where the first one stood.
        const auto frames = [&] {
            size_t count = 0;
            for (size_t at = 0; (at = terminal.raw().find("\033[H", at)) != std::string::npos; at++)
                count++;
            return count;
        };
        kill(terminal.pid(), SIGWINCH);
        ASSERT_TRUE(terminal.sees([&] { return frames() >= 2; }));
        EXPECT_TRUE(screen.row(0).starts_with(clipped("vrrp_monitor"))) << screen.row(0);
        for (int i = 0; i < rows - 3 && i < 7; i++) {
            const char *const begins[] = {"group 1           Backup", "group 2           Fault",
                                          "instance :10      Master", "instance blue:20  Backup",
                                          "instance :30      Fault",  "instance :40      Init",
                                          "instance :50      Unknown"};
            EXPECT_TRUE(screen.row(size_t(2 + i)).starts_with(clipped(begins[i])))
                << screen.row(size_t(2 + i));
        }
        EXPECT_EQ(screen.overflows(), 0);
        EXPECT_EQ(quit(terminal), 0);
        expect_clean(terminal);
    }
}

TEST_F(Watch, FollowsTheTerminalsSize)
{
    OWN_PROCESS();
    World world;
    publish(two_routers);
    Terminal terminal(watch_all, usual, 80, 24);
    const Screen &screen = terminal.screen();
    ASSERT_TRUE(sees_table(terminal));
    terminal.resize(25, 5);
    EXPECT_TRUE(terminal.sees([&] { return screen.row(4) == "... 5 more"; }));
    EXPECT_EQ(screen.row(2), "group 1           Backup");
    terminal.resize(100, 30);
    EXPECT_TRUE(terminal.sees([&] { return screen.row(8).starts_with("instance :50  "); }));
    EXPECT_TRUE(terminal.sees([&] { return screen.row(2).ends_with("vrrp.20 vrrp.10"); }));
}

TEST_F(Watch, LogLinesStandBelowAndStayWhenItEnds)
{
    OWN_PROCESS();
    World world;
    publish(two_routers);
    Terminal terminal(watch_all, usual, 120, 14);
    const Screen &screen = terminal.screen();
    ASSERT_TRUE(sees_table(terminal));
    kill(terminal.pid(), SIGHUP);
    ASSERT_TRUE(terminal.sees([&] { return screen.row(10) == "watcher restarted"; }));
    write_file(status_file, "x");
    ASSERT_TRUE(terminal.sees([&] { return screen.row(11).ends_with(log_line); }));
    EXPECT_EQ(screen.row(9), "");
    EXPECT_TRUE(screen.row(2).starts_with("group 1           Unknown"));
    EXPECT_TRUE(screen.row(8).starts_with("instance :50      Unknown"));
    // As many as there is room for, the newest one last; the rows come first.
    for (size_t size = 2; size <= 6; size++) {
        write_file(status_file, std::string(size, 'x'));
        ASSERT_TRUE(
            terminal.sees([&] { return screen.has("(" + std::to_string(size) + " != 0) !!!"); }));
    }
    EXPECT_TRUE(screen.row(13).ends_with("(6 != 0) !!!")) << screen.row(13);
    EXPECT_TRUE(screen.row(8).starts_with("instance :50      Unknown"));
    EXPECT_FALSE(screen.has("watcher restarted"));
    // Where the rows do not fit, one line is for the log.
    terminal.resize(120, 8);
    ASSERT_TRUE(terminal.sees([&] { return screen.row(5) == "... 4 more"; }));
    EXPECT_EQ(screen.row(6), "");
    EXPECT_EQ(screen.overflows(), 0);
    EXPECT_EQ(quit(terminal), 0);
    expect_clean(terminal);
    EXPECT_TRUE(screen.has("(6 != 0) !!!"));
}

TEST_F(Watch, ErrorsThatGoElsewhereStayThere)
{
    OWN_PROCESS();
    World world;
    TempDir dir;
    const std::string errors = dir / "errors";
    Terminal terminal(
        {"/bin/sh", "-c", "exec \"$0\" --watch -g 1 2>\"$1\"", example("vrrp_monitor"), errors},
        usual);
    ASSERT_TRUE(sees_table(terminal, "group 1  Unknown"));
    write_file(status_file, "x");
    EXPECT_TRUE(wait_until([&] { return read_file(errors).find(log_line) != std::string::npos; }));
    EXPECT_EQ(quit(terminal), 0);
    EXPECT_THAT(terminal.raw(), Not(HasSubstr("IS_NE")));
}

TEST_F(Watch, GivesTheTerminalBack)
{
    OWN_PROCESS();
    World world;
    const std::vector<std::pair<std::string, int>> ends = {
        {"q", 0}, {"\003", 0}, {"\034", 0}, {"", SIGTERM}, {"", SIGINT}};
    for (const auto &[keys, signal] : ends) {
        Terminal terminal(
            {"/bin/sh", "-c", "echo before; exec \"$0\" --watch -g 1", example("vrrp_monitor")},
            usual);
        ASSERT_TRUE(sees_table(terminal, "group 1  Unknown"));
        EXPECT_FALSE(terminal.is_usual());
        EXPECT_FALSE(terminal.reads_wait()); // Ctrl-C takes away the keys typed before it
        EXPECT_FALSE(terminal.screen().has("before"));
        terminal.type("abc"); // other keys do nothing, and are not shown
        if (signal != 0)
            kill(terminal.pid(), signal);
        else
            terminal.type(keys);
        EXPECT_EQ(terminal.wait(), 0);
        EXPECT_TRUE(terminal.is_usual());
        EXPECT_EQ(terminal.screen().row(0), "before");
        EXPECT_EQ(terminal.screen().row(1), "");
        EXPECT_THAT(terminal.raw(), Not(HasSubstr("abc")));
        expect_clean(terminal);
    }
}

TEST_F(Watch, LeavesTheScreenWhileItIsStopped)
{
    OWN_PROCESS();
    World world;
    publish(two_routers);
    Terminal terminal(watch_all, usual);
    ASSERT_TRUE(sees_table(terminal));
    for (int twice = 0; twice < 2; twice++) {
        terminal.type("\032"); // Ctrl-Z
        ASSERT_TRUE(terminal.stops());
        ASSERT_TRUE(terminal.sees([&] { return !terminal.screen().is_on("?1049"); }));
        EXPECT_TRUE(terminal.is_usual());
        expect_clean(terminal);
        publish(std::string("record - 50 ") + (twice == 0 ? "Master" : "Backup") + " 0\n");
        kill(terminal.pid(), SIGCONT);
        ASSERT_TRUE(sees_table(terminal, twice == 0 ? "instance :50      Master"
                                                    : "instance :50      Backup"));
        EXPECT_FALSE(terminal.is_usual());
    }
    EXPECT_EQ(quit(terminal), 0);
    expect_clean(terminal);
}

TEST_F(Watch, EndsWithItsTerminal)
{
    OWN_PROCESS();
    World world;
    Terminal terminal(watch({"-g", "1"}), usual);
    ASSERT_TRUE(sees_table(terminal, "group 1  Unknown"));
    terminal.hang_up();
    EXPECT_EQ(terminal.wait(), 0);

    Terminal without_keys(
        {"/bin/sh", "-c", "exec \"$0\" --watch -g 1 </dev/null", example("vrrp_monitor")}, usual);
    ASSERT_TRUE(sees_table(without_keys, "group 1  Unknown"));
    EXPECT_THAT(without_keys.screen().row(0), Not(HasSubstr("q quits")));
    without_keys.hang_up();
    EXPECT_EQ(without_keys.wait(), 0);
}

TEST_F(Watch, GivesPlainLinesWhereThereIsNoSuchTerminal)
{
    OWN_PROCESS();
    World world;
    publish(two_routers);
    Program piped(watch({"-g", "1"}), [] { setenv("TERM", "xterm", 1); });
    EXPECT_THAT(piped.line().value_or(""),
                MatchesRegex(".* group 1 Invalid -> Backup members vrrp.20 vrrp.10"));
    publish("record - 10 Master 1\n");
    EXPECT_THAT(piped.line().value_or(""),
                MatchesRegex(".* group 1 Backup -> Master members vrrp.10"));
    kill(piped.pid(), SIGTERM);
    EXPECT_EQ(piped.wait(), 0);
    EXPECT_EQ(piped.rest(), "");

    for (const Terminal::Environment &environment :
         std::vector<Terminal::Environment>{{{"TERM", "dumb"}}, {{"TERM", ""}}, {}}) {
        Terminal terminal(watch({"-g", "1"}), environment);
        ASSERT_TRUE(terminal.sees([&] {
            return terminal.screen().row(0).ends_with(" group 1 Invalid -> Master members vrrp.10");
        }));
        EXPECT_TRUE(terminal.is_usual());
        kill(terminal.pid(), SIGTERM);
        EXPECT_EQ(terminal.wait(), 0);
        EXPECT_THAT(terminal.raw(), Not(HasSubstr("\033")));
    }
}

TEST_F(Watch, ANameCannotMoveTheCursor)
{
    OWN_PROCESS();
    World world;
    Terminal terminal(watch({"-i", "a\033[2Jb\xc3\xa4:1"}), usual);
    ASSERT_TRUE(sees_table(terminal, "instance a?[2Jb??:1  Unknown"));
    EXPECT_EQ(quit(terminal), 0);
    expect_clean(terminal);
}

// The same in a terminal that others have written. --------------------------------------------

namespace {

// A tmux of its own, with a shell in a window of 60 by 10. It ends with this object; should the test
// be killed, with its shell.
class Tmux {
  public:
    ~Tmux() { command({"kill-server"}); }
    bool start()
    {
        return wait_until([&] {
            return command({"new-session", "-d", "-x", "60", "-y", "10",
                            "PS1='$ ' exec timeout --foreground 600 sh"})
                       .status == 0;
        });
    }
    Outcome command(std::vector<std::string> words)
    {
        words.insert(words.begin(), {"/usr/bin/env", "-u", "TMUX", "TERM=xterm", "LC_ALL=C.UTF-8",
                                     "/usr/bin/tmux", "-S", dir_ / "socket", "-f", "/dev/null"});
        return run(words);
    }
    // With the colours, as tmux spells them.
    std::string screen() { return command({"capture-pane", "-p", "-e"}).output; }
    bool sees(const std::string &text)
    {
        return wait_until([&] { return screen().find(text) != std::string::npos; });
    }
    // Is it the other screen, and is there a cursor?
    std::string modes()
    {
        return command({"display-message", "-p", "#{alternate_on} #{cursor_flag}"}).output;
    }

  private:
    TempDir dir_;
};

} // namespace

TEST_F(Watch, IsSeenByARealTerminal)
{
    if (access("/usr/bin/tmux", X_OK) != 0)
        GTEST_SKIP() << "there is no tmux (package tmux)";
    OWN_PROCESS();
    World world;
    publish(two_routers);
    Tmux tmux;
    ASSERT_TRUE(tmux.start());
    ASSERT_TRUE(tmux.sees("$"));
    tmux.command({"send-keys",
                  "echo before; '" + example("vrrp_monitor") + "' -w -g 1 -i :10 -i :30", "Enter"});
    EXPECT_TRUE(tmux.sees("group 1       \033[36mBackup\033[39m")) << tmux.screen();
    EXPECT_TRUE(tmux.sees("instance :10  \033[32mMaster\033[39m")) << tmux.screen();
    EXPECT_TRUE(tmux.sees("instance :30  \033[1m\033[31mFault\033[0m")) << tmux.screen();
    EXPECT_EQ(tmux.modes(), "1 0\n");
    publish("record - 10 Master 1\n");
    EXPECT_TRUE(tmux.sees("group 1       \033[32mMaster\033[39m")) << tmux.screen();
    tmux.command({"resize-window", "-x", "20", "-y", "4"});
    EXPECT_TRUE(tmux.sees("... 2 more")) << tmux.screen();
    tmux.command({"resize-window", "-x", "60", "-y", "10"});
    EXPECT_TRUE(tmux.sees("instance :30  \033[90mUnknown\033[39m")) << tmux.screen();
    tmux.command({"send-keys", "C-c"});
    EXPECT_TRUE(tmux.sees("before\n$")) << tmux.screen();
    EXPECT_EQ(tmux.modes(), "0 1\n");
}
