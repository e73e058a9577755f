// A plain watcher that scans lists for everything, on the made-up kernel: what the real one must do.
#pragma once

#include "lh_dir.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sstream>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <vector>

#include "support/log_capture.hpp"
#include "watch/inotify_kernel.hpp"

namespace vyt::test {

inline constexpr uint32_t init = 0;
inline constexpr uint32_t watch_file = 1;
inline constexpr uint32_t watch_directory = 2;
inline constexpr uint32_t lost_directory = 3;
inline constexpr unsigned lost = 1;
inline constexpr unsigned modified = 2;
inline constexpr unsigned appeared = 4;
inline constexpr unsigned changed = 1;
inline constexpr unsigned removed = 2;

struct record {
    int watch_fd = -1;
    std::string file_name;
    std::string parent_dir;
    std::string full_path;
    uint32_t state = init;
    uint32_t inode = 0;
    unsigned events = 0;
    unsigned last_notify = removed;
    unsigned notify = 0;
    uint32_t flags = 0;
    int id = -1; // -1: nobody is called
};

// The text of an errno that no call has set is nobody's promise.
inline std::vector<std::string> without_stray_reasons(std::vector<std::string> lines)
{
    for (size_t i = 1; i < lines.size(); i++) {
        if (lines[i - 1].rfind("create_watch_fd: IS_NE", 0) == 0)
            lines[i] = lines[i].substr(0, lines[i].rfind(':'));
    }
    return lines;
}

class plain_watcher {
  public:
    std::vector<std::string> lines;
    std::vector<int> called;
    int fd = -1;

    plain_watcher() { fd = kernel_init(IN_NONBLOCK); }

    int include(const std::string &parent_dir, const std::string &name, uint32_t flags, int id)
    {
        if (lookup(parent_dir, name) != files_.size()) {
            errno = EEXIST;
            return -1;
        }
        record file;
        file.file_name = name;
        file.parent_dir = parent_dir;
        file.full_path = parent_dir + "/" + name;
        file.flags = flags;
        file.id = id;
        if (exists(file.full_path)) {
            file.events |= appeared;
            file.inode = inode(file.full_path);
            debug("<create_file:#> state INIT to WATCH_FILE (" + name + ")");
            file.state = watch_file;
        } else {
            file.events |= lost;
            file.inode = inode(file.parent_dir);
            debug("<create_file:#> state INIT to WATCH_DIRECTORY (" + name + ")");
            file.state = watch_directory;
        }
        files_.push_back(file);
        return 0;
    }

    int exclude(const std::string &parent_dir, const std::string &name)
    {
        const size_t place = lookup(parent_dir, name);
        if (place != files_.size()) {
            drop(files_[place]);
            files_.erase(files_.begin() + static_cast<long>(place));
        }
        return 0;
    }

    int restart()
    {
        for (record &file : files_) {
            drop(file);
            file.events = lost;
        }
        fd = kernel_init(IN_NONBLOCK);
        if (fd == -1)
            debug(std::string("<lh_inotify_restart> inotify_init1 failed: ") + strerror(errno));
        return fd;
    }

    int process()
    {
        check_inodes();
        if (read_events() != 0)
            return -1;
        for (record &file : files_)
            take_turn(file);
        return 0;
    }

    void free()
    {
        while (!files_.empty()) {
            drop(files_.front());
            files_.erase(files_.begin());
        }
    }

  private:
    std::vector<record> files_;

    static const char *name_of(uint32_t state)
    {
        const char *names[] = {"INIT", "WATCH_FILE", "WATCH_DIRECTORY", "LOST_DIRECTORY"};
        return names[state];
    }

    static uint32_t inode(const std::string &path)
    {
        struct stat st;
        return kernel_stat(path.c_str(), &st) == 0 ? static_cast<uint32_t>(st.st_ino) : 0;
    }

    static bool exists(const std::string &path) { return kernel_access(path.c_str(), F_OK) == 0; }

    void debug(const std::string &line) { lines.push_back("INOTIFY_DBG " + line); }

    size_t lookup(const std::string &parent_dir, const std::string &name) const
    {
        size_t place = 0;
        while (place < files_.size() &&
               (files_[place].file_name != name || files_[place].parent_dir != parent_dir))
            place++;
        return place;
    }

    void drop(record &file)
    {
        if (file.watch_fd < 0)
            return;
        int sharing = 0;
        for (const record &other : files_) {
            if (other.watch_fd == file.watch_fd)
                sharing++;
        }
        if (sharing < 2)
            kernel_rm_watch(fd, file.watch_fd);
        file.watch_fd = -1;
        file.inode = 0;
    }

    // Directories are another family's: it is asked on this watcher's kernel, and its lines count.
    bool create_directory(const std::string &path)
    {
        DIR *stream = kernel_opendir(path.c_str());
        if (stream != nullptr) {
            closedir(stream);
            return true;
        }
        lh_dir_lookup_opts opts = {};
        opts.flags = LH_DIR_DESCEND;
        const int result = lh_dir_create(path.c_str(), &opts, 0777);
        for (const std::string &line : take_lines())
            lines.push_back(line);
        return result == 0;
    }

