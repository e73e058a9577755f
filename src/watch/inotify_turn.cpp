// One file's turn in a pass: arming and dropping its watch, and walking the rules.
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "core/debug.hpp"
#include "lh_dir.h"
#include "lh_file.h"
#include "watch/inotify_files.hpp"

namespace vyt {
namespace {

constexpr uint32_t file_mask = IN_MODIFY | IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED;
// IN_MASK_ADD: files of one directory share the kernel's watch, and none may take another's events.
constexpr uint32_t directory_mask = IN_CREATE | IN_MOVED_TO | IN_IGNORED | IN_MASK_ADD;
static_assert(file_mask == 0x8C02 && directory_mask == 0x20008180);

// Deliberate: arming waits for a file or directory that is just being re-created.
constexpr int file_attempts = 3;
constexpr int directory_attempts = 9;
constexpr useconds_t attempt_pause = 250000; // microseconds

constexpr int steps_per_turn = 100;
constexpr const char *state_loop = "inotify_state_loop";

// 0, or -1 with EPERM.
int make_missing_directory(const watched_file *file)
{
    if ((file->flags & LH_INOTIFY_CREATE_DIR) == 0 || lh_dir_is_exist(file->parent_dir) != 0)
        return 0;
    lh_dir_lookup_opts opts = {};
    opts.flags = LH_DIR_DESCEND; // with its parents
    const mode_t mask = umask(0);
    const int result = lh_dir_create(file->parent_dir, &opts, 0777);
    umask(mask);
    if (result == 0)
        return 0;
    DEBUG_LINE_AS(inotify_dbg, "create_watch_fd", "lh_dir_create failed");
    errno = EPERM;
    return -1;
}

// Tells the reader of the log why a watch was refused.
void report_refused_path(const char *path)
{
    constexpr const char *function = "create_watch_fd";
    errno = 0;
    const unsigned mode = lh_file_get_mode(path);
    if (mode != 0)
        DEBUG_LINE_AS(inotify_dbg, function, "got EACCES, '%s' mode is %o", path, mode);
    else
        DEBUG_LINE_AS(inotify_dbg, function, "lh_file_get_mode failed %s", strerror(errno));
    errno = EACCES;
}

bool try_to_arm(lh_inotify *watcher, watched_file *file, const char *path, uint32_t mask)
{
    errno = 0;
    file->inode = lh_file_get_inode(path);
    if (file->inode == 0)
        return false;
    file->watch_fd = inotify_add_watch(watcher->fd, path, mask);
    if (file->watch_fd == -1)
        return false;
    if (file->watch_fd >= 0)
        watcher->index.add_watch(file);
    return true;
}

// Does what the rule asks for; the outcome tells how it went.
turn_outcome act(lh_inotify *watcher, watched_file *file, const turn_rule &rule)
{
    if (rule.action == turn_action::none)
        return rule.done;
    drop_watch(watcher, file);
    if (create_watch_fd(watcher, file) != 0) {
        DEBUG_LINE_AT_AS(inotify_dbg, state_loop, "create_watch_fd failed: %s", strerror(errno));
        return rule.failed;
    }
    if (rule.action == turn_action::arm_and_look && lh_file_is_exist(file->full_path) == 0)
        return rule.absent;
    return rule.done;
}

void walk_rules(lh_inotify *watcher, watched_file *file)
{
    uint32_t from = file->state;
    for (int step = 0; step < steps_per_turn; step++) {
        if (file->state == INIT || file->state > LOST_DIRECTORY)
            DEBUG_LINE_AS(inotify_dbg, state_loop, "invalid state %s",
                          watch_state_name(file->state));
        const turn_rule *rule = find_turn_rule(file->state, from, file->events);
        if (rule == nullptr)
            break;
        file->events &= ~rule->clear;
        const turn_outcome outcome = act(watcher, file, *rule);
        file->events = (file->events & ~outcome.clear) | outcome.set;
        if (outcome.notify != NOTIFY_NONE)
            file->notify = outcome.notify;
        if (outcome.next == turn_next::end)
            return;
        from = file->state;
        file->state = state_after(outcome.next);
    }
    DEBUG_LINE_AS(inotify_dbg, state_loop, "can't do state transition");
}

} // namespace

void drop_watch(lh_inotify *watcher, watched_file *file)
{
    if (file->watch_fd < 0)
        return;
    // A directory's watch stays for the other files that need it.
    const bool shared = file_index::shares_watch(file);
    watcher->index.remove_watch(file);
    if (!shared)
        inotify_rm_watch(watcher->fd, file->watch_fd);
    file->watch_fd = -1;
    file->inode = 0;
}

int create_watch_fd(lh_inotify *watcher, watched_file *file)
{
    if (IS_NE(file->watch_fd, -1))
        return -1;

    const char *path = file->full_path;
    uint32_t mask = file_mask;
    int attempts = file_attempts;
    if (file->state == WATCH_DIRECTORY) {
        if (make_missing_directory(file) != 0)
            return -1;
        path = file->parent_dir;
        mask = directory_mask;
        attempts = directory_attempts;
    } else if (file->state != WATCH_FILE) {
        DEBUG_LINE(inotify_dbg, "invalid state %s", watch_state_name(file->state));
        return -1;
    }

    for (int attempt = 1; !try_to_arm(watcher, file, path, mask); attempt++) {
        if (attempt == attempts) {
            if (errno == EACCES)
                report_refused_path(path);
            return -1;
        }
        usleep(attempt_pause);
    }
    return 0;
}

void inotify_state_loop(lh_inotify *watcher, watched_file *file)
{
    const uint32_t start = file->state;
    if (file->events != 0)
        walk_rules(watcher, file);
    if (file->state != start)
        DEBUG_LINE(inotify_dbg, "state %s to %s (%s)", watch_state_name(start),
                   watch_state_name(file->state), file->file_name);

    // Deliberate: only the pass just before counts, so a removal is reported again when a pass
    // without a report lies between.
    const bool report = file->notify == NOTIFY_CHANGED ||
                        (file->notify == NOTIFY_REMOVED && file->last_notify != NOTIFY_REMOVED);
    if (file->callback != nullptr && report)
        file->callback(file->callback_arg);
    file->last_notify = file->notify;
    file->notify = NOTIFY_NONE;
}

} // namespace vyt
