// The monitor follows the publisher end to end: two programs, the real path, a private world.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "program.hpp"
#include "support/world.hpp"

using namespace vyt::test;

namespace {

const std::string usage = "usage: vrrp_monitor [-w] [-g GROUP]... [-i NETNS:VRID]...\n";
const std::string status_file = "/var/cache/vrrp_data";

// Enters a world, once in a process, and empties its cache. The world's own /var/cache is a mount
// and could not be removed: this one is a plain directory of a /var that lies in memory, where
// everything else of the machine's /var is still found.
void enter_world()
{
    namespace fs = std::filesystem;
    static std::optional<World> world;
    if (!world) {
        world.emplace();
        fs::create_directory("/var/cache/machine");
        ASSERT_EQ(mount("/var", "/var/cache/machine", nullptr, MS_BIND | MS_REC, nullptr), 0);
        ASSERT_EQ(mount("/var/cache", "/var", nullptr, MS_BIND | MS_REC, nullptr), 0);
        for (const auto &entry : fs::directory_iterator("/var/machine")) {
            const std::string name = entry.path().filename();
            if (name != "cache")
                fs::create_symlink("machine/" + name, "/var/" + name);
        }
    }
    fs::remove_all("/var/cache");
    fs::create_directory("/var/cache");
}

// A running monitor and what it has said last of each thing, "group 1" or "instance blue:30".
class Monitor {
  public:
    explicit Monitor(const std::vector<std::string> &followed) : program_(words(followed)) {}

    Program &program() { return program_; }
    const std::map<std::string, std::string> &last() const { return last_; }

    // Takes the next line in; false when none comes. Each change starts where the one
    // before it ended, and changes something.
    bool take_line()
    {
        static const std::regex form(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4} (.*)$)");
        static const std::regex change(
            R"(^((?:group|instance) \S+) (\w+) -> (\w+)((?: members (?:vrrp\.\d+ ?)+)?)$)");
        const std::optional<std::string> line = program_.line();
        if (!line)
            return false;
        std::smatch match;
        EXPECT_TRUE(std::regex_match(*line, match, form)) << *line;
        said_.push_back(match[1]);
        if (match[1] == "watcher restarted") {
            restarts_++;
            return true;
        }
        const std::string text = match[1];
        EXPECT_TRUE(std::regex_match(text, match, change)) << text;
        const std::string before = last_.count(match[1]) != 0 ? last_[match[1]] : "Invalid";
        EXPECT_EQ(before.substr(0, before.find(' ')), match[2]) << text;
        const std::string now = match[3].str() + match[4].str();
        EXPECT_NE(before, now) << text;
        last_[match[1]] = now;
        return true;
    }
    bool take_until(const std::function<bool()> &condition)
    {
        while (!condition()) {
            if (!take_line())
                return false;
        }
        return true;
    }
    bool sees(const std::string &thing, const std::string &status)
    {
        return take_until([&] { return last_.count(thing) != 0 && last_.at(thing) == status; });
    }
    bool restart()
    {
        const int wanted = restarts_ + 1;
        kill(program_.pid(), SIGHUP);
        return take_until([&] { return restarts_ == wanted; });
    }
    // Ends it; everything that it still had to say is taken in.
    int end(int signal = SIGTERM)
    {
        kill(program_.pid(), signal);
        while (take_line())
            ;
        return program_.wait();
    }
    std::vector<std::string> take_said() { return std::exchange(said_, {}); }

  private:
    static std::vector<std::string> words(std::vector<std::string> followed)
    {
        followed.insert(followed.begin(), example("vrrp_monitor"));
        return followed;
    }

    Program program_;
    std::map<std::string, std::string> last_;
    std::vector<std::string> said_;
    int restarts_ = 0;
};

// Plays step `number` of a scenario file onto the status file.
void publish(const std::string &scenario, int number = 1)
{
    const Outcome outcome =
        run({example("vrrp_publisher"), "--step", std::to_string(number), scenario});
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
}

class MonitorProgram : public ::testing::Test {
  protected:
    // Writes the records in this way.
    void publish_records(const std::string &way, const std::string &records)
    {
        write_file(scenario, "step only\nwrite " + way + "\n" + records);
        publish(scenario);
    }
    TempDir dir;
    const std::string scenario = dir / "a.scenario";
};

} // namespace

