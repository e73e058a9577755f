// What is built on the walker: a tree's size and owner; and the space left on a file system.
#include "lh_dir.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include "core/log.hpp"
#include "lh_file.h"

using namespace vyt;

namespace {

struct ownership {
    uint32_t owner;
    uint32_t group;
};

constexpr uint8_t every_entry = LH_DIR_DESCEND | LH_DIR_KEEP_GOING | LH_DIR_CALLBACK;

int change_owner(const char *path, unsigned char, void *cookie)
{
    const auto *to = static_cast<const ownership *>(cookie);
    return chown(path, to->owner, to->group);
}

} // namespace

int lh_dir_cb_size(const char *path, unsigned char, void *cookie)
{
    if (PTR_IS_NULL(path) || PTR_IS_NULL(cookie))
        return -1;
    *static_cast<uint64_t *>(cookie) += lh_file_size_get(path);
    return 0;
}

size_t lh_dir_size(const char *path)
{
    if (PTR_IS_NULL(path))
        return static_cast<size_t>(-1);
    uint64_t total = 0;
    lh_dir_lookup_opts opts = {.flags = every_entry, .depth = 0, .callback = lh_dir_cb_size};
    if (lh_dir_lookup(path, &opts, &total) != 0) {
        LOG_ERROR("lh_dir_size error");
        return static_cast<size_t>(-1);
    }
    return total;
}

int lh_dir_chown_recursive(const char *path, unsigned int uid, unsigned int gid)
{
    if (PTR_IS_NULL(path))
        return -1;
    ownership to = {.owner = uid, .group = gid};
    lh_dir_lookup_opts opts = {.flags = every_entry, .depth = 0, .callback = change_owner};
    if (lh_dir_lookup(path, &opts, &to) != 0) {
        LOG_ERROR("%s error", __func__);
        return -1;
    }
    return 0;
}

uint64_t lh_get_free_fs_size(const char *path)
{
    if (PTR_IS_NULL(path))
        return UINT64_MAX;
    struct statvfs fs;
    if (statvfs(path, &fs) != 0)
        return UINT64_MAX;
    return uint64_t{fs.f_bsize} * fs.f_bavail;
}
