#include "watch/inotify_states.hpp"

#include <cerrno>

#include "watch/watcher.hpp"

using namespace vyt;
using namespace vyt::test;

// The rules ----------------------------------------------------------------------------------------

namespace {

// What a step does to the pending events and the notification, and where it goes.
struct step {
    uint8_t events;
    uint32_t notify; // NOTIFY_NONE: as it was
    int next;        // the state, or one of these
    bool operator==(const step &) const = default;
};
constexpr int end = -1;
constexpr int stop = -2;

// A step that arms has one end for each way that it can go.
struct steps {
    bool arms = false;
    bool looks = false;
    step armed = {0, NOTIFY_NONE, stop}; // or just done, when nothing is armed
    step absent = {0, NOTIFY_NONE, stop};
    step failed = {0, NOTIFY_NONE, stop};
};

// The rules once more, written out case by case.
steps expected_steps(uint32_t state, uint32_t from, uint8_t events)
{
    const bool lost = (events & EV_LOST) != 0;
    const bool modified = (events & EV_MODIFIED) != 0;
    const bool appeared = (events & EV_APPEARED) != 0;
    const auto without = [&](int bits) { return static_cast<uint8_t>(events & ~bits); };
    const auto with = [&](int bits) { return static_cast<uint8_t>(events | bits); };
    steps s;

    if (state == WATCH_DIRECTORY) {
        if (from == INIT)
            return s;
        if (lost) {
            s.arms = s.looks = true;
            s.failed = {events, NOTIFY_NONE, LOST_DIRECTORY};
            s.absent = {without(EV_LOST), NOTIFY_NONE, end};
            s.armed = {static_cast<uint8_t>(without(EV_LOST) | EV_APPEARED), NOTIFY_NONE,
                       WATCH_FILE};
        } else if (appeared || modified) {
            s.armed = {with(EV_APPEARED), NOTIFY_NONE, WATCH_FILE};
        }
    } else if (state == LOST_DIRECTORY) {
        if (from == WATCH_FILE || from == WATCH_DIRECTORY)
            s.armed = {events, NOTIFY_NONE, end};
        else if (from == LOST_DIRECTORY && lost)
            s.armed = {events, NOTIFY_NONE, WATCH_DIRECTORY};
    } else if (state == WATCH_FILE && from == WATCH_FILE) {
        if (lost) {
            s.armed = {events, NOTIFY_REMOVED, WATCH_DIRECTORY};
        } else if (appeared) {
            s.arms = true;
            s.armed = {0, NOTIFY_CHANGED, end};
            s.failed = {EV_LOST, NOTIFY_REMOVED, WATCH_DIRECTORY};
        } else if (modified) {
            s.armed = {without(EV_MODIFIED), NOTIFY_CHANGED, end};
        }
    } else if (state == WATCH_FILE && from == WATCH_DIRECTORY) {
        if (appeared) {
            s.arms = true;
            s.armed = {without(EV_APPEARED | EV_LOST), NOTIFY_CHANGED, end};
            s.failed = {static_cast<uint8_t>(without(EV_APPEARED) | EV_LOST), NOTIFY_REMOVED,
                        WATCH_DIRECTORY};
        }
    }
    return s;
}

step apply(const turn_rule &rule, const turn_outcome &outcome, uint8_t events)
{
    const uint8_t left = events & ~rule.clear & ~outcome.clear;
    return {static_cast<uint8_t>(left | outcome.set), outcome.notify,
            outcome.next == turn_next::end ? end : static_cast<int>(state_after(outcome.next))};
}

} // namespace

TEST(TurnRules, EveryCaseOfStateOriginAndEvents)
{
    // Beyond the four states and eight event sets: numbers that are no state.
    for (uint32_t state = 0; state <= 4; state++) {
        for (uint32_t from = 0; from <= 3; from++) {
            for (uint8_t events = 0; events < 8; events++) {
                SCOPED_TRACE(testing::Message() << "S=" << watch_state_name(state) << " P="
                                                << watch_state_name(from) << " E=" << int(events));
                const steps expected = expected_steps(state, from, events);
                const turn_rule *rule = find_turn_rule(state, from, events);
                if (rule == nullptr) {
                    EXPECT_EQ(expected.armed.next, stop);
                    continue;
                }
                EXPECT_EQ(rule->action != turn_action::none, expected.arms);
                EXPECT_EQ(rule->action == turn_action::arm_and_look, expected.looks);
                EXPECT_EQ(apply(*rule, rule->done, events), expected.armed);
                if (expected.arms) {
                    EXPECT_EQ(apply(*rule, rule->failed, events), expected.failed);
                }
                if (expected.looks) {
                    EXPECT_EQ(apply(*rule, rule->absent, events), expected.absent);
                }
            }
        }
    }
}