TEST_F(MonitorProgram, HelpGoesToStandardOutput)
{
    for (const char *option : {"--help", "-h"}) {
        const Outcome outcome = run({example("vrrp_monitor"), option});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.output.rfind(usage, 0), 0u);
        for (const char *word :
             {"-g GROUP", "-i NETNS:VRID", "--watch", "SIGHUP", "SIGTERM", "SIGINT"})
            EXPECT_NE(outcome.output.find(word), std::string::npos) << word;
        EXPECT_EQ(outcome.errors, "");
    }
}

TEST_F(MonitorProgram, WrongArgumentsGetAReasonAndTheUsageLine)
{
    const std::string group = ": a group is a number from 1 to 32\n";
    const std::string instance = ": an instance is NETNS:VRID, the VRID from 1 to 255\n";
    const std::string long_name(32, 'n');
    const std::vector<std::pair<std::vector<std::string>, std::string>> wrong = {
        {{}, "nothing to follow\n"},
        {{"-g", "0"}, "-g 0" + group},
        {{"-g", "33"}, "-g 33" + group},
        {{"-g", "-1"}, "-g -1" + group},
        {{"-g", ""}, "-g " + group},
        {{"-g", "1x"}, "-g 1x" + group},
        {{"-g", " 1"}, "-g  1" + group},
        {{"-g", "99999999999999999999"}, "-g 99999999999999999999" + group},
        {{"-g", "1", "-g", "one"}, "-g one" + group},
        {{"-i", "10"}, "-i 10" + instance},
        {{"-i", ":0"}, "-i :0" + instance},
        {{"-i", ":256"}, "-i :256" + instance},
        {{"-i", "blue:"}, "-i blue:" + instance},
        {{"-i", long_name + ":1"},
         "-i " + long_name + ":1: a namespace's name has at most 31 characters\n"},
        {{"-g", "1", "more"}, "more is no option\n"},
    };
    for (const auto &[arguments, reason] : wrong) {
        std::vector<std::string> words = arguments;
        words.insert(words.begin(), example("vrrp_monitor"));
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, 2) << reason;
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors, "vrrp_monitor: " + reason + usage);
    }
    for (const char *option : {"-x", "--nonsense", "-g", "-i"}) { // the C library has the reason
        const Outcome outcome = run({example("vrrp_monitor"), option});
        EXPECT_EQ(outcome.status, 2) << option;
        EXPECT_EQ(outcome.errors.substr(outcome.errors.find('\n') + 1), usage);
    }
}

TEST_F(MonitorProgram, EndsWithOneWhenItCannotStart)
{
    enter_world();
    // A descriptor for the signals, none for the tracker.
    const Outcome outcome =
        run({"/bin/sh", "-c", "ulimit -n 4 && exec \"$0\" -g 1", example("vrrp_monitor")});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.errors, ::testing::HasSubstr("PTR_IS_NULL: vrrp_ctx.inotify\n"));
    EXPECT_THAT(outcome.errors,
                ::testing::EndsWith("vrrp_monitor: cannot start: Too many open files\n"));
}

TEST_F(MonitorProgram, TellsTheStatusAtTheStart)
{
    enter_world();
    publish_records("rename", "record - 10 Master 1\nrecord blue 30 Fault 0\n"
                              "record blue 20 Master 1\n");
    Monitor monitor({"-g", "1", "-g", "2", "-i", ":10", "-i", "1:10", "-i", "blue:30", "-i",
                     "blue:31", "-i", "red:1"});
    ASSERT_TRUE(monitor.sees("instance red:1", "Unknown"));
    EXPECT_EQ(monitor.take_said(), (std::vector<std::string>{
                                       "group 1 Invalid -> Master members vrrp.20 vrrp.10",
                                       "group 2 Invalid -> Unknown",
                                       "instance :10 Invalid -> Master",
                                       "instance 1:10 Invalid -> Master",
                                       "instance blue:30 Invalid -> Fault",
                                       "instance blue:31 Invalid -> Unknown",
                                       "instance red:1 Invalid -> Unknown",
                                   }));
    EXPECT_EQ(monitor.end(), 0);
    EXPECT_EQ(monitor.take_said(), std::vector<std::string>{});
    EXPECT_EQ(monitor.program().errors(), "");
}

