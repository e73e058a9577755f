#include "lh_dir.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <span>
#include <unistd.h>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "lh_file.h"

using namespace vyt;

// Daemons declare the record themselves: its layout never changes.
static_assert(offsetof(lh_dir_lookup_opts, flags) == 0);
static_assert(sizeof(lh_dir_lookup_opts::flags) == 1);
static_assert(offsetof(lh_dir_lookup_opts, depth) == 2);
static_assert(sizeof(lh_dir_lookup_opts::depth) == 2);
static_assert(offsetof(lh_dir_lookup_opts, callback) == 8);
static_assert(sizeof(lh_dir_lookup_opts) == 16);

namespace {

// The walk reports under the name of the function that starts it, at every level.
constexpr const char *walker = "lh_dir_lookup";

// The sorted entries of a directory, released with the list.
class listing {
  public:
    explicit listing(const char *path) : count_(scandir(path, &entries_, nullptr, alphasort)) {}
    listing(const listing &) = delete;
    listing &operator=(const listing &) = delete;
    ~listing()
    {
        const errno_saver saver;
        for (dirent *entry : entries())
            free(entry);
        free(entries_);
    }

    bool failed() const { return count_ < 0; }
    std::span<dirent *const> entries() const { return {entries_, failed() ? 0 : size_t(count_)}; }

  private:
    dirent **entries_ = nullptr;
    int count_;
};

bool is_itself_or_parent(const char *name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

malloc_ptr<char> entry_path(const char *directory, const char *name)
{
    char *path = nullptr;
    if (asprintf(&path, "%s/%s", directory, name) < 0)
        path = nullptr;
    return malloc_ptr<char>(path);
}

int lh_dir_rm_nocheck(const char *path)
{
    if (PTR_IS_NULL(path))
        return -1;
    return rmdir(path);
}

bool wants(const lh_dir_lookup_opts *opts, int flag)
{
    return (opts->flags & flag) != 0;
}

// True when the callback failed and that ends the walk.
bool callback_fails(const char *path, unsigned char type, lh_dir_lookup_opts *opts, void *cookie)
{
    return wants(opts, LH_DIR_CALLBACK) && opts->callback != nullptr &&
           opts->callback(path, type, cookie) != 0 && !wants(opts, LH_DIR_KEEP_GOING);
}

// The same for removing what the callback has seen.
bool removal_fails(int (*remove)(const char *), const char *path, const lh_dir_lookup_opts *opts)
{
    return wants(opts, LH_DIR_REMOVE) && remove(path) != 0 && !wants(opts, LH_DIR_KEEP_GOING);
}

int handle_file(const char *path, unsigned char type, lh_dir_lookup_opts *opts, void *cookie)
{
    if (callback_fails(path, type, opts, cookie)) {
        LOG_ERROR_AS(walker, "cannot execute requried action on file %s", path);
        return -1;
    }
    if (removal_fails(lh_file_rm_nocheck, path, opts)) {
        LOG_ERROR_AS(walker, "cannot execute remove action on file %s", path);
        return -1;
    }
    return 0;
}

// A directory whose contents are done. The lines call it `shown`.
int handle_directory(const char *path, const char *shown, lh_dir_lookup_opts *opts, void *cookie)
{
    if (callback_fails(path, DT_DIR, opts, cookie)) {
        LOG_ERROR_AS(walker, "cannot execute requried action with directory %s", shown);
        return -1;
    }
    if (removal_fails(lh_dir_rm_nocheck, path, opts)) {
        LOG_ERROR_AS(walker, "cannot execute remove action with directory %s", shown);
        return -1;
    }
    return 0;
}

int walk_contents(const char *path, lh_dir_lookup_opts *opts, void *cookie);

int walk_subdirectory(const char *path, lh_dir_lookup_opts *opts, void *cookie)
{
    opts->depth++;
    if (walk_contents(path, opts, cookie) != 0) {
        // Deliberate: the walk ends even if it is to keep going, and the depth stays raised.
        LOG_ERROR_AS(walker, "failed to read '%s' directory", path);
        return -1;
    }
    opts->depth--;
    return handle_directory(path, path, opts, cookie);
}

int walk_contents(const char *path, lh_dir_lookup_opts *opts, void *cookie)
{
    const listing list(path);
    if (list.failed()) {
        LOG_ERROR_AS(walker, "cannot read directory '%s': %s", path, strerror(errno));
        return -1;
    }
    for (const dirent *entry : list.entries()) {
        if (is_itself_or_parent(entry->d_name))
            continue;
        const malloc_ptr<char> full = entry_path(path, entry->d_name);
        if (!full) {
            LOG_ERROR_AS(walker, "print file name error '%s/%s'", path, entry->d_name);
            return -1;
        }
        int rc = 0;
        if (entry->d_type != DT_DIR)
            rc = handle_file(full.get(), entry->d_type, opts, cookie);
        else if (wants(opts, LH_DIR_DESCEND))
            rc = walk_subdirectory(full.get(), opts, cookie);
        if (rc != 0)
            return -1;
    }
    return 0;
}

} // namespace

int lh_dir_lookup(const char *path, lh_dir_lookup_opts *opts, void *cookie)
{
    if (PTR_IS_NULL(path) || PTR_IS_NULL(opts))
        return -1;
    if (opts->depth == 0 && !lh_dir_is_exist(path)) {
        if (wants(opts, LH_DIR_REMOVE) && wants(opts, LH_DIR_KEEP_GOING))
            return 0;
        LOG_ERROR("directory '%s' not exist", path);
        return -1;
    }
    if (walk_contents(path, opts, cookie) != 0)
        return -1;
    // Deliberate: the lines about the start directory do not name it. Whoever reads the log knows this
    // word for it.
    return handle_directory(path, "(null)", opts, cookie);
}

int lh_dir_is_exist(const char *path)
{
    if (PTR_IS_NULL(path))
        return 0;
    return unique_dir(opendir(path)) != nullptr;
}