TEST(TurnRules, AnOriginThatIsNoStateHasNoRule)
{
    for (uint32_t state = 0; state <= 3; state++) {
        for (const uint32_t from : {4u, 31u, 32u, 33u, ~0u}) {
            for (uint8_t events = 0; events < 8; events++)
                EXPECT_EQ(find_turn_rule(state, from, events), nullptr) << state << " " << from;
        }
    }
}

TEST(TurnRules, StatesHaveNames)
{
    EXPECT_STREQ(watch_state_name(0), "INIT");
    EXPECT_STREQ(watch_state_name(1), "WATCH_FILE");
    EXPECT_STREQ(watch_state_name(2), "WATCH_DIRECTORY");
    EXPECT_STREQ(watch_state_name(3), "LOST_DIRECTORY");
    EXPECT_STREQ(watch_state_name(4), "UNKNOWN");
    EXPECT_STREQ(watch_state_name(~0u), "UNKNOWN");
}

// Turns --------------------------------------------------------------------------------------------

// Debug lines are on, and taken before the scenario starts.
class Turn : public WatcherTest {
  protected:
    Turn() { set_debug_flags(inotify_dbg); }

    // Follows the file and lets it settle.
    void settle(const std::string &parent_dir, const std::string &name, uint32_t flags = 0)
    {
        follow_in(parent_dir, name, flags);
        process();
        process();
        take_lines();
        calls[name] = 0;
    }
    void settle(const std::string &name, uint32_t flags = 0) { settle(dir(), name, flags); }

    // Refuses the next attempts to arm this path, as many as there are; the others are granted.
    static void refuse(Faults &faults, const std::string &path, unsigned attempts)
    {
        static std::string refused;
        static unsigned left;
        refused = path;
        left = attempts;
        faults.replace("inotify_add_watch",
                       reinterpret_cast<void *>(+[](int fd, const char *path, uint32_t mask) {
                           if (left == 0 || path != refused)
                               return inotify_add_watch(fd, path, mask);
                           left--;
                           errno = ENOSPC;
                           return -1;
                       }));
    }
};

#define INODE_LINE(name) "INOTIFY_DBG <check_inode> inode has changed (" name ")"
#define STATE_LINE(from, to, name)                                                                 \
    "INOTIFY_DBG <inotify_state_loop> state " from " to " to " (" name ")"
#define ARM_LINE(reason) "INOTIFY_DBG <inotify_state_loop:#> create_watch_fd failed: " reason
#define STOP_LINE "INOTIFY_DBG <inotify_state_loop> can't do state transition"

// WATCH_FILE, from WATCH_FILE.

TEST_F(Turn, PresentFile)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_NO_LINES();
    expect_watches({file_watch(temp / "f")});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, InPlaceWrite)
{
    write_file(temp / "f", "1");
    settle("f");
    write_file(temp / "f", "22");
    EXPECT_TRUE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_NO_LINES();
    EXPECT_FALSE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_EQ(truncate((temp / "f").c_str(), 0), 0);
    EXPECT_EQ(calls_in_pass("f"), 1);
}

TEST_F(Turn, DeletedFile)
{
    write_file(temp / "f", "1");
    settle("f");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(dir())});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, DeleteDuringNotify)
{
    // Too late for the look at the inode: the events alone tell.
    write_file(temp / "f", "1");
    settle("f");
    before_first_read([&] { remove_file(temp / "f"); });
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(dir())});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, MovedAwayFile)
{
    write_file(temp / "f", "1");
    settle("f");
    before_first_read([&] { move(temp / "f", temp / "g"); });
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(dir())});
    write_file(temp / "g", "2"); // no longer the followed file
    EXPECT_EQ(calls_in_pass("f"), 0);
    move(temp / "g", temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, DeleteAndRecreate)
{
    write_file(temp / "f", "1");
    settle("f");
    before_first_read([&] {
        remove_file(temp / "f");
        write_file(temp / "f", "2");
    });
    EXPECT_EQ(calls_in_pass("f"), 1); // removed, then changed: the last one decided
    EXPECT_NO_LINES();
    expect_watches({file_watch(temp / "f")});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, ReplaceByRename)
{
    write_file(temp / "f", "1");
    settle("f");
    write_file(temp / "new", "2");
    move(temp / "new", temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"));
    expect_watches({file_watch(temp / "f")});
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, PresentFileThatCannotBeArmedFallsBackAndComesAgain)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    refuse(faults, temp / "f", 3);
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(pauses.size(), 2u);
    EXPECT_LINES(ARM_LINE("No space left on device"));
    expect_watches({file_watch(temp / "f")});
}