TEST_F(MonitorProgram, TellsAChangeOfTheMembersAlone)
{
    enter_world();
    publish_records("rename", "record - 10 Master 1\n");
    Monitor monitor({"-g", "1"});
    ASSERT_TRUE(monitor.sees("group 1", "Master members vrrp.10"));
    publish_records("rename", "record - 10 Master 1\nrecord - 255 Master 1\n");
    ASSERT_TRUE(monitor.sees("group 1", "Master members vrrp.255 vrrp.10"));
    EXPECT_EQ(monitor.end(), 0);
}

TEST_F(MonitorProgram, MoreMembersThanFitAreCut)
{
    enter_world();
    std::string records, members;
    for (int i = 1; i <= 33; i++) {
        records += "record - " + std::to_string(i) + " Backup 32\n";
        members.insert(0, i >= 2 ? " vrrp." + std::to_string(i) : "");
    }
    publish_records("rename", records);
    Monitor monitor({"-g", "32"});
    const std::optional<std::string> line = monitor.program().line();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->substr(line->find(' ')),
              " group 32 Invalid -> Backup members" + members + " ...");
    EXPECT_EQ(monitor.end(), 0);
}

TEST_F(MonitorProgram, LeavesCleanlyOnBothSignals)
{
    enter_world();
    for (const int signal : {SIGTERM, SIGINT}) {
        Monitor monitor({"-g", "1"});
        ASSERT_TRUE(monitor.sees("group 1", "Unknown"));
        EXPECT_EQ(monitor.end(signal), 0);
        EXPECT_EQ(monitor.program().errors(), "");
    }
}

TEST_F(MonitorProgram, FollowsOnAfterARestart)
{
    enter_world();
    publish_records("rename", "record - 10 Backup 1\n");
    Monitor monitor({"-g", "1"});
    ASSERT_TRUE(monitor.sees("group 1", "Backup members vrrp.10"));
    for (const char *state : {"Master", "Backup", "Master"}) {
        for (const char *way : {"in-place", "rename", "recreate-directory"}) {
            ASSERT_TRUE(monitor.restart());
            publish_records(way, std::string("record - 10 ") + state + " 1\n");
            ASSERT_TRUE(monitor.sees("group 1", std::string(state) + " members vrrp.10"));
        }
    }
    EXPECT_EQ(monitor.end(), 0);
}

TEST_F(MonitorProgram, ARestartWithoutADescriptorIsTriedAgain)
{
    enter_world();
    publish_records("rename", "record - 10 Backup 1\n");
    Monitor monitor({"-g", "1"});
    const pid_t pid = monitor.program().pid();
    ASSERT_TRUE(monitor.sees("group 1", "Backup members vrrp.10"));

    rlimit usual = {};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, nullptr, &usual), 0);
    const rlimit none_more = {.rlim_cur = 3, .rlim_max = usual.rlim_max};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &none_more, nullptr), 0);
    const auto inotify_descriptors = [&] {
        size_t count = 0;
        for (const auto &entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
            std::error_code gone;
            count += std::filesystem::read_symlink(entry, gone) == "anon_inode:inotify";
        }
        return count;
    };
    ASSERT_EQ(inotify_descriptors(), 1u);
    kill(pid, SIGHUP);
    ASSERT_TRUE(wait_until([&] { return inotify_descriptors() == 0; }));
    publish_records("rename", "record - 10 Master 1\n");

    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &usual, nullptr), 0);
    ASSERT_TRUE(monitor.sees("group 1", "Master members vrrp.10"));
    EXPECT_EQ(inotify_descriptors(), 1u);
    const std::vector<std::string> said = monitor.take_said();
    EXPECT_EQ(std::count(said.begin(), said.end(), "watcher restarted"), 1);
    EXPECT_EQ(monitor.end(), 0);
}

