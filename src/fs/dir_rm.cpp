#include "lh_dir.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ftw.h>

#include "core/log.hpp"

using namespace vyt;

namespace {

constexpr int most_descriptors = 16;

// One step of both walks; a non-zero result ends the walk.
int remove_entry(const char *step, const char *fpath, const struct stat *sb, const FTW *ftwbuf,
                 int first_level)
{
    if (PTR_IS_NULL_AS(step, fpath, "fpath") || PTR_IS_NULL_AS(step, sb, "sb") ||
        PTR_IS_NULL_AS(step, ftwbuf, "ftwbuf"))
        return -1;
    if (ftwbuf->level < first_level)
        return 0;
    const int rc = remove(fpath);
    if (rc != 0)
        LOG_ERROR_AS(step, "cannot remove '%s': %s", fpath, strerror(errno));
    return rc;
}

int remove_dir(const char *fpath, const struct stat *sb, int, FTW *ftwbuf)
{
    return remove_entry(__func__, fpath, sb, ftwbuf, 0);
}

int remove_file(const char *fpath, const struct stat *sb, int, FTW *ftwbuf)
{
    return remove_entry(__func__, fpath, sb, ftwbuf, 1); // the start directory itself is kept
}

// Children before their directory. Deliberate: links are followed, so that a tree that is spread
// over several places goes as a whole.
int remove_tree(const char *path, __nftw_func_t step)
{
    return nftw(path, step, most_descriptors, FTW_DEPTH);
}

} // namespace

int lh_dir_rm(const char *path)
{
    if (PTR_IS_NULL(path))
        return -1;
    return remove_tree(path, remove_dir);
}

int lh_dir_clear(const char *path)
{
    if (PTR_IS_NULL(path))
        return -1;
    return remove_tree(path, remove_file);
}
