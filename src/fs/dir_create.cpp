#include "lh_dir.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "core/handles.hpp"
#include "core/log.hpp"

using namespace vyt;

namespace {

int do_mkdir(const char *path, mode_t mode)
{
    if (PTR_IS_NULL(path))
        return -1;
    struct stat st;
    if (stat(path, &st) != 0) {
        if (mkdir(path, mode) == 0 || errno == EEXIST) // somebody else may make it meanwhile
            return 0;
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

// Every directory that a slash ends. `buf` is the path, cut at each slash in turn.
int make_parents(char *buf, mode_t mode)
{
    int rc = 0;
    char *rest = buf;
    for (char *slash; rc == 0 && (slash = strchr(rest, '/')) != nullptr; rest = slash + 1) {
        if (slash == rest)
            continue;
        *slash = '\0';
        rc = do_mkdir(buf, mode);
        *slash = '/';
    }
    return rc;
}

} // namespace

int lh_dir_create(const char *path, const lh_dir_lookup_opts *opts, mode_t mode)
{
    if (PTR_IS_NULL(path))
        return -1;
    // Deliberate: without the flag a directory that was created is reported as failed unless errno
    // happens to hold EEXIST. Daemons that pass no flag count on being told of a fresh directory.
    if ((opts->flags & LH_DIR_DESCEND) == 0 && mkdir(path, mode) == 0 && errno != EEXIST) {
        LOG_ERROR("cannot create '%s': %s", path, strerror(errno));
        return -1;
    }
    const malloc_ptr<char> copy(strdup(path));
    char *buf = copy.get();
    if (PTR_IS_NULL(buf))
        return -1;
    int rc = make_parents(buf, mode);
    if (rc == 0)
        rc = do_mkdir(path, mode);
    if (rc != 0)
        LOG_ERROR("cannot create '%s': %s", path, strerror(errno));
    return rc;
}