TEST_F(MonitorProgram, NoticesADeletionThatGivesNoEvent)
{
    enter_world();
    publish_records("rename", "record - 10 Backup 1\n");
    Monitor monitor({"-g", "1"});
    ASSERT_TRUE(monitor.sees("group 1", "Backup members vrrp.10"));
    // While somebody holds it open the file is not deleted for the kernel.
    const int held = open(status_file.c_str(), O_RDONLY | O_CLOEXEC);
    publish_records("delete", "");
    EXPECT_TRUE(monitor.sees("group 1", "Unknown"));
    publish_records("rename", "record - 10 Master 1\n");
    EXPECT_TRUE(monitor.sees("group 1", "Master members vrrp.10"));
    close(held);
    EXPECT_EQ(monitor.end(), 0);
}

// End to end against a plain oracle ----------------------------------------------------------

namespace {

struct Record {
    std::string netns; // as in the scenario
    int vrid, state, group;

    std::pair<std::string, int> instance() const { return {netns == "-" ? "1" : netns, vrid}; }
    std::string text() const
    {
        return "record " + netns + " " + std::to_string(vrid) + " " + std::to_string(state) + " " +
               std::to_string(group) + "\n";
    }
};

const std::vector<int> groups = {1, 2, 7, 32};
// As the monitor spells them, and which instance that is.
const std::map<std::string, std::pair<std::string, int>> instances = {
    {":10", {"1", 10}},        {"1:20", {"1", 20}},       {"blue:30", {"blue", 30}},
    {"blue:10", {"blue", 10}}, {"red:255", {"red", 255}}, {"beat:1", {"beat", 1}},
};
const char *const names[] = {"Unknown", "Init", "Backup", "Master", "Fault"};

// What one instance adds to its group: the table, row by row.
int fold(int group_status, int instance_status, int state)
{
    const bool backup = state == 1, master = state == 2;
    switch (group_status) {
    case 0: // the first member
        return instance_status;
    case 2:
        return backup || master ? group_status : instance_status;
    case 3:
        return master ? group_status : instance_status;
    default: // init and fault stay
        return group_status;
    }
}

// What the monitor says in the end when the file holds these records.
std::map<std::string, std::string> oracle(const std::vector<Record> &records)
{
    std::map<int, int> group_status;
    std::map<int, std::vector<int>> members; // the last one in the file first
    std::map<std::pair<std::string, int>, int> status;
    std::set<std::pair<std::string, int>> enabled;
    for (const auto &[spelling, instance] : instances)
        enabled.insert(instance);

    for (const Record &record : records) {
        const auto instance = record.instance();
        const bool followed = std::find(groups.begin(), groups.end(), record.group) != groups.end();
        if (record.vrid < 1 || record.vrid > 255 || record.group < 0 || record.group > 32 ||
            (!followed && enabled.count(instance) == 0))
            continue;
        if (record.state >= 0 && record.state <= 3)
            status[instance] = record.state + 1;
        if (!followed)
            continue;
        members[record.group].insert(members[record.group].begin(), record.vrid);
        group_status[record.group] =
            fold(group_status[record.group], status[instance], record.state);
    }

    std::map<std::string, std::string> seen;
    for (const int group : groups) {
        std::string text = names[group_status[group]];
        for (size_t i = 0; i < members[group].size(); i++)
            text += (i == 0 ? " members vrrp." : " vrrp.") + std::to_string(members[group][i]);
        seen["group " + std::to_string(group)] = text;
    }
    for (const auto &[spelling, instance] : instances)
        seen["instance " + spelling] = names[status[instance]];
    return seen;
}

// A random scenario whose every file differs from the one before: the last record of each, the
// heartbeat, changes with every step.
class Story {
  public:
    explicit Story(unsigned seed) : random_(seed) {}

    struct Step {
        std::string way;
        std::vector<Record> records;

        std::string text(int number) const
        {
            std::string text = "step number " + std::to_string(number) + "\nwrite " + way + "\n";
            for (const Record &record : records)
                text += record.text();
            return text;
        }
    };

