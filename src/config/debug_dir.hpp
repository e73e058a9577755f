// Where the persistent debug settings of all subsystems are kept.
#pragma once

#include "core/handles.hpp"
#include "lh_dir.h"

#include <fcntl.h>

namespace vyt {

inline constexpr const char *debug_config_dir = "/mnt/config/etc/config/vyt/debug";

// Creates it with its parents; 0 or -1.
inline int create_debug_config_dir()
{
    const lh_dir_lookup_opts opts = {.flags = LH_DIR_DESCEND, .depth = 0, .callback = nullptr};
    return lh_dir_create(debug_config_dir, &opts, 0777);
}

// Creates the file, or empties it.
inline bool create_empty_file(const char *path)
{
    return unique_fd(creat(path, 0666)).is_open();
}

} // namespace vyt
