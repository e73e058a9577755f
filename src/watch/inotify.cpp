#include "lh_inotify.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "core/debug.hpp"
#include "core/handles.hpp"
#include "lh_file.h"
#include "watch/inotify_files.hpp"

using namespace vyt;

namespace {

// A pass reads at most this many buffers, so that a burst cannot hold the poll loop.
constexpr int reads_per_pass = 100;
constexpr size_t event_buffer_size = sizeof(inotify_event) + 4096;

void free_file(watched_file *file)
{
    const errno_saver saver;
    free(file->parent_dir);
    free(file->full_path);
    free(file);
}

void destroy_file(lh_inotify *watcher, watched_file *file)
{
    drop_watch(watcher, file);
    list_unlink(&file->link);
    watcher->index.remove(file);
    free_file(file);
}

// Where the watch belongs at first: on the file, or on its directory until the file is there.
void decide_first_watch(watched_file *file, const char *function)
{
    const bool exists = lh_file_is_exist(file->full_path) != 0;
    const watch_state state = exists ? WATCH_FILE : WATCH_DIRECTORY;
    file->events |= exists ? EV_APPEARED : EV_LOST;
    file->inode = lh_file_get_inode(exists ? file->full_path : file->parent_dir);
    DEBUG_LINE_AT_AS(inotify_dbg, function, "state %s to %s (%s)", watch_state_name(file->state),
                     watch_state_name(state), file->file_name);
    file->state = state;
}

int create_file(lh_inotify *watcher, const char *parent_dir, const char *file_name, uint32_t flags,
                lh_inotify_cb callback, void *callback_arg)
{
    auto *file = static_cast<watched_file *>(malloc(sizeof(watched_file)));
    if (file == nullptr) {
        DEBUG_LINE_AT(inotify_dbg, "malloc failed: %s", strerror(errno));
        return -1;
    }
    *file = {};
    file->watch_fd = -1;
    file->state = INIT;
    file->last_notify = NOTIFY_REMOVED;
    file->flags = flags;
    file->callback = callback;
    file->callback_arg = callback_arg;
    list_init(&file->same_watch);

    file->parent_dir = strdup(parent_dir);
    if (PTR_IS_NULL(file->parent_dir)) {
        free_file(file);
        return -1;
    }
    // Deliberate: nothing is normalised; "/var/cache/" gives a doubled slash and its own directory.
    const size_t dir_length = strlen(parent_dir);
    const size_t path_size = dir_length + 1 + strlen(file_name) + 1;
    file->full_path = static_cast<char *>(malloc(path_size));
    if (file->full_path == nullptr) {
        DEBUG_LINE_AT(inotify_dbg, "malloc failed: %s", strerror(errno));
        free_file(file);
        return -1;
    }
    snprintf(file->full_path, path_size, "%s/%s", parent_dir, file_name);
    file->file_name = file->full_path + dir_length + 1;

    list_push_back(&watcher->files, &file->link);
    watcher->index.add(file);
    decide_first_watch(file, __func__);
    return 0;
}

// Notices what was replaced behind its watch, by a rename over it for example.
void check_inode(lh_inotify *watcher)
{
    for (watched_file &file : list_of<watched_file>(watcher->files)) {
        if (file.state != WATCH_FILE && file.state != WATCH_DIRECTORY)
            continue;
        const char *path = file.state == WATCH_FILE ? file.full_path : file.parent_dir;
        if (lh_file_get_inode(path) == file.inode)
            continue;
        DEBUG_LINE(inotify_dbg, "inode has changed (%s)", file.file_name);
        drop_watch(watcher, &file);
        file.events = EV_LOST;
    }
}

// Deliberate: an assignment. Of several events in one batch the last one decides.
void mark_events(watched_file *file, uint32_t mask)
{
    if ((mask & (IN_MOVED_TO | IN_CREATE)) != 0) {
        file->events = EV_APPEARED | EV_MODIFIED;
    } else if ((mask & IN_MODIFY) != 0) {
        file->events = EV_MODIFIED;
    } else if ((mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
        file->events = EV_LOST;
    } else {
        file->events = 0;
        DEBUG_LINE_AS(inotify_dbg, "read_inotify", "unexpected events in mask 0x%x", mask);
    }
}

struct read_event {
    int wd;
    uint32_t mask;
    const char *name; // null: none
};

// Takes the first event off; false where no whole event with a terminated name stands there. The
// kernel writes only such; nothing else that a read may bring leads beyond what was read.
bool take_event(const char *&at, const char *end, read_event &event)
{
    inotify_event header;
    if (static_cast<size_t>(end - at) < sizeof(header))
        return false;
    memcpy(&header, at, sizeof(header));
    const char *name = at + sizeof(header);
    if (static_cast<size_t>(end - name) < header.len)
        return false;
    at = name + header.len;
    event = {header.wd, header.mask, header.len != 0 ? name : nullptr};
    return event.name == nullptr || memchr(name, '\0', header.len) != nullptr;
}

// The kernel's queue overflowed: that concerns the files without a watch, which are in no index.
void dispatch_to_unwatched(lh_inotify *watcher, const read_event &event)
{
    for (watched_file &file : list_of<watched_file>(watcher->files)) {
        if (file.watch_fd != event.wd)
            continue;
        if (event.name != nullptr && strcmp(file.file_name, event.name) != 0)
            continue;
        mark_events(&file, event.mask);
        if (event.name != nullptr)
            return;
    }
}

// An event with a name is for the first file of that watch and name; one without is for every file
// of the watch.
void dispatch_event(lh_inotify *watcher, const read_event &event)
{
    if (event.wd < 0) {
        dispatch_to_unwatched(watcher, event);
    } else if (event.name != nullptr) {
        if (watched_file *file = watcher->index.first_of_name(event.wd, event.name))
            mark_events(file, event.mask);
    } else if (watched_file *file = watcher->index.any_of_watch(event.wd)) {
        lh_list *link = &file->same_watch;
        do {
            mark_events(file_of_same_watch(link), event.mask);
            link = link->next;
        } while (link != &file->same_watch);
    }
}

int read_inotify(lh_inotify *watcher)
{
    char buffer[event_buffer_size];
    for (int reads = 0; reads < reads_per_pass; reads++) {
        const ssize_t length = read(watcher->fd, buffer, sizeof(buffer));
        if (length == 0 || (length < 0 && errno == EAGAIN))
            return 0;
        if (length < 0) {
            DEBUG_LINE(inotify_dbg, "read failed: %s", strerror(errno));
            errno = EIO;
            return -1;
        }
        const char *at = buffer;
        read_event event;
        while (take_event(at, buffer + length, event))
            dispatch_event(watcher, event);
    }
    return 0;
}

} // namespace

lh_inotify *lh_inotify_create(void)
{
    malloc_ptr<lh_inotify> watcher(static_cast<lh_inotify *>(malloc(sizeof(lh_inotify))));
    if (!watcher) {
        DEBUG_LINE(inotify_dbg, "malloc failed: %s", strerror(errno));
        return nullptr;
    }
    *watcher = {};
    watcher->fd = inotify_init1(IN_NONBLOCK);
    if (watcher->fd == -1) {
        DEBUG_LINE(inotify_dbg, "inotify_init1 failed: %s", strerror(errno));
        return nullptr;
    }
    list_init(&watcher->files);
    return watcher.release(); // the caller's, until lh_inotify_free
}

void lh_inotify_free(lh_inotify **ptr)
{
    if (PTR_IS_NULL(ptr) || *ptr == nullptr)
        return;
    lh_inotify *watcher = *ptr;
    for (watched_file &file : list_of<watched_file>(watcher->files))
        destroy_file(watcher, &file);
    watcher->index.clear();
    if (watcher->fd >= 0)
        close(watcher->fd);
    free(watcher);
    *ptr = nullptr;
}

int lh_inotify_get_fd(lh_inotify *ptr)
{
    if (PTR_IS_NULL(ptr))
        return -1;
    return ptr->fd;
}

int lh_inotify_restart(lh_inotify *ptr)
{
    if (PTR_IS_NULL(ptr))
        return -1;
    for (watched_file &file : list_of<watched_file>(ptr->files)) {
        drop_watch(ptr, &file);
        file.events = EV_LOST;
    }
    if (ptr->fd >= 0)
        close(ptr->fd);
    ptr->fd = inotify_init1(IN_NONBLOCK);
    if (ptr->fd == -1)
        DEBUG_LINE(inotify_dbg, "inotify_init1 failed: %s", strerror(errno));
    return ptr->fd;
}

int lh_inotify_include_file(lh_inotify *ptr, const char *parent_dir, const char *file_name,
                            uint32_t flags, lh_inotify_cb callback, void *callback_arg)
{
    if (PTR_IS_NULL(ptr) || PTR_IS_NULL(parent_dir) || PTR_IS_NULL(file_name))
        return -1;
    if (ptr->index.find(parent_dir, file_name) != nullptr) {
        errno = EEXIST;
        return -1;
    }
    return create_file(ptr, parent_dir, file_name, flags, callback, callback_arg);
}

int lh_inotify_exclude_file(lh_inotify *ptr, const char *parent_dir, const char *file_name)
{
    if (PTR_IS_NULL(ptr) || PTR_IS_NULL(parent_dir) || PTR_IS_NULL(file_name))
        return -1;
    if (watched_file *file = ptr->index.find(parent_dir, file_name))
        destroy_file(ptr, file);
    return 0;
}

int lh_inotify_process(lh_inotify *ptr)
{
    if (PTR_IS_NULL(ptr))
        return -1;
    check_inode(ptr);
    if (read_inotify(ptr) != 0)
        return -1;
    for (watched_file &file : list_of<watched_file>(ptr->files))
        inotify_state_loop(ptr, &file);
    return 0;
}