TEST_F(Turn, AWriteWithALossIsALoss)
{
    write_file(temp / "f", "1");
    settle("f");
    before_first_read([&] {
        write_file(temp / "f", "2");
        remove_file(temp / "f");
    });
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    EXPECT_EQ(calls_in_pass("f"), 0);
}

// WATCH_DIRECTORY.

TEST_F(Turn, AbsentFile)
{
    follow("f");
    take_lines();
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_NO_LINES();
    expect_watches({directory_watch(dir())});
    write_file(temp / "f", "");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    expect_watches({file_watch(temp / "f")});
}

TEST_F(Turn, AFileThatAppearsIsReportedByTwoPasses)
{
    settle("f");
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_TRUE(is_readable(fd())); // the directory's watch was removed, and the kernel says so
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_FALSE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, MovedInFile)
{
    write_file(temp / "g", "1");
    settle("f");
    move(temp / "g", temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, OtherFilesOfTheDirectoryAreNoMatter)
{
    settle("f");
    write_file(temp / "ff", "1");
    EXPECT_TRUE(is_readable(fd()));
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_NO_LINES();
}

TEST_F(Turn, AppearedBeforeTheFirstPass)
{
    follow("f");
    take_lines();
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, GoneBeforeTheFirstPass)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
}

TEST_F(Turn, CreatedAndDeletedBetweenPasses)
{
    settle("f");
    write_file(temp / "f", "1");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1); // it cannot be armed any more, so it is reported as removed
    EXPECT_EQ(pauses.size(), 2u);
    EXPECT_LINES(ARM_LINE("No such file or directory"));
    expect_watches({directory_watch(dir())});
    // MODIFIED stays pending, so every pass looks for the file again, until it is there.
    for (int pass = 0; pass < 3; pass++) {
        EXPECT_EQ(calls_in_pass("f"), 0); // a removal after a removal
        EXPECT_LINES(ARM_LINE("No such file or directory"));
        expect_watches({directory_watch(dir())});
    }
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, DisappearingDirectory)
{
    make_directory(temp / "d");
    settle(temp / "d", "f");
    remove_directory(temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_EQ(pauses.size(), 8u);
    EXPECT_LINES(INODE_LINE("f"), ARM_LINE("No such file or directory"),
                 STATE_LINE("WATCH_DIRECTORY", "LOST_DIRECTORY", "f"));
    expect_watches({});
}

TEST_F(Turn, DisappearingDirectoryDuringNotify)
{
    make_directory(temp / "d");
    settle(temp / "d", "f");
    before_first_read([&] { remove_directory(temp / "d"); });
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(ARM_LINE("No such file or directory"),
                 STATE_LINE("WATCH_DIRECTORY", "LOST_DIRECTORY", "f"));
}

TEST_F(Turn, DisappearingDirectoryIsCreatedAgain)
{
    make_directory(temp / "d");
    settle(temp / "d", "f", LH_INOTIFY_CREATE_DIR);
    remove_directory(temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"));
    expect_watches({directory_watch(temp / "d")});
    write_file(temp / "d/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, ReplacedDirectory)
{
    make_directory(temp / "d");
    settle(temp / "d", "f");
    move(temp / "d", temp / "old");
    make_directory(temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"));
    expect_watches({directory_watch(temp / "d")});
    write_file(temp / "old/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_NO_LINES();
    move(temp / "old/f", temp / "d/f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, AWatchOnADirectoryThatSaysModifiedMovesToTheFile)
{
    note_watches();
    settle("f");
    ASSERT_EQ(given_watches.size(), 1u);
    write_file(temp / "f", "1");
    feed({event(given_watches[0], IN_MODIFY)});
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

// LOST_DIRECTORY.

TEST_F(Turn, NonExistentDirectory)
{
    follow_in(temp / "d", "f");
    take_lines();
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(ARM_LINE("No such file or directory"),
                 STATE_LINE("WATCH_DIRECTORY", "LOST_DIRECTORY", "f"));
    pauses.clear();
    EXPECT_EQ(calls_in_pass("f"), 0); // every pass tries again
    EXPECT_EQ(pauses.size(), 8u);
    EXPECT_LINES(ARM_LINE("No such file or directory"));
    make_directory(temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(STATE_LINE("LOST_DIRECTORY", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(temp / "d")});
}

TEST_F(Turn, NonExistentDirectoryThatComesWithTheFile)
{
    settle(temp / "d", "f");
    make_directory(temp / "d");
    write_file(temp / "d/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("LOST_DIRECTORY", "WATCH_FILE", "f"));
    expect_watches({file_watch(temp / "d/f")});
    EXPECT_EQ(calls_in_pass("f"), 0); // found without an event, so nothing stays pending
}

TEST_F(Turn, DirectoryChain)
{
    settle(temp / "a/b/c", "f", LH_INOTIFY_CREATE_DIR);
    expect_watches({directory_watch(temp / "a/b/c")});
    remove_directory(temp / "a/b/c");
    remove_directory(temp / "a/b");
    remove_directory(temp / "a");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"));
    expect_watches({directory_watch(temp / "a/b/c")});
    write_file(temp / "a/b/c/f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}

TEST_F(Turn, MoveParent)
{
    make_directory(temp / "d");
    write_file(temp / "d/f", "1");
    settle(temp / "d", "f");
    move(temp / "d", temp / "away");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"), ARM_LINE("No such file or directory"),
                 STATE_LINE("WATCH_FILE", "LOST_DIRECTORY", "f"));
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(ARM_LINE("No such file or directory"));
    move(temp / "away", temp / "d");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("LOST_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(calls_in_pass("f"), 0);
}

TEST_F(Turn, MoveParentIntoADirectoryThatIsCreatedAgain)
{
    make_directory(temp / "d");
    write_file(temp / "d/f", "1");
    settle(temp / "d", "f", LH_INOTIFY_CREATE_DIR);
    move(temp / "d", temp / "away");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"));
    expect_watches({directory_watch(temp / "d")});
}

TEST_F(Turn, ALostDirectoryWithAnotherEventStops)
{
    settle(temp / "d", "f");
    feed({event(-1, IN_MODIFY)});
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(STOP_LINE);
    EXPECT_EQ(calls_in_pass("f"), 0); // the event is still pending
    EXPECT_LINES(STOP_LINE);
    EXPECT_GE(lh_inotify_restart(watcher), 0);
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(ARM_LINE("No such file or directory"));
}

// WATCH_FILE, from WATCH_DIRECTORY.

TEST_F(Turn, AppearedFileThatCannotBeArmedComesBackThroughItsDirectory)
{
    settle("f");
    write_file(temp / "f", "1");
    refuse(faults, temp / "f", 3);
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(ARM_LINE("No space left on device"),
                 STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
    EXPECT_EQ(pauses.size(), 2u);
}

TEST_F(Turn, AFileThatCanNeverBeArmedEndsTheTurnAfterAHundredSteps)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    refuse(faults, temp / "f", 1000);
    EXPECT_EQ(calls_in_pass("f"), 0); // removed, which the first pass does not report
    std::vector<std::string> expected(50, ARM_LINE("No space left on device"));
    expected.push_back(STOP_LINE);
    EXPECT_EQ(take_lines(), expected);
    EXPECT_EQ(pauses.size(), 100u);
    calm_faults();
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"));
}

TEST_F(Turn, AStepBeforeTheHundredthStillCounts)
{
    write_file(temp / "f", "1");
    follow("f");
    take_lines();
    refuse(faults, temp / "f", 49 * 3); // 98 steps; the 99th arms
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(take_lines(), std::vector<std::string>(49, ARM_LINE("No space left on device")));
}

// Reporting ----------------------------------------------------------------------------------------

TEST_F(Turn, ARemovalRightAfterARemovalIsNotReported)
{
    write_file(temp / "f", "1");
    settle("f");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    write_file(temp / "f", "2");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 0);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"),
                 ARM_LINE("No such file or directory"));
}

TEST_F(Turn, ARemovalIsReportedAgainAfterAPassWithoutAReport)
{
    write_file(temp / "f", "1");
    settle("f");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_EQ(calls_in_pass("f"), 0);
    write_file(temp / "f", "2");
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(INODE_LINE("f"), STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"),
                 ARM_LINE("No such file or directory"));
}

TEST_F(Turn, ARemovalAfterAChangeIsReported)
{
    settle("f");
    write_file(temp / "f", "1");
    EXPECT_EQ(calls_in_pass("f"), 1);
    remove_file(temp / "f");
    EXPECT_EQ(calls_in_pass("f"), 1);
    write_file(temp / "f", "2");
    EXPECT_EQ(calls_in_pass("f"), 1);
    EXPECT_LINES(STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"), INODE_LINE("f"),
                 STATE_LINE("WATCH_FILE", "WATCH_DIRECTORY", "f"),
                 STATE_LINE("WATCH_DIRECTORY", "WATCH_FILE", "f"));
}
