// The rules as a table against the same rules written out case by case.
#include "watch/inotify_states.hpp"

#include <gtest/gtest.h>

using namespace vyt;

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

TEST(InotifyStates, EveryCaseOfStateOriginAndEvents)
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

TEST(InotifyStates, AnOriginThatIsNoStateHasNoRule)
{
    for (uint32_t state = 0; state <= 3; state++) {
        for (const uint32_t from : {4u, 31u, 32u, 33u, ~0u}) {
            for (uint8_t events = 0; events < 8; events++)
                EXPECT_EQ(find_turn_rule(state, from, events), nullptr) << state << " " << from;
        }
    }
}

TEST(InotifyStates, StatesHaveNames)
{
    EXPECT_STREQ(watch_state_name(0), "INIT");
    EXPECT_STREQ(watch_state_name(1), "WATCH_FILE");
    EXPECT_STREQ(watch_state_name(2), "WATCH_DIRECTORY");
    EXPECT_STREQ(watch_state_name(3), "LOST_DIRECTORY");
    EXPECT_STREQ(watch_state_name(4), "UNKNOWN");
    EXPECT_STREQ(watch_state_name(~0u), "UNKNOWN");
}
