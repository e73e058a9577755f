// A private world: the fixed paths are the real ones, the machine is never touched.
#pragma once

#include <string>

namespace vyt::test {

// Moves this process into a mount namespace of its own with empty /mnt, /var/cache and /run (and
// with it /var/run). Works as root, or in a user namespace of its own. Throws where neither is
// allowed. Everything is gone with the process; entering twice gives empty places again.
class World {
  public:
    World();

    // Replaces /proc by a writable stand-in that still shows this process and its descendants'
    // parent: /proc/self, /proc/PID of this process, /proc/mounts and /proc/sys are the real ones.
    void make_proc_writable();

    // Covers /tmp with an empty one. What a TempDir made before is out of sight from then on.
    void cover_tmp();

    // Moves this process into an empty network namespace of its own.
    void leave_network();
};

} // namespace vyt::test
