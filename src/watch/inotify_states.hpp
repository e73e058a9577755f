// The watcher's state machine, one row per rule: what a file's turn does in a state, given the state
// it came from and its pending events. A state without a matching row ends the turn with a line.
#pragma once

#include <cstdint>

namespace vyt {

enum watch_state : uint32_t {
    INIT = 0,            // record just created, no watch decided yet
    WATCH_FILE = 1,      // the file exists; the watch is on it
    WATCH_DIRECTORY = 2, // the file is absent; the watch is on its directory
    LOST_DIRECTORY = 3,  // the directory's watch could not be armed; no watch
};

constexpr const char *watch_state_name(uint32_t state)
{
    constexpr const char *names[] = {"INIT", "WATCH_FILE", "WATCH_DIRECTORY", "LOST_DIRECTORY"};
    return state <= LOST_DIRECTORY ? names[state] : "UNKNOWN";
}

enum pending_event : uint8_t {
    EV_LOST = 1,     // the watched object or its watch is gone
    EV_MODIFIED = 2, // the file's contents changed
    EV_APPEARED = 4, // the file was created in, or moved into, its directory
};

enum notify_kind : uint32_t { NOTIFY_NONE = 0, NOTIFY_CHANGED = 1, NOTIFY_REMOVED = 2 };

// Sets of states, for the state that a turn came from.
constexpr uint8_t from_file = 1u << WATCH_FILE;
constexpr uint8_t from_directory = 1u << WATCH_DIRECTORY;
constexpr uint8_t from_lost = 1u << LOST_DIRECTORY;

enum class turn_action : uint8_t {
    none,
    arm,          // drop the watch and arm the state's own: `done` or `failed`
    arm_and_look, // the same, then see whether the file exists: `done`, `absent` or `failed`
};

enum class turn_next : uint8_t { to_file, to_directory, to_lost, end };

struct turn_outcome {
    uint8_t clear = 0;
    uint8_t set = 0;
    notify_kind notify = NOTIFY_NONE; // NONE: leaves what was decided
    turn_next next = turn_next::end;
};

struct turn_rule {
    watch_state state;
    uint8_t from;      // any of these
    uint8_t on = 0;    // any of these events pending; 0: whatever is
    uint8_t clear = 0; // before the action
    turn_action action = turn_action::none;
    turn_outcome done = {};
    turn_outcome absent = {};
    turn_outcome failed = {};
};

// First match wins.
// clang-format off
inline constexpr turn_rule turn_rules[] = {
    {.state = WATCH_DIRECTORY, .from = from_file | from_directory | from_lost, .on = EV_LOST,
     .action = turn_action::arm_and_look,
     .done   = {.clear = EV_LOST, .set = EV_APPEARED, .next = turn_next::to_file},
     .absent = {.clear = EV_LOST, .next = turn_next::end},
     .failed = {.next = turn_next::to_lost}},
    {.state = WATCH_DIRECTORY, .from = from_file | from_directory | from_lost, .on = EV_APPEARED | EV_MODIFIED,
     .done   = {.set = EV_APPEARED, .next = turn_next::to_file}},

    {.state = LOST_DIRECTORY, .from = from_file | from_directory,
     .done   = {.next = turn_next::end}},
    {.state = LOST_DIRECTORY, .from = from_lost, .on = EV_LOST,
     .done   = {.next = turn_next::to_directory}},

    {.state = WATCH_FILE, .from = from_file, .on = EV_LOST,
     .done   = {.notify = NOTIFY_REMOVED, .next = turn_next::to_directory}},
    {.state = WATCH_FILE, .from = from_file, .on = EV_APPEARED, .clear = EV_APPEARED | EV_MODIFIED,
     .action = turn_action::arm,
     .done   = {.clear = EV_LOST, .notify = NOTIFY_CHANGED, .next = turn_next::end},
     .failed = {.set = EV_LOST, .notify = NOTIFY_REMOVED, .next = turn_next::to_directory}},
    {.state = WATCH_FILE, .from = from_file, .on = EV_MODIFIED, .clear = EV_MODIFIED,
     .done   = {.notify = NOTIFY_CHANGED, .next = turn_next::end}},
    // Deliberate: MODIFIED stays pending when a file appears, so the next pass reports it once more,
    // for the daemon that read a file which was still being filled.
    {.state = WATCH_FILE, .from = from_directory, .on = EV_APPEARED, .clear = EV_APPEARED,
     .action = turn_action::arm,
     .done   = {.clear = EV_LOST, .notify = NOTIFY_CHANGED, .next = turn_next::end},
     .failed = {.set = EV_LOST, .notify = NOTIFY_REMOVED, .next = turn_next::to_directory}},
};
// clang-format on

// The rule of a turn that is in `state` and came from `from`, or null.
constexpr const turn_rule *find_turn_rule(uint32_t state, uint32_t from, uint8_t events)
{
    const unsigned from_bit = from <= LOST_DIRECTORY ? 1u << from : 0;
    for (const turn_rule &rule : turn_rules) {
        if (rule.state == state && (rule.from & from_bit) != 0 &&
            (rule.on == 0 || (rule.on & events) != 0))
            return &rule;
    }
    return nullptr;
}

constexpr watch_state state_after(turn_next next)
{
    switch (next) {
    case turn_next::to_file:
        return WATCH_FILE;
    case turn_next::to_directory:
        return WATCH_DIRECTORY;
    default:
        return LOST_DIRECTORY;
    }
}

} // namespace vyt
