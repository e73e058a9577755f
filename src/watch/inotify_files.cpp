#include "watch/inotify_files.hpp"

namespace vyt {
namespace {

uint32_t path_hash(const char *parent_dir, const char *file_name)
{
    return hash_text(hash_byte(hash_text(hash_start, parent_dir), '/'), file_name);
}

uint32_t watch_hash(int watch_fd)
{
    return hash_number(hash_start, static_cast<uint32_t>(watch_fd));
}

} // namespace

void file_index::add(watched_file *file)
{
    file->sequence = next_sequence_++;
    by_path_.insert(file, path_hash(file->parent_dir, file->file_name));
}

void file_index::remove(watched_file *file)
{
    by_path_.remove(file);
}

watched_file *file_index::find(const char *parent_dir, const char *file_name) const
{
    return by_path_.find(path_hash(parent_dir, file_name), [&](const watched_file &file) {
        return strcmp(file.file_name, file_name) == 0 && strcmp(file.parent_dir, parent_dir) == 0;
    });
}

void file_index::add_watch(watched_file *file)
{
    if (watched_file *leader = any_of_watch(file->watch_fd)) {
        list_push_back(&leader->same_watch, &file->same_watch);
    } else {
        file->leads_watch = true;
        by_watch_.insert(file, watch_hash(file->watch_fd));
    }
    by_name_.insert(file, hash_text(watch_hash(file->watch_fd), file->file_name));
}

void file_index::remove_watch(watched_file *file)
{
    by_name_.remove(file);
    if (file->leads_watch) {
        file->leads_watch = false;
        by_watch_.remove(file);
        if (shares_watch(file)) {
            watched_file *heir = file_of_same_watch(file->same_watch.next);
            heir->leads_watch = true;
            by_watch_.insert(heir, watch_hash(heir->watch_fd));
        }
    }
    list_unlink(&file->same_watch);
}

watched_file *file_index::first_of_name(int watch_fd, const char *file_name) const
{
    const auto matches = [&](const watched_file &file) {
        return file.watch_fd == watch_fd && strcmp(file.file_name, file_name) == 0;
    };
    watched_file *first = by_name_.find(hash_text(watch_hash(watch_fd), file_name), matches);
    // One directory spelled in several ways gives several files of one watch and name.
    for (watched_file *other = first; other != nullptr;
         other = by_name_.find_next(other, matches)) {
        if (other->sequence < first->sequence)
            first = other;
    }
    return first;
}

watched_file *file_index::any_of_watch(int watch_fd) const
{
    return by_watch_.find(watch_hash(watch_fd),
                          [&](const watched_file &file) { return file.watch_fd == watch_fd; });
}

void file_index::clear()
{
    by_path_.clear();
    by_watch_.clear();
    by_name_.clear();
}

} // namespace vyt