    int arm(record &file)
    {
        if (file.watch_fd != -1) {
            lines.push_back("create_watch_fd: IS_NE check failed: file->watch_fd (" +
                            std::to_string(file.watch_fd) + " != -1) !!!");
            return -1;
        }
        std::string path = file.full_path;
        uint32_t mask = 0x8C02;
        int attempts = 3;
        if (file.state == watch_directory) {
            if ((file.flags & 1) != 0 && !create_directory(file.parent_dir)) {
                debug("<create_watch_fd> lh_dir_create failed");
                errno = EPERM;
                return -1;
            }
            path = file.parent_dir;
            mask = 0x20008180;
            attempts = 9;
        }
        for (int attempt = 1; attempt <= attempts; attempt++) {
            errno = 0;
            file.inode = inode(path);
            if (file.inode != 0) {
                file.watch_fd = kernel_add_watch(fd, path.c_str(), mask);
                if (file.watch_fd != -1)
                    return 0;
            }
            if (attempt < attempts)
                kernel_usleep(250000);
        }
        if (errno == EACCES) {
            struct stat st;
            errno = 0;
            if (kernel_stat(path.c_str(), &st) == 0) {
                std::ostringstream mode;
                mode << std::oct << st.st_mode;
                debug("<create_watch_fd> got EACCES, '" + path + "' mode is " + mode.str());
            } else {
                debug(std::string("<create_watch_fd> lh_file_get_mode failed ") + strerror(errno));
            }
            errno = EACCES;
        }
        return -1;
    }

    void check_inodes()
    {
        for (record &file : files_) {
            if (file.state != watch_file && file.state != watch_directory)
                continue;
            if (inode(file.state == watch_file ? file.full_path : file.parent_dir) == file.inode)
                continue;
            debug("<check_inode> inode has changed (" + file.file_name + ")");
            drop(file);
            file.events = lost;
        }
    }

    void mark(record &file, uint32_t mask)
    {
        file.events = 0;
        if ((mask & (IN_MODIFY | IN_MOVED_TO | IN_CREATE)) != 0)
            file.events = (mask & (IN_MOVED_TO | IN_CREATE)) != 0 ? appeared | modified : modified;
        else if ((mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0)
            file.events = lost;
        else
            debug("<read_inotify> unexpected events in mask 0x" + hex(mask));
    }

    int read_events()
    {
        for (int reads = 0; reads < 100; reads++) {
            char buffer[4112];
            const ssize_t length = kernel_read(fd, buffer, sizeof(buffer));
            if (length == 0 || (length == -1 && errno == EAGAIN))
                return 0;
            if (length == -1) {
                debug(std::string("<read_inotify> read failed: ") + strerror(errno));
                errno = EIO;
                return -1;
            }
            // What is not a whole event with a terminated name ends the buffer.
            for (ssize_t at = 0; length - at >= ssize_t(sizeof(inotify_event));) {
                inotify_event header;
                memcpy(&header, buffer + at, sizeof(header));
                const ssize_t name_at = at + ssize_t(sizeof(header));
                if (header.len > length - name_at ||
                    (header.len != 0 && memchr(buffer + name_at, '\0', header.len) == nullptr))
                    break;
                const std::string name = header.len != 0 ? buffer + name_at : "";
                for (record &file : files_) {
                    if (file.watch_fd != header.wd || (header.len != 0 && file.file_name != name))
                        continue;
                    mark(file, header.mask);
                    if (header.len != 0)
                        break;
                }
                at += static_cast<ssize_t>(sizeof(header) + header.len);
            }
        }
        return 0;
    }

    bool arm_again(record &file)
    {
        drop(file);
        if (arm(file) == 0)
            return true;
        debug(std::string("<inotify_state_loop:#> create_watch_fd failed: ") + strerror(errno));
        return false;
    }

    // What a step decided: the next state, or the end of the turn.
    static constexpr int end = -1;
    static constexpr int stop = -2;

    int step_in_directory(record &file, uint32_t from)
    {
        if (from == init)
            return stop;
        if ((file.events & lost) != 0) {
            if (!arm_again(file))
                return lost_directory;
            file.events &= ~lost;
            if (!exists(file.full_path))
                return end;
            file.events |= appeared;
            return watch_file;
        }
        if ((file.events & (appeared | modified)) != 0) {
            file.events |= appeared;
            return watch_file;
        }
        return stop;
    }

    int step_in_file(record &file, uint32_t from)
    {
        if (from == watch_file && (file.events & lost) != 0) {
            file.notify = removed;
            return watch_directory;
        }
        if ((from == watch_file || from == watch_directory) && (file.events & appeared) != 0) {
            file.events &= ~(from == watch_file ? appeared | modified : appeared);
            if (arm_again(file)) {
                file.events &= ~lost;
                file.notify = changed;
                return end;
            }
            file.events |= lost;
            file.notify = removed;
            return watch_directory;
        }
        if (from == watch_file && (file.events & modified) != 0) {
            file.events &= ~modified;
            file.notify = changed;
            return end;
        }
        return stop;
    }

    static int step_in_lost(const record &file, uint32_t from)
    {
        if (from == watch_file || from == watch_directory)
            return end;
        if (from == lost_directory && (file.events & lost) != 0)
            return watch_directory;
        return stop;
    }

    void take_steps(record &file)
    {
        uint32_t from = file.state;
        for (int steps = 0; steps < 100; steps++) {
            int next = stop;
            if (file.state == watch_directory)
                next = step_in_directory(file, from);
            else if (file.state == watch_file)
                next = step_in_file(file, from);
            else if (file.state == lost_directory)
                next = step_in_lost(file, from);
            if (next == end)
                return;
            if (next == stop)
                break;
            from = file.state;
            file.state = static_cast<uint32_t>(next);
        }
        debug("<inotify_state_loop> can't do state transition");
    }

    void take_turn(record &file)
    {
        const uint32_t start = file.state;
        if (file.events != 0)
            take_steps(file);
        if (file.state != start)
            debug(std::string("<inotify_state_loop> state ") + name_of(start) + " to " +
                  name_of(file.state) + " (" + file.file_name + ")");
        if (file.id != -1 &&
            (file.notify == changed || (file.notify == removed && file.last_notify != removed)))
            called.push_back(file.id);
        file.last_notify = file.notify;
        file.notify = 0;
    }
};

} // namespace vyt::test