    Step next()
    {
        Step step;
        step.way = pick<std::string>({"rename", "rename", "in-place", "in-place", "truncate",
                                      "truncate", "recreate", "recreate", "recreate-directory",
                                      "delete", "remove-directory"});
        if (step.way == "delete" || step.way == "remove-directory")
            return step;
        std::set<std::pair<std::string, int>> taken;
        for (int left = pick<int>({0, 1, 2, 3, 5, 8, 20}); left > 0; left--) {
            const Record record = next_record();
            if (taken.insert(record.instance()).second) // an instance has one record
                step.records.push_back(record);
        }
        beat_ = !beat_;
        step.records.push_back({"beat", 1, beat_ ? 2 : 1, 0});
        return step;
    }
    template <typename T>
    T pick(const std::vector<T> &from)
    {
        return from[std::uniform_int_distribution<size_t>(0, from.size() - 1)(random_)];
    }

  private:
    Record next_record()
    {
        const bool odd = pick<int>({0, 0, 0, 0, 0, 0, 0, 1}) != 0; // numbers out of range
        return {pick<std::string>({"-", "1", "blue", "blue", "red", "green"}),
                odd ? pick<int>({0, 256, -1, 30}) : pick<int>({10, 20, 30, 40, 254, 255}),
                odd ? pick<int>({-1, 4, 77, 2}) : pick<int>({0, 1, 1, 2, 2, 2, 2, 3}),
                odd ? pick<int>({33, -1, 3, 1}) : pick<int>({0, 1, 1, 1, 2, 2, 7, 32, 5})};
    }

    std::mt19937 random_;
    bool beat_ = false;
};

std::vector<std::string> follow_everything()
{
    std::vector<std::string> words;
    for (const int group : groups)
        words.insert(words.end(), {"-g", std::to_string(group)});
    for (const auto &[spelling, instance] : instances)
        words.insert(words.end(), {"-i", spelling});
    return words;
}

} // namespace

TEST_F(MonitorProgram, SeesEveryOneOfHundredsOfRandomStepsAsTheOracleDoes)
{
    constexpr unsigned seed = 20240229;
    constexpr int step_count = 400;
    SCOPED_TRACE("seed " + std::to_string(seed));
    enter_world();
    Story story(seed);
    Monitor monitor(follow_everything());
    ASSERT_TRUE(monitor.take_until([&] { return monitor.last() == oracle({}); }));

    for (int number = 1; number <= step_count; number++) {
        if (story.pick<int>({0, 0, 0, 0, 0, 0, 0, 0, 0, 1}) != 0) {
            ASSERT_TRUE(monitor.restart());
        }
        const Story::Step step = story.next();
        SCOPED_TRACE(step.text(number));
        monitor.take_said();
        write_file(scenario, step.text(number));
        publish(scenario);
        const bool seen =
            monitor.take_until([&] { return monitor.last() == oracle(step.records); });
        ASSERT_TRUE(seen) << "expected " << ::testing::PrintToString(oracle(step.records))
                          << "\nsaid " << ::testing::PrintToString(monitor.take_said());
    }
    EXPECT_EQ(monitor.end(), 0);
}

TEST_F(MonitorProgram, EndsRightWhenTheWriterDoesNotWaitForIt)
{
    constexpr unsigned seed = 41;
    SCOPED_TRACE("seed " + std::to_string(seed));
    enter_world();
    Story story(seed);
    Monitor monitor(follow_everything());
    ASSERT_TRUE(monitor.take_until([&] { return monitor.last() == oracle({}); }));

    for (int burst = 1; burst <= 30; burst++) {
        constexpr int length = 10;
        std::string text;
        std::vector<Record> last;
        for (int number = 1; number <= length; number++) {
            const Story::Step step = story.next();
            text += step.text(number);
            last = step.records;
        }
        SCOPED_TRACE(text);
        write_file(scenario, text);
        const Outcome outcome =
            run({example("vrrp_publisher"), scenario}, std::string(length, '\n'));
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
        const bool seen = monitor.take_until([&] { return monitor.last() == oracle(last); });
        ASSERT_TRUE(seen) << "expected " << ::testing::PrintToString(oracle(last)) << "\nseen "
                          << ::testing::PrintToString(monitor.last());
    }
    EXPECT_EQ(monitor.end(), 0);
}
