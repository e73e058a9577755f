// The watcher's records and the indexes over them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/inotify.h>

#include "core/hash_index.hpp"
#include "core/list.hpp"
#include "lh_inotify.h"
#include "watch/inotify_states.hpp"

namespace vyt {

// One followed file. The list in insertion order is what every pass walks.
struct watched_file {
    lh_list link;
    int32_t watch_fd; // kernel watch; -1: none
    char *file_name;  // inside full_path
    char *parent_dir; // exactly as it was given
    char *full_path;
    uint32_t state;
    uint64_t inode; // of the object under watch; 0: none
    uint8_t events;
    uint32_t last_notify;
    uint32_t notify;
    uint32_t flags;
    lh_inotify_cb callback;
    void *callback_arg;

    // Places in the indexes below.
    lh_list same_watch; // the files that share this kernel watch
    bool leads_watch;   // stands for all of them in by_watch
    uint64_t sequence;  // grows along the list
    hash_link<watched_file> by_path;
    hash_link<watched_file> by_watch;
    hash_link<watched_file> by_name;
};

// Finds records by what callers and events name, so that a pass grows linearly with the files.
class file_index {
  public:
    void add(watched_file *file);
    void remove(watched_file *file);
    watched_file *find(const char *parent_dir, const char *file_name) const;

    // To be told of every change of watch_fd to a watch, and before every change from one.
    void add_watch(watched_file *file);
    void remove_watch(watched_file *file);
    static bool shares_watch(const watched_file *file) { return !list_is_empty(&file->same_watch); }

    // The first file in list order with this watch and name, or null.
    watched_file *first_of_name(int watch_fd, const char *file_name) const;
    // One of the files with this watch, or null; the others are linked to it by same_watch.
    watched_file *any_of_watch(int watch_fd) const;

    void clear();

  private:
    hash_index<watched_file, &watched_file::by_path> by_path_;
    hash_index<watched_file, &watched_file::by_watch> by_watch_; // one file per kernel watch
    hash_index<watched_file, &watched_file::by_name> by_name_;   // by kernel watch and name
    uint64_t next_sequence_;
};

inline watched_file *file_of_same_watch(lh_list *link)
{
    return reinterpret_cast<watched_file *>(reinterpret_cast<char *>(link) -
                                            offsetof(watched_file, same_watch));
}

// Arms the watch of the file's state; 0 or -1 with errno.
int create_watch_fd(lh_inotify *watcher, watched_file *file);
void drop_watch(lh_inotify *watcher, watched_file *file);
// Lets one file take its turn: state machine, then callback.
void inotify_state_loop(lh_inotify *watcher, watched_file *file);

} // namespace vyt

// The watcher. All zero bytes but for `fd` and `files` are an empty one.
struct lh_inotify {
    int32_t fd; // -1 after a failed restart
    lh_list files;
    vyt::file_index index;
};
